// The log folder's check and the descriptors of what the logger creates. Wine 8 keeps no
// descriptor on files or folders, makes no reparse points and reports no foreign owners, so the
// folder system is replaced by one that reports what Windows would say (a junction, a directory
// link, a foreign owner, a wide descriptor, unreadable attributes) about the real folder, and
// that records the descriptors the logger applies. Real files and handles otherwise.
#include "log/CvLogger.h"
#include "log/LogFolder.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <aclapi.h>
#include <sddl.h>

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

using testsupport::PathExists;
using testsupport::ReadUtf16File;
using testsupport::TempDir;

namespace
{

constexpr SECURITY_INFORMATION kOwnerAndDacl = OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;

std::wstring SddlOf(PSECURITY_DESCRIPTOR descriptor, SECURITY_INFORMATION what = kOwnerAndDacl)
{
    LPWSTR text = nullptr;
    if (!descriptor || !::ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1,
                                                                               what, &text, nullptr))
        return {};
    daxlib::unique_hlocal owned(text);
    return text;
}

std::wstring AdministratorsSid()
{
    BYTE sid[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof sid;
    LPWSTR text = nullptr;
    ::CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, sid, &size);
    ::ConvertSidToStringSidW(sid, &text);
    daxlib::unique_hlocal owned(text);
    return text;
}

// The real file system, except that Inspect reports `lie` until the folder is reset (and, once
// reset or when there is no lie, what Windows would report of a folder made with the protected
// descriptor); every descriptor the logger applies is recorded.
class ReportingFolderSystem : public cvlog::IFolderSystem
{
public:
    daxlib::unique_hfile OpenRoot(const std::wstring& path) override { return m_real->OpenRoot(path); }
    daxlib::unique_hfile OpenFolder(HANDLE parent, const std::wstring& name, PSECURITY_DESCRIPTOR descriptor,
                                    bool& created) override
    {
        auto folder = m_real->OpenFolder(parent, name, descriptor, created);
        if (created)
            Record(folderDescriptors, descriptor);
        return folder;
    }
    bool Inspect(HANDLE folder, cvlog::FolderFacts& facts) override
    {
        if (auto hook = std::exchange(onInspect, nullptr))
            hook();
        if (unreadable)
        {
            ::SetLastError(ERROR_ACCESS_DENIED);
            return false;
        }
        if (!m_real->Inspect(folder, facts))
            return false;
        if (lie && resets.empty())
        {
            facts = *lie;
            return true;
        }
        facts.descriptorKnown = true;
        facts.owner = AdministratorsSid();
        PSECURITY_DESCRIPTOR expected = nullptr;
        ::ConvertStringSecurityDescriptorToSecurityDescriptorW(cvlog::kLogFolderSddl, SDDL_REVISION_1,
                                                               &expected, nullptr);
        daxlib::unique_hlocal owned(expected);
        facts.dacl = SddlOf(expected, DACL_SECURITY_INFORMATION);
        return true;
    }
    DWORD Reset(HANDLE, DWORD reparseTag, PSECURITY_DESCRIPTOR descriptor) override
    {
        std::lock_guard lock(m_mutex);
        resets.push_back({reparseTag, SddlOf(descriptor)});
        return ERROR_SUCCESS;
    }
    DWORD Protect(HANDLE, PSECURITY_DESCRIPTOR descriptor) override
    {
        Record(protectedFiles, descriptor);
        return ERROR_SUCCESS;
    }
    daxlib::unique_hfile OpenFile(HANDLE folder, const std::wstring& name, ACCESS_MASK access,
                                  ULONG disposition, PSECURITY_DESCRIPTOR descriptor, bool& created) override
    {
        auto file = m_real->OpenFile(folder, name, access, disposition, descriptor, created);
        if (created)
            Record(fileDescriptors, descriptor);
        return file;
    }

    std::optional<cvlog::FolderFacts> lie;
    bool unreadable = false;
    std::function<void()> onInspect;
    std::vector<std::pair<DWORD, std::wstring>> resets;
    std::vector<std::wstring> folderDescriptors;
    std::vector<std::wstring> fileDescriptors;
    std::vector<std::wstring> protectedFiles;

private:
    void Record(std::vector<std::wstring>& list, PSECURITY_DESCRIPTOR descriptor)
    {
        std::lock_guard lock(m_mutex);
        list.push_back(SddlOf(descriptor));
    }
    std::shared_ptr<cvlog::IFolderSystem> m_real = cvlog::WindowsFolderSystem();
    std::mutex m_mutex;
};

