#include "ke/kernel_impl.h"

#include <utility>

namespace host {

void DebugPrintLines::Add(std::string line)
{
    const MutexLock lock(mutex_);
    lines_.push_back(std::move(line));
}

std::vector<std::string> DebugPrintLines::Lines() const
{
    const MutexLock lock(mutex_);
    return lines_;
}

} // namespace host
