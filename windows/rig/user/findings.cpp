#include "windows/rig/user/rig_user.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kKept = 100;

std::mutex g_mutex;
std::vector<std::string> g_findings; // each once

} // namespace

void RigReport(const char* format, ...)
{
    char text[sizeof(RigFindingText::text)];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const std::lock_guard lock(g_mutex);
    if (g_findings.size() < kKept &&
        std::find(g_findings.begin(), g_findings.end(), text) == g_findings.end())
        g_findings.emplace_back(text);
}

unsigned RigFindings()
{
    const std::lock_guard lock(g_mutex);
    return static_cast<unsigned>(g_findings.size());
}

int RigFinding(unsigned n, char* text, unsigned size)
{
    const std::lock_guard lock(g_mutex);
    if (n >= g_findings.size())
        return 0;
    std::snprintf(text, size, "%s", g_findings[n].c_str());
    return 1;
}

void RigForgetFindings()
{
    const std::lock_guard lock(g_mutex);
    g_findings.clear();
}
