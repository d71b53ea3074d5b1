#include "common/UniqueHandle.h"
#include "tests/common/TestSupport.h"
#include "tools/agent/BrowserRegistration.h"

#include <gtest/gtest.h>

namespace
{

std::wstring ReadString(HKEY root, const std::wstring& path, const wchar_t* name)
{
    wchar_t value[1024] = {};
    DWORD size = sizeof(value);
    if (::RegGetValueW(root, path.c_str(), name, RRF_RT_REG_SZ, nullptr, value, &size) != ERROR_SUCCESS)
        return L"<missing>";
    return value;
}

bool KeyExists(HKEY root, const std::wstring& path)
{
    daxlib::unique_hkey key;
    return ::RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, key.put()) == ERROR_SUCCESS;
}

} // namespace

// Registration is written below a private key of the test; the layout under it is the one
// Windows reads under HKEY_CURRENT_USER\Software.
TEST(BrowserRegistration, RegistersForHttpAndHttpsAndUndoesItCleanly)
{
    const std::wstring software = L"Software\\" + testing_support::UniqueName(L"velomar-agent-test");
    const std::wstring exe = L"C:\\Program Files\\Velomar\\velomar-open.exe";
    ASSERT_EQ(ERROR_SUCCESS, agent::RegisterAsBrowser(HKEY_CURRENT_USER, software, exe));
    // Registering twice is harmless.
    ASSERT_EQ(ERROR_SUCCESS, agent::RegisterAsBrowser(HKEY_CURRENT_USER, software, exe));

    const std::wstring caps = software + L"\\Clients\\StartMenuInternet\\velomar-open\\Capabilities";
    EXPECT_EQ(caps, ReadString(HKEY_CURRENT_USER, software + L"\\RegisteredApplications", L"Velomar"));
    EXPECT_EQ(L"VelomarOpen.URL", ReadString(HKEY_CURRENT_USER, caps + L"\\URLAssociations", L"http"));
    EXPECT_EQ(L"VelomarOpen.URL", ReadString(HKEY_CURRENT_USER, caps + L"\\URLAssociations", L"https"));
    EXPECT_EQ(L"Velomar", ReadString(HKEY_CURRENT_USER, caps, L"ApplicationName"));
    // The open command quotes both the program (its path has blanks) and the URL.
    EXPECT_EQ(L"\"" + exe + L"\" \"%1\"",
              ReadString(HKEY_CURRENT_USER, software + L"\\Classes\\VelomarOpen.URL\\shell\\open\\command", nullptr));
    EXPECT_EQ(L"", ReadString(HKEY_CURRENT_USER, software + L"\\Classes\\VelomarOpen.URL", L"URL Protocol"));

    ASSERT_EQ(ERROR_SUCCESS, agent::UnregisterAsBrowser(HKEY_CURRENT_USER, software));
    EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, software + L"\\Classes\\VelomarOpen.URL"));
    EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, software + L"\\Clients\\StartMenuInternet\\velomar-open"));
    EXPECT_EQ(L"<missing>", ReadString(HKEY_CURRENT_USER, software + L"\\RegisteredApplications", L"Velomar"));
    // Unregistering what is not registered succeeds too.
    EXPECT_EQ(ERROR_SUCCESS, agent::UnregisterAsBrowser(HKEY_CURRENT_USER, software));

    ::RegDeleteTreeW(HKEY_CURRENT_USER, software.c_str());
    ::RegDeleteKeyW(HKEY_CURRENT_USER, software.c_str());
}
