// Tests of navox.sys in Wine's kernel, in the words of Win32. All are in one program, rig_test.exe:
//
//   rig_test.exe all <folder with navox.inf> [scenario...]   installs bus and driver, runs the scenarios one after the
//                                                            other, each in a process of its own with a time limit
//   rig_test.exe run <scenario or role> [argument...]        what `all` and Child start
//
// To add a scenario, write in a file of tests/windows
//
//   SCENARIO(ReadsWhatIsSent)
//   {
//       Rig rig;
//       rig.Plug();
//       Port port("COM5");
//       ...
//       CHECK_EQ(port.Read(10), "...");
//   }
//
// A scenario begins with empty ports and fails with its first CHECK, an exception, at its time limit, or when the bus
// has found something wrong. What is to run in another process is a ROLE, started by Child.
#pragma once

#define NOMINMAX
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#include <winioctl.h>

#include "windows/rig/rig_control.h"

#include <cstdint>
#include <functional>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using Arguments = std::vector<std::string>;

// Registers a piece of a test under a name.
struct Piece {
    Piece(const char* name, bool scenario, void (*run)(const Arguments& arguments));

    struct Entry {
        bool scenario;
        void (*run)(const Arguments& arguments);
    };
    static std::map<std::string, Entry>& All();
};

#define SCENARIO(name)                                                                                       \
    static void name(const Arguments&);                                                                      \
    static const Piece g_##name(#name, true, name);                                                          \
    static void name([[maybe_unused]] const Arguments& arguments)
#define ROLE(name)                                                                                           \
    static void name(const Arguments&);                                                                      \
    static const Piece g_##name(#name, false, name);                                                         \
    static void name([[maybe_unused]] const Arguments& arguments)

[[noreturn]] void Fail(const char* file, int line, const std::string& text);

#define CHECK(condition)                                                                                     \
    do {                                                                                                     \
        if (!(condition))                                                                                    \
            Fail(__FILE__, __LINE__, #condition " (last error " + std::to_string(GetLastError()) + ")");     \
    } while (false)

template <class Actual, class Expected>
void CheckEqual(const Actual& actual, const Expected& expected, const char* text, const char* file, int line)
{
    if (actual == static_cast<Actual>(expected))
        return;
    const DWORD error = GetLastError();
    std::ostringstream out;
    out << text << " is " << actual << ", not " << expected << " (last error " << error << ")";
    Fail(file, line, out.str());
}

#define CHECK_EQ(actual, expected) CheckEqual(actual, expected, #actual, __FILE__, __LINE__)

inline constexpr DWORD kPatience = 20'000; // ms, for what must come

// Polls until `condition` holds; fails at the end of kPatience.
void WaitUntil(const char* what, const std::function<bool()>& condition);

// CreateFile for reading and writing; INVALID_HANDLE_VALUE with its last error when the driver refuses, which Wine
// keeps to itself.
HANDLE OpenPort(const std::string& name, DWORD flags = 0);

class Handle {
  public:
    explicit Handle(HANDLE handle = nullptr) : handle_(handle) {}
    ~Handle() { Close(); }
    Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    Handle& operator=(Handle&&) = delete;
    operator HANDLE() const { return handle_; }
    void Close();

  private:
    HANDLE handle_;
};

// The control device of the bus. Every routine that names a port fails when the bus refuses.
class Rig {
  public:
    Rig();

    // Returns when the driver has started the device and the port can be opened, COM5 or COM6.
    void Plug(const RigPlug& plug = {});
    void Unplug(unsigned port = 0);
    void WaitGone(unsigned port = 0); // the driver has let go of it
    void Release(unsigned port = 0);
    void Feed(const std::string& text, unsigned port = 0);
    RigCounters Counters(unsigned port = 0);
    long SendPnp(unsigned char minor, unsigned port = 0);                                // NTSTATUS
    long SendPower(unsigned char minor, bool system, unsigned state, unsigned port = 0); // NTSTATUS
    RigWmiAnswer SendWmi(const RigWmiRequest& request);
    void SuspendIdle(unsigned port = 0);
    // What the bus has found wrong so far; forgets it.
    std::vector<std::string> TakeFindings();
    void Empty(); // both ports

    static bool IsThere();

  private:
    static HANDLE Open();
    template <class In, class Out>
    bool Call(DWORD code, const In& in, Out* out);

    Handle device_;
};

// An open port. Its handle closes with it.
class Port {
  public:
    explicit Port(const std::string& name, DWORD flags = 0);

    HANDLE handle() const { return handle_; }
    void SetTimeouts(DWORD interval, DWORD multiplier, DWORD constant);
    // One synchronous ReadFile of `length` bytes.
    std::string Read(DWORD length);
    // Reads until so many bytes are there, with reads that wait for the first byte only.
    std::string ReadAll(std::size_t length);
    void Close() { handle_.Close(); }

  private:
    Handle handle_;
};

// A read in flight on a port that was opened with FILE_FLAG_OVERLAPPED. Must have ended before it goes.
class PendingRead {
  public:
    PendingRead(const Port& port, DWORD length);
    PendingRead(const PendingRead&) = delete;
    PendingRead& operator=(const PendingRead&) = delete;

    bool Ended() const { return WaitForSingleObject(event_, 0) == WAIT_OBJECT_0; }
    OVERLAPPED* overlapped() { return &overlapped_; }
    // Waits, at most kPatience. The error it ended with, at once or later; 0 for none.
    DWORD Wait();
    std::string data() const { return buffer_.substr(0, moved_); }

  private:
    HANDLE port_;
    Handle event_;
    OVERLAPPED overlapped_{};
    std::string buffer_;
    DWORD moved_ = 0;
    DWORD error_ = 0; // of ReadFile itself
};

// Another process that runs a role. Ends with this object at the latest.
class Child {
  public:
    Child(const std::string& role, const Arguments& arguments);
    Child(Child&&) = default;
    ~Child();

    void WaitReady(); // until it has called SignalReady
    void Expect(DWORD exit_code = 0);
    void Kill();

  private:
    Handle ready_;
    Handle process_;
};

void SignalReady(); // in a role

// The empty sentence that every fresh client finds.
inline const std::string kEmptySentence = "$GPGGA,,,,,,0,00,0.5,,M,,,,*00\r\n";

void Install(const std::string& folder);
