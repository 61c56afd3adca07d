// Runs a fragment in a kernel of its own and collects what the verifier says, the audits at its end included.
#pragma once

#include "ke/isolated_run.h"
#include "ke/kernel.h"

#include <functional>
#include <string>
#include <vector>

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

inline LARGE_INTEGER Relative(Time time)
{
    LARGE_INTEGER due;
    due.QuadPart = -time;
    return due;
}

} // namespace host