// Every ACE of the descriptor: nothing for anyone besides SYSTEM and Administrators (so no write,
// delete, ownership or generic right for Everyone, Authenticated Users, Users, Interactive or app
// containers, and no reading either), and the DACL protected from inheritance.
void ExpectOnlySystemAndAdministrators(const std::wstring& sddl)
{
    SCOPED_TRACE(std::string(sddl.begin(), sddl.end()));
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_TRUE(::ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1,
                                                                       &descriptor, nullptr));
    daxlib::unique_hlocal owned(descriptor);
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD revision = 0;
    ASSERT_TRUE(::GetSecurityDescriptorControl(descriptor, &control, &revision));
    EXPECT_TRUE(control & SE_DACL_PROTECTED);
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    PACL dacl = nullptr;
    ASSERT_TRUE(::GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted));
    ASSERT_TRUE(present && dacl) << "a missing DACL grants everyone everything";
    for (DWORD i = 0; i < dacl->AceCount; ++i)
    {
        ACE_HEADER* header = nullptr;
        ASSERT_TRUE(::GetAce(dacl, i, reinterpret_cast<void**>(&header)));
        if (header->AceType != ACCESS_ALLOWED_ACE_TYPE)
            continue;
        PSID sid = &reinterpret_cast<ACCESS_ALLOWED_ACE*>(header)->SidStart;
        EXPECT_TRUE(::IsWellKnownSid(sid, WinLocalSystemSid) ||
                    ::IsWellKnownSid(sid, WinBuiltinAdministratorsSid))
            << "ACE " << i << " grants someone besides SYSTEM and Administrators";
    }
}

// A folder "logs" in a temporary folder, made before the logger starts, holding last run's
// log file: whatever the check does, that text must survive.
class LogFolderCheck : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(::CreateDirectoryW(m_folder.c_str(), nullptr));
        daxlib::unique_hfile file(::CreateFileW((m_folder + L"\\svc.txt").c_str(), GENERIC_WRITE, 0, nullptr,
                                                CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
        DWORD written = 0;
        ASSERT_TRUE(::WriteFile(file.get(), L"earlier-run\r\n", 26, &written, nullptr));
    }
    std::shared_ptr<CCvLogger> Start()
    {
        return CCvLogger::CreateLoggerInFolder(m_folder.c_str(), nullptr, nullptr, L"svc", nullptr, FALSE,
                                               FALSE, 2, m_system);
    }
    // Logs one record and ends the logger; the text of the live file, or nothing.
    std::wstring LogOnce(const std::wstring& folder)
    {
        auto logger = Start();
        EXPECT_TRUE(logger);
        if (!logger)
            return {};
        m_findings = logger->GetFolderFindings();
        logger->Log(2, L"after-check");
        logger.reset();
        return PathExists(folder + L"\\svc.txt") ? ReadUtf16File(folder + L"\\svc.txt") : std::wstring();
    }

    TempDir m_dir{L"velomar-folder"};
    std::wstring m_folder = m_dir.File(L"logs");
    std::shared_ptr<ReportingFolderSystem> m_system = std::make_shared<ReportingFolderSystem>();
    std::vector<std::wstring> m_findings;
};

struct HiddenAttack
{
    const char* name;
    DWORD attributes;
    DWORD reparseTag;
    std::wstring owner;
    std::wstring dacl;
};

void PrintTo(const HiddenAttack& attack, std::ostream* out)
{
    *out << attack.name;
}

class HiddenFolderAttack : public LogFolderCheck, public ::testing::WithParamInterface<HiddenAttack>
{
};

} // namespace

// Each attack leaves the folder in a state the check must refuse; the folder is reset in place
// (reparse point removed, owner and descriptor set), the earlier text kept, and the finding
// named in the log before anything else is written through it.
TEST_P(HiddenFolderAttack, FolderIsResetBeforeTheFirstWriteAndTheFindingLogged)
{
    const HiddenAttack& attack = GetParam();
    m_system->lie =
        cvlog::FolderFacts{attack.attributes, attack.reparseTag, true,
                           attack.owner.empty() ? AdministratorsSid() : attack.owner, attack.dacl};
    const std::wstring text = LogOnce(m_folder);
    ASSERT_EQ(1u, m_system->resets.size());
    EXPECT_EQ(attack.reparseTag, m_system->resets[0].first);
    ExpectOnlySystemAndAdministrators(m_system->resets[0].second);
    ASSERT_EQ(1u, m_findings.size());
    EXPECT_NE(std::wstring::npos, m_findings[0].find(m_folder)) << "the finding names the folder";
    EXPECT_NE(std::wstring::npos, text.find(m_findings[0]));
    EXPECT_EQ(0u, text.find(L"earlier-run")) << "the folder's contents are kept";
    EXPECT_NE(std::wstring::npos, text.find(L"after-check"));
    ASSERT_EQ(1u, m_system->protectedFiles.size()) << "the kept file gets the protected descriptor";
    ExpectOnlySystemAndAdministrators(m_system->protectedFiles[0]);
}

