#pragma once
// Security attributes for named pipes, one class per access policy. Each object owns its
// security descriptor (and a hand-built ACL) and frees it on destruction; constructors throw
// CDaxException (module "attributes") when the descriptor cannot be built.
#include <windows.h>

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
    BOOL BuildLocalDacl(); // LOCAL and LocalSystem: generic read, generic write, synchronize
    BOOL BuildNullDacl();
    void BuildLabelled(const wchar_t* sddl, VersionQuery query, unsigned versionLine, unsigned buildLine);

    SECURITY_ATTRIBUTES m_sa;
    DWORD m_bHandBuilt = 0;
    bool m_bNullDacl = false;
};

class CDaxSecattrLocal : public CDaxSecattr
{
public:
    CDaxSecattrLocal();
};

class CDaxSecattrLocalLI : public CDaxSecattr
{
public:
    static constexpr const wchar_t* kSddl = L"D:(A;;0xc01fffff;;;S-1-2-0)(A;;0xc01fffff;;;AU)(A;;0xc01fffff;;"
                                            L";SY)(A;;GA;;;S-1-15-2-1)S:(ML;;NW;;;LW)";
    explicit CDaxSecattrLocalLI(VersionQuery query = DefaultVersionQuery());
};

class CDaxSecattrEveryoneLI : public CDaxSecattr
{
public:
    static constexpr const wchar_t* kSddl =
        L"D:(A;;0xc01fffff;;;WD)(A;;0xc01fffff;;;SY)(A;;GA;;;S-1-15-2-1)S:(ML;;NW;;;LW)";
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
