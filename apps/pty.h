// A pseudo-terminal that stands for the port. While a program has it open there is one open handle of the
// port behind it; when the last program closes it, the handle is closed.
#pragma once

#include "apps/clients.h"

#include <array>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <memory>
#include <string>

namespace app {

class Pty {
  public:
    // `link` is made a symbolic link to the terminal, in the place of an older one. Throws UsageError.
    Pty(asio::io_context& io, Clients& clients, std::string link);
    ~Pty();
    Pty(const Pty&) = delete;
    Pty& operator=(const Pty&) = delete;

    const std::string& Link() const { return link_; }
    const std::string& Device() const { return device_; }

  private:
    void OpenMaster();
    void MakeLink() const;
    // Makes the terminal as fresh: raw, and rid of what an earlier program has left unread.
    void Refresh();
    void Watch();
    void Unwatch();
    void AwaitEvents();
    void OnEvents(std::size_t size);
    bool Occupied();
    void Join();
    void Leave();
    void AwaitInput();

    Clients& clients_;
    const std::string link_;
    std::string device_; // /dev/pts/...
    asio::posix::stream_descriptor master_;
    asio::posix::stream_descriptor events_; // inotify
    int watch_ = -1;
    int opens_ = 0; // as far as the events tell
    bool reading_ = false;
    std::shared_ptr<PortClient> client_;
    std::shared_ptr<void> here_ = std::make_shared<char>(); // what is called late finds it gone
    alignas(8) std::array<char, 4096> event_buffer_{};
    std::array<char, 4096> input_{};
};

} // namespace app
