// Programs on the port, and what the system's own tools show of it.
#include "windows/rig/program/rig_test.h"

#include <algorithm>

namespace {

constexpr const char* kSerialMap = "reg query HKLM\\HARDWARE\\DEVICEMAP\\SERIALCOMM";
constexpr const char* kHardwareKey =
    "reg query \"HKLM\\SYSTEM\\CurrentControlSet\\Enum\\USB\\VID_1209&PID_0001&MI_00\\RIG0\\Device "
    "Parameters\"";

// What a program writes until it ends, which it must do with 0. Blanks in a row are one.
std::string OutputOf(std::string command_line)
{
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    HANDLE ends[2] = {};
    CHECK(CreatePipe(&ends[0], &ends[1], &inherited, 0));
    const Handle reader(ends[0]);
    Handle writer(ends[1]);
    CHECK(SetHandleInformation(reader, HANDLE_FLAG_INHERIT, 0));
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = writer;
    startup.hStdError = writer;
    PROCESS_INFORMATION started{};
    CHECK(CreateProcessA(nullptr, command_line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                         &started));
    const Handle process(started.hProcess);
    CloseHandle(started.hThread);
    writer.Close();
    std::string text;
    char part[256];
    for (DWORD moved = 0; ReadFile(reader, part, sizeof part, &moved, nullptr) && moved != 0;)
        text.append(part, moved);
    CHECK_EQ(WaitForSingleObject(process, kPatience), WAIT_OBJECT_0);
    DWORD code = 0;
    CHECK(GetExitCodeProcess(process, &code));
    if (code != 0)
        Fail(__FILE__, __LINE__, command_line + ": " + text);
    const auto both_blank = [](char a, char b) { return a == ' ' && b == ' '; };
    text.erase(std::unique(text.begin(), text.end(), both_blank), text.end());
    std::erase(text, '\r');
    return text;
}

void CheckHas(const std::string& text, const std::string& part, bool there = true)
{
    if ((text.find(part) != std::string::npos) != there)
        Fail(__FILE__, __LINE__, "\"" + part + (there ? "\" is not in:\n" : "\" is still in:\n") + text);
}

// The driver counts its devices from 0 on.
std::string DeviceOf(const std::string& port)
{
    char target[MAX_PATH] = {};
    CHECK(QueryDosDeviceA(port.c_str(), target, sizeof target) != 0);
    const std::string device(target);
    constexpr std::string_view prefix = "\\Device\\quorlex";
    const std::size_t end = device.find_first_not_of("0123456789", prefix.size());
    CHECK(device.starts_with(prefix) && device.size() > prefix.size() && end == std::string::npos);
    return device;
}

// From the package.
std::string Navoxctl(const std::string& arguments)
{
    return OutputOf("C:\\rig\\package\\navoxctl.exe " + arguments);
}

} // namespace

SCENARIO(ReadsThroughACompletionPort)
{
    Rig rig;
    rig.Plug();
    Port port("COM5", FILE_FLAG_OVERLAPPED);
    const Handle queue(CreateIoCompletionPort(port.handle(), nullptr, 42, 1));
    CHECK(queue != nullptr);
    char buffer[2][64] = {};
    OVERLAPPED calls[2] = {};
    const std::string expected[] = {kEmptySentence, "0123456789"};
    for (int i = 0; i < 2; ++i) {
        if (!ReadFile(port.handle(), buffer[i], static_cast<DWORD>(expected[i].size()), nullptr, &calls[i]))
            CHECK_EQ(GetLastError(), ERROR_IO_PENDING);
    }
    rig.Feed(expected[1]);
    for (int i = 0; i < 2; ++i) {
        DWORD moved = 0;
        ULONG_PTR key = 0;
        OVERLAPPED* ended = nullptr;
        CHECK(GetQueuedCompletionStatus(queue, &moved, &key, &ended, kPatience));
        CHECK_EQ(key, 42);
        CHECK(ended == &calls[i]);
        CHECK_EQ(std::string(buffer[i], moved), expected[i]);
    }
    // What is cancelled comes out there, too.
    CHECK(!ReadFile(port.handle(), buffer[0], 8, nullptr, &calls[0]));
    CHECK(CancelIoEx(port.handle(), nullptr));
    DWORD moved = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* ended = nullptr;
    CHECK(!GetQueuedCompletionStatus(queue, &moved, &key, &ended, kPatience));
    CHECK_EQ(GetLastError(), ERROR_OPERATION_ABORTED);
    CHECK(ended == &calls[0]);
}

