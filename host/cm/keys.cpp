// The Zw routines of the registry.
#include "cm/configuration_manager.h"
#include "cm/text.h"

#include <algorithm>
#include <cstring>
#include <wdm/zw.h>

namespace host {

std::string CmKeyHandle::Describe() const
{
    return "key " + ToUtf8(ConfigurationManager::Current().Registry().Path(key));
}

NTSTATUS CmpOpenKeyHandle(std::u16string_view path, bool create, HANDLE* handle)
{
    CmRegistry& registry = ConfigurationManager::Current().Registry();
    CmKeyPtr key = create ? registry.Create(path) : registry.Open(path);
    if (!key)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    *handle = Kernel::Current().Get<ObHandleTable>().Insert(std::make_shared<CmKeyHandle>(std::move(key)));
    return STATUS_SUCCESS;
}

bool CmpFaultHit(const char* routine, NTSTATUS* status)
{
    const std::optional<Fault> fault = Kernel::Current().Faults().Hit(FaultPoint::RegistryCall, routine);
    if (!fault)
        return false;
    *status = fault->status != 0 ? fault->status : STATUS_INSUFFICIENT_RESOURCES;
    return true;
}

void CmpLogChange(std::u16string_view name, std::uint32_t type,
                  std::optional<std::span<const std::byte>> data)
{
    EventLog& log = Kernel::Current().Log();
    if (!data) {
        log.Instant("registry", "value deleted", ToUtf8(name));
        return;
    }
    const CmWrite change{CmWrite::Kind::SetValue, {}, {}, type, {data->begin(), data->end()}};
    const std::optional<std::uint32_t> number = change.Dword();
    const std::string value = number ? std::to_string(*number) : change.Text().value_or("...");
    log.Instant("registry", "value set", ToUtf8(name) + " = " + value);
}

namespace {

CmKeyPtr KeyOf(HANDLE handle)
{
    auto body = Kernel::Current().Get<ObHandleTable>().Find<CmKeyHandle>(handle);
    return body ? body->key : nullptr;
}

// The name in a counted string; nothing when the string is malformed.
std::optional<std::u16string> NameOf(const UNICODE_STRING* text, const char* routine, const void* caller)
{
    if (text == nullptr || text->Length == 0)
        return std::u16string();
    if (text->Length % sizeof(WCHAR) != 0 || text->Length > text->MaximumLength || text->Buffer == nullptr) {
        VfReport(Rule::MalformedString, routine, std::string(routine) + " was given a malformed string",
                 caller);
        return std::nullopt;
    }
    return std::u16string(text->Buffer, text->Buffer + text->Length / sizeof(WCHAR));
}

struct Target {
    CmKeyPtr parent; // null: the path is absolute
    std::u16string path;
};

NTSTATUS TargetOf(const OBJECT_ATTRIBUTES* attributes, const char* routine, const void* caller,
                  Target* target)
{
    std::optional<std::u16string> name = NameOf(attributes->ObjectName, routine, caller);
    if (!name)
        return STATUS_OBJECT_NAME_INVALID;
    target->path = std::move(*name);
    if (attributes->RootDirectory != nullptr) {
        target->parent = KeyOf(attributes->RootDirectory);
        return target->parent ? STATUS_SUCCESS : STATUS_INVALID_HANDLE;
    }
    return target->path.starts_with(u'\\') ? STATUS_SUCCESS : STATUS_OBJECT_PATH_SYNTAX_BAD;
}

CmKeyPtr OpenTarget(const Target& target)
{
    CmRegistry& registry = ConfigurationManager::Current().Registry();
    return target.parent ? registry.Open(target.parent, target.path) : registry.Open(target.path);
}

HANDLE InsertKey(CmKeyPtr key)
{
    return Kernel::Current().Get<ObHandleTable>().Insert(std::make_shared<CmKeyHandle>(std::move(key)));
}

// Copies as much of an answer as fits. `least` bytes must fit, or nothing is given.
NTSTATUS GiveAnswer(const std::vector<std::byte>& answer, std::size_t least, PVOID buffer, ULONG length,
                    PULONG needed)
{
    *needed = static_cast<ULONG>(answer.size());
    if (length < least)
        return STATUS_BUFFER_TOO_SMALL;
    std::memcpy(buffer, answer.data(), std::min<std::size_t>(length, answer.size()));
    return length < answer.size() ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

template <class T>
void Put(std::vector<std::byte>& bytes, std::size_t offset, const T& value)
{
    std::memcpy(bytes.data() + offset, &value, sizeof value);
}

NTSTATUS BasicAnswer(const CmValue& value, PVOID buffer, ULONG length, PULONG needed)
{
    constexpr std::size_t kFixed = offsetof(KEY_VALUE_BASIC_INFORMATION, Name);
    const std::size_t nameBytes = value.name.size() * sizeof(char16_t);
    std::vector<std::byte> answer(kFixed + nameBytes);
    Put(answer, offsetof(KEY_VALUE_BASIC_INFORMATION, Type), value.type);
    Put(answer, offsetof(KEY_VALUE_BASIC_INFORMATION, NameLength), static_cast<ULONG>(nameBytes));
    std::memcpy(answer.data() + kFixed, value.name.data(), nameBytes);
    return GiveAnswer(answer, kFixed, buffer, length, needed);
}

NTSTATUS PartialAnswer(const CmValue& value, PVOID buffer, ULONG length, PULONG needed)
{
    constexpr std::size_t kFixed = offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data);
    std::vector<std::byte> answer(kFixed + value.data.size());
    Put(answer, offsetof(KEY_VALUE_PARTIAL_INFORMATION, Type), value.type);
    Put(answer, offsetof(KEY_VALUE_PARTIAL_INFORMATION, DataLength), static_cast<ULONG>(value.data.size()));
    std::memcpy(answer.data() + kFixed, value.data.data(), value.data.size());
    return GiveAnswer(answer, kFixed, buffer, length, needed);
}

NTSTATUS FullAnswer(const CmValue& value, PVOID buffer, ULONG length, PULONG needed)
{
    constexpr std::size_t kFixed = offsetof(KEY_VALUE_FULL_INFORMATION, Name);
    const std::size_t nameBytes = value.name.size() * sizeof(char16_t);
    // The data begin at the next whole ULONG after the name; without data there is no offset.
    const std::size_t aligned = (kFixed + nameBytes + sizeof(ULONG) - 1) & ~(sizeof(ULONG) - 1);
    const bool empty = value.data.empty();
    std::vector<std::byte> answer(empty ? kFixed + nameBytes : aligned + value.data.size());
    Put(answer, offsetof(KEY_VALUE_FULL_INFORMATION, Type), value.type);
    Put(answer, offsetof(KEY_VALUE_FULL_INFORMATION, DataOffset),
        empty ? MAXULONG : static_cast<ULONG>(aligned));
    Put(answer, offsetof(KEY_VALUE_FULL_INFORMATION, DataLength), static_cast<ULONG>(value.data.size()));
    Put(answer, offsetof(KEY_VALUE_FULL_INFORMATION, NameLength), static_cast<ULONG>(nameBytes));
    std::memcpy(answer.data() + kFixed, value.name.data(), nameBytes);
    if (!empty)
        std::memcpy(answer.data() + aligned, value.data.data(), value.data.size());
    return GiveAnswer(answer, kFixed, buffer, length, needed);
}

} // namespace
} // namespace host

