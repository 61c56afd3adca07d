// The pump: moves packets between transfers and the device, and completes what has ended.
#include "usbd/port_lock.h"
#include "usbd/urb.h"
#include "usbd/usb_port.h"

#include "io/pnp_manager.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace host {
namespace {

bool IsIn(const module::SetupPacket& setup)
{
    return (setup.bmRequestType & 0x80) != 0;
}

// Where a control URB's data stage lies; all of these begin alike.
struct ControlBuffer {
    PVOID data;
    ULONG* length;
};

ControlBuffer BufferOf(PURB urb)
{
    if (urb->UrbHeader.Function == URB_FUNCTION_CONTROL_TRANSFER) {
        auto& transfer = urb->UrbControlTransfer;
        return {transfer.TransferBuffer, &transfer.TransferBufferLength};
    }
    auto& request = urb->UrbControlVendorClassRequest;
    return {request.TransferBuffer, &request.TransferBufferLength};
}

} // namespace

VOID NTAPI UsbPort::PumpDpc(PKDPC, PVOID context, PVOID, PVOID)
{
    static_cast<UsbPort*>(context)->Pump();
}

void UsbPort::Pump()
{
    // Another DPC may run this on another processor: that one does our work, so that completions keep
    // their order.
    {
        const PortLock lock(lock_);
        pump_again_ = true;
        if (pumping_)
            return;
        pumping_ = true;
    }
    for (bool more = true; more;) {
        std::vector<UsbTransferPtr> done;
        bool depart = false;
        {
            const PortLock lock(lock_);
            pump_again_ = false;
            more = PumpOnce(done);
            depart = gone_ && !departed_;
            departed_ = departed_ || depart;
        }
        for (const UsbTransferPtr& transfer : done)
            Complete(transfer);
        if (depart)
            PnpManager::Current().Depart(pdo_);
        CheckWaiters();
        const PortLock lock(lock_);
        more = more || pump_again_;
        pumping_ = more;
        if (!more)
            ArmTimer();
    }
}

// One look at everything. True: something ended, so there may be more to do.
bool UsbPort::PumpOnce(std::vector<UsbTransferPtr>& done)
{
    done.swap(cancelled_);
    if (gone_ || !device_->Present()) {
        gone_ = true;
        FailAll(USBD_STATUS_DEVICE_GONE, done);
        return !done.empty();
    }
    device_->Advance(Kernel::Current().Now());
    if (power_ == PowerDeviceD0) {
        for (auto& [address, endpoint] : endpoints_)
            RunEndpoint(endpoint, done);
    }
    gone_ = gone_ || !device_->Present();
    return !done.empty() || gone_ != departed_;
}

void UsbPort::RunEndpoint(Endpoint& endpoint, std::vector<UsbTransferPtr>& done)
{
    while (!endpoint.queue.empty()) {
        const UsbTransferPtr transfer = endpoint.queue.front();
        const bool abort = transfer->urb->UrbHeader.Function == URB_FUNCTION_ABORT_PIPE;
        if (abort ? !RunAbort(*transfer, done) : !RunTransfer(*transfer, endpoint))
            return;
        std::erase(endpoint.queue, transfer);
        if (TakeForCompletion(transfer))
            done.push_back(transfer);
    }
}

// Whether the transfer is the pump's to complete. If not, its cancel routine will come for it.
bool UsbPort::TakeForCompletion(const UsbTransferPtr& transfer)
{
    if (IoSetCancelRoutine(transfer->irp, nullptr) != nullptr)
        return true;
    limbo_.push_back(transfer);
    return false;
}

// Each of the Run routines: true when the transfer has ended.
bool UsbPort::RunTransfer(UsbTransfer& transfer, Endpoint& endpoint)
{
    if (transfer.hung || transfer.not_before > Kernel::Current().Now())
        return false;
    if (transfer.result != USBD_STATUS_SUCCESS)
        return true; // failed before it began
    if (transfer.pipe == nullptr || !UrbIsTransfer(transfer.urb->UrbHeader.Function))
        return RunControl(transfer);
    if (endpoint.halted) {
        transfer.result = USBD_STATUS_ENDPOINT_HALTED;
        return true;
    }
    return USB_ENDPOINT_DIRECTION_IN(transfer.endpoint) ? RunIn(transfer, endpoint)
                                                        : RunOut(transfer, endpoint);
}

bool UsbPort::RunIn(UsbTransfer& transfer, Endpoint& endpoint)
{
    auto& request = transfer.urb->UrbBulkOrInterruptTransfer;
    auto* buffer = static_cast<UCHAR*>(request.TransferBuffer);
    const ULONG wanted = request.TransferBufferLength;
    bool ended = false;
    while (!ended) {
        const module::Packet packet = device_->In(transfer.endpoint);
        if (packet.handshake == module::Handshake::Nak)
            return false;
        const std::size_t size = packet.data.size();
        const bool is_short = size < transfer.pipe->max_packet;
        if (packet.handshake == module::Handshake::Stall) {
            endpoint.halted = true;
            transfer.result = USBD_STATUS_STALL_PID;
            ended = true;
        } else if (size > transfer.pipe->max_packet || size > wanted - transfer.moved) {
            endpoint.halted = true;
            transfer.result =
                size > transfer.pipe->max_packet ? USBD_STATUS_BABBLE_DETECTED : USBD_STATUS_DATA_OVERRUN;
            ended = true;
        } else {
            std::copy(packet.data.begin(), packet.data.end(), buffer + transfer.moved);
            transfer.moved += static_cast<ULONG>(size);
            ended = is_short || transfer.moved == wanted;
            if (is_short && transfer.moved < wanted && (request.TransferFlags & USBD_SHORT_TRANSFER_OK) == 0)
                transfer.result = USBD_STATUS_ERROR_SHORT_TRANSFER;
        }
    }
    request.TransferBufferLength = transfer.moved;
    bus_.UpdateRequest(transfer.request, [&](UsbRequest& entry) {
        entry.data.assign(buffer, buffer + std::min<std::size_t>(transfer.moved, UsbRequest::kDataKept));
    });
    return true;
}

