// What navoxctl asks of the system that it runs on. The numbers of failures are those of the Windows API.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace navoxctl {

// The system refused something.
class SystemError : public std::runtime_error {
  public:
    SystemError(const std::string& what, std::uint32_t error) : std::runtime_error(what), code(error) {}

    const std::uint32_t code; // GetLastError's
};

// An open port. It is closed with the object. Calls return when they are complete, one at a time.
class PortHandle {
  public:
    PortHandle() = default;
    virtual ~PortHandle() = default;
    PortHandle(const PortHandle&) = delete;
    PortHandle& operator=(const PortHandle&) = delete;

    // A device control; how many bytes of `output` it has filled. Throws SystemError that says `what`.
    virtual std::size_t Control(const char* what, std::uint32_t code, std::span<const std::byte> input,
                                std::span<std::byte> output) = 0;
    // How many bytes came; 0 when the port's time-outs have passed. Throws SystemError.
    virtual std::size_t Read(std::span<char> buffer) = 0;
};

// An entry of the device map that gives serial ports their names.
struct MapEntry {
    std::string device; // "\Device\quorlex0"
    std::string port;   // "COM5"
};

// An interface of the class of COM ports that is there now.
struct InterfaceEntry {
    std::string path;    // what CreateFile opens
    std::string port;    // "COM5"; may be empty
    std::string service; // of the driver; may be empty
};

class System {
  public:
    System() = default;
    virtual ~System() = default;
    System(const System&) = delete;
    System& operator=(const System&) = delete;

    // For reading and writing. Throws SystemError.
    virtual std::unique_ptr<PortHandle> Open(const std::string& port) = 0;
    virtual std::vector<MapEntry> SerialMap() = 0;
    virtual std::vector<InterfaceEntry> ComInterfaces() = 0;
    // The system's text for an error, in one line.
    virtual std::string ErrorText(std::uint32_t error) = 0;
};

} // namespace navoxctl
