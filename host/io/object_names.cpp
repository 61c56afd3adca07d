#include "io/object_names.h"

#include "cm/text.h"

namespace host {
namespace {

constexpr int kMostLinks = 32;

// The one form of a name that is compared.
std::u16string Canonical(std::u16string_view name)
{
    constexpr std::u16string_view kOthers[] = {u"\\DOSDEVICES\\", u"\\GLOBAL??\\"};
    constexpr std::u16string_view kDos = u"\\??\\";
    std::u16string folded = FoldCase(name);
    for (std::u16string_view other : kOthers) {
        if (folded.starts_with(other))
            return std::u16string(kDos) + folded.substr(other.size());
    }
    return folded;
}

} // namespace

std::optional<std::u16string> IopText(const UNICODE_STRING* text)
{
    if (text == nullptr || text->Length == 0)
        return std::u16string();
    if (text->Length % sizeof(WCHAR) != 0 || text->Length > text->MaximumLength || text->Buffer == nullptr)
        return std::nullopt;
    return std::u16string(text->Buffer, text->Buffer + text->Length / sizeof(WCHAR));
}

NTSTATUS ObjectNames::AddDevice(std::u16string_view name, PDEVICE_OBJECT device)
{
    const MutexLock lock(mutex_);
    const bool added = tree_.try_emplace(Canonical(name), Entry{std::u16string(name), device, {}}).second;
    return added ? STATUS_SUCCESS : STATUS_OBJECT_NAME_COLLISION;
}

NTSTATUS ObjectNames::AddLink(std::u16string_view name, std::u16string_view target)
{
    if (!name.starts_with(u'\\'))
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    Entry entry{std::u16string(name), nullptr, std::u16string(target)};
    const MutexLock lock(mutex_);
    const bool added = tree_.try_emplace(Canonical(name), std::move(entry)).second;
    return added ? STATUS_SUCCESS : STATUS_OBJECT_NAME_COLLISION;
}

NTSTATUS ObjectNames::RemoveLink(std::u16string_view name)
{
    const MutexLock lock(mutex_);
    auto found = tree_.find(Canonical(name));
    if (found == tree_.end())
        return STATUS_OBJECT_NAME_NOT_FOUND;
    if (found->second.device != nullptr)
        return STATUS_OBJECT_TYPE_MISMATCH;
    tree_.erase(found);
    return STATUS_SUCCESS;
}

void ObjectNames::RemoveDevice(PDEVICE_OBJECT device)
{
    const MutexLock lock(mutex_);
    std::erase_if(tree_, [=](const auto& item) { return item.second.device == device; });
}

ObjectNames::Tree::const_iterator ObjectNames::FindPrefix(const std::u16string& folded) const
{
    for (std::size_t length = folded.size(); length != 0 && length != folded.npos;
         length = folded.rfind(u'\\', length - 1)) {
        auto found = tree_.find(folded.substr(0, length));
        if (found != tree_.end())
            return found;
        if (length == 1)
            break;
    }
    return tree_.end();
}

std::optional<ObjectNames::Found> ObjectNames::Open(std::u16string_view path) const
{
    std::u16string current(path);
    const MutexLock lock(mutex_);
    for (int links = 0; links < kMostLinks; ++links) {
        const std::u16string folded = Canonical(current);
        auto found = FindPrefix(folded);
        if (found == tree_.end())
            return std::nullopt;
        // The rest keeps its case: count from the end, where both forms are the same length.
        std::u16string rest = current.substr(current.size() - (folded.size() - found->first.size()));
        if (found->second.device != nullptr) {
            __atomic_fetch_add(&found->second.device->ReferenceCount, 1, __ATOMIC_RELAXED);
            return Found{found->second.device, std::move(rest)};
        }
        current = found->second.target + rest;
    }
    return std::nullopt;
}

std::u16string ObjectNames::NameOf(const DEVICE_OBJECT* device) const
{
    const MutexLock lock(mutex_);
    for (const auto& [folded, entry] : tree_) {
        if (entry.device == device)
            return entry.name;
    }
    return {};
}

std::vector<ObjectNames::Link> ObjectNames::Links() const
{
    std::vector<Link> links;
    const MutexLock lock(mutex_);
    for (const auto& [folded, entry] : tree_) {
        if (entry.device == nullptr)
            links.push_back({entry.name, entry.target});
    }
    return links;
}

// The device at the end of a chain of links; null when there is none.
const ObjectNames::Entry* ObjectNames::Follow(const Entry& link) const
{
    const Entry* entry = &link;
    for (int links = 0; entry != nullptr && entry->device == nullptr; ++links) {
        auto found = FindPrefix(Canonical(entry->target));
        entry = found == tree_.end() || links == kMostLinks ? nullptr : &found->second;
    }
    return entry;
}

std::vector<ObjectNames::Link> ObjectNames::TakeDanglingLinks()
{
    std::vector<Link> dangling;
    const MutexLock lock(mutex_);
    for (auto it = tree_.begin(); it != tree_.end();) {
        if (Follow(it->second) != nullptr) {
            ++it;
            continue;
        }
        dangling.push_back({it->second.name, it->second.target});
        it = tree_.erase(it);
    }
    return dangling;
}

} // namespace host
