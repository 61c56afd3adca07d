#include "windows/rig/program/rig_test.h"

#include <cstring>

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

// The whole stream is some five times what a client has room for. The first part is a recording that the module plays, the
// rest is fed in pieces, each when all have read the one before: nothing may be lost, however slow the machine.
constexpr std::size_t kRecorded = 2800; // bytes
constexpr std::size_t kPiece = 1400;

// Reads a whole stream: port, path of a file with it, name of a semaphore that counts the pieces which were read.
ROLE(ReadStream)
{
    const std::string stream = ReadFileOf(arguments.at(1));
    const Handle pieces(OpenSemaphoreA(SEMAPHORE_MODIFY_STATE, FALSE, arguments.at(2).c_str()));
    CHECK(pieces != nullptr);
    Port port(arguments.at(0));
    SignalReady();
    CHECK(port.ReadAll(kEmptySentence.size() + kRecorded) == kEmptySentence + stream.substr(0, kRecorded));
    for (std::size_t at = kRecorded; at < stream.size(); at += kPiece) {
        CHECK(ReleaseSemaphore(pieces, 1, nullptr));
        const std::string piece = stream.substr(at, kPiece);
        CHECK(port.ReadAll(piece.size()) == piece);
    }
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
    const std::string stream = Sentences(150);
    const std::string path = "C:\\rig\\stream.nmea";
    WriteFileOf(path, stream);
    RigPlug plug{};
    plug.held = 1;
    plug.recording_rate = 50;
    std::strcpy(plug.recording, "C:\\rig\\recording.nmea");
    WriteFileOf(plug.recording, stream.substr(0, kRecorded));
    Rig rig;
    rig.Plug(plug);
    Child idle("HoldOpen", {"COM5"});
    idle.WaitReady();
    std::vector<Handle> pieces;
    std::vector<Child> readers;
    for (const char* name : {"rig-reader-1", "rig-reader-2", "rig-reader-3"}) {
        pieces.emplace_back(CreateSemaphoreA(nullptr, 0, 1000, name));
        readers.emplace_back("ReadStream", Arguments{"COM5", path, name});
        readers.back().WaitReady();
    }
    CHECK_EQ(rig.Counters().open_files, 4);
    rig.Release();
    for (std::size_t at = kRecorded; at < stream.size(); at += kPiece) {
        for (const Handle& reader : pieces)
            CHECK_EQ(WaitForSingleObject(reader, kPatience), WAIT_OBJECT_0);
        rig.Feed(stream.substr(at, kPiece));
    }
    for (Child& reader : readers)
        reader.Expect(0);
    CHECK_EQ(rig.Counters().sentence_bytes, stream.size());
    CHECK_EQ(rig.Counters().bytes_dropped, 0);
    // A process that is killed gives its file back, too.
    idle.Kill();
    WaitUntil("the driver closes the file", [&] { return rig.Counters().open_files == 0; });
}
