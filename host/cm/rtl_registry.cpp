// The Rtl routines that read and write the registry by a path below a well-known key.
#include "cm/configuration_manager.h"
#include "cm/text.h"

#include <wdm/rtl.h>
#include <wdm/zw.h>

namespace host {
namespace {

std::u16string TextOf(PCWSTR text)
{
    std::u16string out;
    for (; text != nullptr && *text != 0; ++text)
        out += static_cast<char16_t>(*text);
    return out;
}

// The key that `relative_to` and `path` name. Only the last key of the path is made.
NTSTATUS FindKey(ULONG relative_to, PCWSTR path, bool create, CmKeyPtr* key)
{
    constexpr std::u16string_view kBases[] = {
        u"",
        u"\\Registry\\Machine\\System\\CurrentControlSet\\Services",
        u"\\Registry\\Machine\\System\\CurrentControlSet\\Control",
        u"\\Registry\\Machine\\Software\\Microsoft\\Windows NT\\CurrentVersion",
        u"\\Registry\\Machine\\Hardware\\DeviceMap",
        u"\\Registry\\User\\.Default",
    };
    if ((relative_to & RTL_REGISTRY_HANDLE) != 0) {
        // The path argument is the handle itself.
        const HANDLE handle = const_cast<PWSTR>(path);
        auto body = Kernel::Current().Get<ObHandleTable>().Find<CmKeyHandle>(handle);
        *key = body ? body->key : nullptr;
        return body ? STATUS_SUCCESS : STATUS_INVALID_HANDLE;
    }
    const ULONG base = relative_to & ~RTL_REGISTRY_OPTIONAL;
    if (base >= std::size(kBases))
        return STATUS_INVALID_PARAMETER;
    CmRegistry& registry = ConfigurationManager::Current().Registry();
    std::u16string full(kBases[base]);
    if (path != nullptr && *path != 0)
        full += (full.empty() ? u"" : u"\\") + TextOf(path);
    const bool parent_exists = registry.Open(full.substr(0, full.find_last_of(u'\\'))) != nullptr;
    *key = create && parent_exists ? registry.Create(full) : registry.Open(full);
    return *key ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
}

} // namespace
} // namespace host

using namespace host;

extern "C" {

NTSTATUS NTAPI RtlWriteRegistryValue(ULONG RelativeTo, PCWSTR Path, PCWSTR ValueName, ULONG ValueType,
                                     PVOID ValueData, ULONG ValueLength)
{
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "RtlWriteRegistryValue",
                        __builtin_return_address(0));
    NTSTATUS status = STATUS_SUCCESS;
    if (CmpFaultHit("RtlWriteRegistryValue", &status))
        return status;
    CmKeyPtr key;
    status = FindKey(RelativeTo, Path, true, &key);
    if (!NT_SUCCESS(status))
        return status;
    const std::span data(static_cast<const std::byte*>(ValueData), ValueLength);
    const bool set =
        ConfigurationManager::Current().Registry().SetValue(key, TextOf(ValueName), ValueType, data);
    if (set)
        CmpLogChange(TextOf(ValueName), ValueType, data);
    return set ? STATUS_SUCCESS : STATUS_KEY_DELETED;
}

NTSTATUS NTAPI RtlDeleteRegistryValue(ULONG RelativeTo, PCWSTR Path, PCWSTR ValueName)
{
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "RtlDeleteRegistryValue",
                        __builtin_return_address(0));
    NTSTATUS status = STATUS_SUCCESS;
    if (CmpFaultHit("RtlDeleteRegistryValue", &status))
        return status;
    CmKeyPtr key;
    status = FindKey(RelativeTo, Path, false, &key);
    if (!NT_SUCCESS(status))
        return status;
    const bool deleted = ConfigurationManager::Current().Registry().DeleteValue(key, TextOf(ValueName));
    if (deleted)
        CmpLogChange(TextOf(ValueName), 0, std::nullopt);
    return deleted ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
}

} // extern "C"
