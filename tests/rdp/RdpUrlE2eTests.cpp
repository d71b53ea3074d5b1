// URLs over a real RDP connection: the test host sends them through the virtual-channel stream,
// xfreerdp's add-in receives them and hands the ones it allows to the recorder. One connection
// serves the whole suite.
#include "tests/rdp/RdpE2eHarness.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>

namespace
{

using namespace RdpE2e;

class RdpUrls : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        Environment& env = Environment::Get();
        s_error = env.Prepared();
        if (!s_error.empty())
            return;
        s_record = env.NewPath("record");
        s_host = std::make_unique<Host>();
        s_client = std::make_unique<Client>(s_host->Port(), true, s_record);
        if (s_host->WaitFor("handshake Accepted").empty())
            s_error =
                "no handshake; host said:\n" + s_host->Output() + "\nclient said:\n" + s_client->Output();
    }
    static void TearDownTestSuite()
    {
        s_client.reset();
        s_host.reset();
    }
    void SetUp() override { ASSERT_EQ(s_error, ""); }

    // Sends the URL, then a marker URL, and returns what the recorder got before the marker.
    static std::vector<std::vector<std::string>> Deliver(const std::string& url)
    {
        const size_t before = ReadRecords(s_record).size();
        const std::vector<std::string> marker = {"https://example.com/marker/" + std::to_string(++s_markers)};
        s_host->Send(url);
        s_host->Send(marker[0]);
        auto records = ReadRecords(s_record);
        for (auto until = std::chrono::steady_clock::now() + Millis(10000);
             (records.size() <= before || records.back() != marker) &&
             std::chrono::steady_clock::now() < until;
             records = ReadRecords(s_record))
            std::this_thread::sleep_for(Millis(10));
        if (records.size() <= before || records.back() != marker)
        {
            ADD_FAILURE() << "the marker did not arrive; client said:\n" << s_client->Output();
            return {};
        }
        return {records.begin() + static_cast<std::ptrdiff_t>(before), records.end() - 1};
    }

    static inline std::string s_error;
    static inline std::string s_record;
    static inline std::unique_ptr<Host> s_host;
    static inline std::unique_ptr<Client> s_client;
    static inline int s_markers = 0;
};

using Args = std::vector<std::string>;

TEST_F(RdpUrls, AnAsciiUrlArrivesAsOneArgument)
{
    const std::string url = "https://example.com/path?query=1&b=2#fragment";
    EXPECT_EQ(Deliver(url), std::vector<Args>{{url}});
}

TEST_F(RdpUrls, BmpAndNonBmpCharactersArriveByteExact)
{
    // U+4F8B, U+00E9, U+1F600 and U+10348: three and two bytes, then four each.
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
    EXPECT_NE(s_client->WaitFor("refused a URL from the host: the scheme \"file\" is not allowed"), "")
        << s_client->Output();
}

} // namespace
