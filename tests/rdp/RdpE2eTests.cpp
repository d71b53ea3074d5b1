// The add-in over a real RDP connection with the test host. RdpUrls share one connection: the
// host sends each URL through the virtual-channel stream and the recorder, as the add-in's
// opener, writes down what it was given. RdpEnds each make their own.
#include "tests/rdp/RdpE2e.h"

#include <sys/wait.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <thread>

namespace
{

using namespace RdpE2e;
using Args = std::vector<std::string>;

class RdpUrls : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        if (!Environment::Get().error.empty())
            return;
        s_record = Environment::Get().NewPath("record");
        s_host = std::make_unique<Host>();
        s_client = std::make_unique<Client>(s_host->port, s_record);
        s_host->WaitFor("handshake Accepted");
    }
    static void TearDownTestSuite()
    {
        s_client.reset();
        s_host.reset();
    }
    void SetUp() override
    {
        ASSERT_EQ(Environment::Get().error, "");
        ASSERT_NE(s_host->WaitFor("handshake Accepted", Millis(0)), "")
            << ReadFile(s_host->output) << ReadFile(s_client->output);
    }

    // What the recorder got for the URL. A marker URL is sent after it; the add-in starts the
    // opener for each URL in turn, but their runs may end in any order, so once the marker has
    // been recorded the URL's own run is given a moment more to end.
    static std::vector<Args> Deliver(const std::string& url)
    {
        const size_t before = ReadRecords(s_record).size();
        const Args marker = {"https://example.com/marker/" + std::to_string(before)};
        s_host->child->Send(url);
        s_host->child->Send(marker[0]);
        for (int i = 0; i < 1000; ++i, std::this_thread::sleep_for(Millis(10)))
        {
            auto records = ReadRecords(s_record);
            if (std::find(records.begin() + static_cast<std::ptrdiff_t>(before), records.end(), marker) ==
                records.end())
                continue;
            std::this_thread::sleep_for(Millis(500));
            records = ReadRecords(s_record);
            records.erase(records.begin(), records.begin() + static_cast<std::ptrdiff_t>(before));
            const auto found = std::find(records.begin(), records.end(), marker);
            if (found == records.end())
                continue;
            records.erase(found);
            return records;
        }
        ADD_FAILURE() << "the marker never came; the client said:\n" << ReadFile(s_client->output);
        return {};
    }

    static inline std::string s_record;
    static inline std::unique_ptr<Host> s_host;
    static inline std::unique_ptr<Client> s_client;
};

TEST_F(RdpUrls, AnAsciiUrlArrivesAsOneArgument)
{
    const std::string url = "https://example.com/path?query=1&b=2#fragment";
    EXPECT_EQ(Deliver(url), std::vector<Args>{{url}});
}

TEST_F(RdpUrls, BmpAndNonBmpCharactersArriveByteExact)
{
    // U+4F8B and U+00E9 (three and two bytes), U+1F600 and U+10348 (four each).
    const std::string url = "https://\xe4\xbe\x8b.jp/caf\xc3\xa9/\xf0\x9f\x98\x80/\xf0\x90\x8d\x88";
    EXPECT_EQ(Deliver(url), std::vector<Args>{{url}});
}

TEST_F(RdpUrls, ShellMetacharactersReachTheOpenerAsOneUnchangedArgument)
{
    const std::string url = "https://example.com/a b;touch /tmp/velomar-pwned;$(id)`id`'\"|&<>*?~\\";
    EXPECT_EQ(Deliver(url), std::vector<Args>{{url}});
}

TEST_F(RdpUrls, ARefusedSchemeIsNotOpenedAndTheAddinSaysSo)
{
    EXPECT_EQ(Deliver("file:///etc/passwd"), std::vector<Args>{});
    EXPECT_NE(
        WaitForLine(s_client->output, "refused a URL from the host: the scheme \"file\" is not allowed"), "");
}

class RdpEnds : public testing::Test
{
protected:
    void SetUp() override { ASSERT_EQ(Environment::Get().error, ""); }
    const std::string record = Environment::Get().NewPath("record");
};

TEST_F(RdpEnds, AKilledClientGivesTheHostABrokenConnectionWithinASecond)
{
    Host host;
    Client client(host.port, record);
    ASSERT_NE(host.WaitFor("handshake Accepted"), "") << ReadFile(host.output) << ReadFile(client.output);
    host.child->Send("https://example.com/before");
    ASSERT_NE(WaitForLine(record, "before"), "") << ReadFile(client.output);

    client.child->Kill();
    const auto killed = std::chrono::steady_clock::now();
    const std::string line = host.WaitFor("read failed", Millis(5000));
    EXPECT_LT(std::chrono::steady_clock::now() - killed, Millis(1000));
    EXPECT_NE(line.find("error=2250 (ERROR_NOT_CONNECTED)"), std::string::npos) << ReadFile(host.output);
    EXPECT_NE(host.WaitFor("done", Millis(5000)), "");
}

TEST_F(RdpEnds, WithoutTheAddinTheChannelOpenFailsCleanly)
{
    Host host;
    Client client(host.port, "");
    EXPECT_NE(host.WaitFor("channel open failed error=1168 (ERROR_NOT_FOUND)"), "") << ReadFile(host.output);
    // The connection goes on without the channel, and ends when asked.
    EXPECT_NE(host.WaitFor("client activated"), "");
    host.child->Send("https://example.com/");
    EXPECT_NE(host.WaitFor("not sent: the channel is not ready"), "");
    host.child->Send("quit");
    int status = -1;
    ASSERT_TRUE(host.child->Exited(Millis(10000), &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << ReadFile(host.output);
}

TEST_F(RdpEnds, AVersionTheAddinRefusesEndsTheHandshakeAtItsVersionStatus)
{
    Host host({"--announce-version", "0x00020000"});
    Client client(host.port, record);
    // Refused in the client side's status byte (step 4, index 3), before any option.
    EXPECT_NE(host.WaitFor("handshake VersionRefused remote=0x00010001 step=3"), "") << ReadFile(host.output);
    EXPECT_NE(WaitForLine(client.output, "refused the host's protocol version 0x00020000"), "");
    EXPECT_NE(host.WaitFor("channel closed"), "");
    host.child->Send("https://example.com/");
    EXPECT_NE(host.WaitFor("not sent: the channel is not ready"), "");
    EXPECT_FALSE(std::filesystem::exists(record));
}

} // namespace
