// The libraries and programs that open serial ports, each with the calls that it makes and what it does when
// one fails.
#pragma once

#include "tests/personalities/session.h"

#include <span>

namespace personalities {

struct Personality {
    const char* name; // of its row in docs/compatibility.md
    std::unique_ptr<Library> (*make)(Session& session);
};

std::unique_ptr<Library> MakeDotNet(Session& session);
std::unique_ptr<Library> MakePyserial(Session& session);
std::unique_ptr<Library> MakeQt(Session& session);
std::unique_ptr<Library> MakeLibserialport(Session& session);
std::unique_ptr<Library> MakeNodeSerialport(Session& session);
std::unique_ptr<Library> MakePutty(Session& session);
std::unique_ptr<Library> MakeBoostAsio(Session& session);
std::unique_ptr<Library> MakeChromium(Session& session);
std::unique_ptr<Library> MakeSerialportRs(Session& session);
std::unique_ptr<Library> MakeGoSerial(Session& session);
std::unique_ptr<Library> MakeGoSerialWithoutLimits(Session& session);
std::unique_ptr<Library> MakeJSerialComm(Session& session);
std::unique_ptr<Library> MakeRtklib(Session& session);
std::unique_ptr<Library> MakeWjwwood(Session& session);

inline constexpr Personality kPersonalities[] = {
    {".NET SerialPort", MakeDotNet},
    {"pyserial", MakePyserial},
    {"Qt QSerialPort", MakeQt},
    {"libserialport", MakeLibserialport},
    {"node-serialport", MakeNodeSerialport},
    {"PuTTY", MakePutty},
    {"Boost.Asio", MakeBoostAsio},
    {"Chromium Web Serial", MakeChromium},
    {"serialport-rs", MakeSerialportRs},
    {"go.bug.st/serial", MakeGoSerial},
    {"go.bug.st/serial, changed to limits of 0", MakeGoSerialWithoutLimits},
    {"jSerialComm", MakeJSerialComm},
    {"RTKLIB", MakeRtklib},
    {"wjwwood/serial", MakeWjwwood},
};

} // namespace personalities
