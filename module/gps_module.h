// The GPS function of a mobile-broadband module, as its bus sees it.
//
//   power-up, bus reset ──SET_CONFIGURATION──▶ answers AT commands on bulk-in
//   AT*Q7GPSNPD answered with OK             ▶ sentences flow on bulk-in
//   DTR drops                                ▶ sentences stop, what was not read is thrown away
//
// While the abstract state's idle bit is set, the data endpoints answer NAK and no sentences are made;
// the same while the module is suspended.
//
// The bus calls one routine at a time, but any thread may look at the module, or give it faults,
// meanwhile.
#pragma once

#include "module/at_parser.h"
#include "module/descriptors.h"
#include "module/device.h"
#include "module/faults.h"
#include "module/nmea_source.h"
#include "module/output_fifo.h"

#include <array>
#include <deque>
#include <memory>
#include <mutex>

namespace module {

struct GpsModuleOptions {
    FunctionOptions function{};
    AtIdentity identity{};
    bool echo = true;                   // at power-up; ATE0 and ATE1 change it
    std::size_t fifo_capacity = 16'384; // bytes waiting on bulk-in
    bool streams_unasked = false;       // sentences flow from SET_CONFIGURATION on, whatever DTR says
    bool ignores_idle = false;          // data flows whatever the abstract state
    Faults faults{};
};

// A control request as it came, and what it got.
struct ControlRecord {
    SetupPacket setup;
    Bytes out; // data stage of a control write
    Handshake answer = Handshake::Nak;
};

// A look at the module.
struct ModuleStatus {
    std::deque<ControlRecord> control;   // the last kLogLength
    std::deque<std::string> at_commands; // the last kLogLength, without CR
    std::uint64_t control_count = 0;
    std::uint64_t at_command_count = 0;
    std::uint64_t bytes_sent = 0;     // on bulk-in
    std::uint64_t sentence_bytes = 0; // and of those, sentences
    std::uint64_t transfers_sent = 0; // on bulk-in, to their short packet
    std::uint64_t bytes_received = 0; // on bulk-out
    std::uint64_t bytes_dropped = 0;  // sentences and answers given up for want of room
    std::uint16_t abstract_state = 0;
    std::uint8_t configuration = 0;
    bool dtr = false;
    bool rts = false;
    bool nmea_flowing = false;
    bool suspended = false;
    bool present = true;
};

class GpsModule : public Device {
  public:
    static constexpr std::size_t kLogLength = 4096;

    // Throws std::invalid_argument when the faults cannot happen. `source` may be null: a module without
    // an antenna, which answers commands only.
    explicit GpsModule(GpsModuleOptions options = {}, std::unique_ptr<NmeaSource> source = nullptr);

    Speed BusSpeed() const override { return options_.function.speed; }
    bool Present() const override;
    Packet Control(const SetupPacket& setup, std::span<const std::uint8_t> out) override;
    Handshake Out(std::uint8_t endpoint, std::span<const std::uint8_t> data) override;
    Packet In(std::uint8_t endpoint) override;
    void Suspend() override;
    void Resume() override;
    bool WantsResume() const override;
    void Advance(Time now) override;
    // A time that has passed already when the module waits to be told the time, or to be asked.
    std::optional<Time> NextEvent() const override;

    // Back to the state of power-up. Faults and the log stay.
    void BusReset();

    // At `time` the module, when suspended and armed, wants to resume.
    void WakeAt(Time time);

    // Takes the faults from here on in place of those before, counting afresh. The descriptors' lie
    // stays as it was.
    void SetFaults(Faults faults);

    ModuleStatus Look() const;

  private:
    struct PendingCommand {
        std::string text;
        std::optional<AnswerFault> fault;
        std::optional<Time> due; // set once the module knows the time
    };
    // A control transfer: the request and the data stage of a control write.
    struct Transfer : SetupPacket {
        std::span<const std::uint8_t> out;
    };
    using Answer = std::optional<Bytes>; // nothing: STALL
    struct ControlEntry;

    // gps_module_control.cpp
    Answer Dispatch(const Transfer& transfer);
    Answer GetDeviceStatus(const Transfer& transfer);
    Answer GetInterfaceStatus(const Transfer& transfer);
    Answer GetEndpointStatus(const Transfer& transfer);
    Answer ChangeDeviceFeature(const Transfer& transfer);
    Answer ChangeEndpointFeature(const Transfer& transfer);
    Answer SetAddress(const Transfer& transfer);
    Answer GetDescriptor(const Transfer& transfer);
    Answer GetConfiguration(const Transfer& transfer);
    Answer SetConfiguration(const Transfer& transfer);
    Answer GetInterface(const Transfer& transfer);
    Answer SetInterface(const Transfer& transfer);
    Answer CommFeature(const Transfer& transfer);
    Answer SetLineCoding(const Transfer& transfer);
    Answer GetLineCoding(const Transfer& transfer);
    Answer SetControlLineState(const Transfer& transfer);
    Answer SendBreak(const Transfer& transfer);
    bool HasInterface(std::uint16_t wIndex) const;
    void ReportSerialState();

    std::optional<Pipe> PipeOf(std::uint16_t endpoint) const;
    bool& Halted(Pipe pipe) { return halted_.at(static_cast<std::size_t>(pipe)); }
    std::optional<Handshake> Inject(std::optional<PacketFault::Kind> fault, Pipe pipe);
    void Distort(Bytes& data, std::optional<PacketFault::Kind> fault, std::size_t longest);
    void Log(const SetupPacket& setup, std::span<const std::uint8_t> out, Handshake answer);
    void AcceptLine(std::string line);
    void RunCommand(const PendingCommand& command);
    void RunDueCommands();
    void StopOutput();
    void PowerUp();
    bool Idle() const { return !options_.ignores_idle && (abstract_state_ & 1) != 0; }
    void UpdateFlow();

    mutable std::mutex mutex_;
    const GpsModuleOptions options_;
    const DescriptorSet descriptors_;
    const std::unique_ptr<NmeaSource> source_;
    FaultInjector faults_;
    ModuleStatus counters_; // the counts and logs; the rest is filled in by Look

    AtLineReader lines_;
    AtInterpreter interpreter_;
    std::deque<PendingCommand> commands_;
    OutputFifo bulk_;
    OutputFifo interrupt_;
    std::array<bool, kPipeCount> halted_{};
    std::array<std::uint8_t, 7> line_coding_{};
    std::uint16_t abstract_state_ = 0;
    std::uint8_t configuration_ = 0;
    bool dtr_ = false;
    bool rts_ = false;
    bool remote_wakeup_ = false;
    bool streaming_ = false; // sentences were asked for
    bool flowing_ = false;   // and nothing stands in their way
    bool source_started_ = false;
    bool suspended_ = false;
    bool wakes_ = false;
    bool present_ = true;
    bool poked_ = false; // something is new since Advance
    std::optional<Time> wake_at_;
    Time now_ = 0;
};

} // namespace module
