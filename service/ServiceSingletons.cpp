#include "service/ServiceSingletons.h"

#include "common/Locks.h"
#include "common/ServiceEvents.h"
#include "log/CvLogger.h"
#include "log/LogFolder.h"
#include "log/LogSettingsKeys.h"
#include "service/ServiceConfig.h"

#include <shlobj.h>

#include <mutex>

namespace service
{

namespace
{
daxlib::srw_lock g_loggerSlotLock;
std::shared_ptr<CCvLogger> g_logger;
} // namespace

std::shared_ptr<CCvLogger> GetServiceLogger()
{
    daxlib::lock_guard lock(g_loggerSlotLock);
    return g_logger;
}

void SetServiceLogger(std::shared_ptr<CCvLogger> logger)
{
    daxlib::lock_guard lock(g_loggerSlotLock);
    g_logger = std::move(logger);
}

std::shared_ptr<CCvLogger> CreateServiceLogger()
{
    auto logger = CCvLogger::CreateLogger(HKEY_LOCAL_MACHINE, kProductKey, kCompanyFolder, kProductFolder,
                                          kLogBaseName, nullptr, kLogShellFolder, TRUE, TRUE, 0);
    if (!logger)
        return nullptr;
    // A log folder that failed its check is an attack or a damaged host: administrators learn it
    // from the event log, which no user can redirect, whether or not the folder could be reset.
    for (const std::wstring& finding : logger->GetFolderFindings())
        events::Report(events::Level::Error, events::kLogFolderUnsafe, {finding});
    logger->Log(LogLevel::Info, L"Service logger is working.");
    logger->SetHeaderFlags(kServiceLogHeaderFlags);
    // Unfiltered, like the start record: at the default level 0 an information record would be lost.
    for (const std::wstring& line : cvlog::DescribeLogSettingSources(HKEY_LOCAL_MACHINE, kProductKey))
        logger->LogCategory(L"SERVICE", L"%s", line.c_str());
    return logger;
}

std::vector<std::wstring> PrepareLogFolder()
{
    std::vector<std::wstring> findings;
    wchar_t shellFolder[MAX_PATH] = {};
    if (FAILED(::SHGetFolderPathW(nullptr, kLogShellFolder, nullptr, 0, shellFolder)))
        return {L"the common application-data folder is unknown"};
    cvlog::CLogFolder::Open(cvlog::WindowsFolderSystem(), shellFolder, {kCompanyFolder, kProductFolder},
                            findings);
    return findings;
}

} // namespace service
