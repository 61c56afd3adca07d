// Where one operating-system thread sleeps until another wakes it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace host {

// A binary semaphore: a Post that comes before the Wait is remembered, a second one is not.
class Parker {
  public:
    void Post();
    void Wait();
    // False when nothing was posted until `deadline`.
    bool WaitUntil(std::chrono::steady_clock::time_point deadline);

  private:
    bool Take() { return posted_.exchange(0, std::memory_order_acquire) != 0; }

    std::atomic<std::uint32_t> posted_{0};
};

} // namespace host