using namespace host;

extern "C" {

NTSTATUS NTAPI ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK, POBJECT_ATTRIBUTES ObjectAttributes)
{
    const void* caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "ZwOpenKey", caller);
    NTSTATUS status = STATUS_SUCCESS;
    if (CmpFaultHit("ZwOpenKey", &status))
        return status;
    Target target;
    status = TargetOf(ObjectAttributes, "ZwOpenKey", caller, &target);
    if (!NT_SUCCESS(status))
        return status;
    CmKeyPtr key = OpenTarget(target);
    if (!key)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    *KeyHandle = InsertKey(std::move(key));
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwCreateKey(PHANDLE KeyHandle, ACCESS_MASK, POBJECT_ATTRIBUTES ObjectAttributes, ULONG,
                           PUNICODE_STRING, ULONG, PULONG Disposition)
{
    const void* caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "ZwCreateKey", caller);
    NTSTATUS status = STATUS_SUCCESS;
    if (CmpFaultHit("ZwCreateKey", &status))
        return status;
    Target target;
    status = TargetOf(ObjectAttributes, "ZwCreateKey", caller, &target);
    if (!NT_SUCCESS(status))
        return status;
    // Only the last key of the path is made.
    const std::size_t last = target.path.find_last_of(u'\\');
    if (last != target.path.npos && !OpenTarget({target.parent, target.path.substr(0, last)}))
        return STATUS_OBJECT_NAME_NOT_FOUND;
    CmRegistry& registry = ConfigurationManager::Current().Registry();
    bool created = false;
    CmKeyPtr key = target.parent ? registry.Create(target.parent, target.path, &created)
                                 : registry.Create(target.path, &created);
    if (!key)
        return target.parent ? STATUS_KEY_DELETED : STATUS_OBJECT_NAME_NOT_FOUND;
    *KeyHandle = InsertKey(std::move(key));
    if (Disposition != nullptr)
        *Disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                               KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                               PVOID KeyValueInformation, ULONG Length, PULONG ResultLength)
{
    const void* caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "ZwQueryValueKey", caller);
    NTSTATUS status = STATUS_SUCCESS;
    if (CmpFaultHit("ZwQueryValueKey", &status))
        return status;
    CmKeyPtr key = KeyOf(KeyHandle);
    if (!key)
        return STATUS_INVALID_HANDLE;
    std::optional<std::u16string> name = NameOf(ValueName, "ZwQueryValueKey", caller);
    if (!name)
        return STATUS_OBJECT_NAME_INVALID;
    CmRegistry& registry = ConfigurationManager::Current().Registry();
    if (registry.Deleted(key))
        return STATUS_KEY_DELETED;
    std::optional<CmValue> value = registry.Value(key, *name);
    if (!value)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    switch (KeyValueInformationClass) {
    case KeyValueBasicInformation: return BasicAnswer(*value, KeyValueInformation, Length, ResultLength);
    case KeyValueFullInformation: return FullAnswer(*value, KeyValueInformation, Length, ResultLength);
    case KeyValuePartialInformation: return PartialAnswer(*value, KeyValueInformation, Length, ResultLength);
    }
    return STATUS_INVALID_PARAMETER;
}

