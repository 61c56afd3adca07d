// What happened, in order: for the reader of a failed run, for a trace viewer, and for the proof that one
// seed gives one run.
#pragma once

#include "ke/mutex.h"
#include "ke/strategy.h"
#include "ke/time.h"

#include <cstdint>
#include <deque>
#include <iosfwd>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace host {

class Kernel;

enum class EventKind : std::uint8_t {
    Instant,
    Begin, // a span of the calling actor; spans of one actor nest
    End,
    AsyncBegin, // a span with an identity (an IRP), that may begin and end on different actors
    AsyncStep,
    AsyncEnd,
};

struct Event {
    Time time = 0; // interrupt time
    std::uint64_t step = 0;
    ThreadId actor = 0;
    EventKind kind = EventKind::Instant;
    const char* category = ""; // both are string literals: kept by address
    const char* name = "";
    std::uint64_t id = 0; // of an async span; a small number, see IdOf
    std::string detail;
};

// Routines may be called from any kernel thread at any IRQL. Details must not hold addresses or other values
// that differ from run to run: they enter the hash.
class EventLog {
  public:
    EventLog(Kernel& kernel, bool keep, std::size_t capacity);

    void Instant(const char* category, const char* name, std::string detail = {});
    // An instant whose detail may be anything, addresses too: it does not enter the hash.
    void Note(const char* category, const char* name, std::string detail);
    void Begin(const char* category, const char* name, std::string detail = {});
    void End(const char* category, const char* name, std::string detail = {});
    void AsyncBegin(const char* category, const char* name, const void* object, std::string detail = {});
    void AsyncStep(const char* category, const char* name, const void* object, std::string detail = {});
    void AsyncEnd(const char* category, const char* name, const void* object, std::string detail = {});

    // A small number that stands for `object` while it lives; Forget when its memory may be used again.
    std::uint64_t IdOf(const void* object);
    void Forget(const void* object);

    // Equal for two runs that logged the same events at the same times.
    std::uint64_t Hash() const;

    std::vector<Event> Events() const;

    // One line per event, one column per actor, details at the end.
    void WriteText(std::ostream& out) const;
    // The JSON of Chrome's trace viewer and Perfetto.
    void WriteJson(std::ostream& out) const;

  private:
    void Add(Event event, bool hash_detail = true);

    Kernel& kernel_;
    const bool keep_;
    const std::size_t capacity_;
    mutable Mutex mutex_;
    std::deque<Event> events_ HOST_GUARDED_BY(mutex_);
    std::unordered_map<const void*, std::uint64_t> ids_ HOST_GUARDED_BY(mutex_);
    std::uint64_t next_id_ HOST_GUARDED_BY(mutex_) = 1;
    std::uint64_t hash_ HOST_GUARDED_BY(mutex_);
    std::uint64_t dropped_ HOST_GUARDED_BY(mutex_) = 0;
};

} // namespace host
