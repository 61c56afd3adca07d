// Counted strings, as the platform handles them: lengths in bytes, no terminator counted, nothing allocated
// unless the name says so.
#include "verifier/verifier.h"

#include <algorithm>
#include <wdm/ex.h>
#include <wdm/rtl.h>

namespace {

constexpr ULONG kStringTag = 'S' | 't' << 8 | 'r' << 16 | 'g' << 24;

USHORT CharactersOf(PCUNICODE_STRING string)
{
    return static_cast<USHORT>(string->Length / sizeof(WCHAR));
}

// Latin capitals are enough for the names that drivers compare.
WCHAR Upcase(WCHAR c)
{
    return c >= L'a' && c <= L'z' ? static_cast<WCHAR>(c - (L'a' - L'A')) : c;
}

NTSTATUS Append(PUNICODE_STRING destination, const WCHAR* source, ULONG bytes)
{
    if (destination->Length + bytes > destination->MaximumLength)
        return STATUS_BUFFER_TOO_SMALL;
    WCHAR* end = destination->Buffer + CharactersOf(destination);
    if (bytes != 0)
        RtlMoveMemory(end, source, bytes);
    destination->Length = static_cast<USHORT>(destination->Length + bytes);
    if (destination->Length + sizeof(WCHAR) <= destination->MaximumLength)
        end[bytes / sizeof(WCHAR)] = 0;
    return STATUS_SUCCESS;
}

ULONG LengthOf(PCWSTR text)
{
    ULONG length = 0;
    while (text != nullptr && text[length] != 0)
        ++length;
    return length;
}

// The value of a digit, or 255.
unsigned DigitOf(WCHAR c)
{
    const WCHAR upper = Upcase(c);
    if (upper >= L'0' && upper <= L'9')
        return static_cast<unsigned>(upper - L'0');
    return upper >= L'A' && upper <= L'F' ? static_cast<unsigned>(upper - L'A') + 10 : 255;
}

} // namespace

extern "C" {

VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString)
{
    constexpr ULONG most = 0xFFFE - sizeof(WCHAR);
    const auto bytes = std::min<ULONG>(LengthOf(SourceString) * sizeof(WCHAR), most);
    DestinationString->Buffer = const_cast<PWSTR>(SourceString);
    DestinationString->Length = static_cast<USHORT>(bytes);
    DestinationString->MaximumLength =
        static_cast<USHORT>(SourceString == nullptr ? 0 : bytes + sizeof(WCHAR));
}

VOID NTAPI RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString)
{
    const auto bytes = SourceString == nullptr ? 0 : std::min<size_t>(std::strlen(SourceString), 0xFFFE);
    DestinationString->Buffer = const_cast<PCHAR>(SourceString);
    DestinationString->Length = static_cast<USHORT>(bytes);
    DestinationString->MaximumLength = static_cast<USHORT>(SourceString == nullptr ? 0 : bytes + 1);
}

VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString)
{
    DestinationString->Length = 0;
    if (SourceString != nullptr)
        Append(DestinationString, SourceString->Buffer,
               std::min<ULONG>(SourceString->Length, DestinationString->MaximumLength));
}

NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source)
{
    return Append(Destination, Source->Buffer, Source->Length);
}

NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source)
{
    return Append(Destination, Source, LengthOf(Source) * static_cast<ULONG>(sizeof(WCHAR)));
}

LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                   BOOLEAN CaseInSensitive)
{
    const unsigned common = std::min(CharactersOf(String1), CharactersOf(String2));
    for (unsigned i = 0; i < common; ++i) {
        const WCHAR a = CaseInSensitive ? Upcase(String1->Buffer[i]) : String1->Buffer[i];
        const WCHAR b = CaseInSensitive ? Upcase(String2->Buffer[i]) : String2->Buffer[i];
        if (a != b)
            return static_cast<LONG>(a) - static_cast<LONG>(b);
    }
    return static_cast<LONG>(String1->Length) - static_cast<LONG>(String2->Length);
}

BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                    BOOLEAN CaseInSensitive)
{
    return String1->Length == String2->Length &&
           RtlCompareUnicodeString(String1, String2, CaseInSensitive) == 0;
}

