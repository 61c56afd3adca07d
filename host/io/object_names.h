// The names of the object manager's tree: devices, and symbolic links to them.
#pragma once

#include "ke/mutex.h"

#include <map>
#include <ntstatus.h>
#include <optional>
#include <string>
#include <string_view>
#include <vector>
#include <wdm/irp.h>

namespace host {

// Names compare without regard to case. \DosDevices and \GLOBAL?? are other names of \??.
class ObjectNames {
  public:
    NTSTATUS AddDevice(std::u16string_view name, PDEVICE_OBJECT device);
    NTSTATUS AddLink(std::u16string_view name, std::u16string_view target);
    NTSTATUS RemoveLink(std::u16string_view name);
    void RemoveDevice(PDEVICE_OBJECT device);

    struct Found {
        PDEVICE_OBJECT device;
        std::u16string rest; // what follows the device's name: "\file", or nothing
    };
    // The device that `path` leads to, through any number of links. It is counted as open once more, before
    // its name can go.
    std::optional<Found> Open(std::u16string_view path) const;

    std::u16string NameOf(const DEVICE_OBJECT* device) const;

    struct Link {
        std::u16string name;
        std::u16string target;
    };
    std::vector<Link> Links() const;
    // Takes away the links that lead nowhere, and says which they were.
    std::vector<Link> TakeDanglingLinks();

  private:
    struct Entry {
        std::u16string name; // as it was given
        PDEVICE_OBJECT device = nullptr;
        std::u16string target; // of a link
    };
    using Tree = std::map<std::u16string, Entry>; // by folded name

    const Entry* Follow(const Entry& link) const HOST_REQUIRES(mutex_);
    // The longest name in the tree that is `path` or an ancestor of it.
    Tree::const_iterator FindPrefix(const std::u16string& folded) const HOST_REQUIRES(mutex_);

    mutable Mutex mutex_;
    Tree tree_ HOST_GUARDED_BY(mutex_);
};

// A counted string as text; nothing when it is malformed.
std::optional<std::u16string> IopText(const UNICODE_STRING* text);

} // namespace host
