// WMI: who has registered which data blocks, and a client that asks for them.
#pragma once

#include "io/actor.h"
#include "ke/kernel.h"
#include "ke/mutex.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>
#include <wdm/io.h>

namespace host {

// A data block of one device.
struct WmiBlock {
    GUID guid{};
    ULONG instances = 0;
    std::string base_name; // of the instances: the device's path and a number follow each other
    PDEVICE_OBJECT device = nullptr;
};

// What one device answers.
struct WmiAnswer {
    PDEVICE_OBJECT device = nullptr; // null: none has the block
    NTSTATUS status = 0;
    bool too_small = false; // the buffer was; `needed` says what the whole answer takes
    ULONG needed = 0;
    std::vector<std::vector<std::byte>> instances;
};

class WmiManager : public Component {
  public:
    explicit WmiManager(Kernel& kernel);
    ~WmiManager() override;

    static WmiManager& Current() { return Kernel::Current().Get<WmiManager>(); }

    // For IoWMIRegistrationControl. Deregistering waits for requests that are under way. PASSIVE_LEVEL.
    NTSTATUS Register(PDEVICE_OBJECT device);
    NTSTATUS Deregister(PDEVICE_OBJECT device);
    // Asks the device again for what it has.
    NTSTATUS Update(PDEVICE_OBJECT device);

    // The client. IRQL PASSIVE_LEVEL. Each waits until registrations under way are known.
    std::vector<WmiBlock> Blocks();
    // One answer from each device that has the block, in the order of registration.
    std::vector<WmiAnswer> QueryAllData(const GUID& guid, ULONG buffer_size = 4096);
    // An instance is one device's: of `device`, or of the first that has the block.
    WmiAnswer QuerySingleInstance(const GUID& guid, ULONG instance, ULONG buffer_size = 4096,
                                  PDEVICE_OBJECT device = nullptr);
    NTSTATUS SetSingleInstance(const GUID& guid, ULONG instance, std::span<const std::byte> data,
                               PDEVICE_OBJECT device = nullptr);
    NTSTATUS SetSingleItem(const GUID& guid, ULONG instance, ULONG item, std::span<const std::byte> data,
                           PDEVICE_OBJECT device = nullptr);
    // Any other minor code, for a block that `device` need not have registered.
    NTSTATUS Send(PDEVICE_OBJECT device, UCHAR minor, const GUID& guid);

    void Shutdown() override;

  private:
    struct Provider {
        PDEVICE_OBJECT device = nullptr;
        std::vector<WmiBlock> blocks;
        int requests = 0; // under way
        bool leaving = false;
        KEVENT quiet; // signalled when it leaves and the last request is back
    };
    using ProviderPtr = std::shared_ptr<Provider>;

    ProviderPtr FindLocked(PDEVICE_OBJECT device) HOST_REQUIRES(mutex_);
    std::vector<ProviderPtr> EnterAll(const GUID* guid, PDEVICE_OBJECT device, std::size_t most = SIZE_MAX);
    ProviderPtr Enter(const GUID* guid, PDEVICE_OBJECT device);
    void Leave(const ProviderPtr& provider);
    WmiAnswer AskAllData(const ProviderPtr& provider, const GUID& guid, ULONG buffer_size);
    void AskRegistration(PDEVICE_OBJECT device);
    NTSTATUS SendTo(const ProviderPtr& provider, UCHAR minor, PVOID data_path, std::span<std::byte> buffer,
                    ULONG_PTR* information);

    Mutex mutex_;
    std::vector<ProviderPtr> providers_ HOST_GUARDED_BY(mutex_);
    IopActor actor_;
};

} // namespace host
