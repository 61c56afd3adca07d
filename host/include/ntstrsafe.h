// String routines that know how large the destination is. Cb sizes are bytes, Cch sizes characters,
// both with the terminator; a result that does not fit is cut, terminated, and reported with
// STATUS_BUFFER_OVERFLOW.
#pragma once
#include <cstdarg>
#include <ntdef.h>
#include <ntstatus.h>

#define NTSTRSAFE_MAX_CCH 2147483647

typedef CHAR* NTSTRSAFE_PSTR;
typedef const CHAR* NTSTRSAFE_PCSTR;
typedef const WCHAR* NTSTRSAFE_PCWSTR;

extern "C" {

// The kernel's formatters: the platform's conversions (%I64u, %wZ, %ws). At most `Count` characters
// are written; the result is their number, or -1 when there were more. Not terminated when full.
int NTAPI _vsnprintf(CHAR* Buffer, size_t Count, const CHAR* Format, va_list Arguments);
int NTAPI _vsnwprintf(WCHAR* Buffer, size_t Count, const WCHAR* Format, va_list Arguments);

} // extern "C"

namespace ntstrsafe {

template <class Character>
inline size_t Length(const Character* text, size_t limit)
{
    size_t length = 0;
    while (length < limit && text[length] != 0)
        ++length;
    return length;
}

/// Appends to the `used` characters already in `destination` of `size` characters.
template <class Character>
inline NTSTATUS Append(Character* destination, size_t size, size_t used, const Character* source,
                       size_t sourceLimit)
{
    if (size == 0 || size > NTSTRSAFE_MAX_CCH || used >= size)
        return STATUS_INVALID_PARAMETER;
    size_t i = 0;
    for (; i < sourceLimit && source[i] != 0; ++i) {
        if (used + i + 1 == size) {
            destination[size - 1] = 0;
            return STATUS_BUFFER_OVERFLOW;
        }
        destination[used + i] = source[i];
    }
    destination[used + i] = 0;
    return STATUS_SUCCESS;
}

inline int Format(CHAR* destination, size_t count, const CHAR* format, va_list arguments)
{
    return _vsnprintf(destination, count, format, arguments);
}

inline int Format(WCHAR* destination, size_t count, const WCHAR* format, va_list arguments)
{
    return _vsnwprintf(destination, count, format, arguments);
}

template <class Character>
inline NTSTATUS Print(Character* destination, size_t size, const Character* format, va_list arguments)
{
    if (size == 0 || size > NTSTRSAFE_MAX_CCH)
        return STATUS_INVALID_PARAMETER;
    const int written = Format(destination, size - 1, format, arguments);
    const bool fits = written >= 0 && static_cast<size_t>(written) < size;
    destination[fits ? static_cast<size_t>(written) : size - 1] = 0;
    return fits ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

} // namespace ntstrsafe

#define NTSTRSAFE_FAMILY(Unit, Suffix, Character, unitSize)                                                  \
    inline NTSTATUS RtlString##Unit##Copy##Suffix(Character* Dest, size_t Size, const Character* Src)        \
    {                                                                                                        \
        return ntstrsafe::Append(Dest, Size / (unitSize), 0, Src, NTSTRSAFE_MAX_CCH);                        \
    }                                                                                                        \
    inline NTSTATUS RtlString##Unit##CopyN##Suffix(Character* Dest, size_t Size, const Character* Src,       \
                                                   size_t ToCopy)                                            \
    {                                                                                                        \
        return ntstrsafe::Append(Dest, Size / (unitSize), 0, Src, ToCopy / (unitSize));                      \
    }                                                                                                        \
    inline NTSTATUS RtlString##Unit##Cat##Suffix(Character* Dest, size_t Size, const Character* Src)         \
    {                                                                                                        \
        const size_t used = ntstrsafe::Length(Dest, Size / (unitSize));                                      \
        return ntstrsafe::Append(Dest, Size / (unitSize), used, Src, NTSTRSAFE_MAX_CCH);                     \
    }                                                                                                        \
    inline NTSTATUS RtlString##Unit##VPrintf##Suffix(Character* Dest, size_t Size, const Character* Format,  \
                                                     va_list Arguments)                                      \
    {                                                                                                        \
        return ntstrsafe::Print(Dest, Size / (unitSize), Format, Arguments);                                 \
    }                                                                                                        \
    inline NTSTATUS RtlString##Unit##Printf##Suffix(Character* Dest, size_t Size, const Character* Format,   \
                                                    ...)                                                     \
    {                                                                                                        \
        va_list arguments;                                                                                   \
        va_start(arguments, Format);                                                                         \
        const NTSTATUS status = ntstrsafe::Print(Dest, Size / (unitSize), Format, arguments);                \
        va_end(arguments);                                                                                   \
        return status;                                                                                       \
    }                                                                                                        \
    inline NTSTATUS RtlString##Unit##Length##Suffix(const Character* Text, size_t Max, size_t* Length)       \
    {                                                                                                        \
        const size_t length = ntstrsafe::Length(Text, Max / (unitSize));                                     \
        const bool found = length < Max / (unitSize);                                                        \
        if (Length != nullptr)                                                                               \
            *Length = found ? length * (unitSize) : 0;                                                       \
        return found ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;                                            \
    }
NTSTRSAFE_FAMILY(Cb, A, CHAR, sizeof(CHAR))
NTSTRSAFE_FAMILY(Cb, W, WCHAR, sizeof(WCHAR))
NTSTRSAFE_FAMILY(Cch, A, CHAR, 1)
NTSTRSAFE_FAMILY(Cch, W, WCHAR, 1)
#undef NTSTRSAFE_FAMILY
