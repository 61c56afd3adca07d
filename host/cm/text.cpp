#include "cm/text.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace host {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool IsHigh(char16_t unit)
{
    return unit >= 0xD800 && unit <= 0xDBFF;
}
bool IsLow(char16_t unit)
{
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

void AppendUtf8(std::string& out, char32_t point)
{
    if (point < 0x80) {
        out += static_cast<char>(point);
    } else if (point < 0x800) {
        out += static_cast<char>(0xC0 | (point >> 6));
        out += static_cast<char>(0x80 | (point & 0x3F));
    } else if (point < 0x10000) {
        out += static_cast<char>(0xE0 | (point >> 12));
        out += static_cast<char>(0x80 | ((point >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (point & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (point >> 18));
        out += static_cast<char>(0x80 | ((point >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((point >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (point & 0x3F));
    }
}

void AppendUtf16(std::u16string& out, char32_t point)
{
    if (point < 0x10000) {
        out += static_cast<char16_t>(point);
    } else {
        point -= 0x10000;
        out += static_cast<char16_t>(0xD800 + (point >> 10));
        out += static_cast<char16_t>(0xDC00 + (point & 0x3FF));
    }
}

// The length of the sequence that `lead` opens, 0 if it opens none.
std::size_t SequenceLength(unsigned char lead)
{
    if (lead < 0x80) {
        return 1;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
        return 2;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        return 3;
    }
    return lead >= 0xF0 && lead <= 0xF4 ? 4 : 0;
}

std::optional<char32_t> DecodeSequence(std::string_view bytes)
{
    constexpr char32_t kLeadMask[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
    constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    char32_t point = static_cast<unsigned char>(bytes[0]) & kLeadMask[bytes.size()];
    for (char c : bytes.substr(1)) {
        auto byte = static_cast<unsigned char>(c);
        if ((byte & 0xC0) != 0x80) {
            return std::nullopt;
        }
        point = (point << 6) | (byte & 0x3F);
    }
    bool surrogate = point >= 0xD800 && point <= 0xDFFF;
    if (point < kLeast[bytes.size()] || point > 0x10FFFF || surrogate) {
        return std::nullopt;
    }
    return point;
}

} // namespace

std::string ToUtf8(std::u16string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t point = text[i];
        if (IsHigh(text[i]) && i + 1 < text.size() && IsLow(text[i + 1])) {
            point = 0x10000 + ((point - 0xD800) << 10) + (text[++i] - 0xDC00U);
        } else if (IsHigh(text[i]) || IsLow(text[i])) {
            point = kReplacement;
        }
        AppendUtf8(out, point);
    }
    return out;
}

std::optional<std::u16string> FromUtf8(std::string_view text)
{
    std::u16string out;
    out.reserve(text.size());
    while (!text.empty()) {
        std::size_t length = SequenceLength(static_cast<unsigned char>(text[0]));
        if (length == 0 || length > text.size()) {
            return std::nullopt;
        }
        std::optional<char32_t> point = DecodeSequence(text.substr(0, length));
        if (!point) {
            return std::nullopt;
        }
        AppendUtf16(out, *point);
        text.remove_prefix(length);
    }
    return out;
}

std::u16string Wide(std::string_view text)
{
    return FromUtf8(text).value_or(std::u16string());
}

static char16_t FoldCase(char16_t c)
{
    const bool latin1 = c >= 0xE0 && c <= 0xFE && c != 0xF7;
    const bool greek = c >= 0x3B1 && c <= 0x3C9 && c != 0x3C2;
    const bool cyrillic = c >= 0x430 && c <= 0x44F;
    const bool lower = (c >= u'a' && c <= u'z') || latin1 || greek || cyrillic;
    return lower ? static_cast<char16_t>(c - 0x20) : c;
}

std::u16string FoldCase(std::u16string_view text)
{
    std::u16string out(text);
    for (char16_t& c : out)
        c = FoldCase(c);
    return out;
}

bool SameName(std::u16string_view left, std::u16string_view right)
{
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char16_t a, char16_t b) { return FoldCase(a) == FoldCase(b); });
}

} // namespace host
