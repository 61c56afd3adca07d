#include "verifier/verifier.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>
#include <dlfcn.h>

// Of the sanitizers' run time, where it is linked: knows functions and lines.
extern "C" __attribute__((weak)) void __sanitizer_symbolize_pc(void* pc, const char* format, char* buffer,
                                                               std::size_t size);

namespace host {
namespace {

std::string Demangle(const char* name)
{
    int status = 0;
    char* const plain = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    std::string text = status == 0 ? plain : name;
    std::free(plain); // NOLINT(cppcoreguidelines-no-malloc)
    return text;
}

} // namespace

std::string SymbolOf(const void* address)
{
    std::array<char, 512> text{};
    if (__sanitizer_symbolize_pc != nullptr) {
        // A return address is one past the call.
        void* const call = const_cast<char*>(static_cast<const char*>(address) - 1);
        __sanitizer_symbolize_pc(call, "%f %S", text.data(), text.size());
        if (text[0] != '\0')
            return text.data();
    }
    Dl_info info{};
    if (dladdr(address, &info) == 0) {
        std::snprintf(text.data(), text.size(), "%p", address);
        return text.data();
    }
    const auto* const base =
        static_cast<const char*>(info.dli_sname != nullptr ? info.dli_saddr : info.dli_fbase);
    const std::string name = info.dli_sname != nullptr ? Demangle(info.dli_sname) : info.dli_fname;
    std::snprintf(text.data(), text.size(), "%s+0x%tx", name.c_str(),
                  static_cast<const char*>(address) - base);
    return text.data();
}

} // namespace host
