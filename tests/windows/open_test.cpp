#include "windows/rig/program/rig_test.h"

#include <setupapi.h>

namespace {

// GUID_DEVINTERFACE_COMPORT
constexpr GUID kPorts = {0x86e0d1e0, 0x8089, 0x11d0, {0x9c, 0xe4, 0x08, 0x00, 0x3e, 0x30, 0x1f, 0x73}};

// The paths of the ports that are there, as a program finds them that looks for interfaces rather than names.
std::vector<std::string> InterfacePaths()
{
    std::vector<std::string> paths;
    const HDEVINFO set =
        SetupDiGetClassDevsA(&kPorts, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    CHECK(set != INVALID_HANDLE_VALUE);
    SP_DEVICE_INTERFACE_DATA found{};
    found.cbSize = sizeof found;
    for (DWORD i = 0; SetupDiEnumDeviceInterfaces(set, nullptr, &kPorts, i, &found); ++i) {
        alignas(SP_DEVICE_INTERFACE_DETAIL_DATA_A) char buffer[512];
        auto* detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_A*>(buffer);
        detail->cbSize = sizeof *detail;
        CHECK(SetupDiGetDeviceInterfaceDetailA(set, &found, detail, sizeof buffer, nullptr, nullptr));
        paths.emplace_back(detail->DevicePath);
    }
    SetupDiDestroyDeviceInfoList(set);
    return paths;
}

} // namespace

SCENARIO(OpensByEveryName)
{
    Rig rig;
    rig.Plug();
    std::vector<std::string> names = InterfacePaths();
    CHECK_EQ(names.size(), 1);
    names.insert(names.end(), {"COM5", "\\\\.\\COM5"});
    for (const std::string& name : names) {
        Port port(name);
        CHECK_EQ(rig.Counters().open_files, 1);
        CHECK_EQ(port.ReadAll(kEmptySentence.size()), kEmptySentence);
        port.Close();
        WaitUntil("the driver closes the file", [&] { return rig.Counters().open_files == 0; });
    }
}

SCENARIO(SetsTheLineForTheFirstAndTheLast)
{
    Rig rig;
    rig.Plug();
    const unsigned before = rig.Counters().control_requests;
    const auto check_line = [&](unsigned files, unsigned requests, unsigned lines, unsigned state) {
        WaitUntil("the files are opened and closed", [&] { return rig.Counters().open_files == files; });
        const RigCounters counters = rig.Counters();
        CHECK_EQ(counters.control_requests - before, requests);
        CHECK_EQ(counters.dtr, lines);
        CHECK_EQ(counters.rts, lines);
        CHECK_EQ(counters.abstract_state, state);
    };
    Port first("COM5");
    check_line(1, 7, 1, 2);
    Port second("COM5");
    check_line(2, 7, 1, 2);
    first.Close();
    check_line(1, 7, 1, 2);
    second.Close();
    check_line(0, 10, 0, 3);
}

SCENARIO(GoesAndComesWithItsModule)
{
    Rig rig;
    rig.Plug();
    Port port("COM5", FILE_FLAG_OVERLAPPED);
    PendingRead sentence(port, static_cast<DWORD>(kEmptySentence.size()));
    CHECK_EQ(sentence.Wait(), 0);
    PendingRead pending(port, 10);
    rig.Unplug();
    CHECK_EQ(pending.Wait(), ERROR_OPERATION_ABORTED);
    port.Close();
    rig.WaitGone();
    CHECK(OpenPort("COM5") == INVALID_HANDLE_VALUE);
    CHECK_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    CHECK_EQ(InterfacePaths().size(), 0);
    CHECK_EQ(rig.Counters().wmi_registered, 0);
    rig.Plug();
    Port back("COM5");
    rig.Feed("back");
    CHECK_EQ(back.ReadAll(kEmptySentence.size() + 4), kEmptySentence + "back");
}
