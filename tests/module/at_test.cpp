#include "module/test_host.h"

namespace module {
namespace {

using Transfers = std::vector<std::string>;

TEST(At, CommandsAndTheirAnswers)
{
    using Case = std::tuple<const char*, Transfers>;
    const Case cases[] = {
        {"AT\r", {"AT\r", "\r\nOK\r\n"}},
        {"at\r\n", {"at\r", "\r\nOK\r\n"}},
        {"AT*Q7GPSNPD\r\n", {"AT*Q7GPSNPD\r", "\r\nOK\r\n"}},
        {"ATX\x08Z\r", {"ATZ\r", "\r\nOK\r\n"}},
        {"AT+CGMI\r", {"AT+CGMI\r", "\r\nNavox\r\n\r\nOK\r\n"}},
        {"AT+CGMM\r", {"AT+CGMM\r", "\r\nNavox GPS module\r\n\r\nOK\r\n"}},
        {"AT+CGSN\r", {"AT+CGSN\r", "\r\nNVX000001\r\n\r\nOK\r\n"}},
        {"ATI\r", {"ATI\r", "\r\nNavox\r\nNavox GPS module\r\nR1A01\r\n\r\nOK\r\n"}},
        {"AT+NOSUCH=1\r", {"AT+NOSUCH=1\r", "\r\nERROR\r\n"}},
        {"AT\rATX9\r", {"AT\r", "\r\nOK\r\n", "ATX9\r", "\r\nERROR\r\n"}},
        {"$GPGGA,,,,*00\r\n", {}}, // no command: an echoing terminal gets no answer to its answer
        {"\r\n\r\n", {}},
        {"ATE0\r", {"ATE0\r", "\r\nOK\r\n"}},
        {"AT\r", {"\r\nOK\r\n"}},
        {"ATE1\r", {"\r\nOK\r\n"}},
        {"AT\r", {"AT\r", "\r\nOK\r\n"}},
    };
    TestHost host;
    host.Configure();
    host.SetLines(3);
    for (const auto& [sent, answers] : cases)
        EXPECT_EQ(host.Exchange(sent), answers) << sent;
    EXPECT_EQ(host.gps.Look().at_commands.size(), 15U);
}

TEST(At, ALineMayComeInPieces)
{
    TestHost host({.echo = false});
    host.Configure();
    for (const char* piece : {"A", "T*Q7G", "PSNPD"})
        EXPECT_EQ(host.Exchange(piece), Transfers{});
    EXPECT_EQ(host.Exchange("\r"), Transfers{"\r\nOK\r\n"});
}

TEST(At, ALineThatIsTooLongIsAnError)
{
    TestHost host({.echo = false});
    host.Configure();
    for (const std::size_t padding : {AtLineReader::kMaxLine - 2, AtLineReader::kMaxLine + 1000})
        EXPECT_EQ(host.Exchange("AT" + std::string(padding, 'x') + "\r"), Transfers{"\r\nERROR\r\n"});
    EXPECT_LE(host.gps.Look().at_commands.back().size(), AtLineReader::kMaxLine);
    EXPECT_EQ(host.Exchange("AT\r"), Transfers{"\r\nOK\r\n"}) << "and nothing of it stays behind";
}

TEST(At, SentencesFlowFromTheCommandUntilDtrDrops)
{
    auto host = TestHost::WithReceiver();
    host->gps.Advance(host->now);
    host->Configure();
    host->SetLines(3);
    EXPECT_EQ(host->Exchange("AT\r").size(), 2U);
    EXPECT_TRUE(host->RunUntil(host->now + 5 * kSecond).empty()) << "not asked for";

    for (int opened = 0; opened < 2; ++opened) {
        host->SetLines(3);
        EXPECT_EQ(host->Exchange("AT*Q7GPSNPD\r\n"), (Transfers{"AT*Q7GPSNPD\r", "\r\nOK\r\n"}));
        EXPECT_TRUE(host->gps.Look().nmea_flowing);
        const auto bursts = host->RunUntil(host->now + 3 * kSecond);
        ASSERT_EQ(bursts.size(), 3U);
        EXPECT_EQ(bursts[0].text.rfind("$GPGGA,", 0), 0U);

        host->gps.Advance(host->now += 2 * kSecond); // two bursts that nobody reads
        host->Send("AT+CG");                         // and half a command
        host->SetLines(2);
        host->SetLines(0);
        EXPECT_FALSE(host->gps.Look().nmea_flowing);
        EXPECT_TRUE(host->ReadAll().empty()) << "thrown away";
        EXPECT_TRUE(host->RunUntil(host->now + 5 * kSecond).empty());
    }
}

TEST(At, AnIdleModuleMovesNoData)
{
    auto host = TestHost::WithReceiver();
    host->Open();
    host->gps.Advance(host->now += kSecond);
    host->SetAbstractState(3);
    EXPECT_EQ(host->gps.In(0x82).handshake, Handshake::Nak);
    EXPECT_EQ(host->Send("AT\r"), Handshake::Nak);
    EXPECT_TRUE(host->RunUntil(host->now + 5 * kSecond).empty());
    host->SetAbstractState(2);
    EXPECT_EQ(host->RunUntil(host->now + 2 * kSecond).size(), 3U) << "what waited, then two more";

    TestHost careless({.ignores_idle = true});
    careless.Configure();
    careless.SetAbstractState(3);
    EXPECT_EQ(careless.Exchange("AT\r").size(), 2U);
}

} // namespace
} // namespace module
