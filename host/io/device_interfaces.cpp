#include "io/device_interfaces.h"

#include "cm/configuration_manager.h"
#include "cm/text.h"
#include "io/device.h"
#include "io/io_manager.h"
#include "io/names.h"
#include "io/pnp_manager.h"

#include <algorithm>
#include <cstring>

namespace host {
namespace {

constexpr ULONG kNameTag = 0x6e496f49; // "IoIn"

// "\??\USB#VID_1234&PID_5678#6&1#{class}\reference".
std::u16string NameFor(const PnpNode& node, const GUID& interface_class, std::u16string_view reference)
{
    std::u16string name = Wide(node.Path());
    std::replace(name.begin(), name.end(), u'\\', u'#');
    name = u"\\??\\" + name + u'#' + Wide(IopGuidText(interface_class));
    if (!reference.empty())
        name += u'\\' + std::u16string(reference);
    return name;
}

NTSTATUS FaultStatus(const char* routine)
{
    const std::optional<Fault> fault = Kernel::Current().Faults().Hit(FaultPoint::DeviceInterface, routine);
    if (!fault)
        return STATUS_SUCCESS;
    return fault->status != 0 ? fault->status : STATUS_INSUFFICIENT_RESOURCES;
}

NTSTATUS GiveString(const std::u16string& text, PUNICODE_STRING string)
{
    const auto bytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    const auto room = static_cast<USHORT>(bytes + sizeof(WCHAR));
    auto* buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, room, kNameTag));
    if (buffer == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    std::memcpy(buffer, text.c_str(), room);
    *string = {bytes, room, buffer};
    return STATUS_SUCCESS;
}

} // namespace

DeviceInterfaces::DeviceInterfaces(Kernel& kernel) : Component(kernel)
{
    IoManager::Current();
}

DeviceInterfaces::Interface* DeviceInterfaces::FindLocked(std::u16string_view name)
{
    auto found = std::find_if(interfaces_.begin(), interfaces_.end(),
                              [=](const Interface& item) { return SameName(item.name, name); });
    return found == interfaces_.end() ? nullptr : &*found;
}

std::u16string DeviceInterfaces::Register(PDEVICE_OBJECT pdo, const GUID& interface_class,
                                          std::u16string_view reference)
{
    const std::u16string name = NameFor(*pdo->DeviceObjectExtension->node, interface_class, reference);
    const MutexLock lock(mutex_);
    Interface* known = FindLocked(name);
    if (known == nullptr)
        known = &interfaces_.emplace_back(Interface{name, interface_class, pdo, false});
    known->pdo = pdo;
    return known->name;
}

NTSTATUS DeviceInterfaces::SetState(std::u16string_view name, bool enable)
{
    ObjectNames& names = IoManager::Current().Names();
    const MutexLock lock(mutex_);
    Interface* item = FindLocked(name);
    if (item == nullptr)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    item->wanted = enable;
    if (const NTSTATUS fault = FaultStatus("IoSetDeviceInterfaceState"); !NT_SUCCESS(fault))
        return fault;
    if (item->enabled == enable)
        return enable ? STATUS_OBJECT_NAME_EXISTS : STATUS_OBJECT_NAME_NOT_FOUND;
    item->enabled = enable;
    Kernel::Current().Log().Instant("pnp", enable ? "interface enabled" : "interface disabled",
                                    ToUtf8(item->name));
    return enable ? names.AddLink(item->name, names.NameOf(item->pdo)) : names.RemoveLink(item->name);
}

bool DeviceInterfaces::DisableAll(PDEVICE_OBJECT pdo)
{
    bool any = false;
    const MutexLock lock(mutex_);
    for (Interface& item : interfaces_) {
        if (item.pdo != pdo || !item.enabled)
            continue;
        item.enabled = false;
        IoManager::Current().Names().RemoveLink(item.name);
        any = any || item.wanted;
    }
    return any;
}

std::vector<std::string> DeviceInterfaces::Enabled(const GUID& interface_class)
{
    std::vector<std::string> names;
    const MutexLock lock(mutex_);
    for (const Interface& item : interfaces_) {
        if (item.enabled && item.interface_class == interface_class)
            names.push_back(ToUtf8(item.name));
    }
    return names;
}

} // namespace host

using namespace host;

extern "C" {

NTSTATUS NTAPI IoRegisterDeviceInterface(PDEVICE_OBJECT PhysicalDeviceObject, const GUID* InterfaceClassGuid,
                                         PUNICODE_STRING ReferenceString, PUNICODE_STRING SymbolicLinkName)
{
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "IoRegisterDeviceInterface",
                        __builtin_return_address(0));
    const std::optional<std::u16string> reference = IopText(ReferenceString);
    if (PhysicalDeviceObject->DeviceObjectExtension->node == nullptr || !reference ||
        reference->find(u'\\') != reference->npos || reference->find(u'/') != reference->npos)
        return STATUS_INVALID_DEVICE_REQUEST;
    const NTSTATUS fault = FaultStatus("IoRegisterDeviceInterface");
    if (!NT_SUCCESS(fault))
        return fault;
    return GiveString(
        DeviceInterfaces::Current().Register(PhysicalDeviceObject, *InterfaceClassGuid, *reference),
        SymbolicLinkName);
}

NTSTATUS NTAPI IoSetDeviceInterfaceState(PUNICODE_STRING SymbolicLinkName, BOOLEAN Enable)
{
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "IoSetDeviceInterfaceState",
                        __builtin_return_address(0));
    const std::optional<std::u16string> name = IopText(SymbolicLinkName);
    if (!name || name->empty())
        return STATUS_INVALID_PARAMETER;
    return DeviceInterfaces::Current().SetState(*name, Enable != FALSE);
}

} // extern "C"
