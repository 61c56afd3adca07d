// The requests of endpoint 0, one row each.

#include "module/gps_module.h"

#include <algorithm>

namespace module {
namespace {

// bmRequestType: direction, type, recipient.
enum RequestType : std::uint8_t {
    kDeviceOut = 0x00,
    kInterfaceOut = 0x01,
    kEndpointOut = 0x02,
    kDeviceIn = 0x80,
    kInterfaceIn = 0x81,
    kEndpointIn = 0x82,
    kClassOut = 0x21,
    kClassIn = 0xA1,
};

enum Request : std::uint8_t {
    kGetStatus = 0,
    kClearFeature = 1,
    kSetFeature = 3,
    kSetAddress = 5,
    kGetDescriptor = 6,
    kGetConfiguration = 8,
    kSetConfiguration = 9,
    kGetInterface = 10,
    kSetInterface = 11,
    // class
    kSetCommFeature = 0x02,
    kGetCommFeature = 0x03,
    kClearCommFeature = 0x04,
    kSetLineCoding = 0x20,
    kGetLineCoding = 0x21,
    kSetControlLineState = 0x22,
    kSendBreak = 0x23,
};

constexpr std::uint16_t kEndpointHalt = 0;
constexpr std::uint16_t kDeviceRemoteWakeup = 1;
constexpr std::uint16_t kAbstractState = 1;
constexpr std::uint16_t kHighestAddress = 127;

constexpr std::uint16_t kDtr = 0x0001;
constexpr std::uint16_t kRts = 0x0002;

// The SERIAL_STATE notification and the lines in it.
constexpr std::uint8_t kSerialState = 0x20;
constexpr std::uint8_t kCarrierAndDataSetReady = 0x03;

constexpr int kAnyLength = -1;

} // namespace

struct GpsModule::ControlEntry {
    std::uint8_t bmRequestType;
    std::uint8_t bRequest;
    int wLength; // what the request must have
    Answer (GpsModule::*handle)(const Transfer&);
};

GpsModule::Answer GpsModule::Dispatch(const Transfer& transfer)
{
    static constexpr ControlEntry kTable[] = {
        {kDeviceIn, kGetStatus, kAnyLength, &GpsModule::GetDeviceStatus},
        {kInterfaceIn, kGetStatus, kAnyLength, &GpsModule::GetInterfaceStatus},
        {kEndpointIn, kGetStatus, kAnyLength, &GpsModule::GetEndpointStatus},
        {kDeviceOut, kClearFeature, 0, &GpsModule::ChangeDeviceFeature},
        {kDeviceOut, kSetFeature, 0, &GpsModule::ChangeDeviceFeature},
        {kEndpointOut, kClearFeature, 0, &GpsModule::ChangeEndpointFeature},
        {kEndpointOut, kSetFeature, 0, &GpsModule::ChangeEndpointFeature},
        {kDeviceOut, kSetAddress, 0, &GpsModule::SetAddress},
        {kDeviceIn, kGetDescriptor, kAnyLength, &GpsModule::GetDescriptor},
        {kDeviceIn, kGetConfiguration, kAnyLength, &GpsModule::GetConfiguration},
        {kDeviceOut, kSetConfiguration, 0, &GpsModule::SetConfiguration},
        {kInterfaceIn, kGetInterface, kAnyLength, &GpsModule::GetInterface},
        {kInterfaceOut, kSetInterface, 0, &GpsModule::SetInterface},
        {kClassOut, kSetCommFeature, 2, &GpsModule::CommFeature},
        {kClassIn, kGetCommFeature, kAnyLength, &GpsModule::CommFeature},
        {kClassOut, kClearCommFeature, 0, &GpsModule::CommFeature},
        {kClassOut, kSetLineCoding, 7, &GpsModule::SetLineCoding},
        {kClassIn, kGetLineCoding, kAnyLength, &GpsModule::GetLineCoding},
        {kClassOut, kSetControlLineState, 0, &GpsModule::SetControlLineState},
        {kClassOut, kSendBreak, 0, &GpsModule::SendBreak},
    };
    const bool is_class = transfer.bmRequestType == kClassOut || transfer.bmRequestType == kClassIn;
    if (is_class && (configuration_ == 0 || transfer.wIndex != options_.function.comm_interface)) {
        return {};
    }
    const bool in = (transfer.bmRequestType & kDirectionIn) != 0;
    for (const ControlEntry& entry : kTable) {
        if (entry.bmRequestType == transfer.bmRequestType && entry.bRequest == transfer.bRequest) {
            const bool length_fits = entry.wLength == kAnyLength || entry.wLength == transfer.wLength;
            const bool data_fits = in || transfer.out.size() == transfer.wLength;
            return length_fits && data_fits ? (this->*entry.handle)(transfer) : std::nullopt;
        }
    }
    return {};
}

bool GpsModule::HasInterface(std::uint16_t wIndex) const
{
    return configuration_ != 0 &&
           (wIndex == options_.function.comm_interface || wIndex == options_.function.data_interface);
}

GpsModule::Answer GpsModule::GetDeviceStatus(const Transfer& /*transfer*/)
{
    const int status = (options_.function.self_powered ? 1 : 0) | (remote_wakeup_ ? 2 : 0);
    return Bytes{static_cast<std::uint8_t>(status), 0};
}

GpsModule::Answer GpsModule::GetInterfaceStatus(const Transfer& transfer)
{
    return HasInterface(transfer.wIndex) ? Answer(Bytes{0, 0}) : std::nullopt;
}

GpsModule::Answer GpsModule::GetEndpointStatus(const Transfer& transfer)
{
    const std::optional<Pipe> pipe = PipeOf(transfer.wIndex);
    if (!pipe) {
        return {};
    }
    return Bytes{static_cast<std::uint8_t>(Halted(*pipe) ? 1 : 0), 0};
}

GpsModule::Answer GpsModule::ChangeDeviceFeature(const Transfer& transfer)
{
    if (transfer.wValue != kDeviceRemoteWakeup || transfer.wIndex != 0 || !options_.function.remote_wakeup) {
        return {};
    }
    remote_wakeup_ = transfer.bRequest == kSetFeature;
    return Bytes{};
}

GpsModule::Answer GpsModule::ChangeEndpointFeature(const Transfer& transfer)
{
    const std::optional<Pipe> pipe = PipeOf(transfer.wIndex);
    if (transfer.wValue != kEndpointHalt || !pipe) {
        return {};
    }
    Halted(*pipe) = transfer.bRequest == kSetFeature && pipe != Pipe::Control;
    return Bytes{};
}

GpsModule::Answer GpsModule::SetAddress(const Transfer& transfer)
{
    return transfer.wValue <= kHighestAddress && transfer.wIndex == 0 ? Answer(Bytes{}) : std::nullopt;
}

GpsModule::Answer GpsModule::GetDescriptor(const Transfer& transfer)
{
    return descriptors_.Find(static_cast<std::uint8_t>(transfer.wValue >> 8),
                             static_cast<std::uint8_t>(transfer.wValue), transfer.wIndex);
}

GpsModule::Answer GpsModule::GetConfiguration(const Transfer& /*transfer*/)
{
    return Bytes{configuration_};
}

GpsModule::Answer GpsModule::SetConfiguration(const Transfer& transfer)
{
    if (transfer.wValue != 0 && transfer.wValue != kConfigurationValue) {
        return {};
    }
    configuration_ = static_cast<std::uint8_t>(transfer.wValue);
    halted_.fill(false);
    if (configuration_ == 0) {
        dtr_ = rts_ = false;
        abstract_state_ = 0;
        interrupt_.Clear();
        StopOutput();
    }
    UpdateFlow();
    return Bytes{};
}

GpsModule::Answer GpsModule::GetInterface(const Transfer& transfer)
{
    return HasInterface(transfer.wIndex) ? Answer(Bytes{0}) : std::nullopt;
}

GpsModule::Answer GpsModule::SetInterface(const Transfer& transfer)
{
    if (!HasInterface(transfer.wIndex) || transfer.wValue != 0) {
        return {};
    }
    if (transfer.wIndex == options_.function.comm_interface) {
        Halted(Pipe::InterruptIn) = false;
    } else {
        Halted(Pipe::BulkIn) = Halted(Pipe::BulkOut) = false;
    }
    return Bytes{};
}

// SET, GET and CLEAR of ABSTRACT_STATE. The other feature, COUNTRY_SETTING, this module does not have.
GpsModule::Answer GpsModule::CommFeature(const Transfer& transfer)
{
    if (transfer.wValue != kAbstractState) {
        return {};
    }
    if (transfer.bRequest == kGetCommFeature) {
        return Bytes{static_cast<std::uint8_t>(abstract_state_),
                     static_cast<std::uint8_t>(abstract_state_ >> 8)};
    }
    abstract_state_ = transfer.bRequest == kSetCommFeature
                          ? static_cast<std::uint16_t>(transfer.out[0] | transfer.out[1] << 8)
                          : std::uint16_t{0};
    poked_ = true; // what waited while idle may move now
    UpdateFlow();
    return Bytes{};
}

GpsModule::Answer GpsModule::SetLineCoding(const Transfer& transfer)
{
    const std::uint8_t stop_bits = transfer.out[4];
    const std::uint8_t parity = transfer.out[5];
    const std::uint8_t data_bits = transfer.out[6];
    const bool data_bits_fit = (data_bits >= 5 && data_bits <= 8) || data_bits == 16;
    if (stop_bits > 2 || parity > 4 || !data_bits_fit) {
        return {};
    }
    std::ranges::copy(transfer.out, line_coding_.begin());
    return Bytes{};
}

GpsModule::Answer GpsModule::GetLineCoding(const Transfer& /*transfer*/)
{
    return Bytes(line_coding_.begin(), line_coding_.end());
}

GpsModule::Answer GpsModule::SetControlLineState(const Transfer& transfer)
{
    const bool had_dtr = dtr_;
    dtr_ = (transfer.wValue & kDtr) != 0;
    rts_ = (transfer.wValue & kRts) != 0;
    if (had_dtr && !dtr_) {
        StopOutput();
    }
    if (had_dtr != dtr_) {
        ReportSerialState();
    }
    return Bytes{};
}

GpsModule::Answer GpsModule::SendBreak(const Transfer& /*transfer*/)
{
    return Bytes{};
}

// Carrier and data set ready follow DTR.
void GpsModule::ReportSerialState()
{
    const std::uint8_t lines = dtr_ ? kCarrierAndDataSetReady : 0;
    interrupt_.Push({kClassIn, kSerialState, 0, 0, options_.function.comm_interface, 0, 2, 0, lines, 0},
                    OutputFifo::Kind::Sentences); // the newest state is the one that matters
    poked_ = true;
}

} // namespace module
