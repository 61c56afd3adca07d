// Writes: taken, counted, and thrown away.
#include "control_bench.h"

namespace navox_test {
namespace {

using host::nt::Access;

TEST(Write, IsTakenWholeWhateverItsLengthAndNeverReachesTheModule)
{
    Rig rig;
    Port port = rig.OpenStreaming();
    const auto received = rig.module->Look().bytes_received;
    rig.TakeBusLog();
    for (const std::size_t length : {0, 1, 13, 4096, 4097, 100'000}) {
        const host::nt::Result result = port.Write(Zeros(length));
        EXPECT_EQ(result.status, STATUS_SUCCESS) << length;
        EXPECT_EQ(result.information, length);
        rig.RunFor(kSecond);
    }
    for (const std::string& request : rig.TakeBusLog())
        EXPECT_EQ(request, "in 82");
    EXPECT_EQ(rig.module->Look().bytes_received, received);
}

// Whatever its time-outs, whoever reads, and however many there are.
TEST(Write, IsDoneAtOnce)
{
    Rig rig({.source = nullptr});
    Port port = rig.Open();
    EXPECT_EQ(port.Set(IOCTL_SERIAL_SET_TIMEOUTS, SERIAL_TIMEOUTS{0, 0, 0, 1000, 1000}), STATUS_SUCCESS);
    host::nt::Request read = port.StartRead(100);
    const host::Time before = rig.kernel.Now();
    for (int i = 0; i < 50; ++i)
        EXPECT_TRUE(port.StartWrite(Zeros(64)).Done());
    EXPECT_EQ(rig.kernel.Now(), before);
    EXPECT_FALSE(read.Done());
}

TEST(Write, NeedsAHandleToWriteToAndCannotBeFlushed)
{
    Rig rig;
    Port port;
    ASSERT_EQ(rig.TryOpen(&port, {.access = Access::Read}), STATUS_SUCCESS);
    EXPECT_EQ(port.Write(Zeros(1)).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(rig.Open().Flush().status, STATUS_INVALID_DEVICE_REQUEST);
}

} // namespace
} // namespace navox_test
