// The formatters that ntstrsafe.h is built on.
#include "rtl/format.h"

#include <algorithm>
#include <ntstrsafe.h>

namespace host {
namespace {

template <class Character>
int FormatInto(Character* buffer, size_t count, const Character* format, va_list list)
{
    RtlpArguments arguments(list);
    const auto text = RtlpFormatter<Character>::Format(format, arguments);
    std::copy_n(text.begin(), std::min(count, text.size()), buffer);
    if (text.size() > count)
        return -1;
    if (text.size() < count)
        buffer[text.size()] = 0;
    return static_cast<int>(text.size());
}

} // namespace
} // namespace host

extern "C" int NTAPI _vsnprintf(CHAR* Buffer, size_t Count, const CHAR* Format, va_list Arguments)
{
    return host::FormatInto(Buffer, Count, Format, Arguments);
}

extern "C" int NTAPI _vsnwprintf(WCHAR* Buffer, size_t Count, const WCHAR* Format, va_list Arguments)
{
    return host::FormatInto(Buffer, Count, Format, Arguments);
}
