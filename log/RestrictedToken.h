#pragma once
// Log files are written under a copy of the process token restricted to what the
// Administrators group may do, so that the service writes only where administrators could.
#include "common/UniqueHandle.h"

namespace cvlog
{

// An impersonation token made from the process token with Administrators (S-1-5-32-544) as the
// single restricting SID; empty on failure (last error set).
daxlib::unique_handle MakeAdminRestrictedToken();

// Sets a token on the current thread for the scope and puts back whatever token the thread had
// before. Without a token one is made with MakeAdminRestrictedToken().
class ScopedRestrictedImpersonation
{
public:
    explicit ScopedRestrictedImpersonation(HANDLE token = nullptr);
    ~ScopedRestrictedImpersonation();
    ScopedRestrictedImpersonation(const ScopedRestrictedImpersonation&) = delete;
    ScopedRestrictedImpersonation& operator=(const ScopedRestrictedImpersonation&) = delete;
    bool Active() const { return m_bActive; }

private:
    daxlib::unique_handle m_hPrevious;
    bool m_bActive = false;
};

} // namespace cvlog
