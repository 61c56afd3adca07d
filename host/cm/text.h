// Text between the kernel's 16-bit strings and the UTF-8 of the host.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace host {

// Unpaired surrogates become U+FFFD.
std::string ToUtf8(std::u16string_view text);

// Nothing when `text` is not well-formed UTF-8.
std::optional<std::u16string> FromUtf8(std::string_view text);

// As FromUtf8, for text that the program itself wrote.
std::u16string Wide(std::string_view text);

// Names of keys, values and objects compare without regard to case: this is the form that is compared.
std::u16string FoldCase(std::u16string_view text);

bool SameName(std::u16string_view left, std::u16string_view right);

} // namespace host
