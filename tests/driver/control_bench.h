// What the tests of the controls share: buffers, the serial codes, and the states a device can be in.
#pragma once

#include "navox.h"
#include "rig.h"

#include <initializer_list>
#include <span>

namespace navox_test {

using Bytes = std::vector<std::byte>;

Bytes BytesFrom(std::initializer_list<int> values);
Bytes Words(std::initializer_list<ULONG> values);
inline Bytes Zeros(std::size_t count)
{
    return Bytes(count);
}
template <class T>
Bytes BytesFrom(const T& value)
{
    const auto bytes = host::nt::BytesOf(value);
    return {bytes.begin(), bytes.end()};
}
std::string Hex(std::span<const std::byte> bytes);

// A code of the serial interface as a fresh client finds it: what it asks for, and what it gives.
struct SerialCode {
    int n;
    const char* name;
    ULONG code;
    Bytes input;           // the shortest that is taken
    ULONG output = 0;      // bytes, the fewest that are taken
    ULONG information = 0; // bytes given
    NTSTATUS status = STATUS_SUCCESS;
};
const std::vector<SerialCode>& SerialCodes();

// A Plug and Play state that a device with an open handle is taken into and, where there is a way, back out of.
struct DeviceState {
    const char* name;
    ULONG state;
    bool admits; // serial controls and reads
    void (*enter)(Rig& rig);
    void (*leave)(Rig& rig);
};
const std::vector<DeviceState>& DeviceStates();

// The driver's own record of the module. The device must exist.
DEVICE_EXTENSION& ExtensionOf(Rig& rig);

// A control as a driver above would send it: no file, no access check, and the dispatch routine's answer is seen.
struct DirectResult {
    NTSTATUS returned = 0; // by the dispatch routine
    NTSTATUS status = 0;   // in the request
    std::size_t information = 0;
    Bytes output; // all of it, whatever the request says of it
};
DirectResult SendDirect(Rig& rig, ULONG code, std::span<const std::byte> input, std::size_t output_length);

} // namespace navox_test
