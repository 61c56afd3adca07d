#include <initguid.h>

#include "navox_entry.h"

#include "navox_createclose.h"
#include "navox_devio.h"
#include "navox_ioctl.h"
#include "navox_pnp.h"
#include "navox_portname.h"
#include "navox_power.h"
#include "navox_read.h"
#include "navox_requests.h"
#include "navox_selsusp.h"
#include "navox_utils.h"
#include "navox_wmi.h"
#include "navox_write.h"
#include "registry_key.h"

constinit DRIVER_GLOBALS Globals = {};

namespace {

constexpr ULONG kNtddiVista = 0x06000000;
constexpr ULONG kSettingOverhead = 28; // header of the answer and a few bytes of data

// Builds the device, one step after the other. What has been done when a step fails is undone in reverse.
class DeviceBuilder {
  public:
    explicit DeviceBuilder(PDEVICE_OBJECT physicalDevice) : physicalDevice_(physicalDevice) {}
    ~DeviceBuilder();
    DeviceBuilder(const DeviceBuilder&) = delete;
    DeviceBuilder& operator=(const DeviceBuilder&) = delete;

    [[nodiscard]] NTSTATUS Build();

  private:
    NTSTATUS CreateDevice();
    void InitialiseState();
    NTSTATUS Attach();
    NTSTATUS Name();
    void ReadSettings();
    NTSTATUS PrepareReader();
    void AcceptRequests();
    NTSTATUS PrepareDrain();

    PDEVICE_OBJECT physicalDevice_;
    DEVICE_EXTENSION* extension_ = nullptr;
    bool built_ = false;
};

NAVOX_PAGED NTSTATUS DeviceBuilder::CreateDevice()
{
    PAGED_CODE();
    PoolPointer<WCHAR, kTagDeviceName> buffer;
    if (!buffer.Allocate(PagedPool, kDeviceNameBytes))
        return STATUS_INSUFFICIENT_RESOURCES;
    const LONG index = InterlockedIncrement(&Globals.NextDeviceIndex) - 1;
    NTSTATUS status = RtlStringCbPrintfW(buffer.get(), kDeviceNameBytes, L"\\Device\\quorlex%i", index);
    if (!NT_SUCCESS(status))
        return status;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, buffer.get());
    name.MaximumLength = kDeviceNameBytes;

    PDEVICE_OBJECT device = nullptr;
    status = IoCreateDevice(Globals.DriverObject, sizeof(DEVICE_EXTENSION), &name, FILE_DEVICE_SERIAL_PORT,
                            FILE_DEVICE_SECURE_OPEN | FILE_READ_ONLY_DEVICE, FALSE, &device);
    if (!NT_SUCCESS(status))
        return status;
    extension_ = GetExtension(device);
    RtlZeroMemory(extension_, sizeof(*extension_));
    extension_->PhysicalDeviceObject = physicalDevice_;
    extension_->Self = device;
    extension_->DeviceName = name;
    (void)buffer.Detach(); // the extension's now
    return STATUS_SUCCESS;
}

NAVOX_PAGED void DeviceBuilder::InitialiseState()
{
    PAGED_CODE();
    DEVICE_EXTENSION* extension = extension_;
    extension->DevicePnPState = STATE_NEVER_STARTED;
    extension->DevicePowerState = PowerDeviceD0;
    extension->SystemPowerState = PowerSystemWorking;
    KeInitializeSpinLock(&extension->StateLock);
    KeInitializeSpinLock(&extension->SerialLock);
    KeInitializeSpinLock(&extension->ClientListLock);
    KeInitializeSpinLock(&extension->IdleLock);
    ExInitializeFastMutex(&extension->ClientListMutex);
    InitializeListHead(&extension->ClientList);
    KeInitializeEvent(&extension->StopEvent, NotificationEvent, TRUE);
    KeInitializeEvent(&extension->RemoveEvent, NotificationEvent, FALSE);
    InitialiseIoCount(extension);
}

