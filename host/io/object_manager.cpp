// References to objects by pointer and by handle. Devices and files count theirs; threads live as long as the
// kernel remembers them, so theirs need not be counted.
#include "io/device.h"
#include "io/file_object.h"
#include "io/handle_table.h"
#include "io/io_manager.h"

#include <wdm/ps.h>

namespace host {
namespace {

bool IsFile(const void* object)
{
    return static_cast<const FILE_OBJECT*>(object)->Type == IO_TYPE_FILE;
}

IopFile* FileOf(void* object)
{
    return static_cast<IopFile*>(static_cast<PFILE_OBJECT>(object)->FileObjectExtension);
}

} // namespace
} // namespace host

using namespace host;

extern "C" {

LONG_PTR NTAPI ObfReferenceObject(PVOID Object)
{
    if (IoManager::Current().DeviceExists(static_cast<PDEVICE_OBJECT>(Object)))
        return IopReferenceDevice(static_cast<PDEVICE_OBJECT>(Object));
    if (IsFile(Object)) {
        IopReferenceFile(FileOf(Object));
        return FileOf(Object)->references;
    }
    return 1;
}

LONG_PTR NTAPI ObfDereferenceObject(PVOID Object)
{
    if (IoManager::Current().DeviceExists(static_cast<PDEVICE_OBJECT>(Object))) {
        auto* device = static_cast<PDEVICE_OBJECT>(Object);
        const LONG left = IopDereferenceDevice(device);
        if (left < 0)
            VfReport(Rule::ObjectDereference, "device", IopDescribeDevice(device) + " has no reference left",
                     __builtin_return_address(0));
        return left;
    }
    if (IsFile(Object)) {
        const int left = FileOf(Object)->references - 1;
        IopDereferenceFile(FileOf(Object));
        return left;
    }
    return 0;
}

NTSTATUS NTAPI ObReferenceObjectByPointer(PVOID Object, ACCESS_MASK, POBJECT_TYPE, KPROCESSOR_MODE)
{
    ObfReferenceObject(Object);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK, POBJECT_TYPE, KPROCESSOR_MODE,
                                         PVOID* Object, PVOID)
{
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "ObReferenceObjectByHandle",
                        __builtin_return_address(0));
    const std::shared_ptr<ObHandleBody> body = Kernel::Current().Get<ObHandleTable>().FindAny(Handle);
    if (!body)
        return STATUS_INVALID_HANDLE;
    PVOID object = body->Object();
    if (object == nullptr)
        return STATUS_OBJECT_TYPE_MISMATCH;
    ObfReferenceObject(object);
    *Object = object;
    return STATUS_SUCCESS;
}

} // extern "C"
