#include "windows/rig/user/rig_user.h"

#include "module/gps_module.h"
#include "module/nmea_generator.h"
#include "module/nmea_replay.h"

#include <algorithm>
#include <atomic>
#include <limits>
#include <utility>

namespace {

// Sentences from another source, and those that a test gives to be sent now.
class RigSource : public module::NmeaSource {
  public:
    RigSource(std::unique_ptr<NmeaSource> inner, bool held) : inner_(std::move(inner)), held_(held) {}

    void Start(module::Time now) override
    {
        const std::lock_guard lock(mutex_);
        now_ = now;
        started_ = true;
        StartInner();
    }

    std::optional<module::Time> Due() const override
    {
        const std::lock_guard lock(mutex_);
        if (!started_)
            return std::nullopt;
        if (!fed_.empty())
            return now_;
        return inner_running_ ? inner_->Due() : std::nullopt;
    }

    std::string Take() override
    {
        const std::lock_guard lock(mutex_);
        return fed_.empty() ? inner_->Take() : std::exchange(fed_, {});
    }

    void Feed(std::string_view text)
    {
        const std::lock_guard lock(mutex_);
        fed_ += text;
    }

    void Release(module::Time now)
    {
        const std::lock_guard lock(mutex_);
        now_ = std::max(now_, now);
        held_ = false;
        StartInner();
    }

  private:
    void StartInner()
    {
        inner_running_ = started_ && !held_ && inner_ != nullptr;
        if (inner_running_)
            inner_->Start(now_);
    }

    mutable std::mutex mutex_;
    const std::unique_ptr<NmeaSource> inner_;
    std::string fed_;
    module::Time now_ = 0;
    bool held_;
    bool started_ = false;
    bool inner_running_ = false;
};

std::unique_ptr<module::NmeaSource> MakeInner(const RigPlug& options)
{
    if (options.recording[0] != '\0')
        return std::make_unique<module::NmeaReplay>(
            module::NmeaReplay::FromFile(options.recording, {.rate = options.recording_rate}));
    if (options.generated != 0)
        return std::make_unique<module::NmeaGenerator>(options.generated);
    return nullptr;
}

module::GpsModuleOptions MakeOptions(const RigPlug& options)
{
    module::GpsModuleOptions made;
    made.function.serial = "RIG" + std::to_string(options.port);
    return made;
}

RigHandshake Give(const module::Packet& packet, unsigned char* data, unsigned room, unsigned* moved)
{
    *moved = static_cast<unsigned>(packet.data.size());
    std::copy_n(packet.data.begin(), std::min<std::size_t>(room, packet.data.size()), data);
    return static_cast<RigHandshake>(packet.handshake);
}

static_assert(static_cast<int>(module::Handshake::Ack) == RigAck &&
              static_cast<int>(module::Handshake::Nak) == RigNak &&
              static_cast<int>(module::Handshake::Stall) == RigStall);

} // namespace

struct RigModule {
    RigModule(const module::GpsModuleOptions& options, std::unique_ptr<RigSource> made)
        : source(*made), device(options, std::move(made))
    {}
    RigSource& source; // the device's
    module::GpsModule device;
    std::atomic<module::Time> now{0};
};

RigModule* RigModuleCreate(const RigPlug* options)
try {
    return new RigModule(MakeOptions(*options),
                         std::make_unique<RigSource>(MakeInner(*options), options->held != 0));
} catch (const std::exception& error) {
    RigReport("no module: %s", error.what());
    return nullptr;
}

void RigModuleDestroy(RigModule* module)
{
    delete module;
}

RigHandshake RigModuleControl(RigModule* module, const unsigned char setup[8], unsigned char* data,
                              unsigned* moved)
{
    const auto word = [&](int at) { return static_cast<std::uint16_t>(setup[at] | setup[at + 1] << 8); };
    const module::SetupPacket packet{setup[0], setup[1], word(2), word(4), word(6)};
    const bool in = (packet.bmRequestType & 0x80) != 0;
    const std::span<const std::uint8_t> out(data, in ? 0U : packet.wLength);
    return Give(module->device.Control(packet, out), data, in ? packet.wLength : 0U, moved);
}

RigHandshake RigModuleIn(RigModule* module, unsigned char endpoint, unsigned char* data, unsigned room,
                         unsigned* moved)
{
    return Give(module->device.In(endpoint), data, room, moved);
}

RigHandshake RigModuleOut(RigModule* module, unsigned char endpoint, const unsigned char* data,
                          unsigned length)
{
    return static_cast<RigHandshake>(module->device.Out(endpoint, {data, length}));
}

void RigModuleSuspend(RigModule* module, int suspended)
{
    suspended != 0 ? module->device.Suspend() : module->device.Resume();
}

long long RigModuleAdvance(RigModule* module, long long now)
{
    module->now = now;
    module->device.Advance(now);
    return module->device.NextEvent().value_or(std::numeric_limits<long long>::max());
}

void RigModuleFeed(RigModule* module, const char* text, unsigned length)
{
    module->source.Feed({text, length});
}

void RigModuleRelease(RigModule* module)
{
    module->source.Release(module->now);
}

void RigModuleLook(RigModule* module, RigCounters* counters)
{
    const module::ModuleStatus status = module->device.Look();
    counters->dtr = status.dtr;
    counters->rts = status.rts;
    counters->flowing = status.nmea_flowing;
    counters->suspended = status.suspended;
    counters->abstract_state = status.abstract_state;
    counters->control_requests = static_cast<unsigned>(status.control_count);
    counters->at_commands = static_cast<unsigned>(status.at_command_count);
    counters->sentence_bytes = status.sentence_bytes;
    counters->bytes_dropped = status.bytes_dropped;
}