NAVOX_PAGED NTSTATUS DeviceBuilder::Attach()
{
    PAGED_CODE();
    extension_->LowerDeviceObject = IoAttachDeviceToDeviceStack(extension_->Self, physicalDevice_);
    return extension_->LowerDeviceObject != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

NAVOX_PAGED NTSTATUS DeviceBuilder::Name()
{
    PAGED_CODE();
    NTSTATUS status = WriteOpenHandles(extension_, 0);
    if (!NT_SUCCESS(status))
        return status;
    status = CreatePortName(extension_);
    if (!NT_SUCCESS(status))
        return status;
    return IoRegisterDeviceInterface(physicalDevice_, &GUID_DEVINTERFACE_COMPORT, nullptr,
                                     &extension_->InterfaceName);
}

NAVOX_PAGED void DeviceBuilder::ReadSettings()
{
    PAGED_CODE();
    DEVICE_EXTENSION* extension = extension_;
    extension->NmeaMode = 0;
    extension->FirstOpenSinceStart = TRUE;
    extension->AtCommandPending = TRUE;
    extension->IdleMonitorActive = FALSE;
    ReadDeviceSetting(extension, L"EnableSelectiveSuspend", &extension->EnableSelectiveSuspend);
    if (extension->EnableSelectiveSuspend != 0)
        InitialiseIdleMonitor(extension);
    extension->RemovalStarted = FALSE;
    extension->NoIdleRequests = FALSE;
    if (IsOsVersionAtLeast(kNtddiVista))
        ReadDeviceSetting(extension, L"EnableFR", &extension->EnableFR);
}

NAVOX_PAGED NTSTATUS DeviceBuilder::PrepareReader()
{
    PAGED_CODE();
    DEVICE_EXTENSION* extension = extension_;
    extension->ReadBufferSize = kReadBufferSize;
    extension->ReadBuffer = static_cast<PUCHAR>(AllocatePool(NonPagedPool, kReadBufferSize, kTagReadBuffer));
    if (extension->ReadBuffer == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    KeInitializeDpc(&extension->ReaderDpc, ReaderDpc, extension->Self);
    KeInitializeTimer(&extension->ReaderStartTimer);
    KeInitializeEvent(&extension->ReaderCancelEvent, SynchronizationEvent, FALSE);
    extension->CdcSetupPending = FALSE;
    extension->ReaderHalted = FALSE;
    KeInitializeEvent(&extension->TimersDrainedEvent, SynchronizationEvent, FALSE);
    return STATUS_SUCCESS;
}

// From here on the system may send requests, even if the last step fails.
NAVOX_PAGED void DeviceBuilder::AcceptRequests()
{
    PAGED_CODE();
    extension_->Self->Flags |= DO_BUFFERED_IO | DO_POWER_PAGABLE;
    extension_->Self->Flags &= ~DO_DEVICE_INITIALIZING;
}

NAVOX_PAGED NTSTATUS DeviceBuilder::PrepareDrain()
{
    PAGED_CODE();
    extension_->AuxBufferSize = kAuxBufferSize;
    extension_->AuxUrb = static_cast<PURB>(AllocatePool(NonPagedPool, kUrbAllocation, kTagAuxUrb));
    extension_->AuxBuffer = static_cast<PUCHAR>(AllocatePool(NonPagedPool, kAuxBufferSize, kTagAuxBuffer));
    return extension_->AuxUrb != nullptr && extension_->AuxBuffer != nullptr ? STATUS_SUCCESS
                                                                             : STATUS_INSUFFICIENT_RESOURCES;
}

NAVOX_PAGED NTSTATUS DeviceBuilder::Build()
{
    PAGED_CODE();
    NTSTATUS status = CreateDevice();
    if (!NT_SUCCESS(status))
        return status;
    InitialiseState();
    status = Attach();
    if (!NT_SUCCESS(status))
        return status;
    const NTSTATUS named = Name();
    if (!NT_SUCCESS(named))
        return named;
    ReadSettings();
    status = PrepareReader();
    if (!NT_SUCCESS(status))
        return status;
    AcceptRequests();
    status = PrepareDrain();
    if (!NT_SUCCESS(status))
        return status;
    built_ = true;
    return named;
}

NAVOX_PAGED DeviceBuilder::~DeviceBuilder()
{
    PAGED_CODE();
    if (built_ || extension_ == nullptr)
        return;
    ReleasePortNames(extension_->Self, true);
    if (extension_->InterfaceName.Buffer != nullptr)
        RtlFreeUnicodeString(&extension_->InterfaceName);
    if (extension_->LowerDeviceObject != nullptr)
        IoDetachDevice(extension_->LowerDeviceObject);
    FreePool(extension_->ReadBuffer, kTagReadBuffer);
    FreePool(extension_->AuxBuffer, kTagAuxBuffer);
    FreePool(extension_->AuxUrb, kTagAuxUrb);
    IoDeleteDevice(extension_->Self);
}

} // namespace

extern "C" NAVOX_INIT NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath)
{
    Globals = {};
    Globals.DriverObject = driver;
    driver->MajorFunction[IRP_MJ_CREATE] = CreateDispatch;
    driver->MajorFunction[IRP_MJ_CLEANUP] = CleanupDispatch;
    driver->MajorFunction[IRP_MJ_CLOSE] = CloseDispatch;
    driver->MajorFunction[IRP_MJ_READ] = ReadDispatch;
    driver->MajorFunction[IRP_MJ_WRITE] = WriteDispatch;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = DeviceControl;
    driver->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = SystemControl;
    driver->MajorFunction[IRP_MJ_POWER] = PowerDispatch;
    driver->MajorFunction[IRP_MJ_PNP] = PnpDispatch;
    driver->DriverUnload = DriverUnload;
    driver->DriverExtension->AddDevice = AddDevice;

    const auto bytes = static_cast<USHORT>(registryPath->Length + sizeof(WCHAR));
    Globals.RegistryPath.Length = registryPath->Length;
    Globals.RegistryPath.MaximumLength = bytes;
    Globals.RegistryPath.Buffer = static_cast<PWSTR>(AllocatePool(PagedPool, bytes, kTagRegistryPath));
    if (Globals.RegistryPath.Buffer == nullptr) {
        DbgPrint("\nGPS NAVOX DriverEntry - Failed to allocate memory.\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(Globals.RegistryPath.Buffer, registryPath->Buffer, registryPath->Length);
    TraceRegister();
    return STATUS_SUCCESS;
}

NAVOX_PAGED NTSTATUS NTAPI AddDevice(PDRIVER_OBJECT, PDEVICE_OBJECT physicalDevice)
{
    PAGED_CODE();
    if (physicalDevice == nullptr)
        return STATUS_NO_MORE_ENTRIES;
    const NTSTATUS status = DeviceBuilder(physicalDevice).Build();
    TRACE(TRACE_LOAD, LEVEL_INFORMATION, "device added: 0x%x", status);
    return status;
}

NAVOX_PAGED void NTAPI DriverUnload(PDRIVER_OBJECT)
{
    PAGED_CODE();
    FreePool(Globals.RegistryPath.Buffer, kTagRegistryPath);
    Globals.RegistryPath = {};
    TraceUnregister();
}

NAVOX_PAGED BOOLEAN ReadDeviceSetting(DEVICE_EXTENSION* extension, PCWSTR valueName, ULONG* value)
{
    PAGED_CODE();
    *value = 0;
    const RegistryKey key(extension->PhysicalDeviceObject, PLUGPLAY_REGKEY_DRIVER, STANDARD_RIGHTS_ALL);
    if (!NT_SUCCESS(key.Status()))
        return FALSE;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, valueName);
    const ULONG bytes = name.MaximumLength + kSettingOverhead;
    PoolPointer<KEY_VALUE_FULL_INFORMATION, kTagSettingQuery> answer;
    if (!answer.Allocate(PagedPool, bytes))
        return FALSE;
    ULONG length = 0;
    if (!NT_SUCCESS(ZwQueryValueKey(key.Get(), &name, KeyValueFullInformation, answer.get(), bytes, &length)))
        return FALSE;
    // Any type of value is taken as it is. One that is longer than the setting is cut: nothing lies behind it
    // for us to overwrite.
    const ULONG copied = answer->DataLength < sizeof(*value) ? answer->DataLength : sizeof(*value);
    RtlCopyMemory(value, reinterpret_cast<UCHAR*>(answer.get()) + answer->DataOffset, copied);
    return TRUE;
}

NAVOX_PAGED bool IsOsVersionAtLeast(ULONG version)
{
    PAGED_CODE();
    using VersionRoutine = BOOLEAN(NTAPI*)(ULONG version);
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"RtlIsNtDdiVersionAvailable");
    if (const auto isAvailable = reinterpret_cast<VersionRoutine>(MmGetSystemRoutineAddress(&name)))
        return isAvailable(version) != FALSE;
    if ((version & 0xFFFF) != 0)
        return false;
    ULONG major = 0;
    ULONG minor = 0;
    PsGetVersion(&major, &minor, nullptr, nullptr);
    return ((major * 256 + minor) << 16) >= version;
}
