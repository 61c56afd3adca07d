// The kernel's own formatter: C's conversions and the platform's (%I64u, %ws, %S, %Z, %wZ). A conversion that
// it does not know is printed as it stands.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <wdm/rtl.h>

namespace host {

// The arguments of a variadic routine, in either calling convention.
class RtlpArguments {
  public:
    // why: inlined into a routine of the platform's convention, clang's va_copy copies one pointer only.
    explicit RtlpArguments(va_list list) { std::memcpy(list_, list, sizeof(list_)); }
    ~RtlpArguments() { va_end(list_); }
    RtlpArguments(const RtlpArguments&) = delete;
    RtlpArguments& operator=(const RtlpArguments&) = delete;

    template <class T>
    T Next()
    {
        return va_arg(list_, T);
    }

  private:
    va_list list_;
};

class RtlpPlatformArguments {
  public:
    explicit RtlpPlatformArguments(__builtin_ms_va_list list) { __builtin_ms_va_copy(list_, list); }
    ~RtlpPlatformArguments() { __builtin_ms_va_end(list_); }
    RtlpPlatformArguments(const RtlpPlatformArguments&) = delete;
    RtlpPlatformArguments& operator=(const RtlpPlatformArguments&) = delete;

    template <class T>
    T Next()
    {
        return va_arg(list_, T);
    }

  private:
    __builtin_ms_va_list list_;
};

// Narrow and wide strings hold each other's characters cut or widened: what is printed here is ASCII.
template <class Character>
class RtlpFormatter {
  public:
    // why: the C++ library has strings of wchar_t compiled in, with wider characters than the platform's.
    using Unit = std::conditional_t<sizeof(Character) == 1, char, char16_t>;
    using String = std::basic_string<Unit>;

    template <class Arguments>
    static String Format(const Character* format, Arguments& arguments)
    {
        RtlpFormatter formatter;
        while (*format != 0) {
            const Character* next = *format == '%' ? formatter.Convert(format, arguments) : nullptr;
            if (next == nullptr)
                formatter.out_.push_back(static_cast<Unit>(*format++));
            else
                format = next;
        }
        return std::move(formatter.out_);
    }

  private:
    struct Conversion {
        std::string flags;
        int width = 0;
        int precision = -1;
        enum { Int, Short, Long64, Pointer, Wide } size = Int;
        char type = 0;
    };

    // Prints the conversion at `format` and returns what follows it; null when it is none.
    template <class Arguments>
    const Character* Convert(const Character* format, Arguments& arguments)
    {
        Conversion conversion;
        const Character* p = ParseLayout(format + 1, conversion, arguments);
        p = ParseSize(p, conversion);
        conversion.type = static_cast<char>(*p);
        return Print(conversion, arguments) ? p + 1 : nullptr;
    }

    template <class Arguments>
    static const Character* ParseLayout(const Character* p, Conversion& conversion, Arguments& arguments)
    {
        while (*p == '-' || *p == '+' || *p == ' ' || *p == '#' || *p == '0')
            conversion.flags.push_back(static_cast<char>(*p++));
        p = ParseNumber(p, conversion.width, arguments);
        if (conversion.width < 0) {
            conversion.flags.push_back('-');
            conversion.width = -conversion.width;
        }
        if (*p == '.') {
            conversion.precision = 0;
            p = ParseNumber(p + 1, conversion.precision, arguments);
        }
        return p;
    }

    template <class Arguments>
    static const Character* ParseNumber(const Character* p, int& number, Arguments& arguments)
    {
        if (*p == '*') {
            number = arguments.template Next<int>();
            return p + 1;
        }
        for (; *p >= '0' && *p <= '9'; ++p)
            number = number < 100'000 ? number * 10 + (*p - '0') : number;
        return p;
    }

    static const Character* ParseSize(const Character* p, Conversion& conversion)
    {
        if (p[0] == 'I' && p[1] == '6' && p[2] == '4') {
            conversion.size = Conversion::Long64;
            return p + 3;
        }
        if (p[0] == 'I' && p[1] == '3' && p[2] == '2')
            return p + 3;
        if (p[0] == 'l' && p[1] == 'l') {
            conversion.size = Conversion::Long64;
            return p + 2;
        }
        switch (static_cast<char>(*p)) {
        case 'I':
        case 'z':
        case 't': conversion.size = Conversion::Long64; return p + 1;
        case 'h': conversion.size = Conversion::Short; return p + 1;
        case 'l': // a LONG has 32 bits; a string has wide characters
        case 'w': conversion.size = Conversion::Wide; return p + 1;
        default: return p;
        }
    }

