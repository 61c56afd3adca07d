// The registry keys and properties of a device, and what the system counts of the machine.
#include "cm/configuration_manager.h"
#include "cm/text.h"
#include "io/device.h"
#include "io/io_manager.h"
#include "io/pnp_manager.h"

#include <cstring>

namespace host {
namespace {

std::optional<std::u16string> PropertyText(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property)
{
    const PnpNode& node = *pdo->DeviceObjectExtension->node;
    CmRegistry& registry = ConfigurationManager::Current().Registry();
    const auto value = [&](std::u16string_view name) -> std::optional<std::u16string> {
        std::optional<std::string> text = registry.String(node.EnumKey(), name);
        return text ? std::optional(Wide(*text)) : std::nullopt;
    };
    switch (property) {
    case DevicePropertyPhysicalDeviceObjectName: return IoManager::Current().Names().NameOf(pdo);
    case DevicePropertyDriverKeyName: return Wide(node.identity.class_guid + '\\' + node.driver_number);
    case DevicePropertyClassGuid: return Wide(node.identity.class_guid);
    case DevicePropertyEnumeratorName:
        return Wide(node.identity.device_id.substr(0, node.identity.device_id.find('\\')));
    case DevicePropertyFriendlyName: return value(u"FriendlyName");
    case DevicePropertyDeviceDescription: return value(u"DeviceDesc");
    default: return std::nullopt;
    }
}

} // namespace
} // namespace host

using namespace host;

extern "C" {

NTSTATUS NTAPI IoOpenDeviceRegistryKey(PDEVICE_OBJECT DeviceObject, ULONG DevInstKeyType, ACCESS_MASK,
                                       PHANDLE DeviceRegKey)
{
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "IoOpenDeviceRegistryKey",
                        __builtin_return_address(0));
    NTSTATUS status = STATUS_SUCCESS;
    if (CmpFaultHit("IoOpenDeviceRegistryKey", &status))
        return status;
    const PnpNode* node = DeviceObject->DeviceObjectExtension->node;
    if (node == nullptr)
        return STATUS_INVALID_DEVICE_REQUEST;
    switch (DevInstKeyType) {
    case PLUGPLAY_REGKEY_DEVICE: return CmpOpenKeyHandle(node->HardwareKey(), true, DeviceRegKey);
    case PLUGPLAY_REGKEY_DRIVER: return CmpOpenKeyHandle(node->DriverKey(), true, DeviceRegKey);
    default: return STATUS_INVALID_PARAMETER;
    }
}

NTSTATUS NTAPI IoGetDeviceProperty(PDEVICE_OBJECT DeviceObject, DEVICE_REGISTRY_PROPERTY DeviceProperty,
                                   ULONG BufferLength, PVOID PropertyBuffer, PULONG ResultLength)
{
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "IoGetDeviceProperty", __builtin_return_address(0));
    if (DeviceObject->DeviceObjectExtension->node == nullptr)
        return STATUS_INVALID_DEVICE_REQUEST;
    const std::optional<std::u16string> text = PropertyText(DeviceObject, DeviceProperty);
    if (!text)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    const std::vector<std::byte> data = CmStringData(*text);
    *ResultLength = static_cast<ULONG>(data.size());
    if (BufferLength < data.size())
        return STATUS_BUFFER_TOO_SMALL;
    std::memcpy(PropertyBuffer, data.data(), data.size());
    return STATUS_SUCCESS;
}

PCONFIGURATION_INFORMATION NTAPI IoGetConfigurationInformation()
{
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "IoGetConfigurationInformation",
                        __builtin_return_address(0));
    return &IoManager::Current().configuration;
}

} // extern "C"
