#include "io/file_object.h"

#include "io/actor.h"
#include "io/device.h"
#include "io/io_manager.h"
#include "io/irp.h"
#include "io/memory.h"
#include "io/names.h"

#include <cstring>

namespace host {
namespace {

// Closes files whose last reference went at DISPATCH_LEVEL.
class FileReaper : public Component {
  public:
    explicit FileReaper(Kernel& kernel) : Component(kernel), actor("file reaper") {}
    void Shutdown() override { actor.Stop(); }

    IopActor actor;
};

ACCESS_MASK Granted(ACCESS_MASK access)
{
    ACCESS_MASK granted = access & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_ALL);
    if ((access & GENERIC_READ) != 0)
        granted |= FILE_GENERIC_READ;
    if ((access & GENERIC_WRITE) != 0)
        granted |= FILE_GENERIC_WRITE;
    if ((access & GENERIC_ALL) != 0)
        granted |= FILE_ALL_ACCESS;
    return granted;
}

PFILE_OBJECT MakeFileObject(IopFile& file)
{
    auto* object = static_cast<PFILE_OBJECT>(IopAllocateMemory(sizeof(FILE_OBJECT)));
    if (object == nullptr)
        return nullptr;
    std::memset(static_cast<void*>(object), 0, sizeof(FILE_OBJECT));
    object->Type = IO_TYPE_FILE;
    object->Size = sizeof(FILE_OBJECT);
    object->DeviceObject = file.device;
    object->Flags = file.overlapped ? 0U : FO_SYNCHRONOUS_IO;
    const auto bytes = static_cast<USHORT>(file.name.size() * sizeof(WCHAR));
    object->FileName = {bytes, bytes, reinterpret_cast<PWSTR>(file.name.data())};
    object->FileObjectExtension = &file;
    KeInitializeEvent(&object->Lock, SynchronizationEvent, FALSE);
    KeInitializeEvent(&object->Event, NotificationEvent, FALSE);
    return object;
}

void Destroy(IopFile* file)
{
    if (file->object != nullptr)
        IopFreeMemory(file->object);
    if (file->node)
        PnpManager::Current().Closed(file->node);
    IopCountClose(file->device);
    IoManager::Current().ForgetFile(file);
    delete file;
}

// Whether the device may be opened at all.
NTSTATUS CheckOpenable(const DEVICE_OBJECT& device)
{
    if ((device.Flags & DO_DEVICE_INITIALIZING) != 0 || device.DeviceObjectExtension->delete_pending)
        return STATUS_NO_SUCH_DEVICE;
    // The open itself is counted already.
    if ((device.Flags & DO_EXCLUSIVE) != 0 && device.ReferenceCount > 1)
        return STATUS_ACCESS_DENIED;
    return STATUS_SUCCESS;
}

NTSTATUS SendCreate(IopFile& file, const IopOpenParameters& parameters)
{
    IO_SECURITY_CONTEXT security{};
    security.DesiredAccess = file.granted;
    const IO_STATUS_BLOCK result = IopSendAndWait(
        IopTargetOf(file), IRP_MJ_CREATE, 0, STATUS_SUCCESS, [&](PIRP irp, PIO_STACK_LOCATION location) {
            irp->RequestorMode = UserMode;
            irp->Flags |= IRP_CREATE_OPERATION;
            irp->Tail.Overlay.OriginalFileObject = file.object;
            location->FileObject = file.object;
            location->Parameters.Create.SecurityContext = &security;
            location->Parameters.Create.Options = (ULONG{FILE_OPEN} << 24) | FILE_NON_DIRECTORY_FILE |
                                                  (file.overlapped ? 0U : FILE_SYNCHRONOUS_IO_NONALERT);
            location->Parameters.Create.FileAttributes = FILE_ATTRIBUTE_NORMAL;
            location->Parameters.Create.ShareAccess = static_cast<USHORT>(parameters.share);
        });
    return result.Status;
}

void SendFileRequest(IopFile& file, UCHAR major)
{
    IopSendAndWait(IopTargetOf(file), major, 0, STATUS_SUCCESS, [&](PIRP irp, PIO_STACK_LOCATION location) {
        irp->Tail.Overlay.OriginalFileObject = file.object;
        location->FileObject = file.object;
    });
}

void CloseFile(IopFile* file)
{
    SendFileRequest(*file, IRP_MJ_CLOSE);
    Destroy(file);
}

} // namespace

PDEVICE_OBJECT IopTargetOf(const IopFile& file)
{
    return IopTopOf(file.device);
}

NTSTATUS IopOpenFile(std::u16string_view path, const IopOpenParameters& parameters, IopFile** opened)
{
    std::optional<ObjectNames::Found> found = IoManager::Current().Names().Open(path);
    if (!found)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    auto* file = new IopFile;
    IoManager::Current().AddFile(file);
    file->device = found->device;
    file->name = std::move(found->rest);
    file->granted = Granted(parameters.access);
    file->overlapped = parameters.overlapped;
    file->process = parameters.process;
    KeInitializeEvent(&file->turn, SynchronizationEvent, TRUE);
    NTSTATUS status = CheckOpenable(*file->device);
    if (NT_SUCCESS(status)) {
        file->node = PnpManager::Current().NodeOf(file->device);
        if (file->node)
            PnpManager::Current().Opened(file->node);
        file->object = MakeFileObject(*file);
        status = file->object == nullptr ? STATUS_INSUFFICIENT_RESOURCES : SendCreate(*file, parameters);
    }
    if (!NT_SUCCESS(status)) {
        Destroy(file);
        return status;
    }
    file->object->Flags |= FO_HANDLE_CREATED;
    *opened = file;
    return status;
}

void IopDuplicateHandle(IopFile* file)
{
    ++file->handles;
}

void IopCloseHandle(IopFile* file)
{
    if (--file->handles != 0)
        return;
    SendFileRequest(*file, IRP_MJ_CLEANUP);
    file->object->Flags |= FO_CLEANUP_COMPLETE;
    IopDereferenceFile(file);
}

void IopReferenceFile(IopFile* file)
{
    ++file->references;
}

void IopDereferenceFile(IopFile* file)
{
    if (KeGetCurrentIrql() != PASSIVE_LEVEL)
        IopReleaseFile(file);
    else if (--file->references == 0)
        CloseFile(file);
}

void IopReleaseFile(IopFile* file)
{
    if (--file->references == 0)
        Kernel::Current().Get<FileReaper>().actor.Post([=] { CloseFile(file); });
}

} // namespace host
