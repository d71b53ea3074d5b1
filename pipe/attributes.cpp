#include "pipe/attributes.h"

#include "common/DaxException.h"
#include "common/UniqueHandle.h"

#include <aclapi.h>
#include <sddl.h>

#include <utility>

namespace
{
constexpr const wchar_t* kModule = L"attributes";

BOOL WINAPI QueryVersion(LPOSVERSIONINFOW info)
{
#if defined(_MSC_VER)
#pragma warning(suppress : 4996) // the version is what decides the descriptor here
#endif
    return ::GetVersionExW(info);
}

void FreeHandBuilt(PSECURITY_DESCRIPTOR descriptor)
{
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    PACL dacl = nullptr;
    ::GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted);
    ::LocalFree(descriptor);
    if (dacl)
    {
        while (dacl->AceCount > 0 && ::DeleteAce(dacl, 0))
        {
        }
        ::LocalFree(dacl);
    }
}
} // namespace

CDaxSecattr::CDaxSecattr() : m_sa{sizeof(SECURITY_ATTRIBUTES), nullptr, FALSE} {}

CDaxSecattr::~CDaxSecattr()
{
    PSECURITY_DESCRIPTOR descriptor = std::exchange(m_sa.lpSecurityDescriptor, nullptr);
    if (!descriptor)
        return;
    daxlib::last_error_guard keep;
    if (m_bHandBuilt)
        FreeHandBuilt(descriptor);
    else
        ::LocalFree(descriptor); // from a string, or the null-DACL block
}

SECURITY_ATTRIBUTES* CDaxSecattr::Get()
{
    return &m_sa;
}

VersionQuery CDaxSecattr::DefaultVersionQuery()
{
    return &QueryVersion;
}

BOOL CDaxSecattr::BuildFromString(const wchar_t* sddl)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &descriptor, nullptr))
        return FALSE;
    m_sa = {sizeof(SECURITY_ATTRIBUTES), descriptor, FALSE};
    m_bHandBuilt = 0;
    return TRUE;
}

BOOL CDaxSecattr::BuildLocalDacl(DWORD clientMask)
{
    SID_IDENTIFIER_AUTHORITY localAuthority = SECURITY_LOCAL_SID_AUTHORITY;
    SID_IDENTIFIER_AUTHORITY ntAuthority = SECURITY_NT_AUTHORITY;
    daxlib::unique_sid local;
    daxlib::unique_sid system;
    if (!::AllocateAndInitializeSid(&localAuthority, 1, SECURITY_LOCAL_RID, 0, 0, 0, 0, 0, 0, 0,
                                    local.put()) ||
        !::AllocateAndInitializeSid(&ntAuthority, 1, SECURITY_LOCAL_SYSTEM_RID, 0, 0, 0, 0, 0, 0, 0,
                                    system.put()))
        return FALSE;
    const DWORD aclSize = ::GetLengthSid(local.get()) + ::GetLengthSid(system.get()) + 24;
    daxlib::unique_hlocal acl(::LocalAlloc(LPTR, aclSize));
    if (!acl || !::InitializeAcl(static_cast<PACL>(acl.get()), aclSize, ACL_REVISION))
        return FALSE;
    if (!::AddAccessAllowedAce(static_cast<PACL>(acl.get()), ACL_REVISION, clientMask, local.get()))
        return FALSE;
    local.reset();
    if (!::AddAccessAllowedAce(static_cast<PACL>(acl.get()), ACL_REVISION, FILE_ALL_ACCESS, system.get()))
        return FALSE;
    system.reset();
    daxlib::unique_hlocal descriptor(::LocalAlloc(LPTR, SECURITY_DESCRIPTOR_MIN_LENGTH));
    if (!descriptor || !::InitializeSecurityDescriptor(descriptor.get(), SECURITY_DESCRIPTOR_REVISION) ||
        !::SetSecurityDescriptorDacl(descriptor.get(), TRUE, static_cast<PACL>(acl.get()), FALSE))
        return FALSE;
    static_cast<void>(acl.release()); // freed with the descriptor, through its DACL
    m_sa = {sizeof(SECURITY_ATTRIBUTES), descriptor.release(), FALSE};
    m_bHandBuilt = 1;
    return TRUE;
}

