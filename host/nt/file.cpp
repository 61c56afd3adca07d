#include "nt/file.h"

#include "cm/text.h"
#include "io/buffered.h"
#include "io/device_interfaces.h"
#include "io/names.h"
#include "nt/file_request.h"
#include "verifier/irp_rules.h"

namespace host::nt {
namespace {

// A cancelled request that is not back by then is given up.
constexpr Time kCancelPatience = 300 * kSecond;

std::u16string KernelPath(std::string_view path)
{
    if (path.starts_with("\\\\.\\") || path.starts_with("\\\\?\\"))
        return u"\\??\\" + Wide(path.substr(4));
    if (path.starts_with('\\'))
        return Wide(path);
    return u"\\??\\" + Wide(path);
}

ACCESS_MASK MaskOf(Access access)
{
    constexpr ACCESS_MASK kMasks[] = {0, GENERIC_READ, GENERIC_WRITE, GENERIC_READ | GENERIC_WRITE};
    return kMasks[static_cast<std::size_t>(access)] | SYNCHRONIZE | FILE_READ_ATTRIBUTES;
}

// What a call needs to have been granted.
ACCESS_MASK NeededFor(UCHAR major, ULONG code)
{
    switch (major) {
    case IRP_MJ_READ: return FILE_READ_DATA;
    case IRP_MJ_WRITE:
    case IRP_MJ_FLUSH_BUFFERS: return FILE_WRITE_DATA;
    case IRP_MJ_DEVICE_CONTROL: return (code >> 14) & (FILE_READ_ACCESS | FILE_WRITE_ACCESS);
    default: return 0;
    }
}

bool PrepareTransfer(PIRP irp, PIO_STACK_LOCATION location, PDEVICE_OBJECT device,
                     std::span<const std::byte> input, std::span<std::byte> output)
{
    const bool write = location->MajorFunction == IRP_MJ_WRITE;
    auto& parameters = location->Parameters.Read; // the same for both
    parameters.Length = static_cast<ULONG>(write ? input.size() : output.size());
    irp->Flags |= write ? IRP_WRITE_OPERATION : IRP_READ_OPERATION;
    if ((device->Flags & DO_BUFFERED_IO) != 0)
        return IopBufferRequest(irp, input, output);
    irp->UserBuffer = write ? const_cast<std::byte*>(input.data()) : output.data();
    return true;
}

bool Prepare(PIRP irp, PDEVICE_OBJECT device, UCHAR major, ULONG code, std::span<const std::byte> input,
             std::span<std::byte> output)
{
    PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp);
    location->MajorFunction = major;
    switch (major) {
    case IRP_MJ_READ:
    case IRP_MJ_WRITE: return PrepareTransfer(irp, location, device, input, output);
    case IRP_MJ_DEVICE_CONTROL: return IopBufferDeviceControl(irp, location, code, input, output);
    default: return true;
    }
}

std::string Detail(UCHAR major, ULONG code, std::size_t length)
{
    return major == IRP_MJ_DEVICE_CONTROL ? IopHex(code) : std::to_string(length);
}

} // namespace

bool Request::Done() const
{
    return request_->Done();
}

NTSTATUS Request::Status() const
{
    return request_->Status();
}

std::size_t Request::Information() const
{
    return request_->Information();
}

NTSTATUS Request::Returned() const
{
    return request_->Returned();
}

Result Request::Wait() const
{
    request_->Wait(kForever);
    return request_->Take();
}

bool Request::WaitFor(Time timeout) const
{
    return request_->Wait(timeout);
}

bool Request::Cancel() const
{
    return request_->Cancel();
}

File& File::operator=(File&& other) noexcept
{
    if (this != &other) {
        Close();
        file_ = std::exchange(other.file_, nullptr);
    }
    return *this;
}

NTSTATUS File::Open(std::string_view path, File* file, const OpenOptions& options)
{
    IopOpenParameters parameters;
    parameters.access = MaskOf(options.access);
    parameters.share = options.share;
    parameters.overlapped = options.overlapped;
    parameters.process = options.process != 0 ? options.process : HandleToULong(PsGetCurrentProcessId());
    IopFile* opened = nullptr;
    const NTSTATUS status = IopOpenFile(KernelPath(path), parameters, &opened);
    if (opened != nullptr)
        *file = File(opened);
    return status;
}

