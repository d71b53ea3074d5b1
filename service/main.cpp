#include "common/DaxException.h"
#include "common/Guarded.h"
#include "common/ProcessSecurity.h"
#include "log/CvLogger.h"
#include "service/LogSvc.h"
#include "service/ServiceConfig.h"
#include "service/ServiceSetup.h"
#include "service/ServiceSingletons.h"

#include <cwchar>
#include <exception>
#include <optional>

int wmain(int argc, wchar_t** argv, wchar_t** /*envp*/)
{
    daxlib::RestrictLibrarySearch();
    // At install, as SYSTEM: the log folders exist, protected, before any user could make them.
    if (argc == 2 && argv[1] && std::wcscmp(argv[1], service::kConfigureServiceSwitch) == 0)
        daxlib::GuardedCall(nullptr, L"wmain: PrepareLogFolder", [] { service::PrepareLogFolder(); });
    if (const std::optional<int> setupResult = service::RunSetupCommand(argc, argv))
        return *setupResult;
    int result = -1;
    std::shared_ptr<CCvLogger> logger = service::CreateServiceLogger();
    if (!logger)
        return 1;
    service::SetServiceLogger(logger);

    try
    {
        // The version and the build date run together without a blank; that is the record's
        // long-standing form and log readers expect it.
        logger->LogCategory(L"SERVICE", L"Start service. Version program %X" __DATE__,
                            service::kProgramVersion);
        CLogSvc serviceObject(service::kServiceName, nullptr);
        serviceObject.RunDispatcher();
        result = 0;
        // The dispatcher can return as soon as stopped is reported, before its answer to the
        // stop control has reached the control manager; returning now could cut that answer
        // off and make the stop look failed. The stop thread ends the process instead.
        if (CLogSvc::EndingProcess())
            ::Sleep(INFINITE);
    }
    catch (daxlib::CDaxException* raw)
    {
        daxlib::DaxExceptionPtr e(raw);
        logger->Log(LogLevel::Error,
                    L"Module(\"%s\"), Line(%d), Function(\"%S\"): Service startup failed. %s:%d code(%d) %s.",
                    L"main", 326, "wmain", e->Module().c_str(), static_cast<int>(e->Line()),
                    static_cast<int>(e->ErrorCode()), e->Description().c_str());
    }
    catch (const std::exception& e)
    {
        logger->Log(LogLevel::Error,
                    L"Module(\"%s\"), Line(%d), Function(\"%S\"): Service startup failed. %S.", L"main", 335,
                    "wmain", e.what());
    }
    logger.reset();
    return result;
}
