// navoxctl's system, as the user-mode kernel. Its lists are the test's.
#pragma once

#include "apps/navoxctl/system.h"

// Each member is called by a kernel thread.
class HostSystem : public navoxctl::System {
  public:
    std::unique_ptr<navoxctl::PortHandle> Open(const std::string& port) override;
    std::vector<navoxctl::MapEntry> SerialMap() override { return map; }
    std::vector<navoxctl::InterfaceEntry> ComInterfaces() override { return interfaces; }
    // The name of the error.
    std::string ErrorText(std::uint32_t error) override;

    std::vector<navoxctl::MapEntry> map;
    std::vector<navoxctl::InterfaceEntry> interfaces;
};
