// The registry: keys and values in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace host {

// Value types, as on the platform.
enum class CmType : std::uint32_t {
    None = 0,
    String = 1,
    ExpandString = 2,
    Binary = 3,
    Dword = 4,
    DwordBigEndian = 5,
    Link = 6,
    MultiString = 7,
    Qword = 11,
};

struct CmValue {
    std::u16string name; // empty: the key's default value
    std::uint32_t type = 0;
    std::vector<std::byte> data;
};

// One change, in the order in which the changes were made.
struct CmWrite {
    enum class Kind { CreateKey, DeleteKey, SetValue, DeleteValue };
    Kind kind;
    std::u16string key;  // full native path
    std::u16string name; // of the value; empty for keys
    std::uint32_t type = 0;
    std::vector<std::byte> data;

    // For REG_DWORD data and for REG_SZ data without its terminator; nothing for other types.
    std::optional<std::uint32_t> Dword() const;
    std::optional<std::string> Text() const;
};

class CmKey;
using CmKeyPtr = std::shared_ptr<CmKey>;

// Paths are native (\Registry\Machine\...) and compare without regard to case. A CmKeyPtr keeps a key
// readable after it was deleted; a change through it then fails. All members may be called at any IRQL
// of the host and from any thread.
class CmRegistry {
  public:
    CmRegistry();
    ~CmRegistry();
    CmRegistry(const CmRegistry&) = delete;
    CmRegistry& operator=(const CmRegistry&) = delete;

    CmKeyPtr Open(std::u16string_view path) const;
    CmKeyPtr Open(const CmKeyPtr& parent, std::u16string_view relative) const;
    // Creates what is missing of the path. Null when the path does not begin with a root key or a key on
    // it was deleted meanwhile. `created` tells whether the last key is new.
    CmKeyPtr Create(std::u16string_view path, bool* created = nullptr);
    CmKeyPtr Create(const CmKeyPtr& parent, std::u16string_view relative, bool* created = nullptr);

    // False when the key was deleted (or, deleting one key, has subkeys, as the platform has it).
    bool SetValue(const CmKeyPtr& key, std::u16string_view name, std::uint32_t type,
                  std::span<const std::byte> data);
    bool DeleteValue(const CmKeyPtr& key, std::u16string_view name);
    bool DeleteKey(const CmKeyPtr& key);
    // The key with all below it.
    bool DeleteTree(const CmKeyPtr& key);

    std::optional<CmValue> Value(const CmKeyPtr& key, std::u16string_view name) const;
    std::vector<CmValue> Values(const CmKeyPtr& key) const;
    std::vector<std::u16string> SubKeys(const CmKeyPtr& key) const;
    std::u16string Path(const CmKeyPtr& key) const;
    bool Deleted(const CmKeyPtr& key) const;

    // For tests and tools.
    void SetString(std::u16string_view path, std::u16string_view name, std::u16string_view text);
    void SetDword(std::u16string_view path, std::u16string_view name, std::uint32_t value);
    std::optional<std::string> String(std::u16string_view path, std::u16string_view name) const;
    std::optional<std::uint32_t> Dword(std::u16string_view path, std::u16string_view name) const;

    std::vector<CmWrite> Writes() const;
    void ClearWrites();

  private:
    CmKeyPtr Walk(const CmKeyPtr& from, std::u16string_view relative) const;
    void Log(CmWrite::Kind kind, const CmKeyPtr& key, std::u16string_view name = {}, std::uint32_t type = 0,
             std::span<const std::byte> data = {});
    bool DeleteLocked(const CmKeyPtr& key, bool withSubKeys);

    // A leaf lock: nothing is called while it is held that could switch threads.
    mutable std::mutex lock_;
    CmKeyPtr root_;
    std::vector<CmWrite> writes_;
};

// The data of a REG_SZ value: the text and its terminating zero.
std::vector<std::byte> CmStringData(std::u16string_view text);
// The text of string data, up to the first zero.
std::u16string CmStringText(std::span<const std::byte> data);

} // namespace host
