#include "common/UniqueHandle.h"
#include "pipe/attributes.h"
#include "tests/pipe/PipeTestSupport.h"

#include <aclapi.h>
#include <sddl.h>

namespace
{
constexpr SECURITY_INFORMATION kWhat = DACL_SECURITY_INFORMATION | LABEL_SECURITY_INFORMATION;
constexpr const wchar_t* kLocalSddl = L"D:(A;;0xc0100000;;;S-1-2-0)(A;;0xc0100000;;;SY)";

std::wstring ToSddl(PSECURITY_DESCRIPTOR descriptor)
{
    LPWSTR text = nullptr;
    if (!::ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, kWhat, &text, nullptr))
        return L"<unconvertible>";
    daxlib::unique_hlocal owned(text);
    return text;
}

// The table's text as the system holds it, with the ACEs' generic rights mapped to the pipe's
// specific rights (as the system may do when the object is created) or as given.
std::wstring Expected(const wchar_t* sddl, bool mapGeneric)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &descriptor, nullptr))
        return L"<bad expectation>";
    daxlib::unique_hlocal owned(descriptor);
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
    return ToSddl(descriptor);
}

// Creates a pipe with the attributes and compares its DACL and mandatory label, read back, with
// the table's text.
void ExpectDescriptor(CDaxSecattr& attributes, const wchar_t* sddl)
{
    const std::wstring name = L"\\\\.\\pipe\\" + testing_support::UniqueName(L"velomar-secattr");
    daxlib::unique_hfile pipe(::CreateNamedPipeW(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, 0, 1, 1024,
                                                 1024, 1000, CDaxSecattr::Get(&attributes)));
    ASSERT_TRUE(pipe);
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_EQ(static_cast<DWORD>(ERROR_SUCCESS), ::GetSecurityInfo(pipe.get(), SE_KERNEL_OBJECT, kWhat, nullptr, nullptr,
                                                                   nullptr, nullptr, &descriptor));
    daxlib::unique_hlocal owned(descriptor);
    const std::wstring actual = ToSddl(descriptor);
    EXPECT_TRUE(actual == Expected(sddl, true) || actual == Expected(sddl, false))
        << "actual:   " << testing::PrintToString(actual) << "\nexpected: " << testing::PrintToString(Expected(sddl, true));
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
} // namespace

TEST(SecurityAttributes, EachVariantMatchesItsDescriptor)
{
    EXPECT_EQ(nullptr, CDaxSecattr::Get(nullptr));
    CDaxSecattrLocalLI localLI;
    EXPECT_FALSE(localLI.IsHandBuilt());
    ExpectDescriptor(localLI, CDaxSecattrLocalLI::kSddl);
    CDaxSecattrEveryoneLI everyoneLI;
    ExpectDescriptor(everyoneLI, CDaxSecattrEveryoneLI::kSddl);
    CDaxSecattrAdmin admin;
    ExpectDescriptor(admin, CDaxSecattrAdmin::kSddl);
    CDaxSecattrLocal local;
    EXPECT_TRUE(local.IsHandBuilt());
    ExpectDescriptor(local, kLocalSddl);
    CDaxSecattrNullDacl nullDacl;
    ExpectDescriptor(nullDacl, L"D:NO_ACCESS_CONTROL");
}

TEST(SecurityAttributes, BeforeVersion6TheLabelledVariantsAreHandBuiltWithoutLabel)
{
    CDaxSecattrLocalLI localLI(&ReportVersion5);
    EXPECT_TRUE(localLI.IsHandBuilt());
    ExpectDescriptor(localLI, kLocalSddl);
    CDaxSecattrEveryoneLI everyoneLI(&ReportVersion5);
    EXPECT_TRUE(everyoneLI.IsHandBuilt());
    ExpectDescriptor(everyoneLI, kLocalSddl);
    try
    {
        CDaxSecattrLocalLI attributes(&VersionFails);
        ADD_FAILURE() << "a failed version query was ignored";
    }
    catch (daxlib::CDaxException* raw)
    {
        EXPECT_EQ(static_cast<uint32_t>(ERROR_ACCESS_DENIED), daxlib::DaxExceptionPtr(raw)->ErrorCode());
    }

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
