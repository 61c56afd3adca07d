#include "etw/providers.h"

#include "ke/kernel_impl.h"

#include <algorithm>
#include <cstdio>
#include <ntstatus.h>
#include <string>
#include <utility>
#include <vector>
#include <wdm/etw.h>

namespace host {
namespace {

// The first bytes of an event's data, for the reader of a trace.
std::string DataText(const EVENT_DATA_DESCRIPTOR* data, ULONG count)
{
    constexpr std::size_t kShown = 32;
    std::string text;
    std::size_t shown = 0;
    for (ULONG i = 0; i < count; ++i) {
        const auto* const bytes = reinterpret_cast<const unsigned char*>(data[i].Ptr);
        for (ULONG at = 0; at < data[i].Size && shown < kShown; ++at, ++shown) {
            char hex[4];
            std::snprintf(hex, sizeof hex, " %02x", bytes[at]);
            text += hex;
        }
    }
    return text;
}

} // namespace

NTSTATUS EtwProviders::Register(const GUID& id, PETWENABLECALLBACK callback, PVOID context, REGHANDLE& handle,
                                const void* caller)
{
    {
        const MutexLock lock(mutex_);
        handle = ++last_;
        providers_[handle] = {.registered_at = caller};
    }
    constexpr UCHAR kEveryLevel = 255;
    if (callback != nullptr)
        callback(&id, EVENT_CONTROL_CODE_ENABLE_PROVIDER, kEveryLevel, ~0ULL, 0, nullptr, context);
    return STATUS_SUCCESS;
}

NTSTATUS EtwProviders::Unregister(REGHANDLE handle)
{
    const MutexLock lock(mutex_);
    return providers_.erase(handle) == 1 ? STATUS_SUCCESS : STATUS_INVALID_HANDLE;
}

bool EtwProviders::Registered(REGHANDLE handle) const
{
    const MutexLock lock(mutex_);
    return providers_.contains(handle);
}

void EtwProviders::AuditUnload(std::string_view when)
{
    std::vector<const void*> left;
    {
        const MutexLock lock(mutex_);
        for (auto& [handle, provider] : providers_) {
            if (!std::exchange(provider.reported, true))
                left.push_back(provider.registered_at);
        }
    }
    for (const void* const caller : left)
        VfReport(Rule::EtwStillRegistered, "",
                 "a provider of event tracing is registered" + std::string(when), caller);
}

} // namespace host

using namespace host;

NTSTATUS NTAPI EtwRegister(LPCGUID ProviderId, PETWENABLECALLBACK EnableCallback, PVOID CallbackContext,
                           PREGHANDLE RegHandle)
{
    const void* const caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, __func__, caller);
    return KiKernel().kernel.Get<EtwProviders>().Register(*ProviderId, EnableCallback, CallbackContext,
                                                          *RegHandle, caller);
}

NTSTATUS NTAPI EtwUnregister(REGHANDLE RegHandle)
{
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, __func__, __builtin_return_address(0));
    return KiKernel().kernel.Get<EtwProviders>().Unregister(RegHandle);
}

BOOLEAN NTAPI EtwEventEnabled(REGHANDLE RegHandle, PCEVENT_DESCRIPTOR /*EventDescriptor*/)
{
    return KiKernel().kernel.Get<EtwProviders>().Registered(RegHandle) ? TRUE : FALSE;
}

NTSTATUS NTAPI EtwWrite(REGHANDLE RegHandle, PCEVENT_DESCRIPTOR EventDescriptor, LPCGUID /*ActivityId*/,
                        ULONG UserDataCount, PEVENT_DATA_DESCRIPTOR UserData)
{
    Kernel& kernel = KiKernel().kernel;
    if (!kernel.Get<EtwProviders>().Registered(RegHandle))
        return STATUS_INVALID_HANDLE;
    kernel.Log().Note("etw", "event",
                      "id " + std::to_string(EventDescriptor->Id) + " level " +
                          std::to_string(EventDescriptor->Level) + " data" +
                          DataText(UserData, UserDataCount));
    return STATUS_SUCCESS;
}
