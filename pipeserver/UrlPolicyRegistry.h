#pragma once
// The administrator's URL policy in the registry: reading it (the service and the reference
// agent) and, in the service, watching it so that a change applies to the next URL.
#include "common/BaseItem.h"
#include "common/Locks.h"
#include "common/WorkerThread.h"
#include "common/UniqueHandle.h"
#include "pipeserver/UrlPolicy.h"

#include <windows.h>

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <vector>

constexpr wchar_t kUrlPolicyKey[] = L"Software\\Policies\\Corvane\\Velomar (Server)\\UrlPolicy";

struct UrlPolicyLoad
{
    urlpolicy::Policy policy;           // the default wherever a value is missing or broken
    std::vector<std::wstring> problems; // one line per broken value, naming it
    bool keyPresent = false;
};

// A missing key or value means the default; a broken value is reported and left out.
UrlPolicyLoad ReadUrlPolicy(HKEY root = HKEY_LOCAL_MACHINE, const wchar_t* subKey = kUrlPolicyKey);

// Holds the current policy and re-reads it whenever something under the key's nearest existing
// parent changes, so that a key created, changed or deleted later is noticed too. A broken value
// is logged once while it stays as it is.
class CUrlPolicyWatch : public IBaseItem
{
public:
    explicit CUrlPolicyWatch(std::shared_ptr<ICvLogger> logger, HKEY root = HKEY_LOCAL_MACHINE,
                             std::wstring subKey = kUrlPolicyKey);
    ~CUrlPolicyWatch() override;
    CUrlPolicyWatch(const CUrlPolicyWatch&) = delete;
    CUrlPolicyWatch& operator=(const CUrlPolicyWatch&) = delete;

    // Reads the policy and starts the watch thread; the policy is in force even when the watch
    // cannot be started.
    int Start() override;
    int Stop() override;
    std::wstring GetName() const override { return L"CUrlPolicyWatch"; }

    std::shared_ptr<const urlpolicy::Policy> Current() const;

private:
    void WatchLoop(HANDLE stop);
    void Load();

    HKEY m_hRoot;
    std::wstring m_strSubKey;
    mutable daxlib::srw_lock m_srwLock;
    std::shared_ptr<const urlpolicy::Policy> m_pPolicy TS_GUARDED_BY(m_srwLock);
    // Only the watch thread touches these once it runs.
    std::set<std::wstring> m_reported; // problems of the last reading, already logged
    std::wstring m_strSummary;         // the last policy logged
    daxlib::CWorkerThread m_watch;     // last: ends before what it reads and writes
};
