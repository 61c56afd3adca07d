#include "tests/windows/rig_test.h"

namespace {

// Sentences as a module sends them, so many bursts of them.
std::string Sentences(int bursts)
{
    std::string text;
    for (int i = 0; i < bursts; ++i) {
        char line[96];
        std::snprintf(line, sizeof line, "%02d%02d%02d.00", i / 3600, i / 60 % 60, i % 60);
        text += std::string("$GPGGA,") + line + ",4717.11,N,00833.91,E,1,08,1.01,499.6,M,48.0,M,,*5B\r\n";
        text += std::string("$GPRMC,") + line + ",A,4717.11,N,00833.91,E,0.004,77.52,091202,,,A*57\r\n";
    }
    return text;
}

std::string ReadFileOf(const std::string& path)
{
    const Handle file(CreateFileA(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    CHECK(file != INVALID_HANDLE_VALUE);
    std::string text(GetFileSize(file, nullptr), '\0');
    DWORD moved = 0;
    CHECK(ReadFile(file, text.data(), static_cast<DWORD>(text.size()), &moved, nullptr));
    return text;
}

void WriteFileOf(const std::string& path, const std::string& text)
{
    const Handle file(CreateFileA(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    DWORD moved = 0;
    CHECK(WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &moved, nullptr));
}

} // namespace

SCENARIO(ReadsWhatIsSent)
{
    Rig rig;
    rig.Plug();
    Port port("COM5");
    const std::string text = Sentences(10);
    rig.Feed(text);
    CHECK_EQ(port.ReadAll(kEmptySentence.size() + text.size()), kEmptySentence + text);
    CHECK_EQ(rig.Counters().at_commands, 1);
    CHECK(rig.Counters().flowing != 0);
}

SCENARIO(ReadsOverlapped)
{
    Rig rig;
    rig.Plug();
    Port port("COM5", FILE_FLAG_OVERLAPPED);
    PendingRead empty(port, static_cast<DWORD>(kEmptySentence.size()));
    CHECK_EQ(empty.Wait(), 0);
    CHECK_EQ(empty.data(), kEmptySentence);
    // Two at once: what comes goes to the one that was first.
    PendingRead first(port, 10);
    PendingRead second(port, 5);
    CHECK(!first.Ended() && !second.Ended());
    rig.Feed("0123456789abcde");
    CHECK_EQ(first.Wait(), 0);
    CHECK_EQ(second.Wait(), 0);
    CHECK_EQ(first.data(), "0123456789");
    CHECK_EQ(second.data(), "abcde");
}

// Reads all of a recording: port, path.
ROLE(ReadRecording)
{
    const std::string expected = kEmptySentence + ReadFileOf(arguments.at(1));
    Port port(arguments.at(0));
    SignalReady();
    CHECK(port.ReadAll(expected.size()) == expected);
}

// Opens a port and never reads.
ROLE(HoldOpen)
{
    const Port port(arguments.at(0));
    SignalReady();
    Sleep(INFINITE);
}

SCENARIO(EveryProcessReadsTheWholeStream)
{
    const std::string path = "C:\\rig\\recording.nmea";
    const std::string recording = Sentences(150); // some five times what a client has room for
    WriteFileOf(path, recording);
    RigPlug plug{};
    plug.held = 1;
    plug.recording_rate = 50;
    path.copy(plug.recording, sizeof plug.recording - 1);
    Rig rig;
    rig.Plug(plug);
    Child idle("HoldOpen", {"COM5"});
    idle.WaitReady();
    std::vector<Child> readers;
    for (int i = 0; i < 3; ++i)
        readers.emplace_back("ReadRecording", Arguments{"COM5", path});
    for (Child& reader : readers)
        reader.WaitReady();
    CHECK_EQ(rig.Counters().open_files, 4);
    rig.Release();
    for (Child& reader : readers)
        reader.Expect(0);
    CHECK_EQ(rig.Counters().sentence_bytes, recording.size());
    CHECK_EQ(rig.Counters().bytes_dropped, 0);
    // A process that is killed gives its file back, too.
    idle.Kill();
    WaitUntil("the driver closes the file", [&] { return rig.Counters().open_files == 0; });
}
