// The descriptors of the module: a communications-class (CDC-ACM) function with a communication interface
// (one interrupt-in endpoint) and a data interface (bulk-in, bulk-out).
//
// The structures carry the field names of USB 2.0 chapter 9 and of the CDC class; Serialize gives the wire
// form. A lie changes the structures, or the finished bytes, before the host sees them.
#pragma once

#include "module/device.h"
#include "module/faults.h"

#include <optional>
#include <string>
#include <vector>

namespace module {

using Bytes = std::vector<std::uint8_t>;

enum DescriptorType : std::uint8_t {
    kDeviceDescriptor = 1,
    kConfigurationDescriptor = 2,
    kStringDescriptor = 3,
    kInterfaceDescriptor = 4,
    kEndpointDescriptor = 5,
    kDeviceQualifierDescriptor = 6,
    kOtherSpeedConfigurationDescriptor = 7,
    kInterfaceAssociationDescriptor = 11,
    kClassInterfaceDescriptor = 0x24,
};

enum EndpointAttributes : std::uint8_t { kIsochronous = 1, kBulk = 2, kInterrupt = 3 };

inline constexpr std::uint8_t kDirectionIn = 0x80;
inline constexpr std::uint8_t kConfigurationValue = 1;
inline constexpr std::uint8_t kRemoteWakeupAttribute = 0x20;
inline constexpr std::uint8_t kSelfPoweredAttribute = 0x40;
inline constexpr std::uint16_t kLanguageId = 0x0409;

struct EndpointDescriptor {
    std::uint8_t bEndpointAddress = 0;
    std::uint8_t bmAttributes = kBulk;
    std::uint16_t wMaxPacketSize = 0;
    std::uint8_t bInterval = 0;
};

struct InterfaceDescriptor {
    std::uint8_t bInterfaceNumber = 0;
    std::uint8_t bAlternateSetting = 0;
    std::uint8_t bInterfaceClass = 0;
    std::uint8_t bInterfaceSubClass = 0;
    std::uint8_t bInterfaceProtocol = 0;
    std::vector<Bytes> functional; // class-specific descriptors, each whole
    std::vector<EndpointDescriptor> endpoints;
    std::optional<std::uint8_t> bNumEndpoints; // the number of `endpoints` unless given
};

struct InterfaceAssociationDescriptor {
    std::uint8_t bFirstInterface = 0;
    std::uint8_t bInterfaceCount = 2;
    std::uint8_t bFunctionClass = 2;
    std::uint8_t bFunctionSubClass = 2;
    std::uint8_t bFunctionProtocol = 1;
};

struct ConfigurationDescriptor {
    std::uint8_t bDescriptorType = kConfigurationDescriptor; // or other-speed
    std::uint8_t bConfigurationValue = kConfigurationValue;
    std::uint8_t bmAttributes = 0x80;
    std::uint8_t bMaxPower = 250; // units of 2 mA
    std::optional<InterfaceAssociationDescriptor> association;
    std::vector<InterfaceDescriptor> interfaces;
};

Bytes Serialize(const ConfigurationDescriptor& configuration);

// What may differ between one module and another without any of them being wrong.
struct FunctionOptions {
    Speed speed = Speed::High; // a full-speed module knows no other speed
    std::uint16_t idVendor = 0x1209;
    std::uint16_t idProduct = 0x0001;
    std::uint16_t bcdDevice = 0x0100;
    std::string manufacturer = "Navox"; // ASCII, at most 126 characters each
    std::string product = "Navox GPS module";
    std::string serial = "NVX000001";
    bool remote_wakeup = true;
    bool self_powered = false;
    bool bulk_out_first = false;
    std::uint8_t comm_interface = 0;
    std::uint8_t data_interface = 1;
    std::uint8_t interrupt_in = 0x81;
    std::uint8_t bulk_in = 0x82;
    std::uint8_t bulk_out = 0x02;
};

// Bytes a data endpoint moves in one packet at `speed`.
constexpr std::uint16_t BulkPacketSize(Speed speed)
{
    return speed == Speed::High ? 512 : 64;
}

inline constexpr std::uint16_t kInterruptPacketSize = 16;

// The configuration as it is at `speed`, before any lie.
ConfigurationDescriptor DescribeFunction(const FunctionOptions& options, Speed speed);

// Everything GET_DESCRIPTOR can ask for.
class DescriptorSet {
  public:
    explicit DescriptorSet(const FunctionOptions& options, Lie lie = Lie::None);

    // The whole descriptor, or nothing: the request is to be stalled.
    std::optional<Bytes> Find(std::uint8_t type, std::uint8_t index, std::uint16_t language) const;

  private:
    Bytes DeviceDescriptor() const;
    Bytes DeviceQualifier() const;
    Bytes Configuration(std::uint8_t type) const;
    std::optional<Bytes> String(std::uint8_t index, std::uint16_t language) const;

    FunctionOptions options_;
    Lie lie_;
};

} // namespace module
