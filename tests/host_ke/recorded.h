// Runs a fragment in a kernel of its own and collects what the verifier says, the audits at its end included.
#pragma once

#include "ke/isolated_run.h"
#include "ke/kernel.h"

#include <functional>
#include <string>
#include <vector>
#include <wdm/ke.h>

namespace host {

inline std::vector<Finding> Record(KernelOptions options, const std::function<void(Kernel&)>& fragment)
{
    std::vector<Finding> findings;
    options.policy = Policy::Record;
    options.on_finding = [&findings](const Finding& finding) { findings.push_back(finding); };
    // A run that had to stop has reported why.
    (void)RunIsolated([&] {
        Kernel kernel(options);
        fragment(kernel);
    });
    return findings;
}

inline std::vector<Finding> Record(const std::function<void(Kernel&)>& fragment)
{
    return Record(KernelOptions{}, fragment);
}

// "RuleA RuleB", in order.
inline std::string RuleNames(const std::vector<Finding>& findings)
{
    std::string names;
    for (const Finding& finding : findings)
        names += (names.empty() ? "" : " ") + std::string(NameOf(finding.rule));
    return names;
}

struct TestEvent : KEVENT {
    explicit TestEvent(EVENT_TYPE type = NotificationEvent, bool set = false)
    {
        KeInitializeEvent(this, type, set ? TRUE : FALSE);
    }
    void Wait() { KeWaitForSingleObject(this, Executive, KernelMode, FALSE, nullptr); }
};

// Threads that do the same, to their ends.
inline void RunThreads(Kernel& kernel, int count, const std::function<void()>& body)
{
    std::vector<ThreadHandle> threads;
    threads.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
        threads.push_back(kernel.Spawn("thread " + std::to_string(i), body));
    for (ThreadHandle& thread : threads)
        thread.Join();
}

inline LARGE_INTEGER Relative(Time time)
{
    LARGE_INTEGER due;
    due.QuadPart = -time;
    return due;
}

} // namespace host
