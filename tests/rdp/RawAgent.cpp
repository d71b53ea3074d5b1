// An agent without the reference agent's own policy check: hands one URL to the service and
// exits with the service's answer (0 sent, 1 not sent, 2 refused by its URL policy), or 100 when
// there is no answer. The RDP end-to-end test runs it in the Wine prefix to see the service judge.
//   velomar-raw-agent URL
#include "common/PipeNames.h"
#include "common/UniqueHandle.h"
#include "pipeserver/AgentProtocol.h"

#include <windows.h>

#include <string>

int wmain(int argc, wchar_t** argv)
{
    if (argc != 2)
        return 100;
    const std::wstring path = std::wstring(daxlib::kPipePrefix) + daxlib::kAgentPipeName;
    if (!::WaitNamedPipeW(path.c_str(), 10000))
        return 100;
    const daxlib::unique_hfile pipe(
        ::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    if (!pipe)
        return 100;
    const std::wstring url = argv[1];
    const auto message = agentpipe::EncodeOpenUrl(std::u16string(url.begin(), url.end()));
    DWORD done = 0;
    uint8_t answer[12] = {};
    DWORD got = 0;
    const bool answered =
        ::WriteFile(pipe.get(), message.data(), static_cast<DWORD>(message.size()), &done, nullptr) &&
        ::ReadFile(pipe.get(), answer, sizeof(answer), &got, nullptr) && got == sizeof(answer) &&
        agentpipe::LoadU32(answer) == agentpipe::kTypeOpenUrl;
    return answered ? static_cast<int>(agentpipe::LoadU32(answer + 8)) : 100;
}
