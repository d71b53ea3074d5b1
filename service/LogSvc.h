#pragma once
#include "service/BaseService.h"

#include <memory>

class CCvLogger;

// The velomard service: starts the servers and, on stop, reports stopped and ends its own
// process half a second later instead of tearing the servers down.
class CLogSvc : public service::base_service<SERVICE_WIN32_OWN_PROCESS>
{
public:
    CLogSvc(const wchar_t* name, void* context);

    void main(DWORD argc, LPWSTR* argv, void* context, SERVICE_STATUS_HANDLE statusHandle) override;
    bool OnShutdown() override;
    bool OnStop() override;

    // Whether a stop has started the thread that ends the process.
    static bool EndingProcess();

    // Replaceable for tests: what builds and starts the servers, and what ends the process once
    // a stop has been reported.
    static void (*s_compose)(const std::shared_ptr<CCvLogger>& logger);
    static void (*s_endProcess)();

private:
    std::shared_ptr<CCvLogger> m_pLogger;
};
