// navoxctl's system, as the user-mode kernel and its registry.
#pragma once

#include "apps/navoxctl/system.h"

// Each member is called by a kernel thread.
class HostSystem : public navoxctl::System {
  public:
    std::unique_ptr<navoxctl::PortHandle> Open(const std::string& port) override;
    std::vector<navoxctl::MapEntry> SerialMap() override;
    std::vector<navoxctl::InterfaceEntry> ComInterfaces() override;
    // The name of the error.
    std::string ErrorText(std::uint32_t error) override;
};