void File::Close()
{
    if (IopFile* file = std::exchange(file_, nullptr))
        IopCloseHandle(file);
}

File File::Duplicate() const
{
    IopDuplicateHandle(file_);
    return File(file_);
}

Request File::Start(UCHAR major, std::span<const std::byte> input, std::size_t output_length, ULONG code,
                    OnDone on_done) const
{
    auto request = std::make_shared<FileRequest>(file_, output_length, std::move(on_done));
    const ACCESS_MASK needed = NeededFor(major, code);
    if ((file_->granted & needed) != needed) {
        request->Refuse(STATUS_ACCESS_DENIED);
        return Request(request);
    }
    PDEVICE_OBJECT device = IopTargetOf(*file_);
    PIRP irp = IopAllocateIrp(device->StackSize, IrpOrigin::System, request, nullptr);
    if (irp == nullptr) {
        request->Refuse(STATUS_INSUFFICIENT_RESOURCES);
        return Request(request);
    }
    irp->RequestorMode = UserMode;
    irp->Tail.Overlay.OriginalFileObject = file_->object;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    IoGetNextIrpStackLocation(irp)->FileObject = file_->object;
    if (!Prepare(irp, device, major, code, input, request->Buffer())) {
        IopFreeIrp(irp);
        request->Refuse(STATUS_INSUFFICIENT_RESOURCES);
        return Request(request);
    }
    IopReferenceFile(file_);
    if (!file_->overlapped) {
        KeWaitForSingleObject(&file_->turn, UserRequest, KernelMode, FALSE, nullptr);
        request->HoldsTurn();
    }
    VfIrpQueuedToThread(irp);
    request->SetIrp(irp);
    Kernel::Current().Log().AsyncBegin(
        "irp", IopMajorName(major), irp,
        Detail(major, code, major == IRP_MJ_WRITE ? input.size() : output_length));
    request->SetReturned(IopCallDriver(device, irp, nullptr));
    if (!file_->overlapped)
        request->Wait(kForever);
    return Request(request);
}

Request File::StartRead(std::size_t length, OnDone on_done) const
{
    return Start(IRP_MJ_READ, {}, length, 0, std::move(on_done));
}

Request File::StartWrite(std::span<const std::byte> data, OnDone on_done) const
{
    return Start(IRP_MJ_WRITE, data, 0, 0, std::move(on_done));
}

Request File::StartControl(ULONG code, std::span<const std::byte> input, std::size_t output_length,
                           OnDone on_done) const
{
    return Start(IRP_MJ_DEVICE_CONTROL, input, output_length, code, std::move(on_done));
}

Request File::StartFlush(OnDone on_done) const
{
    return Start(IRP_MJ_FLUSH_BUFFERS, {}, 0, 0, std::move(on_done));
}

namespace {

bool CancelAll(const std::vector<IrpRecordPtr>& records, const IopFile* file)
{
    bool any = false;
    for (const IrpRecordPtr& record : records) {
        auto request = std::dynamic_pointer_cast<FileRequest>(record->request);
        if (request && (file == nullptr || request->IsOf(file)))
            any = request->Cancel() || any;
    }
    return any;
}

} // namespace

bool File::CancelIo() const
{
    return CancelAll(IrpTable::Current().OfThread(KeGetCurrentThread()), file_);
}

bool File::CancelIoEx() const
{
    return CancelAll(IrpTable::Current().All(), file_);
}

void CancelThreadIo()
{
    const std::vector<IrpRecordPtr> records = IrpTable::Current().OfThread(KeGetCurrentThread());
    CancelAll(records, nullptr);
    for (const IrpRecordPtr& record : records) {
        auto request = std::dynamic_pointer_cast<FileRequest>(record->request);
        if (request && !request->Wait(kCancelPatience))
            VfReport(Rule::IrpCancelledTooSlowly, IopMajorName(record->major),
                     record->Describe() + " is not back five minutes after its cancellation");
    }
}

ThreadHandle SpawnClient(std::string name, std::function<void()> body)
{
    return Kernel::Current().Spawn(std::move(name), [body = std::move(body)] {
        body();
        CancelThreadIo();
    });
}

std::vector<std::string> Interfaces(const GUID& interface_class)
{
    std::vector<std::string> names = DeviceInterfaces::Current().Enabled(interface_class);
    for (std::string& name : names)
        name.replace(0, 4, "\\\\?\\");
    return names;
}

} // namespace host::nt