BOOL CDaxSecattr::BuildNullDacl()
{
    daxlib::unique_hlocal descriptor(::LocalAlloc(LPTR, SECURITY_DESCRIPTOR_MIN_LENGTH));
    if (!descriptor || !::InitializeSecurityDescriptor(descriptor.get(), SECURITY_DESCRIPTOR_REVISION) ||
        !::SetSecurityDescriptorDacl(descriptor.get(), TRUE, nullptr, FALSE))
        return FALSE;
    m_sa = {sizeof(SECURITY_ATTRIBUTES), descriptor.release(), FALSE};
    m_bHandBuilt = 0;
    return TRUE;
}

void CDaxSecattr::BuildLabelled(const wchar_t* sddl, VersionQuery query, unsigned versionLine,
                                unsigned buildLine, DWORD clientMask)
{
    OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = 276;
    if (!query || !query(&version))
        daxlib::ThrowDaxException(kModule, versionLine);
    const BOOL built = version.dwMajorVersion >= 6 ? BuildFromString(sddl) : BuildLocalDacl(clientMask);
    if (!built)
        daxlib::ThrowDaxException(kModule, buildLine);
}

BOOL CDaxSecattr::AddLowIntegrityLabel(PSECURITY_DESCRIPTOR descriptor)
{
    SECURITY_ATTRIBUTES holder{};
    const BOOL result = AddLowIntegrityLabel(descriptor, holder);
    // The label's SACL belongs to the converted descriptor; a copy is kept by the target only
    // when it is self-relative, so the converted one is left allocated on success.
    if (!result && holder.lpSecurityDescriptor)
        ::LocalFree(holder.lpSecurityDescriptor);
    return result;
}

BOOL CDaxSecattr::AddLowIntegrityLabel(PSECURITY_DESCRIPTOR descriptor, SECURITY_ATTRIBUTES& labelHolder)
{
    PSECURITY_DESCRIPTOR label = nullptr;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:S:(ML;;NW;;;LW)", SDDL_REVISION_1, &label,
                                                                nullptr))
        return FALSE;
    labelHolder = {sizeof(SECURITY_ATTRIBUTES), label, FALSE};
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    PACL sacl = nullptr;
    if (!::GetSecurityDescriptorSacl(label, &present, &sacl, &defaulted))
        return FALSE;
    return ::SetSecurityDescriptorSacl(descriptor, present, sacl, defaulted);
}

PACL CDaxSecattr::BuildEveryoneDacl()
{
    SID_IDENTIFIER_AUTHORITY worldAuthority = SECURITY_WORLD_SID_AUTHORITY;
    daxlib::unique_sid everyone;
    if (!::AllocateAndInitializeSid(&worldAuthority, 1, SECURITY_WORLD_RID, 0, 0, 0, 0, 0, 0, 0,
                                    everyone.put()))
        return nullptr;
    EXPLICIT_ACCESSW access{};
    access.grfAccessPermissions = 0x1FFFFF;
    access.grfAccessMode = SET_ACCESS;
    access.grfInheritance = NO_INHERITANCE;
    access.Trustee.TrusteeForm = TRUSTEE_IS_SID;
    access.Trustee.TrusteeType = TRUSTEE_IS_WELL_KNOWN_GROUP;
    access.Trustee.ptstrName = static_cast<LPWSTR>(everyone.get());
    PACL acl = nullptr;
    if (::SetEntriesInAclW(1, &access, nullptr, &acl) != ERROR_SUCCESS)
        return nullptr;
    return acl;
}

CDaxSecattrLocal::CDaxSecattrLocal()
{
    if (!BuildLocalDacl())
        daxlib::ThrowDaxException(kModule, 455);
}

CDaxSecattrLocalLI::CDaxSecattrLocalLI(VersionQuery query, ClientAccess access)
{
    const bool legacy = access == ClientAccess::LegacyGenericWrite;
    BuildLabelled(legacy ? kLegacySddl : kSddl, query, 472, 483,
                  legacy ? pipeaccess::kLegacyClient : pipeaccess::kClient);
}

CDaxSecattrEveryoneLI::CDaxSecattrEveryoneLI(VersionQuery query)
{
    BuildLabelled(kSddl, query, 503, 514);
}

CDaxSecattrAdmin::CDaxSecattrAdmin()
{
    if (!BuildFromString(kSddl))
        daxlib::ThrowDaxException(kModule, 529);
}

CDaxSecattrNullDacl::CDaxSecattrNullDacl()
{
    if (!BuildNullDacl())
        daxlib::ThrowDaxException(kModule, 542);
}
