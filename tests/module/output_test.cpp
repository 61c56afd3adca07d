#include "module/output_fifo.h"

#include "module/test_host.h"

namespace module {
namespace {

using Kind = OutputFifo::Kind;

std::vector<std::size_t> PacketSizes(OutputFifo& fifo)
{
    std::vector<std::size_t> sizes;
    while (const auto packet = fifo.NextPacket())
        sizes.push_back(packet->size());
    return sizes;
}

TEST(Output, TransfersAreCutIntoPacketsAndEndWithAShortOne)
{
    using Case = std::tuple<std::vector<std::size_t>, std::vector<std::size_t>>;
    const Case cases[] = {
        {{0}, {}},
        {{1}, {1}},
        {{63}, {63}},
        {{64}, {64, 0}},
        {{65}, {64, 1}},
        {{128, 5}, {64, 64, 0, 5}},
        {{12, 6, 200}, {12, 6, 64, 64, 64, 8}},
    };
    for (const auto& [transfers, packets] : cases) {
        OutputFifo fifo(1000, 64);
        for (const std::size_t size : transfers)
            fifo.Push(Bytes(size), Kind::Sentences);
        EXPECT_EQ(PacketSizes(fifo), packets);
        EXPECT_EQ(fifo.size(), 0U);
    }
}

TEST(Output, TheOldestSentencesMakeRoomButNotOnesBegunNorAnswers)
{
    OutputFifo fifo(300, 64);
    fifo.Push(Bytes(100, 'a'), Kind::Sentences);
    EXPECT_EQ(fifo.NextPacket(), Bytes(64, 'a'));
    fifo.Push(Bytes(6, 'o'), Kind::Answer);
    fifo.Push(Bytes(100, 'b'), Kind::Sentences);
    fifo.Push(Bytes(100, 'c'), Kind::Sentences);
    fifo.Push(Bytes(100, 'd'), Kind::Sentences);
    EXPECT_EQ(fifo.dropped(), 100U);
    EXPECT_EQ(fifo.NextPacket(), Bytes(36, 'a'));
    EXPECT_EQ(fifo.NextPacket(), Bytes(6, 'o'));
    EXPECT_EQ(fifo.NextPacket(), Bytes(64, 'c'));
    fifo.Push(Bytes(301), Kind::Answer);
    EXPECT_EQ(fifo.dropped(), 401U) << "larger than everything: nothing else is lost for it";
    EXPECT_EQ(PacketSizes(fifo), (std::vector<std::size_t>{36, 64, 36}));
}

TEST(Output, AHostThatDoesNotReadFindsTheFreshest)
{
    auto host = TestHost::WithReceiver({.fifo_capacity = 2000});
    host->Open();
    for (int second = 0; second < 3600; ++second)
        host->gps.Advance(host->now += kSecond);
    const std::vector<std::string> kept = host->ReadAll();
    ASSERT_GE(kept.size(), 2U);
    std::size_t size = 0;
    for (const std::string& burst : kept) {
        EXPECT_EQ(burst.substr(0, 7), "$GPGGA,") << "whole bursts";
        size += burst.size();
    }
    EXPECT_LE(size, 2000U);
    EXPECT_EQ(kept.back().substr(7, 9), "005950.00") << "the hour is over";
    const ModuleStatus status = host->gps.Look();
    EXPECT_GT(status.bytes_dropped, 100'000U);
    EXPECT_EQ(status.sentence_bytes, size);
    EXPECT_EQ(status.bytes_sent, size + 13 - 1 + 6) << "and the echo, and the OK";
    EXPECT_EQ(status.transfers_sent, kept.size() + 2);
}

} // namespace
} // namespace module
