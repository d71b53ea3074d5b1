#include "log/RestrictedToken.h"

namespace cvlog
{

daxlib::unique_handle MakeAdminRestrictedToken()
{
    daxlib::unique_handle process;
    if (!::OpenProcessToken(::GetCurrentProcess(), MAXIMUM_ALLOWED, process.put()))
        return {};
    daxlib::unique_handle duplicate;
    if (!::DuplicateTokenEx(process.get(), MAXIMUM_ALLOWED, nullptr, SecurityImpersonation,
                            TokenImpersonation, duplicate.put()))
        return {};
    SID_IDENTIFIER_AUTHORITY ntAuthority = SECURITY_NT_AUTHORITY;
    daxlib::unique_sid admins;
    if (!::AllocateAndInitializeSid(&ntAuthority, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, 0,
                                    0, 0, 0, 0, 0, admins.put()))
        return {};
    SID_AND_ATTRIBUTES restricting{};
    restricting.Sid = admins.get();
    daxlib::unique_handle restricted;
    if (!::CreateRestrictedToken(duplicate.get(), 0, 0, nullptr, 0, nullptr, 1, &restricting,
                                 restricted.put()))
        return {};
    return restricted;
}

ScopedRestrictedImpersonation::ScopedRestrictedImpersonation(HANDLE token)
{
    daxlib::unique_handle made;
    if (!token)
    {
        made = MakeAdminRestrictedToken();
        token = made.get();
    }
    if (!token)
        return;
    if (!::OpenThreadToken(::GetCurrentThread(), TOKEN_IMPERSONATE, TRUE, m_hPrevious.put()))
        m_hPrevious.reset();
    m_bActive = ::SetThreadToken(nullptr, token) != FALSE;
}

ScopedRestrictedImpersonation::~ScopedRestrictedImpersonation()
{
    if (m_bActive)
        ::SetThreadToken(nullptr, m_hPrevious.get());
}

} // namespace cvlog
