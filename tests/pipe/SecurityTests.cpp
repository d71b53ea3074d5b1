#include "common/UniqueHandle.h"
#include "pipe/attributes.h"
#include "tests/pipe/PipeTestSupport.h"

#include <aclapi.h>
#include <sddl.h>

#include <set>

namespace
{
constexpr SECURITY_INFORMATION kWhat = DACL_SECURITY_INFORMATION | LABEL_SECURITY_INFORMATION;
constexpr const wchar_t* kLocalSddl = L"D:(A;;0x12018b;;;S-1-2-0)(A;;FA;;;SY)";

// The DACL and mandatory label, as text, of a pipe created with the given attributes.
std::wstring ReadBack(SECURITY_ATTRIBUTES* attributes)
{
    const std::wstring name = L"\\\\.\\pipe\\" + testsupport::UniqueName(L"velomar-secattr");
    daxlib::unique_hfile pipe(::CreateNamedPipeW(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, 0,
                                                 1, 1024, 1024, 1000, attributes));
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    LPWSTR text = nullptr;
    if (!pipe || ::GetSecurityInfo(pipe.get(), SE_KERNEL_OBJECT, kWhat, nullptr, nullptr, nullptr, nullptr,
                                   &descriptor) != 0)
        return L"<no pipe or no security>";
    daxlib::unique_hlocal owned(descriptor);
    if (!::ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, kWhat, &text,
                                                                nullptr))
        return L"<unconvertible>";
    daxlib::unique_hlocal ownedText(text);
    return text;
}

// The attributes' pipe holds what a pipe made from the table's text holds (the system maps
// generic rights the same way for both). Returns what was read back.
std::wstring ExpectDescriptor(CDaxSecattr& attributes, const wchar_t* sddl)
{
    SECURITY_ATTRIBUTES table{sizeof(SECURITY_ATTRIBUTES), nullptr, FALSE};
    EXPECT_TRUE(::ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1,
                                                                       &table.lpSecurityDescriptor, nullptr));
    daxlib::unique_hlocal owned(table.lpSecurityDescriptor);
    const std::wstring actual = ReadBack(CDaxSecattr::Get(&attributes));
    EXPECT_EQ(ReadBack(&table), actual) << testing::PrintToString(sddl);
    return actual;
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
    CDaxSecattrEveryoneLI everyoneLI;
    CDaxSecattrAdmin admin;
    CDaxSecattrLocal local;
    EXPECT_TRUE(local.IsHandBuilt());
    CDaxSecattrNullDacl nullDacl;
    CDaxSecattrLocalLI legacy(CDaxSecattr::DefaultVersionQuery(), ClientAccess::LegacyGenericWrite);
    const std::set<std::wstring> seen = {ExpectDescriptor(localLI, CDaxSecattrLocalLI::kSddl),
                                         ExpectDescriptor(legacy, CDaxSecattrLocalLI::kLegacySddl),
                                         ExpectDescriptor(everyoneLI, CDaxSecattrEveryoneLI::kSddl),
                                         ExpectDescriptor(admin, CDaxSecattrAdmin::kSddl),
                                         ExpectDescriptor(local, kLocalSddl),
                                         ExpectDescriptor(nullDacl, L"D:NO_ACCESS_CONTROL")};
    EXPECT_EQ(6u, seen.size()) << "the system kept the descriptors apart";
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
}