NTSTATUS NTAPI ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG, ULONG Type, PVOID Data,
                             ULONG DataSize)
{
    const void* caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "ZwSetValueKey", caller);
    NTSTATUS status = STATUS_SUCCESS;
    if (CmpFaultHit("ZwSetValueKey", &status))
        return status;
    CmKeyPtr key = KeyOf(KeyHandle);
    if (!key)
        return STATUS_INVALID_HANDLE;
    std::optional<std::u16string> name = NameOf(ValueName, "ZwSetValueKey", caller);
    if (!name)
        return STATUS_OBJECT_NAME_INVALID;
    const std::span data(static_cast<const std::byte*>(Data), DataSize);
    const bool set = ConfigurationManager::Current().Registry().SetValue(key, *name, Type, data);
    if (set)
        CmpLogChange(*name, Type, data);
    return set ? STATUS_SUCCESS : STATUS_KEY_DELETED;
}

NTSTATUS NTAPI ZwDeleteValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName)
{
    const void* caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "ZwDeleteValueKey", caller);
    NTSTATUS status = STATUS_SUCCESS;
    if (CmpFaultHit("ZwDeleteValueKey", &status))
        return status;
    CmKeyPtr key = KeyOf(KeyHandle);
    if (!key)
        return STATUS_INVALID_HANDLE;
    std::optional<std::u16string> name = NameOf(ValueName, "ZwDeleteValueKey", caller);
    if (!name)
        return STATUS_OBJECT_NAME_INVALID;
    const bool deleted = ConfigurationManager::Current().Registry().DeleteValue(key, *name);
    if (deleted)
        CmpLogChange(*name, 0, std::nullopt);
    return deleted ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
}

} // extern "C"
