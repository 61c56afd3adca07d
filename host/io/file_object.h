// File objects: an open of a device, and the handles to it.
#pragma once

#include "io/pnp_manager.h"
#include "ke/kernel.h"

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <wdm/io.h>

namespace host {

// What the I/O manager keeps beside a file object. The object lives until the last reference goes: one for
// the handles together, one for each request under way.
class IopFile {
  public:
    PFILE_OBJECT object = nullptr;
    PDEVICE_OBJECT device = nullptr; // that was named
    PnpNodePtr node;                 // of its stack; null for devices that no bus reported
    ACCESS_MASK granted = 0;
    bool overlapped = false;
    ULONG process = 0;
    std::u16string name; // what followed the device's name
    std::atomic<int> handles{1};
    std::atomic<int> references{1};
    KEVENT turn; // of a synchronous file: signalled when nobody is in a request
};

struct IopOpenParameters {
    ACCESS_MASK access = 0;
    ULONG share = 0;
    bool overlapped = false;
    ULONG process = 0;
};

// IRP_MJ_CREATE to the stack of the device that `path` names. IRQL PASSIVE_LEVEL.
NTSTATUS IopOpenFile(std::u16string_view path, const IopOpenParameters& parameters, IopFile** file);
// One more handle, and one less; the last one sends IRP_MJ_CLEANUP. IRQL PASSIVE_LEVEL.
void IopDuplicateHandle(IopFile* file);
void IopCloseHandle(IopFile* file);

// References of requests. The last one sends IRP_MJ_CLOSE; at DISPATCH_LEVEL a system thread does so.
void IopReferenceFile(IopFile* file);
void IopDereferenceFile(IopFile* file);
// The same for a request that is completed: its last reference always leaves IRP_MJ_CLOSE to a system thread. The
// thread that completes is inside a driver, and may hold what that driver's close routine waits for.
void IopReleaseFile(IopFile* file);

// The device that the file's requests go to: the top of the stack as it is now.
PDEVICE_OBJECT IopTargetOf(const IopFile& file);

} // namespace host
