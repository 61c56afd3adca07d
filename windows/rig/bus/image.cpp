// The image of the driver under test, as soon as it is in memory and before any of it runs: its imports are watched, and
// two are led elsewhere. The file stays as it is.
#include "windows/rig/bus/bus.h"

namespace {

// Windows does not look at what a key was opened for when it is used in kernel mode; Wine does.
NTSTATUS NTAPI OpenDeviceRegistryKey(PDEVICE_OBJECT device, ULONG type, ACCESS_MASK, PHANDLE key)
{
    return IoOpenDeviceRegistryKey(device, type, KEY_ALL_ACCESS, key);
}

// The driver's dispatch routines are set, and its device is about to be used.
PDEVICE_OBJECT NTAPI AttachDeviceToDeviceStack(PDEVICE_OBJECT device, PDEVICE_OBJECT target)
{
    StepInFront(device->DriverObject);
    return IoAttachDeviceToDeviceStack(device, target);
}

bool EndsWith(const UNICODE_STRING& name, const UNICODE_STRING& end)
{
    if (name.Length < end.Length)
        return false;
    UNICODE_STRING last = end;
    last.Buffer = name.Buffer + (name.Length - end.Length) / sizeof(WCHAR);
    return RtlEqualUnicodeString(&last, &end, TRUE) != FALSE;
}

void NTAPI NoteImage(PUNICODE_STRING name, HANDLE, PIMAGE_INFO information)
{
    UNICODE_STRING watched;
    RtlInitUnicodeString(&watched, L"navox.sys");
    if (name == nullptr || !EndsWith(*name, watched))
        return;
    const RigRedirection redirections[] = {
        {"IoOpenDeviceRegistryKey", reinterpret_cast<void*>(OpenDeviceRegistryKey)},
        {"IoAttachDeviceToDeviceStack", reinterpret_cast<void*>(AttachDeviceToDeviceStack)},
        {nullptr, nullptr},
    };
    if (RigWatchImports(information->ImageBase, redirections) == 0)
        RigReport("the driver's imports can not be watched");
}

} // namespace

NTSTATUS WatchForImage()
{
    return PsSetLoadImageNotifyRoutine(NoteImage);
}
