#include "ke/event_log.h"

#include "ke/kernel.h"
#include "ke/thread.h"

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>
#include <sstream>
#include <utility>

namespace host {
namespace {

constexpr std::uint64_t kFnvOffset = 0xcbf29ce484222325;
constexpr std::uint64_t kFnvPrime = 0x100000001b3;

void Mix(std::uint64_t& hash, std::string_view bytes)
{
    for (const char byte : bytes)
        hash = (hash ^ static_cast<unsigned char>(byte)) * kFnvPrime;
    hash = (hash ^ 0xff) * kFnvPrime; // "ab" "c" is not "a" "bc"
}

void Mix(std::uint64_t& hash, std::uint64_t value)
{
    hash = (hash ^ value) * kFnvPrime;
}

char SignOf(EventKind kind)
{
    switch (kind) {
    case EventKind::Instant: return ' ';
    case EventKind::Begin:
    case EventKind::AsyncBegin: return '+';
    case EventKind::AsyncStep: return '|';
    case EventKind::End:
    case EventKind::AsyncEnd: return '-';
    }
    return '?';
}

const char* PhaseOf(EventKind kind)
{
    switch (kind) {
    case EventKind::Instant: return "i";
    case EventKind::Begin: return "B";
    case EventKind::End: return "E";
    case EventKind::AsyncBegin: return "b";
    case EventKind::AsyncStep: return "n";
    case EventKind::AsyncEnd: return "e";
    }
    return "i";
}

std::string TextOf(const Event& event)
{
    std::string text(1, SignOf(event.kind));
    text += event.name;
    if (event.id != 0)
        text += " #" + std::to_string(event.id);
    return text;
}

std::string Cut(std::string text, std::size_t width)
{
    text.resize(width, ' ');
    return text;
}

nlohmann::json JsonOf(const Event& event)
{
    nlohmann::json json = {{"ph", PhaseOf(event.kind)},
                           {"cat", event.category},
                           {"name", event.name},
                           {"ts", static_cast<double>(event.time) / kMicrosecond},
                           {"pid", 1},
                           {"tid", event.actor}};
    json["args"]["step"] = event.step;
    if (!event.detail.empty())
        json["args"]["detail"] = event.detail;
    if (event.id != 0)
        json["id"] = event.id;
    if (event.kind == EventKind::Instant)
        json["s"] = "t";
    return json;
}

} // namespace

EventLog::EventLog(Kernel& kernel, bool keep, std::size_t capacity)
    : kernel_(kernel), keep_(keep), capacity_(capacity), hash_(kFnvOffset)
{}

void EventLog::Instant(const char* category, const char* name, std::string detail)
{
    Add({.kind = EventKind::Instant, .category = category, .name = name, .detail = std::move(detail)});
}

void EventLog::Note(const char* category, const char* name, std::string detail)
{
    Add({.kind = EventKind::Instant, .category = category, .name = name, .detail = std::move(detail)}, false);
}

void EventLog::Begin(const char* category, const char* name, std::string detail)
{
    Add({.kind = EventKind::Begin, .category = category, .name = name, .detail = std::move(detail)});
}

void EventLog::End(const char* category, const char* name, std::string detail)
{
    Add({.kind = EventKind::End, .category = category, .name = name, .detail = std::move(detail)});
}

void EventLog::AsyncBegin(const char* category, const char* name, const void* object, std::string detail)
{
    Add({.kind = EventKind::AsyncBegin,
         .category = category,
         .name = name,
         .id = IdOf(object),
         .detail = std::move(detail)});
}

void EventLog::AsyncStep(const char* category, const char* name, const void* object, std::string detail)
{
    Add({.kind = EventKind::AsyncStep,
         .category = category,
         .name = name,
         .id = IdOf(object),
         .detail = std::move(detail)});
}

void EventLog::AsyncEnd(const char* category, const char* name, const void* object, std::string detail)
{
    Add({.kind = EventKind::AsyncEnd,
         .category = category,
         .name = name,
         .id = IdOf(object),
         .detail = std::move(detail)});
}

void EventLog::Add(Event event, bool hash_detail)
{
    const Scheduler& scheduler = kernel_.GetScheduler();
    const Thread* const self = KiCurrentThread();
    event.time = scheduler.Now();
    event.step = scheduler.Step();
    event.actor = self == nullptr ? 0 : self->id;

    const MutexLock lock(mutex_);
    Mix(hash_, static_cast<std::uint64_t>(event.time));
    Mix(hash_, event.actor);
    Mix(hash_, static_cast<std::uint64_t>(event.kind));
    Mix(hash_, event.category);
    Mix(hash_, event.name);
    Mix(hash_, event.id);
    if (hash_detail)
        Mix(hash_, event.detail);
    if (!keep_)
        return;
    if (events_.size() == capacity_) {
        events_.pop_front();
        ++dropped_;
    }
    events_.push_back(std::move(event));
}

std::uint64_t EventLog::IdOf(const void* object)
{
    const MutexLock lock(mutex_);
    const auto [found, fresh] = ids_.try_emplace(object, next_id_);
    next_id_ += fresh ? 1 : 0;
    return found->second;
}

void EventLog::Forget(const void* object)
{
    const MutexLock lock(mutex_);
    ids_.erase(object);
}

std::uint64_t EventLog::Hash() const
{
    const MutexLock lock(mutex_);
    return hash_;
}

std::vector<Event> EventLog::Events() const
{
    const MutexLock lock(mutex_);
    return {events_.begin(), events_.end()};
}

void EventLog::WriteText(std::ostream& out) const
{
    constexpr std::size_t kColumn = 26;
    const std::vector<std::string> names = kernel_.ActorNames();
    const std::vector<Event> events = Events();
    // Only actors that did something get a column.
    std::vector<ThreadId> actors;
    actors.reserve(events.size());
    for (const Event& event : events)
        actors.push_back(event.actor);
    std::sort(actors.begin(), actors.end());
    actors.erase(std::unique(actors.begin(), actors.end()), actors.end());

    out << Cut("step", 9) << Cut("ms", 13);
    for (const ThreadId actor : actors)
        out << Cut(names[actor], kColumn);
    out << '\n';
    for (const Event& event : events) {
        const auto column = std::find(actors.begin(), actors.end(), event.actor) - actors.begin();
        std::ostringstream time;
        time << std::fixed << std::setprecision(4) << static_cast<double>(event.time) / kMillisecond;
        out << Cut(std::to_string(event.step), 9) << Cut(time.str(), 13);
        for (std::ptrdiff_t i = 0; i < static_cast<std::ptrdiff_t>(actors.size()); ++i)
            out << Cut(i == column ? Cut(TextOf(event), kColumn - 1) : "", kColumn);
        out << event.detail << '\n';
    }
}

void EventLog::WriteJson(std::ostream& out) const
{
    nlohmann::json list = nlohmann::json::array();
    const std::vector<std::string> names = kernel_.ActorNames();
    for (std::size_t actor = 0; actor < names.size(); ++actor) {
        list.push_back({{"ph", "M"},
                        {"name", "thread_name"},
                        {"pid", 1},
                        {"tid", actor},
                        {"args", {{"name", names[actor]}}}});
    }
    for (const Event& event : Events())
        list.push_back(JsonOf(event));
    out << nlohmann::json{{"traceEvents", std::move(list)}, {"displayTimeUnit", "ms"}}.dump(
               -1, ' ', false, nlohmann::json::error_handler_t::replace)
        << '\n';
}

} // namespace host
