#include "common/UniqueHandle.h"
#include "pipe/attributes.h"
#include "tests/pipe/PipeTestSupport.h"

#include <aclapi.h>
#include <sddl.h>

#include <memory>

namespace
{
constexpr SECURITY_INFORMATION kWhat = DACL_SECURITY_INFORMATION | LABEL_SECURITY_INFORMATION;
constexpr const wchar_t* kLocalSddl = L"D:(A;;0xc0100000;;;S-1-2-0)(A;;0xc0100000;;;SY)";

std::wstring ToSddl(PSECURITY_DESCRIPTOR descriptor)
{
    LPWSTR text = nullptr;
    if (!::ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, kWhat, &text, nullptr))
        return L"<unconvertible>";
    std::wstring result(text);
    ::LocalFree(text);
    return result;
}

// What the system holds for a descriptor given as text, with the ACEs' generic rights mapped to
// the pipe's specific rights (as the system may do when the object is created) or as given.
std::wstring Expected(const wchar_t* sddl, bool mapGeneric)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &descriptor, nullptr))
        return L"<bad expectation>";
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    PACL dacl = nullptr;
    GENERIC_MAPPING mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
    if (mapGeneric && ::GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted) && dacl)
        for (DWORD i = 0; i < dacl->AceCount; ++i)
        {
            ACE_HEADER* ace = nullptr;
            if (::GetAce(dacl, i, reinterpret_cast<void**>(&ace)))
                ::MapGenericMask(&reinterpret_cast<ACCESS_ALLOWED_ACE*>(ace)->Mask, &mapping);
        }
    std::wstring text = ToSddl(descriptor);
    ::LocalFree(descriptor);
    return text;
}

// Creates a pipe with the attributes and reads back what `what` asks for.
struct PipeSecurity
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    PACL sacl = nullptr;
    DWORD error = ERROR_INVALID_HANDLE;

    PipeSecurity(CDaxSecattr* attributes, SECURITY_INFORMATION what)
    {
        const std::wstring name = L"\\\\.\\pipe\\" + testing_support::UniqueName(L"velomar-secattr");
        daxlib::unique_hfile pipe(::CreateNamedPipeW(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, 0, 1,
                                                     1024, 1024, 1000, CDaxSecattr::Get(attributes)));
        if (pipe)
            error = ::GetSecurityInfo(pipe.get(), SE_KERNEL_OBJECT, what, nullptr, nullptr, nullptr, &sacl,
                                      &descriptor);
    }
    ~PipeSecurity() { ::LocalFree(descriptor); }
};

std::wstring ReadBack(CDaxSecattr* attributes)
{
    PipeSecurity security(attributes, kWhat);
    return security.error == ERROR_SUCCESS ? ToSddl(security.descriptor) : L"<no pipe or no security>";
}

// The mandatory label of a created pipe as "<mask>:<label SID>", or "none".
std::string ReadLabel(CDaxSecattr* attributes)
{
    PipeSecurity security(attributes, LABEL_SECURITY_INFORMATION);
    if (security.error != ERROR_SUCCESS)
        return "<no pipe or no security>";
    std::string result = "none";
    for (DWORD i = 0; security.sacl && i < security.sacl->AceCount; ++i)
    {
        ACE_HEADER* ace = nullptr;
        if (!::GetAce(security.sacl, i, reinterpret_cast<void**>(&ace)) || ace->AceType != SYSTEM_MANDATORY_LABEL_ACE_TYPE)
            continue;
        auto* label = reinterpret_cast<SYSTEM_MANDATORY_LABEL_ACE*>(ace);
        LPSTR sid = nullptr;
        ::ConvertSidToStringSidA(&label->SidStart, &sid);
        result = std::to_string(label->Mask) + ":" + (sid ? sid : "?");
        ::LocalFree(sid);
    }
    return result;
}

BOOL WINAPI ReportVersion5(LPOSVERSIONINFOW info)
{
    info->dwMajorVersion = 5;
    info->dwMinorVersion = 2;
    return TRUE;
}

BOOL WINAPI VersionFails(LPOSVERSIONINFOW)
{
    ::SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}

void ExpectDescriptor(CDaxSecattr& attributes, const wchar_t* sddl)
{
    const std::wstring actual = ReadBack(&attributes);
    // The system either keeps the rights as given or maps the generic ones; both are the table.
    EXPECT_TRUE(actual == Expected(sddl, true) || actual == Expected(sddl, false))
        << "actual:   " << testing::PrintToString(actual) << "\nexpected: " << testing::PrintToString(Expected(sddl, true));
}
} // namespace

TEST(SecurityAttributes, EachVariantMatchesItsDescriptor)
{
    CDaxSecattrLocalLI localLI;
    EXPECT_FALSE(localLI.IsHandBuilt());
    EXPECT_EQ(nullptr, CDaxSecattr::Get(nullptr));
    ExpectDescriptor(localLI, CDaxSecattrLocalLI::kSddl);

    // Low integrity (S-1-16-4096), no write up.
    EXPECT_EQ("1:S-1-16-4096", ReadLabel(&localLI));

    CDaxSecattrEveryoneLI everyoneLI;
    ExpectDescriptor(everyoneLI, CDaxSecattrEveryoneLI::kSddl);
    EXPECT_EQ("1:S-1-16-4096", ReadLabel(&everyoneLI));

    CDaxSecattrAdmin admin;
    ExpectDescriptor(admin, CDaxSecattrAdmin::kSddl);

    CDaxSecattrLocal local;
    EXPECT_TRUE(local.IsHandBuilt());
    ExpectDescriptor(local, kLocalSddl);

    CDaxSecattrNullDacl nullDacl;
    ExpectDescriptor(nullDacl, L"D:NO_ACCESS_CONTROL");
}

TEST(SecurityAttributes, BeforeVersion6TheLabelledVariantsAreHandBuilt)
{
    CDaxSecattrLocalLI localLI(&ReportVersion5);
    EXPECT_TRUE(localLI.IsHandBuilt());
    ExpectDescriptor(localLI, kLocalSddl);
    EXPECT_NE("1:S-1-16-4096", ReadLabel(&localLI)); // no low-integrity label
    CDaxSecattrEveryoneLI everyoneLI(&ReportVersion5);
    EXPECT_TRUE(everyoneLI.IsHandBuilt());
    ExpectDescriptor(everyoneLI, kLocalSddl);
}

TEST(SecurityAttributes, FailuresThrowWithTheirLine)
{
    try
    {
        CDaxSecattrLocalLI attributes(&VersionFails);
        FAIL() << "no exception";
    }
    catch (daxlib::CDaxException* raw)
    {
        daxlib::DaxExceptionPtr e(raw);
        EXPECT_EQ(L"attributes", e->Module());
        EXPECT_EQ(472u, e->Line());
        EXPECT_EQ(static_cast<uint32_t>(ERROR_ACCESS_DENIED), e->ErrorCode());
    }
}

TEST(SecurityAttributes, NoLeaksAcrossManyObjects)
{
    const long long before = testing_support::CountProcessHandles();
    for (int i = 0; i < 200; ++i)
    {
        CDaxSecattrLocalLI a;
        CDaxSecattrLocalLI b(&ReportVersion5);
        CDaxSecattrNullDacl c;
        ASSERT_NE(nullptr, a.Get()->lpSecurityDescriptor);
    }
    EXPECT_EQ(before, testing_support::CountProcessHandles());
}
