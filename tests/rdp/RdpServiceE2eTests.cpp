// The service itself over RDP, end to end: velomard.exe under Wine's service control manager with
// the RDP transport, the test-only wtsapi32.dll beside it forwarding its WTS calls to the test RDP
// host, and xfreerdp with the add-in and the recorder as its opener. The agent (velomar-open-cli)
// and velomar-status run in the same prefix, in session 1 as Wine puts every process. The tests
// run in order on one service.
#include "tests/rdp/RdpE2e.h"

#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

namespace
{

using namespace RdpE2e;
using Args = std::vector<std::string>;
namespace fs = std::filesystem;

const std::string kWindowsBuild = VELOMAR_WINDOWS_BUILD_DIR;
const std::string kPrefix = std::string(VELOMAR_BINARY_DIR) + "/rdp-service-wineprefix";
constexpr char kInstallDir[] = "C:\\velomar\\";

struct Ran
{
    int status = -1;
    std::string output;
};

// A program to its end (or killed after `limit`), with the test prefix's Wine settings.
Ran RunProgram(Args argv, Millis limit = Millis(120000))
{
    const std::string output = Environment::Get().NewPath("run");
    Child child(std::move(argv), output, {"WINEPREFIX=" + kPrefix, "WINEDEBUG=-all"});
    Ran ran;
    int status = 0;
    if (child.Exited(limit, &status))
        ran.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    ran.output = ReadFile(output);
    return ran;
}

Ran Wine(Args args, Millis limit = Millis(120000))
{
    args.insert(args.begin(), "wine");
    return RunProgram(std::move(args), limit);
}

std::string ServiceState()
{
    const std::string out = Wine({"sc", "query", "velomard"}).output;
    for (const char* state : {"RUNNING", "STOPPED", "START_PENDING", "STOP_PENDING"})
        if (out.find(state) != std::string::npos)
            return state;
    return "";
}

bool WaitUntil(const std::function<bool()>& condition, Millis limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(Millis(200));
    }
    return true;
}

// The service's live log, its UTF-16 reduced to ASCII; the last `tail` characters (for failure
// messages).
std::string ServiceLog(size_t tail = 6000)
{
    std::ifstream in(kPrefix + "/drive_c/ProgramData/Corvane/Velomar (Server)/velomard.txt",
                     std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::string text;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2)
        if (bytes[i + 1] == 0 && bytes[i] != '\r')
            text += bytes[i];
    return text.size() > tail ? text.substr(text.size() - tail) : text;
}

int Open(const std::string& url)
{
    return Wine({std::string(kInstallDir) + "velomar-open-cli.exe", "--no-fallback", url}).status;
}

int Status()
{
    return Wine({std::string(kInstallDir) + "velomar-status.exe"}).status;
}