INSTANTIATE_TEST_SUITE_P(
    Attacks, HiddenFolderAttack,
    ::testing::Values(HiddenAttack{"JunctionPlantedInPlaceOfTheFolder",
                                   FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT,
                                   IO_REPARSE_TAG_MOUNT_POINT, L"", L""},
                      HiddenAttack{"DirectoryLinkPlantedInPlaceOfTheFolder",
                                   FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT,
                                   IO_REPARSE_TAG_SYMLINK, L"", L""},
                      HiddenAttack{"FolderMadeFirstByAUserWhoKeepsOwnership", FILE_ATTRIBUTE_DIRECTORY, 0,
                                   L"S-1-5-21-1004336348-1177238915-682003330-1001", L"D:(A;OICI;FA;;;WD)"},
                      HiddenAttack{"FolderLeftWritableForAuthenticatedUsers", FILE_ATTRIBUTE_DIRECTORY, 0,
                                   L"", L"D:(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1301bf;;;AU)"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(LogFolderCheck, FolderWhoseAttributesCannotBeReadIsNotWrittenThrough)
{
    m_system->unreadable = true;
    const std::wstring text = LogOnce(m_folder);
    EXPECT_EQ(L"earlier-run\r\n", text);
    ASSERT_EQ(1u, m_findings.size());
    EXPECT_NE(std::wstring::npos, m_findings[0].find(L"not used"));
    EXPECT_TRUE(m_system->resets.empty());
}

// Between the check and the first write, a user moves the checked folder away and puts one of
// their own at its path. The folder is held open without delete sharing, so the move should fail;
// where it succeeds, the records must still go to the folder that was checked.
TEST_F(LogFolderCheck, FolderSwappedAfterTheCheckReceivesNoRecords)
{
    const std::wstring moved = m_folder + L"-moved";
    bool swapped = false;
    m_system->onInspect = [&] {
        swapped =
            ::MoveFileW(m_folder.c_str(), moved.c_str()) && ::CreateDirectoryW(m_folder.c_str(), nullptr);
    };
    const std::wstring atPath = LogOnce(m_folder);
    if (swapped)
    {
        EXPECT_EQ(L"", atPath) << "the user's folder got the log";
        EXPECT_NE(std::wstring::npos, ReadUtf16File(moved + L"\\svc.txt").find(L"after-check"));
        testsupport::RemoveTree(moved);
    }
    else
    {
        EXPECT_NE(std::wstring::npos, atPath.find(L"after-check"));
    }
}

// A user who could write in the folder once left a hard link named like the log file, pointing
// at a file of theirs (or one they want overwritten): the link goes, a new log file is made.
TEST_F(LogFolderCheck, HardLinkPlantedAsTheLogFileIsReplacedNotWrittenThrough)
{
    const std::wstring target = m_dir.File(L"target.txt");
    ASSERT_TRUE(::MoveFileW((m_folder + L"\\svc.txt").c_str(), target.c_str()));
    ASSERT_TRUE(::CreateHardLinkW((m_folder + L"\\svc.txt").c_str(), target.c_str(), nullptr));
    const std::wstring text = LogOnce(m_folder);
    EXPECT_EQ(L"earlier-run\r\n", ReadUtf16File(target));
    EXPECT_NE(std::wstring::npos, text.find(L"after-check"));
}

// The folder and the files of a rotating logger, read back live where the file system keeps
// descriptors (Windows) and as applied through the folder system everywhere.
TEST(LogDescriptors, FolderAndRotatedFilesGrantNobodyButSystemAndAdministrators)
{
    TempDir dir(L"velomar-descriptors");
    const std::wstring folder = dir.File(L"logs");
    auto system = std::make_shared<ReportingFolderSystem>();
    auto logger = CCvLogger::CreateLoggerInFolder(folder.c_str(), nullptr, nullptr, L"rot", nullptr, FALSE,
                                                  FALSE, 2, system);
    ASSERT_TRUE(logger);
    logger->SetMaxFileSize(2000);
    for (int i = 0; i < 3000; ++i)
        logger->Log(2, L"rec-%05d", i);
    logger.reset();
    ASSERT_TRUE(PathExists(folder + L"\\rot(01).txt"));

    ASSERT_EQ(1u, system->folderDescriptors.size());
    ExpectOnlySystemAndAdministrators(system->folderDescriptors[0]);
    ASSERT_GE(system->fileDescriptors.size(), 2u) << "the first file and the one after the rotation";
    for (const auto& sddl : system->fileDescriptors)
        ExpectOnlySystemAndAdministrators(sddl);
    if (!cvlog::FileSystemKeepsDescriptors())
        return;
    for (const std::wstring& path : {folder, folder + L"\\rot(01).txt"})
    {
        PSECURITY_DESCRIPTOR live = nullptr;
        ASSERT_EQ(static_cast<DWORD>(ERROR_SUCCESS),
                  ::GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                                          nullptr, nullptr, nullptr, &live));
        daxlib::unique_hlocal owned(live);
        ExpectOnlySystemAndAdministrators(SddlOf(live, DACL_SECURITY_INFORMATION));
    }
}
