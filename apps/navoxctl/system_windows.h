// The Windows API.
#pragma once

#include "apps/navoxctl/system.h"

namespace navoxctl {

class WindowsSystem : public System {
  public:
    std::unique_ptr<PortHandle> Open(const std::string& port) override;
    std::vector<MapEntry> SerialMap() override;
    std::vector<InterfaceEntry> ComInterfaces() override;
    std::string ErrorText(std::uint32_t error) override;
};

} // namespace navoxctl