// Leading blanks and one sign are skipped; with base 0 a prefix 0x, 0o or 0b chooses. Stops at the first
// character that is no digit; no digit at all gives 0.
NTSTATUS NTAPI RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value)
{
    host::VfRequireIrqlAtMost(PASSIVE_LEVEL, host::Rule::IrqlPassive, "RtlUnicodeStringToInteger",
                              __builtin_return_address(0));
    const WCHAR* p = String->Buffer;
    const WCHAR* end = p + CharactersOf(String);
    while (p != end && *p <= L' ')
        ++p;
    const bool negative = p != end && *p == L'-';
    if (p != end && (*p == L'-' || *p == L'+'))
        ++p;
    if (Base == 0) {
        Base = 10;
        if (end - p >= 2 && p[0] == L'0') {
            Base = p[1] == L'x' ? 16 : p[1] == L'o' ? 8 : p[1] == L'b' ? 2 : 10;
            p += Base == 10 ? 0 : 2;
        }
    } else if (Base != 2 && Base != 8 && Base != 10 && Base != 16) {
        return STATUS_INVALID_PARAMETER;
    }
    ULONG value = 0;
    for (; p != end && DigitOf(*p) < Base; ++p)
        value = value * Base + DigitOf(*p);
    *Value = negative ? 0 - value : value;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String)
{
    const ULONG base = Base == 0 ? 10 : Base;
    if (base != 2 && base != 8 && base != 10 && base != 16)
        return STATUS_INVALID_PARAMETER;
    WCHAR digits[33];
    WCHAR* first = digits + 32;
    *first = 0;
    do {
        *--first = static_cast<WCHAR>("0123456789ABCDEF"[Value % base]);
        Value /= base;
    } while (Value != 0);
    String->Length = 0;
    const NTSTATUS status = RtlAppendUnicodeToString(String, first);
    return NT_SUCCESS(status) ? status : STATUS_BUFFER_OVERFLOW;
}

NTSTATUS NTAPI RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, PCANSI_STRING SourceString,
                                            BOOLEAN AllocateDestinationString)
{
    const ULONG bytes = SourceString->Length * static_cast<ULONG>(sizeof(WCHAR));
    if (bytes + sizeof(WCHAR) > 0xFFFF)
        return STATUS_INVALID_PARAMETER_2;
    if (AllocateDestinationString) {
        DestinationString->MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
        DestinationString->Buffer = static_cast<PWSTR>(
            ExAllocatePoolWithTag(PagedPool, DestinationString->MaximumLength, kStringTag));
        if (DestinationString->Buffer == nullptr)
            return STATUS_NO_MEMORY;
    } else if (bytes + sizeof(WCHAR) > DestinationString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (unsigned i = 0; i < SourceString->Length; ++i)
        DestinationString->Buffer[i] = static_cast<unsigned char>(SourceString->Buffer[i]);
    DestinationString->Buffer[SourceString->Length] = 0;
    DestinationString->Length = static_cast<USHORT>(bytes);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString, PCUNICODE_STRING SourceString,
                                            BOOLEAN AllocateDestinationString)
{
    const USHORT characters = CharactersOf(SourceString);
    if (AllocateDestinationString) {
        DestinationString->MaximumLength = static_cast<USHORT>(characters + 1);
        DestinationString->Buffer = static_cast<PCHAR>(
            ExAllocatePoolWithTag(PagedPool, DestinationString->MaximumLength, kStringTag));
        if (DestinationString->Buffer == nullptr)
            return STATUS_NO_MEMORY;
    } else if (characters + 1 > DestinationString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (unsigned i = 0; i < characters; ++i)
        DestinationString->Buffer[i] =
            SourceString->Buffer[i] < 0x100 ? static_cast<CHAR>(SourceString->Buffer[i]) : '?';
    DestinationString->Buffer[characters] = 0;
    DestinationString->Length = characters;
    return STATUS_SUCCESS;
}

VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString)
{
    if (UnicodeString->Buffer != nullptr)
        ExFreePool(UnicodeString->Buffer);
    *UnicodeString = {};
}

VOID NTAPI RtlFreeAnsiString(PANSI_STRING AnsiString)
{
    if (AnsiString->Buffer != nullptr)
        ExFreePool(AnsiString->Buffer);
    *AnsiString = {};
}

SIZE_T NTAPI RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length)
{
    const auto* a = static_cast<const UCHAR*>(Source1);
    const auto* b = static_cast<const UCHAR*>(Source2);
    SIZE_T equal = 0;
    while (equal < Length && a[equal] == b[equal])
        ++equal;
    return equal;
}

} // extern "C"
