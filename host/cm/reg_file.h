// Registry text files (.reg, version 5.00): UTF-16LE as the registry editor writes them, or UTF-8.
#pragma once

#include "cm/registry.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace host {

struct CmRegError {
    std::size_t line = 0; // 1 for the first; 0 when the fault is not in a line (the file cannot be read)
    std::string message;

    std::string Text() const;
};

enum class CmRegEncoding { Utf16, Utf8 };

// Applies a .reg text to `registry`: keys, values and deletions, in the order of the text. A text with
// an error changes nothing.
std::optional<CmRegError> CmLoadRegText(CmRegistry& registry, std::string_view bytes);
std::optional<CmRegError> CmLoadRegFile(CmRegistry& registry, const std::filesystem::path& file);

// The key `path` and all below it as a .reg text. Empty when there is no such key.
std::string CmSaveRegText(const CmRegistry& registry, std::u16string_view path,
                          CmRegEncoding encoding = CmRegEncoding::Utf16);
// Replaces `file` in one step: a failed write leaves what was there.
std::optional<CmRegError> CmSaveRegFile(const CmRegistry& registry, std::u16string_view path,
                                        const std::filesystem::path& file,
                                        CmRegEncoding encoding = CmRegEncoding::Utf16);

} // namespace host
