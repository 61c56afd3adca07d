// The registry of the running kernel.
#pragma once

#include "cm/registry.h"
#include "io/handle_table.h"
#include "ke/kernel.h"

#include <ntdef.h>
#include <utility>

namespace host {

class ConfigurationManager : public Component {
  public:
    using Component::Component;

    static ConfigurationManager& Current() { return Kernel::Current().Get<ConfigurationManager>(); }

    CmRegistry& Registry() { return registry_; }

  private:
    CmRegistry registry_;
};

// An open key, as a handle refers to it.
class CmKeyHandle : public ObHandleBody {
  public:
    explicit CmKeyHandle(CmKeyPtr opened) : key(std::move(opened)) {}
    std::string Describe() const override;

    const CmKeyPtr key;
};

// Opens `path`, making the last keys of it when they are missing and `create` is set.
NTSTATUS CmpOpenKeyHandle(std::u16string_view path, bool create, HANDLE* handle);

// Tells the event log of a value that was set, or deleted when there is no data: "OpenHandles = 1".
void CmpLogChange(std::u16string_view name, std::uint32_t type,
                  std::optional<std::span<const std::byte>> data);

// True when a registry routine is to fail now; `status` says with what.
bool CmpFaultHit(const char* routine, NTSTATUS* status);

} // namespace host
