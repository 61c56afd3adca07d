// What the ports of libraries have in common: a user who closes them, and an account of what happened.
#pragma once

#include "tests/win32/comm.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace personalities {

using namespace win32;

inline constexpr DWORD kReadWrite = GENERIC_READ_ACCESS | GENERIC_WRITE_ACCESS;
inline constexpr std::string_view kPrefix = "\\\\.\\";

// A call that failed, and its error.
struct Failure {
    std::string call;
    DWORD error = 0;

    std::string Text() const { return "`" + call + "` fails with " + ErrorName(error); }
};

// Ends what a library is about: the opening, the running, or the closing.
class CallFailed : public std::exception {
  public:
    explicit CallFailed(Failure failed) : failure(std::move(failed)), text_(failure.Text()) {}
    const char* what() const noexcept override { return text_.c_str(); }

    const Failure failure;

  private:
    std::string text_;
};

// One use of a port, from the side of whoever uses the library.
class Session {
  public:
    explicit Session(std::string port_name) : port(std::move(port_name)) {}

    // The user wants the port closed.
    void Stop() { stopping_ = true; }
    bool Stopping() const { return stopping_; }
    // Until the call has ended. False: the user wants the port closed before that.
    bool Await(const Overlapped& overlapped) const;

    void Receive(const void* bytes, DWORD length);
    // Something that the library or its user sees, and would not see on other ports. Each once.
    void Notice(const std::string& what);
    void InputPurged() { purged_ = received.empty(); }

    const std::string port; // "COM5"
    std::string received;
    std::vector<std::string> notices;
    unsigned empty_reads = 0;

  private:
    std::atomic<bool> stopping_ = false;
    bool purged_ = false; // before anything was read
};

// A library's port. One object is one port, from its opening to its closing; the object's end closes the
// handle in any case.
class Library {
  public:
    explicit Library(Session& session) : session_(session) {}
    virtual ~Library() = default;
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    // Throw CallFailed where the library reports an error to its user.
    virtual void Open() = 0;
    virtual void Run() = 0; // reads until the session stops
    virtual void Close() { CloseHandle(port_); }

  protected:
    // The library checks this call.
    static void Must(const char* call, bool succeeded);
    // It ignores this one's failure.
    void May(const char* call, bool succeeded);

    void CreatePort(std::string_view prefix, DWORD access, DWORD flags);
    // An overlapped call of that outcome is over or under way.
    static void MustStart(const char* call, bool succeeded);
    // Waits for the call and gives the length of its data. Nothing: the user wants the port closed.
    std::optional<DWORD> MustFinish(const char* call, Overlapped& overlapped);
    DWORD QueuedBytes() const; // ClearCommError's
    // Reads the port's state, sets the line, makes the change, and sets all of it. Gives what was set.
    DCB Configure(DWORD baud_rate, const std::function<void(DCB&)>& change = {});
    void StartWait();
    // One overlapped read to its end, whatever the user wants meanwhile; gives its length. `end` is the call that fails
    // when it does.
    DWORD ReadOnce(const char* end, DWORD length);
    void ReadUntilStopped(DWORD length); // overlapped
    bool ReadNow(DWORD length);          // synchronous
    // FlushFileBuffers, which the library's user knows as `what`.
    void Flush(const std::string& what);

    Session& session_;
    Handle port_;
    DWORD events_ = 0;
    Overlapped wait_;
    Overlapped read_;
    std::array<char, 65'536> buffer_{};
};

// Of a DCB that a library starts from.
void SetLine(DCB& dcb, DWORD baud_rate); // 8 data bits, no parity, one stop bit, no flow control
void SetLines(DCB& dcb, DWORD dtr_control, DWORD rts_control);
void SetFlow(DCB& dcb, WORD xon_limit, WORD xoff_limit); // and the usual characters

} // namespace personalities
