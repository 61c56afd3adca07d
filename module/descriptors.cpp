#include "module/descriptors.h"

#include <algorithm>
#include <initializer_list>
#include <string_view>

namespace module {
namespace {

constexpr std::uint16_t kUsbRelease = 0x0200;
constexpr std::uint16_t kCdcRelease = 0x0110;
constexpr std::uint8_t kControlPacketSize = 64;
constexpr std::uint8_t kEndpointDescriptorLength = 7;
constexpr std::size_t kFunctionalOffset = 26; // after association and communication interface
constexpr std::size_t kMaxStringUnits = 126;

// Interface association over its two interfaces: miscellaneous class, common class, association protocol.
constexpr std::uint8_t kDeviceClass = 0xEF;
constexpr std::uint8_t kDeviceSubClass = 0x02;
constexpr std::uint8_t kDeviceProtocol = 0x01;

enum StringIndex : std::uint8_t { kManufacturer = 1, kProduct = 2, kSerial = 3 };

constexpr std::uint8_t Low(std::uint16_t value)
{
    return static_cast<std::uint8_t>(value);
}

constexpr std::uint8_t High(std::uint16_t value)
{
    return static_cast<std::uint8_t>(value >> 8);
}

void Append(Bytes& to, std::initializer_list<std::uint8_t> bytes)
{
    to.insert(to.end(), bytes);
}

void Append(Bytes& to, const InterfaceAssociationDescriptor& d)
{
    Append(to, {8, kInterfaceAssociationDescriptor, d.bFirstInterface, d.bInterfaceCount, d.bFunctionClass,
                d.bFunctionSubClass, d.bFunctionProtocol, 0});
}

void Append(Bytes& to, const EndpointDescriptor& d)
{
    Append(to, {kEndpointDescriptorLength, kEndpointDescriptor, d.bEndpointAddress, d.bmAttributes,
                Low(d.wMaxPacketSize), High(d.wMaxPacketSize), d.bInterval});
}

void Append(Bytes& to, const InterfaceDescriptor& d)
{
    const auto endpoints = d.bNumEndpoints.value_or(static_cast<std::uint8_t>(d.endpoints.size()));
    Append(to, {9, kInterfaceDescriptor, d.bInterfaceNumber, d.bAlternateSetting, endpoints,
                d.bInterfaceClass, d.bInterfaceSubClass, d.bInterfaceProtocol, 0});
    for (const Bytes& functional : d.functional) {
        to.insert(to.end(), functional.begin(), functional.end());
    }
    for (const EndpointDescriptor& endpoint : d.endpoints) {
        Append(to, endpoint);
    }
}

// The functional descriptors of an abstract control model: header, call management (none), ACM (comm
// features, line coding and state, break, network connection), union.
std::vector<Bytes> FunctionalDescriptors(std::uint8_t comm_interface, std::uint8_t data_interface)
{
    enum Subtype : std::uint8_t { kHeader = 0, kCallManagement = 1, kAcm = 2, kUnion = 6 };
    return {
        {5, kClassInterfaceDescriptor, kHeader, Low(kCdcRelease), High(kCdcRelease)},
        {5, kClassInterfaceDescriptor, kCallManagement, 0, data_interface},
        {4, kClassInterfaceDescriptor, kAcm, 0x07},
        {5, kClassInterfaceDescriptor, kUnion, comm_interface, data_interface},
    };
}

InterfaceDescriptor* FindInterface(ConfigurationDescriptor& configuration, std::uint8_t bInterfaceClass)
{
    const auto found =
        std::ranges::find(configuration.interfaces, bInterfaceClass, &InterfaceDescriptor::bInterfaceClass);
    return found == configuration.interfaces.end() ? nullptr : &*found;
}

void Remove(ConfigurationDescriptor& configuration, std::uint8_t bInterfaceClass)
{
    std::erase_if(configuration.interfaces, [bInterfaceClass](const InterfaceDescriptor& d) {
        return d.bInterfaceClass == bInterfaceClass;
    });
}

// Lies told in the structures.
void Falsify(ConfigurationDescriptor& configuration, Lie lie)
{
    InterfaceDescriptor& comm = *FindInterface(configuration, 0x02);
    InterfaceDescriptor& data = *FindInterface(configuration, 0x0A);
    EndpointDescriptor& interrupt = comm.endpoints.front();
    EndpointDescriptor& in = *std::ranges::find_if(
        data.endpoints, [](const auto& d) { return (d.bEndpointAddress & kDirectionIn) != 0; });
    EndpointDescriptor& out = *std::ranges::find_if(
        data.endpoints, [](const auto& d) { return (d.bEndpointAddress & kDirectionIn) == 0; });
    switch (lie) {
    case Lie::NoCommInterface: Remove(configuration, 0x02); break;
    case Lie::NoDataInterface: Remove(configuration, 0x0A); break;
    case Lie::NoInterfaces:
        configuration.interfaces.clear();
        configuration.association.reset();
        break;
    case Lie::TwoBulkIn: out.bEndpointAddress |= kDirectionIn | 0x08; break;
    case Lie::TwoBulkOut: in.bEndpointAddress = 0x0B; break;
    case Lie::BulkIsInterrupt:
        in.bmAttributes = kInterrupt;
        in.bInterval = 8;
        break;
    case Lie::BulkIsIsochronous:
        out.bmAttributes = kIsochronous;
        out.bInterval = 1;
        break;
    case Lie::InterruptIsBulk:
        interrupt.bmAttributes = kBulk;
        interrupt.wMaxPacketSize = in.wMaxPacketSize;
        break;
    case Lie::InterruptIsOut: interrupt.bEndpointAddress &= 0x0F; break;
    case Lie::ExtraDataEndpoint: {
        EndpointDescriptor extra = in;
        extra.bEndpointAddress = 0x8C;
        data.endpoints.push_back(extra);
        break;
    }
    case Lie::MissingDataEndpoint: data.endpoints.pop_back(); break;
    case Lie::ExtraCommEndpoint: {
        EndpointDescriptor extra = interrupt;
        extra.bEndpointAddress = 0x8C;
        comm.endpoints.push_back(extra);
        break;
    }
    case Lie::MissingCommEndpoint: comm.endpoints.clear(); break;
    case Lie::EndpointCountTooHigh: data.bNumEndpoints = 30; break;
    case Lie::DataInAlternateOnly: {
        InterfaceDescriptor alternate = data;
        alternate.bAlternateSetting = 1;
        data.endpoints.clear();
        configuration.interfaces.push_back(alternate);
        break;
    }
    case Lie::ZeroMaxPacket: in.wMaxPacketSize = 0; break;
    default: break;
    }
}

// Lies told in the finished bytes of a configuration.
void Falsify(Bytes& bytes, Lie lie)
{
    const auto set_total = [&bytes](std::size_t total) {
        bytes[2] = Low(static_cast<std::uint16_t>(total));
        bytes[3] = High(static_cast<std::uint16_t>(total));
    };
    switch (lie) {
    case Lie::TotalLengthTooLong: set_total(bytes.size() + 64); break;
    case Lie::TotalLengthTooShort: set_total(kFunctionalOffset + 3); break;
    case Lie::TotalLengthTiny: set_total(5); break;
    case Lie::TotalLengthZero: set_total(0); break;
    case Lie::ConfigurationTruncated: bytes.resize(bytes.size() / 2); break;
    case Lie::ZeroLengthDescriptor: bytes[kFunctionalOffset] = 0; break;
    case Lie::OverlongDescriptor: bytes[bytes.size() - kEndpointDescriptorLength] = 0x40; break;
    default: break;
    }
}

} // namespace

Bytes Serialize(const ConfigurationDescriptor& configuration)
{
    const auto interfaces =
        std::ranges::count(configuration.interfaces, 0, &InterfaceDescriptor::bAlternateSetting);
    Bytes bytes;
    Append(bytes,
           {9, configuration.bDescriptorType, 0, 0, static_cast<std::uint8_t>(interfaces),
            configuration.bConfigurationValue, 0, configuration.bmAttributes, configuration.bMaxPower});
    if (configuration.association) {
        Append(bytes, *configuration.association);
    }
    for (const InterfaceDescriptor& interface : configuration.interfaces) {
        Append(bytes, interface);
    }
    const auto wTotalLength = static_cast<std::uint16_t>(bytes.size());
    bytes[2] = Low(wTotalLength);
    bytes[3] = High(wTotalLength);
    return bytes;
}

ConfigurationDescriptor DescribeFunction(const FunctionOptions& options, Speed speed)
{
    // Both are 16 ms: frames at full speed, 2^(n-1) microframes at high speed.
    const std::uint8_t interrupt_interval = speed == Speed::High ? 8 : 16;
    const EndpointDescriptor in{options.bulk_in, kBulk, BulkPacketSize(speed), 0};
    const EndpointDescriptor out{options.bulk_out, kBulk, BulkPacketSize(speed), 0};

    InterfaceDescriptor comm{
        .bInterfaceNumber = options.comm_interface,
        .bInterfaceClass = 0x02,    // communications
        .bInterfaceSubClass = 0x02, // abstract control model
        .bInterfaceProtocol = 0x01, // AT commands
        .functional = FunctionalDescriptors(options.comm_interface, options.data_interface),
        .endpoints = {{options.interrupt_in, kInterrupt, kInterruptPacketSize, interrupt_interval}},
        .bNumEndpoints = {}};
    InterfaceDescriptor data{.bInterfaceNumber = options.data_interface,
                             .bInterfaceClass = 0x0A, // CDC data
                             .functional = {},
                             .endpoints = {in, out},
                             .bNumEndpoints = {}};
    if (options.bulk_out_first) {
        std::ranges::reverse(data.endpoints);
    }
    ConfigurationDescriptor configuration;
    configuration.bmAttributes =
        static_cast<std::uint8_t>(0x80 | (options.self_powered ? kSelfPoweredAttribute : 0) |
                                  (options.remote_wakeup ? kRemoteWakeupAttribute : 0));
    configuration.association = InterfaceAssociationDescriptor{
        .bFirstInterface = std::min(comm.bInterfaceNumber, data.bInterfaceNumber)};
    configuration.interfaces = {comm, data};
    return configuration;
}

DescriptorSet::DescriptorSet(const FunctionOptions& options, Lie lie) : options_(options), lie_(lie) {}

std::optional<Bytes> DescriptorSet::Find(std::uint8_t type, std::uint8_t index, std::uint16_t language) const
{
    const bool high = options_.speed == Speed::High;
    if (type == kStringDescriptor) {
        return String(index, language);
    }
    if (index != 0) {
        return {};
    }
    switch (type) {
    case kDeviceDescriptor: return DeviceDescriptor();
    case kConfigurationDescriptor: return Configuration(type);
    case kDeviceQualifierDescriptor: return high ? std::optional(DeviceQualifier()) : std::nullopt;
    case kOtherSpeedConfigurationDescriptor: return high ? std::optional(Configuration(type)) : std::nullopt;
    default: return {};
    }
}

Bytes DescriptorSet::DeviceDescriptor() const
{
    Bytes bytes{18,
                kDeviceDescriptor,
                Low(kUsbRelease),
                High(kUsbRelease),
                kDeviceClass,
                kDeviceSubClass,
                kDeviceProtocol,
                kControlPacketSize,
                Low(options_.idVendor),
                High(options_.idVendor),
                Low(options_.idProduct),
                High(options_.idProduct),
                Low(options_.bcdDevice),
                High(options_.bcdDevice),
                kManufacturer,
                kProduct,
                kSerial,
                1}; // bNumConfigurations
    if (lie_ == Lie::DeviceTruncated) {
        bytes.resize(8);
    }
    return bytes;
}

Bytes DescriptorSet::DeviceQualifier() const
{
    return {10,
            kDeviceQualifierDescriptor,
            Low(kUsbRelease),
            High(kUsbRelease),
            kDeviceClass,
            kDeviceSubClass,
            kDeviceProtocol,
            kControlPacketSize,
            1, // bNumConfigurations
            0};
}

Bytes DescriptorSet::Configuration(std::uint8_t type) const
{
    const bool other_speed = type == kOtherSpeedConfigurationDescriptor;
    ConfigurationDescriptor configuration =
        DescribeFunction(options_, other_speed ? Speed::Full : options_.speed);
    configuration.bDescriptorType = type;
    Falsify(configuration, lie_);
    Bytes bytes = Serialize(configuration);
    Falsify(bytes, lie_);
    return bytes;
}

std::optional<Bytes> DescriptorSet::String(std::uint8_t index, std::uint16_t language) const
{
    if (index == 0) {
        return Bytes{4, kStringDescriptor, Low(kLanguageId), High(kLanguageId)};
    }
    if (index > kSerial || language != kLanguageId) {
        return {};
    }
    const std::string* const strings[] = {&options_.manufacturer, &options_.product, &options_.serial};
    const std::string_view text = std::string_view(*strings[index - 1]).substr(0, kMaxStringUnits);
    Bytes bytes{static_cast<std::uint8_t>(2 + 2 * text.size()), kStringDescriptor};
    for (const char c : text) {
        Append(bytes, {static_cast<std::uint8_t>(c), 0});
    }
    return bytes;
}

} // namespace module
