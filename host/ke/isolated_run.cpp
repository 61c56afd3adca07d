#include "ke/isolated_run.h"

#include "ke/os_threads.h"
#include "ke/parker.h"

#include <exception>
#include <memory>
#include <utility>

namespace host {

class IsolatedRun {
  public:
    Parker ended;
    bool abandoned = false;
    std::exception_ptr failure;
};

namespace {

thread_local IsolatedRun* t_run = nullptr;

} // namespace

bool RunIsolated(const std::function<void()>& scenario)
{
    // Abandoned threads never look at it again.
    const auto run = std::make_shared<IsolatedRun>();
    OsRun(
        [run, &scenario] {
            t_run = run.get();
            try {
                scenario();
            } catch (...) {
                run->failure = std::current_exception();
            }
            t_run = nullptr;
            run->ended.Post();
        },
        -1);
    run->ended.Wait();
    if (run->failure != nullptr)
        std::rethrow_exception(std::exchange(run->failure, nullptr));
    return !run->abandoned;
}

IsolatedRun* KiIsolatedRun()
{
    return t_run;
}

void KiAbandonRun(IsolatedRun& run)
{
    run.abandoned = true;
    run.ended.Post();
    OsSleepForever();
}

} // namespace host