// Reads what never comes.
ROLE(ReadForEver)
{
    Port port(arguments.at(0), FILE_FLAG_OVERLAPPED);
    const PendingRead pending(port, 4096);
    CHECK(!pending.Ended());
    SignalReady();
    Sleep(INFINITE);
}

SCENARIO(OutlivesAProcessThatIsKilledInARead)
{
    Rig rig;
    rig.Plug();
    Port port("COM5");
    Child reader("ReadForEver", {"COM5"});
    reader.WaitReady();
    CHECK_EQ(rig.Counters().open_files, 2);
    reader.Kill();
    WaitUntil("the driver closes the file", [&] { return rig.Counters().open_files == 1; });
    rig.Feed("still here");
    CHECK_EQ(port.ReadAll(kEmptySentence.size() + 10), kEmptySentence + "still here");
}

SCENARIO(TheRegistryNamesThePortWhileItIsThere)
{
    Rig rig;
    const unsigned serial_ports = rig.Counters().serial_count;
    rig.Plug();
    const std::string entry = " " + DeviceOf("COM5") + " REG_SZ COM5\n";
    CheckHas(OutputOf(kSerialMap), entry);
    CHECK_EQ(rig.Counters().serial_count, serial_ports);
    {
        const Port first("COM5");
        const Port second("COM5");
        CheckHas(OutputOf(kHardwareKey), " PortName REG_SZ COM5\n");
        CheckHas(OutputOf(kHardwareKey), " OpenHandles REG_DWORD 0x2\n");
    }
    WaitUntil("the driver closes the files", [&] { return rig.Counters().open_files == 0; });
    CheckHas(OutputOf(kHardwareKey), " OpenHandles REG_DWORD 0x0\n");
    rig.Unplug();
    rig.WaitGone();
    CheckHas(OutputOf(kSerialMap), entry, false);
    CHECK_EQ(rig.Counters().serial_count, serial_ports - 1); // as docs/behaviour.md says
    char target[MAX_PATH] = {};
    CHECK_EQ(QueryDosDeviceA("COM5", target, sizeof target), 0);
    CheckHas(OutputOf(kHardwareKey), " PortName REG_SZ COM5\n"); // for the next time
}

SCENARIO(NavoxctlSeesThePort)
{
    Rig rig;
    RigPlug plug{};
    plug.generated = 5;
    CHECK_EQ(Navoxctl("list"), "no navox port is there\n");
    rig.Plug(plug);
    CheckHas(Navoxctl("list"), "PORT DEVICE INTERFACE\nCOM5 " + DeviceOf("COM5") + " \\\\?\\");
    const Port port("COM5");
    CHECK_EQ(Navoxctl("info COM5"), "port COM5\nnumber 5\nversion 7.2.1.1\nshort version 7.2\n"
                                    "build date Mar 1 2012\nhandles open 2, this one included\n"
                                    "NMEA mode 0\n");
    Navoxctl("set-nmea-mode COM5 7");
    CheckHas(Navoxctl("info COM5"), "NMEA mode 7\n");
    const std::string sentences = Navoxctl("monitor COM5 --count 12");
    CHECK_EQ(std::count(sentences.begin(), sentences.end(), '\n'), 12);
    CHECK_EQ(sentences.substr(0, kEmptySentence.size() - 2) + "\r\n", kEmptySentence);
    CheckHas(sentences, "$GPRMC,");
    const std::string fixes = Navoxctl("monitor COM5 --decode --count 2");
    CHECK_EQ(std::count(fixes.begin(), fixes.end(), '\n'), 3);
    CheckHas(fixes, "DATE TIME (UTC) LATITUDE LONGITUDE ALT m FIX SATS HDOP KNOTS COURSE\n"
                    "- - - - - none 0/- 0.5 - -\n"
                    "20");
}