    template <class Arguments>
    bool Print(Conversion& conversion, Arguments& arguments)
    {
        switch (conversion.type) {
        case '%': out_.push_back('%'); return true;
        case 'd':
        case 'i': PrintSigned(conversion, arguments); return true;
        case 'u':
        case 'x':
        case 'X':
        case 'o': PrintUnsigned(conversion, arguments); return true;
        case 'p': PrintPointer(arguments); return true;
        case 'c':
        case 'C':
            PrintText(conversion, String(1, static_cast<Unit>(arguments.template Next<int>())));
            return true;
        case 's':
        case 'S': PrintString(conversion, arguments); return true;
        case 'Z': PrintCounted(conversion, arguments); return true;
        default: return false;
        }
    }

    template <class Arguments>
    void PrintSigned(const Conversion& conversion, Arguments& arguments)
    {
        long long value = conversion.size == Conversion::Long64 ? arguments.template Next<long long>()
                                                                : arguments.template Next<int>();
        if (conversion.size == Conversion::Short)
            value = static_cast<short>(value);
        PrintNumber(conversion, value);
    }

    template <class Arguments>
    void PrintUnsigned(const Conversion& conversion, Arguments& arguments)
    {
        unsigned long long value = conversion.size == Conversion::Long64
                                       ? arguments.template Next<unsigned long long>()
                                       : arguments.template Next<unsigned>();
        if (conversion.size == Conversion::Short)
            value = static_cast<unsigned short>(value);
        PrintNumber(conversion, static_cast<long long>(value));
    }

    void PrintNumber(const Conversion& conversion, long long value)
    {
        const std::string precision =
            conversion.precision < 0 ? "" : "." + std::to_string(conversion.precision);
        const std::string width = conversion.width == 0 ? "" : std::to_string(conversion.width);
        const std::string format = "%" + conversion.flags + width + precision + "ll" + conversion.type;
        const int length = std::snprintf(nullptr, 0, format.c_str(), value);
        std::string text(static_cast<std::size_t>(length) + 1, '\0');
        std::snprintf(text.data(), text.size(), format.c_str(), value);
        text.pop_back();
        out_.append(text.begin(), text.end());
    }

    template <class Arguments>
    void PrintPointer(Arguments& arguments)
    {
        char text[17];
        std::snprintf(text, sizeof(text), "%016llX",
                      static_cast<unsigned long long>(
                          reinterpret_cast<std::uintptr_t>(arguments.template Next<void*>())));
        out_.append(text, text + 16);
    }

    // %s is of the format's own characters, %S of the other ones; a size says which.
    template <class Arguments>
    void PrintString(const Conversion& conversion, Arguments& arguments)
    {
        bool wide = (sizeof(Character) == sizeof(WCHAR)) == (conversion.type == 's');
        if (conversion.size == Conversion::Wide)
            wide = true;
        else if (conversion.size == Conversion::Short)
            wide = false;
        if (wide)
            PrintZeroTerminated(conversion, arguments.template Next<const WCHAR*>());
        else
            PrintZeroTerminated(conversion, arguments.template Next<const char*>());
    }

    template <class Source>
    void PrintZeroTerminated(const Conversion& conversion, const Source* text)
    {
        String converted;
        if (text == nullptr) {
            constexpr std::string_view null = "(null)";
            converted.assign(null.begin(), null.end());
        } else {
            for (int i = 0; (conversion.precision < 0 || i < conversion.precision) && text[i] != 0; ++i)
                converted.push_back(static_cast<Unit>(text[i]));
        }
        PrintText(conversion, converted);
    }

    template <class Arguments>
    void PrintCounted(const Conversion& conversion, Arguments& arguments)
    {
        String converted;
        if (conversion.size == Conversion::Wide) {
            if (const auto* string = arguments.template Next<const UNICODE_STRING*>())
                for (unsigned i = 0; i < string->Length / sizeof(WCHAR); ++i)
                    converted.push_back(static_cast<Unit>(string->Buffer[i]));
        } else if (const auto* string = arguments.template Next<const ANSI_STRING*>()) {
            for (unsigned i = 0; i < string->Length; ++i)
                converted.push_back(static_cast<Unit>(string->Buffer[i]));
        }
        PrintText(conversion, converted);
    }

    void PrintText(const Conversion& conversion, const String& text)
    {
        const auto width = static_cast<std::size_t>(conversion.width);
        const String padding(width > text.size() ? width - text.size() : 0, ' ');
        const bool left = conversion.flags.find('-') != std::string::npos;
        out_ += left ? text + padding : padding + text;
    }

    String out_;
};

} // namespace host
