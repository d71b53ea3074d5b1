#pragma once
// Security attributes for named pipes, one class per access policy. Each object owns its
// security descriptor (and a hand-built ACL) and frees it on destruction; constructors throw
// CDaxException (module "attributes") when the descriptor cannot be built.
#include <windows.h>

// Who may use a pipe, and with which rights. Clients get only what connecting, reading and
// writing need; never FILE_CREATE_PIPE_INSTANCE (the same bit as FILE_APPEND_DATA), WRITE_DAC
// or WRITE_OWNER, with which any local user could serve the pipe's name or rewrite its security.
// SYSTEM, the service's own account, keeps full rights to create its instances.
namespace pipeaccess
{
// Read data, attributes and extended attributes (GENERIC_READ maps to all three), write data and
// attributes, read control, synchronize.
constexpr DWORD kClient = 0x0012018B;
// What a client opening with GENERIC_WRITE needs as well: append data (which on a pipe is the
// right to create instances) and write extended attributes. Only for hosts that must keep older
// agents working; the service warns when it is used.
constexpr DWORD kLegacyClient = 0x0012019F;
} // namespace pipeaccess

enum class ClientAccess
{
    Narrow,             // pipeaccess::kClient
    LegacyGenericWrite, // pipeaccess::kLegacyClient
};

// Reads the system version; replaceable so that the path for systems before version 6 can be
// exercised.
using VersionQuery = BOOL(WINAPI*)(LPOSVERSIONINFOW);

class CDaxSecattr
{
public:
    CDaxSecattr();
    virtual ~CDaxSecattr();
    CDaxSecattr(const CDaxSecattr&) = delete;
    CDaxSecattr& operator=(const CDaxSecattr&) = delete;

    // The SECURITY_ATTRIBUTES block, or null when called on a null object.
    SECURITY_ATTRIBUTES* Get();
    static SECURITY_ATTRIBUTES* Get(CDaxSecattr* attributes)
    {
        return attributes ? attributes->Get() : nullptr;
    }
    bool IsHandBuilt() const { return m_bHandBuilt != 0; }

    static VersionQuery DefaultVersionQuery();

    // Helpers kept for other pipes: a low-integrity, no-write-up label added to a descriptor.
    static BOOL AddLowIntegrityLabel(PSECURITY_DESCRIPTOR descriptor);
    static BOOL AddLowIntegrityLabel(PSECURITY_DESCRIPTOR descriptor, SECURITY_ATTRIBUTES& labelHolder);
    // An Everyone DACL with all standard and specific rights; free with LocalFree.
    static PACL BuildEveryoneDacl();

protected:
    BOOL BuildFromString(const wchar_t* sddl);
    // LOCAL with the given client rights, LocalSystem with all rights.
    BOOL BuildLocalDacl(DWORD clientMask = pipeaccess::kClient);
    BOOL BuildNullDacl();
    void BuildLabelled(const wchar_t* sddl, VersionQuery query, unsigned versionLine, unsigned buildLine,
                       DWORD clientMask = pipeaccess::kClient);

    SECURITY_ATTRIBUTES m_sa;
    DWORD m_bHandBuilt = 0;
    bool m_bNullDacl = false;
};

class CDaxSecattrLocal : public CDaxSecattr
{
public:
    CDaxSecattrLocal();
};

// Local users, local logons, low-integrity processes and app containers may connect; network
// logons are denied before anything is granted.
class CDaxSecattrLocalLI : public CDaxSecattr
{
public:
    static constexpr const wchar_t* kSddl =
        L"D:(D;;FA;;;NU)(A;;0x12018b;;;S-1-2-0)(A;;0x12018b;;;AU)(A;;FA;;;SY)"
        L"(A;;0x12018b;;;S-1-15-2-1)S:(ML;;NW;;;LW)";
    static constexpr const wchar_t* kLegacySddl =
        L"D:(D;;FA;;;NU)(A;;0x12019f;;;S-1-2-0)(A;;0x12019f;;;AU)(A;;FA;;;SY)(A;;0x12019f;;;S-1-15-2-1)"
        L"S:(ML;;NW;;;LW)";
    explicit CDaxSecattrLocalLI(VersionQuery query = DefaultVersionQuery(),
                                ClientAccess access = ClientAccess::Narrow);
};

class CDaxSecattrEveryoneLI : public CDaxSecattr
{
public:
    static constexpr const wchar_t* kSddl =
        L"D:(D;;FA;;;NU)(A;;0x12018b;;;WD)(A;;FA;;;SY)(A;;0x12018b;;;S-1-15-2-1)S:(ML;;NW;;;LW)";
    explicit CDaxSecattrEveryoneLI(VersionQuery query = DefaultVersionQuery());
};

class CDaxSecattrAdmin : public CDaxSecattr
{
public:
    static constexpr const wchar_t* kSddl = L"D:(A;;GA;;;BA)(D;;GA;;;WD)";
    CDaxSecattrAdmin();
};

class CDaxSecattrNullDacl : public CDaxSecattr
{
public:
    CDaxSecattrNullDacl();
};
