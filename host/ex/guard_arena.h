// Memory in whole pages, every piece followed by a page that nobody can touch.
#pragma once

#include <cstddef>
#include <map>
#include <vector>

namespace host {

inline constexpr std::size_t kGuardPage = 4'096;

struct GuardSlot {
    std::byte* pages = nullptr;
    std::size_t length = 0; // of the accessible part, in bytes: whole pages

    std::byte* End() const { return pages + length; }
};

// Not synchronised.
class GuardArena {
  public:
    GuardArena() = default;
    ~GuardArena();
    GuardArena(const GuardArena&) = delete;
    GuardArena& operator=(const GuardArena&) = delete;

    // Zeroed and accessible. `pages` is nullptr when memory is short.
    GuardSlot Take(std::size_t size);
    // Gives the memory back; the addresses stay inaccessible until Reuse.
    void Close(const GuardSlot& slot);
    // The addresses of a closed slot may be given out again.
    void Reuse(const GuardSlot& slot);

    static void SetAccessible(const GuardSlot& slot, bool accessible);

  private:
    struct Region {
        std::byte* begin = nullptr;
        std::size_t length = 0;
        std::size_t used = 0;
    };
    std::byte* Carve(std::size_t length);

    std::vector<Region> regions_;
    std::multimap<std::size_t, std::byte*> free_; // by length of the accessible part
};

} // namespace host
