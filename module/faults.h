// Misbehaviour on demand. A module is given a `Faults` and then misbehaves exactly so: what is random about
// it comes from the seed.
#pragma once

#include "module/device.h"

#include <cstddef>
#include <optional>
#include <random>
#include <string_view>
#include <vector>

namespace module {

enum class Pipe { Control, InterruptIn, BulkIn, BulkOut };
inline constexpr std::size_t kPipeCount = 4;

// What the descriptors say that is not so.
enum class Lie {
    None,
    DeviceTruncated,        // 8 bytes of the device descriptor
    TotalLengthTooLong,     // wTotalLength beyond what can be read
    TotalLengthTooShort,    // wTotalLength inside the communication interface
    TotalLengthTiny,        // wTotalLength below the length of its own descriptor
    TotalLengthZero,        //
    ConfigurationTruncated, // half of what wTotalLength promises
    ZeroLengthDescriptor,   // a bLength of 0 on the way
    OverlongDescriptor,     // the last bLength reaches past the end
    NoCommInterface,        //
    NoDataInterface,        //
    NoInterfaces,           //
    TwoBulkIn,              //
    TwoBulkOut,             //
    BulkIsInterrupt,        // bulk-in given as an interrupt endpoint
    BulkIsIsochronous,      // bulk-out given as an isochronous endpoint
    InterruptIsBulk,        //
    InterruptIsOut,         //
    ExtraDataEndpoint,      //
    MissingDataEndpoint,    //
    ExtraCommEndpoint,      //
    MissingCommEndpoint,    //
    EndpointCountTooHigh,   // bNumEndpoints of 30 on the data interface
    DataInAlternateOnly,    // alternate 0 of the data interface has no endpoints
    ZeroMaxPacket,          // wMaxPacketSize of 0 on bulk-in
    Count_,
};

std::string_view Name(Lie lie);

// Something that happens to a packet, or to a whole control transfer.
//   Stall    the endpoint answers STALL (and is halted, but for control)
//   Silence  from the nth on the endpoint never answers, until the faults are taken away
//   Vanish   the module leaves the bus
//   Babble   IN only: more bytes than a packet (a data stage) may hold
//   Garble   IN only: random bytes in place of the data
struct PacketFault {
    enum class Kind { Stall, Silence, Vanish, Babble, Garble };
    Kind kind = Kind::Stall;
    Pipe pipe = Pipe::Control;
    std::optional<std::uint8_t> bRequest{}; // control: only this request
    unsigned nth = 1;                       // counted among those that match, from 1
    unsigned times = 1;                     // so many in a row
};

// Something that happens to the answer of an AT command. Echo is not touched.
//   Error       ERROR, and the command is not carried out
//   Nothing     no answer, and the command is not carried out
//   Late        carried out and answered after `delay`
//   Split       the answer comes in packets of `size` bytes
//   JunkPacket  `size` random bytes in a packet before the answer
//   JunkPrefix  `size` random bytes in the same packet before the answer
struct AnswerFault {
    enum class Kind { Error, Nothing, Late, Split, JunkPacket, JunkPrefix };
    Kind kind = Kind::Error;
    unsigned nth = 1; // counted among all AT commands, from 1
    unsigned times = 1;
    Time delay = 7 * kSecond;
    std::size_t size = 1;
};

struct Faults {
    std::uint64_t seed = 1;
    Lie lie = Lie::None; // taken when the module is made
    std::vector<PacketFault> packets{};
    std::vector<AnswerFault> answers{};
    std::optional<Time> vanish_at{};
};

// Counts what goes by and says what is to go wrong.
class FaultInjector {
  public:
    // Throws std::invalid_argument for a fault that cannot happen: nth or times of 0, Babble or Garble of
    // an OUT endpoint, a Split into empty packets.
    explicit FaultInjector(Faults faults);

    // A packet is about to move on `pipe`.
    std::optional<PacketFault::Kind> OnPacket(Pipe pipe, std::optional<std::uint8_t> bRequest = {});

    // An AT command is about to be answered.
    std::optional<AnswerFault> OnCommand();

    std::vector<std::uint8_t> Junk(std::size_t size);
    std::optional<Time> vanish_at() const { return faults_.vanish_at; }

  private:
    Faults faults_;
    std::vector<unsigned> packets_seen_; // per packet fault
    unsigned commands_seen_ = 0;
    std::mt19937_64 random_;
};

} // namespace module
