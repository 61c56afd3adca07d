#include "module/gps_module.h"

#include <algorithm>
#include <utility>

namespace module {
namespace {

constexpr std::size_t kInterruptCapacity = 64;
constexpr std::size_t kMostPendingCommands = 16;
constexpr std::size_t kLongestBabble = 64;

Bytes ToBytes(std::string_view text)
{
    return {text.begin(), text.end()};
}

bool SameSetup(const SetupPacket& a, const SetupPacket& b)
{
    return a.bmRequestType == b.bmRequestType && a.bRequest == b.bRequest && a.wValue == b.wValue &&
           a.wIndex == b.wIndex && a.wLength == b.wLength;
}

template <typename Entry>
void Remember(std::deque<Entry>& log, Entry entry)
{
    log.push_back(std::move(entry));
    if (log.size() > GpsModule::kLogLength) {
        log.pop_front();
    }
}

} // namespace

GpsModule::GpsModule(GpsModuleOptions options, std::unique_ptr<NmeaSource> source)
    : options_(std::move(options)), descriptors_(options_.function, options_.faults.lie),
      source_(std::move(source)), faults_(options_.faults), interpreter_(options_.identity, options_.echo),
      bulk_(options_.fifo_capacity, BulkPacketSize(options_.function.speed)),
      interrupt_(kInterruptCapacity, kInterruptPacketSize)
{
    PowerUp();
}

void GpsModule::PowerUp()
{
    line_coding_ = {0x00, 0xC2, 0x01, 0x00, 0, 0, 8}; // 115200 8N1
    interpreter_ = AtInterpreter(options_.identity, options_.echo);
    halted_.fill(false);
    abstract_state_ = 0;
    configuration_ = 0;
    dtr_ = rts_ = remote_wakeup_ = suspended_ = wakes_ = false;
    interrupt_.Clear();
    StopOutput();
}

void GpsModule::BusReset()
{
    const std::lock_guard lock(mutex_);
    PowerUp();
}

bool GpsModule::Present() const
{
    const std::lock_guard lock(mutex_);
    return present_;
}

std::optional<Pipe> GpsModule::PipeOf(std::uint16_t endpoint) const
{
    const FunctionOptions& function = options_.function;
    if ((endpoint & ~std::uint16_t{kDirectionIn}) == 0) {
        return Pipe::Control;
    }
    if (configuration_ == 0) {
        return {};
    }
    if (endpoint == function.interrupt_in) {
        return Pipe::InterruptIn;
    }
    if (endpoint == function.bulk_in) {
        return Pipe::BulkIn;
    }
    return endpoint == function.bulk_out ? std::optional(Pipe::BulkOut) : std::nullopt;
}

// What a fault makes of a transaction, when that is not to go on.
std::optional<Handshake> GpsModule::Inject(std::optional<PacketFault::Kind> fault, Pipe pipe)
{
    if (fault == PacketFault::Kind::Vanish) {
        present_ = false;
        UpdateFlow();
        return Handshake::Nak;
    }
    if (fault == PacketFault::Kind::Silence) {
        return Handshake::Nak;
    }
    if (fault == PacketFault::Kind::Stall) {
        Halted(pipe) = pipe != Pipe::Control;
        return Handshake::Stall;
    }
    return {};
}

// `longest` is what the host has room for.
void GpsModule::Distort(Bytes& data, std::optional<PacketFault::Kind> fault, std::size_t longest)
{
    if (fault == PacketFault::Kind::Garble) {
        data = faults_.Junk(data.size());
    }
    if (fault == PacketFault::Kind::Babble) {
        const Bytes more = faults_.Junk(longest - data.size() + 1 + faults_.Junk(1).front() % kLongestBabble);
        data.insert(data.end(), more.begin(), more.end());
    }
}

void GpsModule::Log(const SetupPacket& setup, std::span<const std::uint8_t> out, Handshake answer)
{
    // A request that waits for its answer is asked about again and again.
    if (answer == Handshake::Nak && !counters_.control.empty() &&
        counters_.control.back().answer == Handshake::Nak &&
        SameSetup(counters_.control.back().setup, setup)) {
        return;
    }
    ++counters_.control_count;
    Remember(counters_.control, {setup, Bytes(out.begin(), out.end()), answer});
}

Packet GpsModule::Control(const SetupPacket& setup, std::span<const std::uint8_t> out)
{
    const std::lock_guard lock(mutex_);
    if (!present_ || suspended_) {
        return {};
    }
    const auto fault = faults_.OnPacket(Pipe::Control, setup.bRequest);
    if (const auto handshake = Inject(fault, Pipe::Control)) {
        Log(setup, out, *handshake);
        return {*handshake, {}};
    }
    Answer answer = Dispatch({setup, out});
    Log(setup, out, answer ? Handshake::Ack : Handshake::Stall);
    if (!answer) {
        return {Handshake::Stall, {}};
    }
    answer->resize(std::min<std::size_t>(answer->size(), setup.wLength));
    if ((setup.bmRequestType & kDirectionIn) != 0) {
        Distort(*answer, fault, setup.wLength);
    }
    return {Handshake::Ack, std::move(*answer)};
}

Handshake GpsModule::Out(std::uint8_t endpoint, std::span<const std::uint8_t> data)
{
    const std::lock_guard lock(mutex_);
    if (!present_ || suspended_) {
        return Handshake::Nak;
    }
    if (PipeOf(endpoint) != Pipe::BulkOut || Halted(Pipe::BulkOut)) {
        return Handshake::Stall;
    }
    if (Idle()) {
        return Handshake::Nak;
    }
    if (const auto handshake = Inject(faults_.OnPacket(Pipe::BulkOut), Pipe::BulkOut)) {
        return *handshake;
    }
    counters_.bytes_received += data.size();
    for (std::string& line : lines_.Feed(data)) {
        AcceptLine(std::move(line));
    }
    return Handshake::Ack;
}

Packet GpsModule::In(std::uint8_t endpoint)
{
    const std::lock_guard lock(mutex_);
    if (!present_ || suspended_) {
        return {};
    }
    const std::optional<Pipe> pipe = PipeOf(endpoint);
    if ((pipe != Pipe::BulkIn && pipe != Pipe::InterruptIn) || Halted(*pipe)) {
        return {Handshake::Stall, {}};
    }
    const bool bulk = pipe == Pipe::BulkIn;
    OutputFifo& fifo = bulk ? bulk_ : interrupt_;
    if (fifo.empty() || (bulk && Idle())) {
        return {};
    }
    const auto fault = faults_.OnPacket(*pipe);
    if (const auto handshake = Inject(fault, *pipe)) {
        return {*handshake, {}};
    }
    const bool sentences = fifo.NextKind() == OutputFifo::Kind::Sentences;
    Packet packet{Handshake::Ack, *fifo.NextPacket()};
    const std::size_t longest = bulk ? BulkPacketSize(options_.function.speed) : kInterruptPacketSize;
    const bool last = packet.data.size() < longest;
    Distort(packet.data, fault, longest);
    if (bulk) {
        counters_.bytes_sent += packet.data.size();
        counters_.sentence_bytes += sentences ? packet.data.size() : 0;
        counters_.transfers_sent += last ? 1 : 0;
    }
    return packet;
}

void GpsModule::AcceptLine(std::string line)
{
    if (!AtInterpreter::IsCommand(line)) {
        return;
    }
    ++counters_.at_command_count;
    Remember(counters_.at_commands, line);
    if (interpreter_.echo()) {
        bulk_.Push(ToBytes(line + "\r"), OutputFifo::Kind::Answer);
    }
    poked_ = true;
    const std::optional<AnswerFault> fault = faults_.OnCommand();
    if ((fault && fault->kind == AnswerFault::Kind::Nothing) || commands_.size() == kMostPendingCommands) {
        return;
    }
    PendingCommand command{std::move(line), fault, {}};
    const bool late = fault && fault->kind == AnswerFault::Kind::Late;
    if (late || !commands_.empty()) { // answers keep the order of the commands
        commands_.push_back(std::move(command));
    } else {
        RunCommand(command);
    }
}

void GpsModule::RunCommand(const PendingCommand& command)
{
    using Kind = AnswerFault::Kind;
    const std::optional<AnswerFault>& fault = command.fault;
    const auto is = [&fault](Kind kind) { return fault && fault->kind == kind; };

    AtAnswer answer{std::string(kAtError)};
    if (!is(Kind::Error)) {
        answer = interpreter_.Execute(command.text);
    }
    Bytes bytes = ToBytes(answer.text);
    if (is(Kind::JunkPacket)) {
        bulk_.Push(faults_.Junk(fault->size), OutputFifo::Kind::Answer);
    }
    if (is(Kind::JunkPrefix)) {
        const Bytes junk = faults_.Junk(fault->size);
        bytes.insert(bytes.begin(), junk.begin(), junk.end());
    }
    const std::size_t piece = is(Kind::Split) ? fault->size : bytes.size();
    for (auto rest = std::span<const std::uint8_t>(bytes); !rest.empty();) {
        const auto part = rest.first(std::min(piece, rest.size()));
        bulk_.Push({part.begin(), part.end()}, OutputFifo::Kind::Answer);
        rest = rest.subspan(part.size());
    }
    if (answer.starts_nmea) {
        streaming_ = true;
        UpdateFlow();
    }
}

// Carries out, in order, the commands whose time has come.
void GpsModule::RunDueCommands()
{
    for (PendingCommand& command : commands_) {
        if (!command.due) {
            const bool late = command.fault && command.fault->kind == AnswerFault::Kind::Late;
            command.due = now_ + (late ? command.fault->delay : 0);
        }
    }
    while (!commands_.empty() && *commands_.front().due <= now_) {
        RunCommand(commands_.front());
        commands_.pop_front();
    }
}

void GpsModule::StopOutput()
{
    bulk_.Clear();
    lines_.Clear();
    commands_.clear();
    streaming_ = false;
    UpdateFlow();
}

void GpsModule::UpdateFlow()
{
    const bool asked = streaming_ || options_.streams_unasked;
    const bool flows = asked && source_ && present_ && configuration_ != 0 && !suspended_ && !Idle();
    if (flows != flowing_) {
        flowing_ = flows;
        source_started_ = false; // once the time is known
        poked_ = true;
    }
}

void GpsModule::Suspend()
{
    const std::lock_guard lock(mutex_);
    suspended_ = true;
    wakes_ = false;
    UpdateFlow();
}

void GpsModule::Resume()
{
    const std::lock_guard lock(mutex_);
    suspended_ = false;
    wakes_ = false;
    UpdateFlow();
}

bool GpsModule::WantsResume() const
{
    const std::lock_guard lock(mutex_);
    return present_ && suspended_ && wakes_;
}

void GpsModule::WakeAt(Time time)
{
    const std::lock_guard lock(mutex_);
    wake_at_ = time;
}

void GpsModule::SetFaults(Faults faults)
{
    const std::lock_guard lock(mutex_);
    faults_ = FaultInjector(std::move(faults));
    poked_ = true;
}

void GpsModule::Advance(Time now)
{
    const std::lock_guard lock(mutex_);
    now_ = std::max(now_, now);
    if (faults_.vanish_at() && *faults_.vanish_at() <= now_ && present_) {
        present_ = false;
        UpdateFlow();
    }
    if (!present_) {
        return;
    }
    if (wake_at_ && *wake_at_ <= now_) {
        wakes_ = suspended_ && remote_wakeup_;
        wake_at_.reset();
    }
    if (!suspended_) {
        RunDueCommands();
    }
    if (flowing_ && !source_started_) {
        source_->Start(now_);
        source_started_ = true;
    }
    while (flowing_ && source_->Due() && *source_->Due() <= now_)
        bulk_.Push(ToBytes(source_->Take()), OutputFifo::Kind::Sentences);
    poked_ = false;
}

std::optional<Time> GpsModule::NextEvent() const
{
    const std::lock_guard lock(mutex_);
    if (!present_) {
        return {};
    }
    if (poked_) {
        return now_;
    }
    std::optional<Time> next = faults_.vanish_at();
    const auto consider = [&next](std::optional<Time> time) {
        if (time && (!next || *time < *next)) {
            next = time;
        }
    };
    consider(wake_at_);
    if (!suspended_ && !commands_.empty()) {
        consider(commands_.front().due);
    }
    if (flowing_ && source_started_) {
        consider(source_->Due());
    }
    return next;
}

ModuleStatus GpsModule::Look() const
{
    const std::lock_guard lock(mutex_);
    ModuleStatus status = counters_;
    status.bytes_dropped = bulk_.dropped();
    status.abstract_state = abstract_state_;
    status.configuration = configuration_;
    status.dtr = dtr_;
    status.rts = rts_;
    status.nmea_flowing = flowing_;
    status.suspended = suspended_;
    status.present = present_;
    return status;
}

} // namespace module
