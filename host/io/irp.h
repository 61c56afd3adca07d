// Requests: their memory, and what the I/O manager remembers of each beside it.
#pragma once

#include "ke/kernel.h"
#include "ke/mutex.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>
#include <wdm/io.h>

namespace host {

struct IrpTicket; // verifier/irp_rules.h

// What the I/O manager does when a request that it made itself is complete.
class IopRequest {
  public:
    virtual ~IopRequest() = default;
    // IRQL <= DISPATCH_LEVEL, on the thread that completed it. True: the IRP can be freed now.
    virtual bool Completed(PIRP irp) = 0;
    // Its thread ends. True when there was something to cancel.
    virtual bool Cancel() { return false; }
    // The process that asked for it; 0: the system.
    virtual ULONG ProcessId() const { return 0; }
    // Where it reports its end, when that is memory of whoever had it made; nullptr otherwise.
    virtual const void* ReportsTo() const { return nullptr; }
    // The room of the output buffer; nothing when Information is not a count of bytes.
    virtual std::optional<std::size_t> Capacity() const { return std::nullopt; }
};

// A request that a thread waits for: `result` is its end once `done` is set.
class IopWaitedRequest : public IopRequest {
  public:
    IopWaitedRequest();
    bool Completed(PIRP irp) override;

    KEVENT done;
    IO_STATUS_BLOCK result{};
};

enum class IrpOrigin : std::uint8_t {
    Allocated,   // IoAllocateIrp: its driver frees it
    Initialized, // IoInitializeIrp, in memory of a driver
    System,      // the I/O manager frees it when it is complete
};

// One driver's turn at a request, by stack location.
struct IrpTurn {
    std::uint64_t call = 0; // which IofCallDriver entered it; 0: none yet
    PDEVICE_OBJECT device = nullptr;
    bool forced = false;    // the kernel marked it pending and answered STATUS_PENDING in its driver's place
    bool completed = false; // completion has passed it
    bool marked = false;    // it was marked pending then
    bool started_next = false;     // PoStartNextPowerIrp was called in this turn
    bool returned_pending = false; // its dispatch routine answered STATUS_PENDING
    NTSTATUS entry_status = 0;     // what the request said when it came
    ULONG_PTR entry_information = 0;
    NTSTATUS status = 0; // and when its completion passed
};

struct IrpRecord {
    PIRP irp = nullptr;
    IrpOrigin origin = IrpOrigin::Allocated;
    std::shared_ptr<IopRequest> request; // of System requests
    std::vector<IrpTurn> turns;          // by CurrentLocation, 1 to StackCount
    std::uint64_t number = 0;            // in order of allocation
    std::uint64_t calls = 0;
    bool in_flight = false; // sent by its owner, and not yet back
    bool freed = false;
    UCHAR major = 0;
    UCHAR minor = 0;
    ULONG code = 0;           // of device controls
    std::string allocated_by; // the actor
    const void* caller = nullptr;
    PKTHREAD thread = nullptr; // whose exit cancels it
    Time cancelled_at = 0;

    std::string Describe() const;
};
using IrpRecordPtr = std::shared_ptr<IrpRecord>;

class IrpTable : public Component {
  public:
    using Component::Component;

    static IrpTable& Current() { return Kernel::Current().Get<IrpTable>(); }

    IrpRecordPtr Add(PIRP irp, IrpOrigin origin, std::shared_ptr<IopRequest> request, const void* caller);
    IrpRecordPtr Find(const IRP* irp);
    // True when a request lived at this address and was freed, one of the last kFreedRemembered.
    static constexpr std::size_t kFreedRemembered = 4096;
    bool WasFreed(const IRP* irp);
    void Remove(const IrpRecordPtr& record);

    // Requests that `thread` has outstanding, oldest first; all requests with nullptr.
    std::vector<IrpRecordPtr> OfThread(PKTHREAD thread);
    std::vector<IrpRecordPtr> All();

    // Requests that report to memory of whoever had them made, while there are any.
    bool AnyReporting() const { return reporting_.load(std::memory_order_relaxed) != 0; }

    // Guards the fields of every record.
    Mutex mutex;

    void Audit() override;

  private:
    std::unordered_map<const IRP*, IrpRecordPtr> live_ HOST_GUARDED_BY(mutex);
    // By the number of the request that was freed there last; an address may come and go many times.
    std::unordered_map<const IRP*, std::uint64_t> freed_ HOST_GUARDED_BY(mutex);
    std::deque<std::pair<const IRP*, std::uint64_t>> freed_order_ HOST_GUARDED_BY(mutex);
    std::atomic<int> reporting_{0};
    std::uint64_t next_number_ HOST_GUARDED_BY(mutex) = 1;
};

// A request with room for `stack_size` drivers; nullptr when memory is short. IRQL <= DISPATCH_LEVEL.
PIRP IopAllocateIrp(CCHAR stack_size, IrpOrigin origin, std::shared_ptr<IopRequest> request,
                    const void* caller);
// Ends a request of any origin, without checks.
void IopFreeIrp(PIRP irp);

// As the routines that drivers call, for the I/O manager's own requests.
NTSTATUS IopCallDriver(PDEVICE_OBJECT device, PIRP irp, const void* caller);
void IopCompleteRequest(PIRP irp, const void* caller);
// What IofCallDriver does once the stack location is entered: calls the driver's routine, and checks its answer.
NTSTATUS IopDispatch(PDEVICE_OBJECT device, PIRP irp, const IrpTicket& ticket);

// What a driver gets for a request kind that it has no routine for.
NTSTATUS NTAPI IopInvalidDeviceRequest(PDEVICE_OBJECT device, PIRP irp);

// Sets a request that the caller owns going to `device` and waits for its end. IRQL PASSIVE_LEVEL.
// `prepare` fills the first stack location.
IO_STATUS_BLOCK IopSendAndWait(PDEVICE_OBJECT device, UCHAR major, UCHAR minor, NTSTATUS initial_status,
                               const std::function<void(PIRP, PIO_STACK_LOCATION)>& prepare = {});

} // namespace host
