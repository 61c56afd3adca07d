#include "ke/parker.h"

#include <cerrno>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace host {
namespace {

// The futex call itself: std::atomic's wait spins and yields first, which is the wrong thing on one
// processor.
long Futex(std::atomic<std::uint32_t>& word, int operation, std::uint32_t value, const timespec* deadline)
{
    return syscall(SYS_futex, &word, operation | FUTEX_PRIVATE_FLAG, value, deadline, nullptr,
                   FUTEX_BITSET_MATCH_ANY);
}

} // namespace

void Parker::Post()
{
    // The sleeper may go on, and free this object, as soon as the store is seen; the call below then wakes
    // nobody.
    if (posted_.exchange(1, std::memory_order_release) == 0)
        Futex(posted_, FUTEX_WAKE, 1, nullptr);
}

void Parker::Wait()
{
    while (!Take())
        Futex(posted_, FUTEX_WAIT, 0, nullptr);
}

bool Parker::WaitUntil(std::chrono::steady_clock::time_point deadline)
{
    // steady_clock is CLOCK_MONOTONIC, which is what an absolute FUTEX_WAIT_BITSET counts in.
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline.time_since_epoch()).count();
    const timespec until = {static_cast<time_t>(ns / 1'000'000'000), static_cast<long>(ns % 1'000'000'000)};
    while (!Take()) {
        if (Futex(posted_, FUTEX_WAIT_BITSET, 0, &until) == -1 && errno == ETIMEDOUT)
            return Take();
    }
    return true;
}

} // namespace host