class RdpService : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        if (!Environment::Get().error.empty())
            return;
        s_record = Environment::Get().NewPath("record");
        RunProgram({"sh", std::string(VELOMAR_SOURCE_DIR) + "/cmake/wine-prefix.sh", "fresh", kPrefix});
        s_host = std::make_unique<Host>(Args{"--forward", "--lifetime", "600"});
        const std::string forwarding = s_host->WaitFor("forwarding 127.0.0.1:");
        const fs::path install = kPrefix + "/drive_c/velomar";
        fs::create_directories(install);
        for (const char* built :
             {"service/velomard.exe", "tools/wts-forward/wtsapi32.dll", "tools/agent/velomar-open-cli.exe",
              "tools/status/velomar-status.exe", "tests/rdp/velomar-raw-agent.exe"})
            fs::copy_file(kWindowsBuild + "/" + built, install / fs::path(built).filename(),
                          fs::copy_options::overwrite_existing);
        const std::string product = "HKLM\\Software\\Corvane\\Velomar (Server)";
        const Args settings[] = {
            {"reg", "add", product, "/v", "ChannelTransport", "/t", "REG_SZ", "/d", "rdp", "/f"},
            {"reg", "add", product, "/v", "LogLevel", "/t", "REG_DWORD", "/d", "3", "/f"},
            {"reg", "add", "HKLM\\Software\\Corvane\\Velomar Test\\WtsForward", "/v", "Address", "/t",
             "REG_SZ", "/d", forwarding.substr(forwarding.find("127.")), "/f"},
            // The forwarding library for the service alone; every other program keeps Wine's.
            {"reg", "add", "HKCU\\Software\\Wine\\AppDefaults\\velomard.exe\\DllOverrides", "/v", "wtsapi32",
             "/t", "REG_SZ", "/d", "native,builtin", "/f"},
            {"sc", "create", "velomard", "binpath=", std::string(kInstallDir) + "velomard.exe",
             "type=", "own", "start=", "demand"},
        };
        for (const auto& setting : settings)
            Wine(setting);
        s_client = std::make_unique<Client>(s_host->port, s_record);
        s_host->WaitFor("client connected");
        Wine({"sc", "start", "velomard"});
        WaitUntil([] { return ServiceState() == "RUNNING"; }, Millis(30000));
    }
    static void TearDownTestSuite()
    {
        if (ServiceState() == "RUNNING")
            Wine({"sc", "stop", "velomard"});
        s_client.reset();
        if (s_host)
            s_host->child->Send("quit");
        s_host.reset();
        RunProgram({"sh", std::string(VELOMAR_SOURCE_DIR) + "/cmake/wine-prefix.sh", "stop", kPrefix});
    }
    void SetUp() override
    {
        ASSERT_EQ(Environment::Get().error, "");
        ASSERT_TRUE(fs::exists(kWindowsBuild + "/service/velomard.exe")) << "build the mingw preset first";
    }

    // The URL, once the session's channel is up (the first ones may come before its handshake).
    static std::vector<Args> Deliver(const std::string& url)
    {
        const size_t before = ReadRecords(s_record).size();
        EXPECT_TRUE(WaitUntil([&] { return Open(url) == 0; }, Millis(30000))) << ServiceLog();
        WaitUntil([&] { return ReadRecords(s_record).size() > before; }, Millis(10000));
        const auto records = ReadRecords(s_record);
        return std::vector<Args>(records.begin() + static_cast<std::ptrdiff_t>(before), records.end());
    }

    static inline std::string s_record;
    static inline std::unique_ptr<Host> s_host;
    static inline std::unique_ptr<Client> s_client;
};

TEST_F(RdpService, AUrlFromTheSessionOpensOnTheClientByteExact)
{
    ASSERT_EQ("RUNNING", ServiceState()) << ServiceLog();
    const std::string url = "https://example.com/p\xc3\xa4th?q=a b&x=$(id);`id`#\xf0\x9f\x98\x80";
    EXPECT_EQ(std::vector<Args>{{url}}, Deliver(url)) << ServiceLog();
    EXPECT_EQ(0, Status()) << "connected";
}

// The reference agent checks the policy before it asks (exit code 4: refused by the host's URL
// policy, not opened); an agent that does not is answered 2 by the service.
TEST_F(RdpService, ARefusedSchemeIsAnsweredTwoAndNeverReachesTheClient)
{
    const size_t before = ReadRecords(s_record).size();
    EXPECT_EQ(4, Open("file:///etc/passwd"));
    EXPECT_EQ(2, Wine({std::string(kInstallDir) + "velomar-raw-agent.exe", "file:///etc/shadow"}).status);
    EXPECT_EQ(std::vector<Args>{{"https://example.com/after-refusal"}},
              Deliver("https://example.com/after-refusal"));
    EXPECT_EQ(before + 1, ReadRecords(s_record).size());
}

TEST_F(RdpService, TheClientLeavesAndComesBackAndTheNextUrlArrives)
{
    s_client.reset(); // its process group is ended: the connection breaks
    s_host->WaitFor("client disconnected");
    EXPECT_TRUE(WaitUntil([] { return Status() == 1; }, Millis(20000))) << "not connected" << ServiceLog();
    EXPECT_NE(0, Open("https://example.com/while-away"));

    s_client = std::make_unique<Client>(s_host->port, s_record);
    EXPECT_TRUE(WaitUntil([] { return Status() == 0; }, Millis(30000))) << "connected again" << ServiceLog();
    EXPECT_EQ(std::vector<Args>{{"https://example.com/back"}}, Deliver("https://example.com/back"));
}

TEST_F(RdpService, TheServiceStopsCleanlyWithTheClientConnected)
{
    ASSERT_EQ(0, Status());
    Wine({"sc", "stop", "velomard"});
    EXPECT_TRUE(WaitUntil([] { return ServiceState() == "STOPPED"; }, Millis(20000))) << ServiceLog();
    EXPECT_NE(std::string::npos, ServiceLog(SIZE_MAX).find("Channel transport: rdp (from the product key)"));
}

} // namespace
