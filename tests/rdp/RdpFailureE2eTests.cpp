// How the channel ends over a real RDP connection: a client killed mid-session, a client
// without the add-in, and a protocol version the add-in refuses.
#include "tests/rdp/RdpE2eHarness.h"

#include <sys/wait.h>

#include <gtest/gtest.h>

#include <filesystem>

namespace
{

using namespace RdpE2e;
using Clock = std::chrono::steady_clock;

class RdpEnds : public testing::Test
{
protected:
    void SetUp() override { ASSERT_EQ(Environment::Get().Prepared(), ""); }
};

TEST_F(RdpEnds, AKilledClientGivesTheHostABrokenConnectionWithinASecond)
{
    const std::string record = Environment::Get().NewPath("record");
    Host host;
    Client client(host.Port(), true, record);
    ASSERT_NE(host.WaitFor("handshake Accepted"), "") << host.Output() << client.Output();
    host.Send("https://example.com/before");
    ASSERT_NE(WaitForLine(record, "1 ", Millis(10000)), "") << client.Output();

    client.Kill();
    const auto killed = Clock::now();
    const std::string line = host.WaitFor("read failed", Millis(5000));
    const auto took = std::chrono::duration_cast<Millis>(Clock::now() - killed);
    EXPECT_NE(line.find("error=2250 (ERROR_NOT_CONNECTED)"), std::string::npos) << host.Output();
    EXPECT_LT(took, Millis(1000));
    EXPECT_NE(host.WaitFor("done", Millis(5000)), "") << host.Output();
}

TEST_F(RdpEnds, WithoutTheAddinTheChannelOpenFailsCleanly)
{
    Host host;
    Client client(host.Port(), false);
    EXPECT_NE(host.WaitFor("channel open failed error=1168 (ERROR_NOT_FOUND)"), "") << host.Output();
    // The connection itself goes on; the host has nothing to send on.
    EXPECT_NE(host.WaitFor("client activated"), "") << host.Output();
    host.Send("https://example.com/");
    EXPECT_NE(host.WaitFor("not sent: the channel is not ready"), "") << host.Output();
    host.Send("quit");
    int status = -1;
    ASSERT_TRUE(host.WaitExit(Millis(10000), &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << host.Output();
}

TEST_F(RdpEnds, AVersionTheAddinRefusesEndsTheHandshakeAtTheVersionStatus)
{
    const std::string record = Environment::Get().NewPath("record");
    Host host({"--announce-version", "0x00020000"});
    Client client(host.Port(), true, record);
    // Refused in the client side's status byte (step 4), before any option is exchanged.
    EXPECT_NE(host.WaitFor("handshake VersionRefused remote=0x00010001 step=3"), "") << host.Output();
    EXPECT_NE(client.WaitFor("refused the host's protocol version 0x00020000"), "") << client.Output();
    EXPECT_NE(host.WaitFor("channel closed"), "") << host.Output();
    host.Send("https://example.com/");
    EXPECT_NE(host.WaitFor("not sent: the channel is not ready"), "") << host.Output();
    EXPECT_FALSE(std::filesystem::exists(record));
}

} // namespace
