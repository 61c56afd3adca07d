// What docs/compatibility.md tells the author of a program.
#include "tests/personalities/session.h"

#include "apps/system.h"
#include "module/nmea_generator.h"

#include <gtest/gtest.h>

using namespace personalities;

namespace {

class OwnProgram : public testing::Test {
  protected:
    OwnProgram()
    {
        system.Plug();
        port = CreateFile("COM5", kReadWrite, 0, FILE_FLAG_OVERLAPPED);
        EXPECT_TRUE(port);
    }
    ~OwnProgram() override
    {
        CloseHandle(port);
        system.Unplug();
        EXPECT_TRUE(system.Unload());
    }

    // Fails with that error.
    static void ExpectError(DWORD error, bool succeeded)
    {
        EXPECT_FALSE(succeeded);
        EXPECT_EQ(ErrorName(GetLastError()), ErrorName(error));
    }

    DCB State()
    {
        DCB dcb{};
        EXPECT_TRUE(GetCommState(port, &dcb));
        return dcb;
    }

    app::System system{{.source = std::make_unique<module::NmeaGenerator>(1)}};
    Handle port;
    Overlapped overlapped;
    char buffer[4096] = {};
    DWORD length = 0;
};

TEST_F(OwnProgram, FindsAFreshHandlesState)
{
    DCB dcb = State();
    EXPECT_EQ(dcb.BaudRate, 0u);
    EXPECT_EQ(dcb.ByteSize, 5);
    COMMPROP properties{};
    EXPECT_TRUE(GetCommProperties(port, &properties));
    EXPECT_EQ(properties.CurrentRxQueue, 0u);

    SetLine(dcb, 12'345);
    dcb.XonChar = 0x11;
    EXPECT_TRUE(SetCommState(port, dcb));
    EXPECT_EQ(State().BaudRate, 12'345u);
    EXPECT_EQ(State().XonChar, 0);

    dcb.XonLim = 100;
    ExpectError(ERROR_INVALID_PARAMETER, SetCommState(port, dcb));
    EXPECT_TRUE(SetupComm(port, 100, 0));
    EXPECT_TRUE(SetCommState(port, dcb));
}

TEST_F(OwnProgram, KnowsWhatSomeCallsDoNot)
{
    DWORD lines = 0x1234;
    EXPECT_TRUE(GetCommModemStatus(port, &lines));
    EXPECT_EQ(lines, 0x1234u);
    ExpectError(ERROR_INVALID_FUNCTION, FlushFileBuffers(port));
    ExpectError(ERROR_INVALID_PARAMETER, TransmitCommChar(port, 'x'));
    EXPECT_TRUE(WriteFile(port, "x", 1, &length, nullptr));
    EXPECT_EQ(length, 1u);
}

TEST_F(OwnProgram, EndsAReadWithCancelIoExAndNotWithPurgeComm)
{
    EXPECT_TRUE(PurgeComm(port, PURGE_ALL));
    EXPECT_TRUE(ReadFile(port, buffer, 32, &length, &overlapped)); // the empty sentence
    EXPECT_EQ(length, 32u);
    ExpectError(ERROR_IO_PENDING, ReadFile(port, buffer, sizeof(buffer), nullptr, &overlapped));
    EXPECT_TRUE(PurgeComm(port, PURGE_ALL));
    ExpectError(ERROR_IO_INCOMPLETE, GetOverlappedResult(port, overlapped, &length, false));
    EXPECT_TRUE(CancelIoEx(port));
    ExpectError(ERROR_OPERATION_ABORTED, GetOverlappedResult(port, overlapped, &length, true));
}

TEST_F(OwnProgram, OutlivesTheModule)
{
    ExpectError(ERROR_IO_PENDING, ReadFile(port, buffer, sizeof(buffer), nullptr, &overlapped));
    system.Unplug();
    ExpectError(ERROR_OPERATION_ABORTED, GetOverlappedResult(port, overlapped, &length, true));
    DCB dcb{};
    ExpectError(ERROR_ACCESS_DENIED, GetCommState(port, &dcb));
    ExpectError(ERROR_ACCESS_DENIED, ReadFile(port, buffer, 1, &length, &overlapped));
    EXPECT_TRUE(WriteFile(port, "x", 1, &length, nullptr));
}

} // namespace
