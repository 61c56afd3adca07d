// A registry key of a device, closed when it goes out of scope. PASSIVE_LEVEL.
#pragma once

#include "navox_ddk.h"

class RegistryKey {
  public:
    // `keyType` is PLUGPLAY_REGKEY_DEVICE (hardware key) or PLUGPLAY_REGKEY_DRIVER (software key).
    RegistryKey(PDEVICE_OBJECT physicalDevice, ULONG keyType, ACCESS_MASK access)
        : status_(IoOpenDeviceRegistryKey(physicalDevice, keyType, access, &handle_))
    {}
    ~RegistryKey()
    {
        if (NT_SUCCESS(status_))
            ZwClose(handle_);
    }
    RegistryKey(const RegistryKey&) = delete;
    RegistryKey& operator=(const RegistryKey&) = delete;

    NTSTATUS Status() const { return status_; }
    HANDLE Get() const { return handle_; }

  private:
    HANDLE handle_ = nullptr;
    NTSTATUS status_;
};
