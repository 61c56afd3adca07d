#include "module/faults.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

namespace module {
namespace {

bool Matches(const PacketFault& fault, Pipe pipe, std::optional<std::uint8_t> bRequest)
{
    return fault.pipe == pipe && (!fault.bRequest || fault.bRequest == bRequest);
}

// `nth` is the number of this occurrence, from 1.
template <typename Fault>
bool Fires(const Fault& fault, unsigned nth)
{
    return nth >= fault.nth && nth - fault.nth < fault.times;
}

void Check(const Faults& faults)
{
    for (const PacketFault& fault : faults.packets) {
        const bool changes_data =
            fault.kind == PacketFault::Kind::Babble || fault.kind == PacketFault::Kind::Garble;
        if (fault.nth == 0 || fault.times == 0) {
            throw std::invalid_argument("a packet fault counts from 1");
        }
        if (changes_data && fault.pipe == Pipe::BulkOut) {
            throw std::invalid_argument("only what the module sends can be babble or garbled");
        }
    }
    for (const AnswerFault& fault : faults.answers) {
        if (fault.nth == 0 || fault.times == 0) {
            throw std::invalid_argument("an answer fault counts from 1");
        }
        if (fault.kind == AnswerFault::Kind::Split && fault.size == 0) {
            throw std::invalid_argument("an answer cannot be split into empty packets");
        }
    }
}

} // namespace

std::string_view Name(Lie lie)
{
    static constexpr std::array kNames{
        "None",
        "DeviceTruncated",
        "TotalLengthTooLong",
        "TotalLengthTooShort",
        "TotalLengthTiny",
        "TotalLengthZero",
        "ConfigurationTruncated",
        "ZeroLengthDescriptor",
        "OverlongDescriptor",
        "NoCommInterface",
        "NoDataInterface",
        "NoInterfaces",
        "TwoBulkIn",
        "TwoBulkOut",
        "BulkIsInterrupt",
        "BulkIsIsochronous",
        "InterruptIsBulk",
        "InterruptIsOut",
        "ExtraDataEndpoint",
        "MissingDataEndpoint",
        "ExtraCommEndpoint",
        "MissingCommEndpoint",
        "EndpointCountTooHigh",
        "DataInAlternateOnly",
        "ZeroMaxPacket",
    };
    static_assert(kNames.size() == static_cast<std::size_t>(Lie::Count_));
    return kNames.at(static_cast<std::size_t>(lie));
}

FaultInjector::FaultInjector(Faults faults)
    : faults_(std::move(faults)), packets_seen_(faults_.packets.size()), random_(faults_.seed)
{
    Check(faults_);
}

std::optional<PacketFault::Kind> FaultInjector::OnPacket(Pipe pipe, std::optional<std::uint8_t> bRequest)
{
    // The host asks again and again for a packet that is kept back: none of that counts.
    for (std::size_t i = 0; i < faults_.packets.size(); ++i) {
        const PacketFault& fault = faults_.packets[i];
        if (fault.kind == PacketFault::Kind::Silence && Matches(fault, pipe, bRequest) &&
            packets_seen_[i] + 1 >= fault.nth) {
            return fault.kind;
        }
    }
    std::optional<PacketFault::Kind> result;
    for (std::size_t i = 0; i < faults_.packets.size(); ++i) {
        const PacketFault& fault = faults_.packets[i];
        if (Matches(fault, pipe, bRequest) && Fires(fault, ++packets_seen_[i]) && !result) {
            result = fault.kind;
        }
    }
    return result;
}

std::optional<AnswerFault> FaultInjector::OnCommand()
{
    ++commands_seen_;
    for (const AnswerFault& fault : faults_.answers) {
        if (Fires(fault, commands_seen_)) {
            return fault;
        }
    }
    return {};
}

std::vector<std::uint8_t> FaultInjector::Junk(std::size_t size)
{
    std::vector<std::uint8_t> junk(size);
    std::ranges::generate(junk, [this] { return static_cast<std::uint8_t>(random_()); });
    return junk;
}

} // namespace module
