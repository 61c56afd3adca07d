#include "cm/registry.h"

#include "cm/text.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <list>
#include <map>
#include <utility>

namespace host {

class CmKey {
  public:
    std::u16string name;
    std::weak_ptr<CmKey> parent;
    bool deleted = false;
    std::map<std::u16string, CmKeyPtr> keys;                               // by folded name
    std::list<CmValue> values;                                             // in the order of their creation
    std::map<std::u16string, std::list<CmValue>::iterator> values_by_name; // folded

    CmValue* FindValue(std::u16string_view wanted)
    {
        auto found = values_by_name.find(FoldCase(wanted));
        return found == values_by_name.end() ? nullptr : &*found->second;
    }
};

namespace {

constexpr std::u16string_view kRootPath = u"\\Registry";

// A host that runs for months must not remember every change.
constexpr std::size_t kWritesKept = 65536;

// Takes the next component off `path`, which may begin with separators.
std::u16string_view NextComponent(std::u16string_view& path)
{
    std::size_t begin = path.find_first_not_of(u'\\');
    if (begin == path.npos) {
        path = {};
        return {};
    }
    std::size_t end = std::min(path.find(u'\\', begin), path.size());
    std::u16string_view component = path.substr(begin, end - begin);
    path.remove_prefix(end);
    return component;
}

// The part of a native path below \Registry; nothing for other paths.
std::optional<std::u16string_view> BelowRoot(std::u16string_view path)
{
    if (path.empty() || path[0] != u'\\') {
        return std::nullopt;
    }
    if (!SameName(NextComponent(path), kRootPath.substr(1))) {
        return std::nullopt;
    }
    return path;
}

std::u16string PathOf(const CmKey* key)
{
    CmKeyPtr parent = key->parent.lock();
    if (!parent) {
        return std::u16string(kRootPath);
    }
    return PathOf(parent.get()) + u'\\' + key->name;
}

} // namespace

std::optional<std::uint32_t> CmWrite::Dword() const
{
    std::uint32_t value = 0;
    if (type != static_cast<std::uint32_t>(CmType::Dword) || data.size() != sizeof value) {
        return std::nullopt;
    }
    std::memcpy(&value, data.data(), sizeof value);
    return value;
}

std::optional<std::string> CmWrite::Text() const
{
    if (type != static_cast<std::uint32_t>(CmType::String)) {
        return std::nullopt;
    }
    return ToUtf8(CmStringText(data));
}

std::vector<std::byte> CmStringData(std::u16string_view text)
{
    std::vector<std::byte> data((text.size() + 1) * sizeof(char16_t));
    std::memcpy(data.data(), text.data(), text.size() * sizeof(char16_t));
    return data;
}

std::u16string CmStringText(std::span<const std::byte> data)
{
    std::u16string text(data.size() / sizeof(char16_t), u'\0');
    std::memcpy(text.data(), data.data(), text.size() * sizeof(char16_t));
    return text.substr(0, text.find(u'\0'));
}

CmRegistry::CmRegistry() : root_(std::make_shared<CmKey>())
{
    root_->name = kRootPath.substr(1);
    Create(u"\\Registry\\Machine");
    Create(u"\\Registry\\User");
    Create(u"\\Registry\\Machine\\HARDWARE\\DEVICEMAP");
    Create(u"\\Registry\\Machine\\System\\CurrentControlSet\\Services");
    ClearWrites();
}

CmRegistry::~CmRegistry() = default;

CmKeyPtr CmRegistry::Walk(const CmKeyPtr& from, std::u16string_view relative) const
{
    CmKeyPtr key = from;
    for (std::u16string_view part = NextComponent(relative); key && !part.empty();
         part = NextComponent(relative)) {
        auto found = key->keys.find(FoldCase(part));
        key = found == key->keys.end() ? nullptr : found->second;
    }
    return key && !key->deleted ? key : nullptr;
}

CmKeyPtr CmRegistry::Open(std::u16string_view path) const
{
    std::optional<std::u16string_view> below = BelowRoot(path);
    return below ? Open(root_, *below) : nullptr;
}

CmKeyPtr CmRegistry::Open(const CmKeyPtr& parent, std::u16string_view relative) const
{
    std::lock_guard guard(lock_);
    return Walk(parent, relative);
}

CmKeyPtr CmRegistry::Create(std::u16string_view path, bool* created)
{
    std::optional<std::u16string_view> below = BelowRoot(path);
    return below ? Create(root_, *below, created) : nullptr;
}

CmKeyPtr CmRegistry::Create(const CmKeyPtr& parent, std::u16string_view relative, bool* created)
{
    std::lock_guard guard(lock_);
    CmKeyPtr key = parent;
    bool made = false;
    if (!key || key->deleted) {
        return nullptr;
    }
    for (std::u16string_view part = NextComponent(relative); !part.empty(); part = NextComponent(relative)) {
        CmKeyPtr& child = key->keys[FoldCase(part)];
        made = child == nullptr;
        if (made) {
            child = std::make_shared<CmKey>();
            child->name = part;
            child->parent = key;
            Log(CmWrite::Kind::CreateKey, child);
        }
        key = child;
    }
    if (created != nullptr) {
        *created = made;
    }
    return key;
}

bool CmRegistry::SetValue(const CmKeyPtr& key, std::u16string_view name, std::uint32_t type,
                          std::span<const std::byte> data)
{
    std::lock_guard guard(lock_);
    if (key->deleted) {
        return false;
    }
    CmValue* value = key->FindValue(name);
    if (value == nullptr) {
        value = &key->values.emplace_back();
        value->name = name;
        key->values_by_name[FoldCase(name)] = std::prev(key->values.end());
    }
    value->type = type;
    value->data.assign(data.begin(), data.end());
    Log(CmWrite::Kind::SetValue, key, name, type, data);
    return true;
}

bool CmRegistry::DeleteValue(const CmKeyPtr& key, std::u16string_view name)
{
    std::lock_guard guard(lock_);
    auto found = key->values_by_name.find(FoldCase(name));
    if (key->deleted || found == key->values_by_name.end()) {
        return false;
    }
    key->values.erase(found->second);
    key->values_by_name.erase(found);
    Log(CmWrite::Kind::DeleteValue, key, name);
    return true;
}

bool CmRegistry::DeleteLocked(const CmKeyPtr& key, bool withSubKeys)
{
    CmKeyPtr parent = key->parent.lock();
    if (key->deleted || !parent || (!withSubKeys && !key->keys.empty())) {
        return false;
    }
    while (!key->keys.empty()) {
        DeleteLocked(CmKeyPtr(key->keys.begin()->second), true);
    }
    Log(CmWrite::Kind::DeleteKey, key);
    parent->keys.erase(FoldCase(key->name));
    key->deleted = true;
    return true;
}

bool CmRegistry::DeleteKey(const CmKeyPtr& key)
{
    std::lock_guard guard(lock_);
    return DeleteLocked(key, false);
}

bool CmRegistry::DeleteTree(const CmKeyPtr& key)
{
    std::lock_guard guard(lock_);
    return DeleteLocked(key, true);
}

std::optional<CmValue> CmRegistry::Value(const CmKeyPtr& key, std::u16string_view name) const
{
    std::lock_guard guard(lock_);
    const CmValue* value = key->deleted ? nullptr : key->FindValue(name);
    return value == nullptr ? std::nullopt : std::optional(*value);
}

std::vector<CmValue> CmRegistry::Values(const CmKeyPtr& key) const
{
    std::lock_guard guard(lock_);
    return {key->values.begin(), key->values.end()};
}

std::vector<std::u16string> CmRegistry::SubKeys(const CmKeyPtr& key) const
{
    std::lock_guard guard(lock_);
    std::vector<std::u16string> names;
    for (const auto& [folded, child] : key->keys) {
        names.push_back(child->name);
    }
    return names;
}

std::u16string CmRegistry::Path(const CmKeyPtr& key) const
{
    std::lock_guard guard(lock_);
    return PathOf(key.get());
}

bool CmRegistry::Deleted(const CmKeyPtr& key) const
{
    std::lock_guard guard(lock_);
    return key->deleted;
}

void CmRegistry::SetString(std::u16string_view path, std::u16string_view name, std::u16string_view text)
{
    if (CmKeyPtr key = Create(path)) {
        SetValue(key, name, static_cast<std::uint32_t>(CmType::String), CmStringData(text));
    }
}

void CmRegistry::SetDword(std::u16string_view path, std::u16string_view name, std::uint32_t value)
{
    if (CmKeyPtr key = Create(path)) {
        SetValue(key, name, static_cast<std::uint32_t>(CmType::Dword), std::as_bytes(std::span(&value, 1)));
    }
}

std::optional<std::string> CmRegistry::String(std::u16string_view path, std::u16string_view name) const
{
    CmKeyPtr key = Open(path);
    std::optional<CmValue> value = key ? Value(key, name) : std::nullopt;
    return value ? std::optional(ToUtf8(CmStringText(value->data))) : std::nullopt;
}

std::optional<std::uint32_t> CmRegistry::Dword(std::u16string_view path, std::u16string_view name) const
{
    CmKeyPtr key = Open(path);
    std::optional<CmValue> value = key ? Value(key, name) : std::nullopt;
    std::uint32_t number = 0;
    if (!value || value->data.size() != sizeof number) {
        return std::nullopt;
    }
    std::memcpy(&number, value->data.data(), sizeof number);
    return number;
}

void CmRegistry::Log(CmWrite::Kind kind, const CmKeyPtr& key, std::u16string_view name, std::uint32_t type,
                     std::span<const std::byte> data)
{
    if (writes_.size() == kWritesKept) {
        writes_.erase(writes_.begin(), writes_.begin() + kWritesKept / 2);
    }
    writes_.push_back({kind, PathOf(key.get()), std::u16string(name), type, {data.begin(), data.end()}});
}

std::vector<CmWrite> CmRegistry::Writes() const
{
    std::lock_guard guard(lock_);
    return writes_;
}

void CmRegistry::ClearWrites()
{
    std::lock_guard guard(lock_);
    writes_.clear();
}

} // namespace host