bool UsbPort::RunOut(UsbTransfer& transfer, Endpoint& endpoint)
{
    auto& request = transfer.urb->UrbBulkOrInterruptTransfer;
    const std::span all(static_cast<const UCHAR*>(request.TransferBuffer), request.TransferBufferLength);
    do {
        const std::size_t left = all.size() - transfer.moved;
        const auto chunk =
            all.subspan(transfer.moved, std::min<std::size_t>(left, transfer.pipe->max_packet));
        switch (device_->Out(transfer.endpoint, chunk)) {
        case module::Handshake::Nak: return false;
        case module::Handshake::Stall:
            endpoint.halted = true;
            transfer.result = USBD_STATUS_STALL_PID;
            request.TransferBufferLength = transfer.moved;
            return true;
        case module::Handshake::Ack: transfer.moved += static_cast<ULONG>(chunk.size()); break;
        }
    } while (transfer.moved < all.size());
    return true;
}

bool UsbPort::RunAbort(UsbTransfer& transfer, std::vector<UsbTransferPtr>& done)
{
    auto& queue = endpoints_[transfer.endpoint].queue;
    const std::vector<UsbTransferPtr> victims(queue.begin() + 1, queue.end());
    for (const UsbTransferPtr& victim : victims) {
        if (victim->urb->UrbHeader.Function == URB_FUNCTION_ABORT_PIPE)
            continue;
        victim->cancelled = true;
        std::erase(queue, victim);
        if (TakeForCompletion(victim))
            done.push_back(victim);
    }
    return transfer.result == USBD_STATUS_SUCCESS;
}

bool UsbPort::RunControl(UsbTransfer& transfer)
{
    while (transfer.step < transfer.steps.size()) {
        if (!RunStep(transfer, transfer.steps[transfer.step]))
            return false;
        if (transfer.result != USBD_STATUS_SUCCESS)
            return true;
        ++transfer.step;
    }
    FinishControl(transfer);
    return true;
}

// One control transfer; the result is in the transfer.
bool UsbPort::RunStep(UsbTransfer& transfer, const module::SetupPacket& setup)
{
    // A request without a data stage may be too short to have a place for one.
    const ControlBuffer buffer = setup.wLength != 0 ? BufferOf(transfer.urb) : ControlBuffer{};
    std::span<const std::uint8_t> out;
    if (!IsIn(setup) && setup.wLength != 0)
        out = {static_cast<const std::uint8_t*>(buffer.data), setup.wLength};
    const module::Packet answer = device_->Control(setup, out);
    if (answer.handshake == module::Handshake::Nak)
        return false;
    if (answer.handshake == module::Handshake::Stall) {
        transfer.result = USBD_STATUS_STALL_PID;
    } else if (answer.data.size() > setup.wLength) {
        transfer.result = USBD_STATUS_DATA_OVERRUN;
    } else if (IsIn(setup) && setup.wLength != 0) {
        std::copy(answer.data.begin(), answer.data.end(), static_cast<UCHAR*>(buffer.data));
        transfer.moved = static_cast<ULONG>(answer.data.size());
        *buffer.length = transfer.moved;
    } else {
        transfer.moved = setup.wLength;
    }
    bus_.UpdateRequest(transfer.request, [&](UsbRequest& entry) {
        entry.setup.push_back(setup);
        const std::span<const std::uint8_t> data =
            IsIn(setup) ? std::span<const std::uint8_t>(answer.data) : out;
        const std::size_t kept = std::min(data.size(), UsbRequest::kDataKept);
        entry.data.assign(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(kept));
    });
    return true;
}

// What a control URB changes on the bus's side, once the device has agreed.
void UsbPort::FinishControl(UsbTransfer& transfer)
{
    switch (transfer.urb->UrbHeader.Function) {
    case URB_FUNCTION_SELECT_CONFIGURATION:
    case URB_FUNCTION_SELECT_INTERFACE: OpenInterfaces(transfer.urb); break;
    case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL:
    case URB_FUNCTION_SYNC_RESET_PIPE: endpoints_[transfer.pipe->endpoint].halted = false; break;
    default: break;
    }
}

void UsbPort::FailAll(USBD_STATUS status, std::vector<UsbTransferPtr>& done)
{
    for (auto& [address, endpoint] : endpoints_) {
        for (const UsbTransferPtr& transfer : endpoint.queue) {
            transfer->result = status;
            if (TakeForCompletion(transfer))
                done.push_back(transfer);
        }
        endpoint.queue.clear();
    }
}

void UsbPort::ArmTimer()
{
    if (gone_ || !started_)
        return;
    const Time now = Kernel::Current().Now();
    std::optional<Time> next = device_->NextEvent();
    for (const auto& [address, endpoint] : endpoints_) {
        for (const UsbTransferPtr& transfer : endpoint.queue) {
            if (transfer->not_before > now)
                next = std::min(next.value_or(transfer->not_before), transfer->not_before);
        }
    }
    if (!next)
        return;
    LARGE_INTEGER due{};
    due.QuadPart = -std::max<Time>(*next - now, 1);
    KeSetTimer(&timer_, due, &dpc_);
}

} // namespace host
