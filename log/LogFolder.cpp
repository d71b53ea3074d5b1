#include "log/LogFolder.h"

#include "common/WideFormat.h"
#include "log/LogConversions.h"
#include "log/LogText.h"

#include <aclapi.h>
#include <sddl.h>
#include <winternl.h>
#include <winioctl.h>

#include <algorithm>
#include <cstddef>
#include <mutex>

namespace cvlog
{

const wchar_t kLogFolderSddl[] = L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";
const wchar_t kLogFileSddl[] = L"O:BAD:P(A;;FA;;;SY)(A;;FA;;;BA)";

namespace
{
constexpr ULONG kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
// The folder is held without FILE_SHARE_DELETE: nobody renames or removes it while it is in use.
constexpr ULONG kFolderShare = FILE_SHARE_READ | FILE_SHARE_WRITE;
constexpr ACCESS_MASK kFolderAccess = FILE_LIST_DIRECTORY | FILE_TRAVERSE | FILE_ADD_FILE |
                                      FILE_DELETE_CHILD | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES |
                                      READ_CONTROL | WRITE_DAC | WRITE_OWNER | SYNCHRONIZE;

daxlib::unique_hlocal Descriptor(const wchar_t* sddl)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ::ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &descriptor, nullptr);
    return daxlib::unique_hlocal(descriptor);
}

std::wstring DaclText(PSECURITY_DESCRIPTOR descriptor)
{
    LPWSTR text = nullptr;
    if (!descriptor || !::ConvertSecurityDescriptorToStringSecurityDescriptorW(
                           descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr))
        return {};
    daxlib::unique_hlocal owned(text);
    return text;
}

bool IsWellKnown(const std::wstring& sidText, WELL_KNOWN_SID_TYPE type)
{
    BYTE sid[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof sid;
    LPWSTR text = nullptr;
    if (!::CreateWellKnownSid(type, nullptr, sid, &size) || !::ConvertSidToStringSidW(sid, &text))
        return false;
    daxlib::unique_hlocal owned(text);
    return sidText == text;
}

// Opens `name` relative to `parent` through the native call, the only one that takes a folder
// handle in place of a path.
daxlib::unique_hfile NtOpen(HANDLE parent, const std::wstring& name, ACCESS_MASK access, ULONG share,
                            ULONG disposition, ULONG options, PSECURITY_DESCRIPTOR descriptor, bool& created)
{
    created = false;
    UNICODE_STRING text;
    text.Buffer = const_cast<PWSTR>(name.c_str());
    text.Length = static_cast<USHORT>(name.size() * sizeof(wchar_t));
    text.MaximumLength = text.Length;
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, parent, descriptor);
    IO_STATUS_BLOCK status{};
    HANDLE handle = INVALID_HANDLE_VALUE;
    const NTSTATUS result = ::NtCreateFile(
        &handle, access | SYNCHRONIZE, &attributes, &status, nullptr, FILE_ATTRIBUTE_NORMAL, share,
        disposition, options | FILE_SYNCHRONOUS_IO_NONALERT | FILE_OPEN_REPARSE_POINT, nullptr, 0);
    if (result < 0)
    {
        ::SetLastError(::RtlNtStatusToDosError(result));
        return {};
    }
    created = status.Information == FILE_CREATED || status.Information == FILE_OVERWRITTEN ||
              status.Information == FILE_SUPERSEDED;
    return daxlib::unique_hfile(handle);
}

// Enables the privileges that let LocalSystem open, take over and reset a folder whatever its
// descriptor says, for the scope; puts back what was enabled before.
class ScopedTakeOverPrivileges
{
public:
    ScopedTakeOverPrivileges()
    {
        if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, m_hToken.put()))
            return;
        const wchar_t* names[] = {SE_BACKUP_NAME, SE_RESTORE_NAME, SE_TAKE_OWNERSHIP_NAME};
        m_wanted.PrivilegeCount = 3;
        for (DWORD i = 0; i < 3; ++i)
        {
            ::LookupPrivilegeValueW(nullptr, names[i], &m_wanted.Privileges[i].Luid);
            m_wanted.Privileges[i].Attributes = SE_PRIVILEGE_ENABLED;
        }
        DWORD size = sizeof m_previous;
        m_bAdjusted =
            ::AdjustTokenPrivileges(m_hToken.get(), FALSE, reinterpret_cast<TOKEN_PRIVILEGES*>(&m_wanted),
                                    sizeof m_previous, reinterpret_cast<TOKEN_PRIVILEGES*>(&m_previous),
                                    &size) != FALSE;
    }
    ~ScopedTakeOverPrivileges()
    {
        if (m_bAdjusted && m_previous.PrivilegeCount > 0)
            ::AdjustTokenPrivileges(m_hToken.get(), FALSE, reinterpret_cast<TOKEN_PRIVILEGES*>(&m_previous),
                                    0, nullptr, nullptr);
    }
    ScopedTakeOverPrivileges(const ScopedTakeOverPrivileges&) = delete;
    ScopedTakeOverPrivileges& operator=(const ScopedTakeOverPrivileges&) = delete;

private:
    // TOKEN_PRIVILEGES with room for three.
    struct PrivilegeSet
    {
        DWORD PrivilegeCount = 0;
        LUID_AND_ATTRIBUTES Privileges[3]{};
    };
    daxlib::unique_handle m_hToken;
    PrivilegeSet m_wanted;
    PrivilegeSet m_previous;
    bool m_bAdjusted = false;
};

class CWindowsFolderSystem final : public IFolderSystem
{
public:
    daxlib::unique_hfile OpenRoot(const std::wstring& path) override
    {
        return daxlib::unique_hfile(
            ::CreateFileW(path.c_str(), FILE_TRAVERSE | FILE_READ_ATTRIBUTES | SYNCHRONIZE, kShareAll,
                          nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    }
    daxlib::unique_hfile OpenFolder(HANDLE parent, const std::wstring& name, PSECURITY_DESCRIPTOR descriptor,
                                    bool& created) override
    {
        return NtOpen(parent, name, kFolderAccess, kFolderShare, FILE_OPEN_IF,
                      FILE_DIRECTORY_FILE | FILE_OPEN_FOR_BACKUP_INTENT, descriptor, created);
    }
    bool Inspect(HANDLE folder, FolderFacts& facts) override
    {
        BY_HANDLE_FILE_INFORMATION information{};
        if (!::GetFileInformationByHandle(folder, &information))
            return false;
        facts.attributes = information.dwFileAttributes;
        facts.reparseTag = 0;
        if (facts.attributes & FILE_ATTRIBUTE_REPARSE_POINT)
        {
            FILE_ATTRIBUTE_TAG_INFO tag{};
            if (!::GetFileInformationByHandleEx(folder, FileAttributeTagInfo, &tag, sizeof tag))
                return false;
            facts.reparseTag = tag.ReparseTag;
        }
        facts.descriptorKnown = FileSystemKeepsDescriptors();
        if (!facts.descriptorKnown)
            return true;
        PSID owner = nullptr;
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        if (::GetSecurityInfo(folder, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                              &owner, nullptr, nullptr, nullptr, &descriptor) != ERROR_SUCCESS)
            return false;
        daxlib::unique_hlocal ownedDescriptor(descriptor);
        LPWSTR ownerText = nullptr;
        if (!owner || !::ConvertSidToStringSidW(owner, &ownerText))
            return false;
        daxlib::unique_hlocal ownedText(ownerText);
        facts.owner = ownerText;
        facts.dacl = DaclText(descriptor);
        return true;
    }
    DWORD Reset(HANDLE folder, DWORD reparseTag, PSECURITY_DESCRIPTOR descriptor) override
    {
        if (reparseTag != 0)
        {
            // The header alone names the point to remove: tag, no data.
            REPARSE_GUID_DATA_BUFFER header{};
            header.ReparseTag = reparseTag;
            // A tag of the system's own takes the short header: tag, length and reserved.
            const DWORD size =
                IsReparseTagMicrosoft(reparseTag)
                    ? 8
                    : static_cast<DWORD>(offsetof(REPARSE_GUID_DATA_BUFFER, GenericReparseBuffer));
            DWORD returned = 0;
            if (!::DeviceIoControl(folder, FSCTL_DELETE_REPARSE_POINT, &header, size, nullptr, 0, &returned,
                                   nullptr))
                return ::GetLastError();
        }
        return Protect(folder, descriptor);
    }
    DWORD Protect(HANDLE object, PSECURITY_DESCRIPTOR descriptor) override
    {
        BOOL present = FALSE;
        BOOL defaulted = FALSE;
        PACL dacl = nullptr;
        PSID owner = nullptr;
        if (!::GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted) ||
            !::GetSecurityDescriptorOwner(descriptor, &owner, &defaulted))
            return ::GetLastError();
        return ::SetSecurityInfo(object, SE_FILE_OBJECT,
                                 OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION |
                                     PROTECTED_DACL_SECURITY_INFORMATION,
                                 owner, nullptr, dacl, nullptr);
    }
    daxlib::unique_hfile OpenFile(HANDLE folder, const std::wstring& name, ACCESS_MASK access,
                                  ULONG disposition, PSECURITY_DESCRIPTOR descriptor, bool& created) override
    {
        // Shared for reading and writing as before: readers follow the live file.
        return NtOpen(folder, name, access, FILE_SHARE_READ | FILE_SHARE_WRITE, disposition,
                      FILE_NON_DIRECTORY_FILE, descriptor, created);
    }
};

bool IsPlainSingleFile(HANDLE file)
{
    BY_HANDLE_FILE_INFORMATION information{};
    return ::GetFileInformationByHandle(file, &information) &&
           !(information.dwFileAttributes & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY)) &&
           information.nNumberOfLinks <= 1;
}

bool DeleteByHandle(HANDLE file)
{
    FILE_DISPOSITION_INFO disposition{};
    disposition.DeleteFile = TRUE;
    return ::SetFileInformationByHandle(file, FileDispositionInfo, &disposition, sizeof disposition) != FALSE;
}

// Why a folder that opened as a directory fails the check; empty when it passes.
std::wstring ProblemOf(const FolderFacts& facts, const std::wstring& expectedDacl)
{
    if (facts.attributes & FILE_ATTRIBUTE_REPARSE_POINT)
        return daxlib::Format(L"is a reparse point (tag 0x%08X)", static_cast<unsigned>(facts.reparseTag));
    if (!facts.descriptorKnown)
        return {};
    if (!IsWellKnown(facts.owner, WinLocalSystemSid) &&
        !IsWellKnown(facts.owner, WinBuiltinAdministratorsSid))
        return daxlib::Format(L"is owned by %s", facts.owner.c_str());
    if (facts.dacl != expectedDacl)
        return daxlib::Format(L"has the descriptor %s", facts.dacl.c_str());
    return {};
}

bool RunningOnWine()
{
    static const bool wine =
        ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
    return wine;
}

// Wine 8 does not resolve a rename's new name against FILE_RENAME_INFO.RootDirectory (the rename
// fails with ERROR_FILE_NOT_FOUND), so there the new name is the held folder's own final path
// plus the name: a path, but one read from the handle at the moment of the rename. Windows is
// given the folder handle and never a path.
std::wstring RenameTarget(HANDLE folder, const std::wstring& name, HANDLE& root)
{
    root = folder;
    if (!RunningOnWine())
        return name;
    root = nullptr;
    wchar_t path[MAX_PATH] = {};
    const DWORD length =
        ::GetFinalPathNameByHandleW(folder, path, MAX_PATH, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    if (length == 0 || length >= MAX_PATH)
        return {};
    std::wstring full(path, length);
    if (full.compare(0, 4, L"\\\\?\\") == 0)
        full.replace(0, 4, L"\\??\\");
    return full + L"\\" + name;
}
} // namespace

bool FileSystemKeepsDescriptors()
{
    return !RunningOnWine();
}

std::shared_ptr<IFolderSystem> WindowsFolderSystem()
{
    return std::make_shared<CWindowsFolderSystem>();
}

std::shared_ptr<CLogFolder> CLogFolder::Open(const std::shared_ptr<IFolderSystem>& system,
                                             const std::wstring& root, const std::vector<std::wstring>& owned,
                                             std::vector<std::wstring>& findings)
{
    const daxlib::unique_hlocal folderSd = Descriptor(kLogFolderSddl);
    const daxlib::unique_hlocal fileSd = Descriptor(kLogFileSddl);
    const std::wstring expectedDacl = DaclText(folderSd.get());
    if (!system || !folderSd || !fileSd || owned.empty())
        return nullptr;
    ScopedTakeOverPrivileges privileges;
    daxlib::unique_hfile current = system->OpenRoot(root);
    std::wstring path = WithoutTrailingSlash(root);
    if (!current)
    {
        findings.push_back(daxlib::Format(L"log folder \"%s\" cannot be opened (error %u): not used",
                                          path.c_str(), static_cast<unsigned>(::GetLastError())));
        return nullptr;
    }
    for (const std::wstring& name : owned)
    {
        path += L"\\" + name;
        bool created = false;
        daxlib::unique_hfile next = system->OpenFolder(current.get(), name, folderSd.get(), created);
        if (!next)
        {
            findings.push_back(
                daxlib::Format(L"log folder \"%s\" cannot be opened as a folder (error %u): not used",
                               path.c_str(), static_cast<unsigned>(::GetLastError())));
            return nullptr;
        }
        // Checked even when just created: a folder made by someone else a moment before is opened
        // the same way.
        FolderFacts facts;
        if (!system->Inspect(next.get(), facts))
        {
            // Nothing known is nothing to reset from.
            findings.push_back(
                daxlib::Format(L"log folder \"%s\": its attributes or descriptor cannot be read "
                               L"(error %u): not used",
                               path.c_str(), static_cast<unsigned>(::GetLastError())));
            return nullptr;
        }
        if (!(facts.attributes & FILE_ATTRIBUTE_DIRECTORY))
        {
            findings.push_back(daxlib::Format(L"log folder \"%s\" is not a folder: not used", path.c_str()));
            return nullptr;
        }
        const std::wstring problem = ProblemOf(facts, expectedDacl);
        if (!problem.empty())
        {
            const DWORD error = system->Reset(next.get(), facts.reparseTag, folderSd.get());
            FolderFacts after;
            if (error != ERROR_SUCCESS || !system->Inspect(next.get(), after) ||
                (after.attributes & FILE_ATTRIBUTE_REPARSE_POINT) ||
                (after.descriptorKnown && after.dacl != expectedDacl))
            {
                findings.push_back(
                    daxlib::Format(L"log folder \"%s\" %s and could not be reset (error %u): not used",
                                   path.c_str(), problem.c_str(), static_cast<unsigned>(error)));
                return nullptr;
            }
            findings.push_back(daxlib::Format(L"log folder \"%s\" %s: reset to owner Administrators, access "
                                              L"for SYSTEM and Administrators only",
                                              path.c_str(), problem.c_str()));
            CLogFolder reset(system, std::move(next));
            reset.ProtectContents(findings, path);
            next = std::move(reset.m_hFolder);
        }
        current = std::move(next);
    }
    return std::make_shared<CLogFolder>(system, std::move(current));
}

CLogFolder::CLogFolder(std::shared_ptr<IFolderSystem> system, daxlib::unique_hfile folder)
    : m_pSystem(std::move(system)), m_hFolder(std::move(folder)), m_pFileDescriptor(Descriptor(kLogFileSddl)),
      m_csList(0)
{
}

void CLogFolder::ProtectContents(std::vector<std::wstring>& findings, const std::wstring& path)
{
    for (const Entry& entry : Walk(L"*", false))
    {
        daxlib::unique_hfile file =
            OpenExisting(entry.name, FILE_READ_ATTRIBUTES | READ_CONTROL | WRITE_DAC | WRITE_OWNER | DELETE);
        if (!file)
            continue;
        if (!IsPlainSingleFile(file.get()))
        {
            if (DeleteByHandle(file.get()))
                findings.push_back(daxlib::Format(L"\"%s\\%s\" was a link or reparse point: removed",
                                                  path.c_str(), entry.name.c_str()));
            continue;
        }
        m_pSystem->Protect(file.get(), m_pFileDescriptor.get());
    }
}

daxlib::unique_hfile CLogFolder::OpenExisting(const std::wstring& name, ACCESS_MASK access) const
{
    bool created = false;
    return m_pSystem->OpenFile(m_hFolder.get(), name, access, FILE_OPEN, nullptr, created);
}

daxlib::unique_hfile CLogFolder::OpenLogFile(const std::wstring& name, bool truncate, bool& created) const
{
    const ACCESS_MASK access = GENERIC_WRITE | FILE_READ_ATTRIBUTES;
    daxlib::unique_hfile file =
        m_pSystem->OpenFile(m_hFolder.get(), name, access, truncate ? FILE_OVERWRITE_IF : FILE_OPEN_IF,
                            m_pFileDescriptor.get(), created);
    if (!file || IsPlainSingleFile(file.get()))
        return file;
    // A link or reparse point in the folder is no log file: it goes, and a file is made anew.
    file.reset();
    if (!Delete(name))
        return {};
    return m_pSystem->OpenFile(m_hFolder.get(), name, access, FILE_CREATE, m_pFileDescriptor.get(), created);
}

bool CLogFolder::Rename(const std::wstring& from, const std::wstring& to) const
{
    daxlib::unique_hfile file = OpenExisting(from, DELETE);
    if (!file)
        return false;
    HANDLE root = nullptr;
    const std::wstring target = RenameTarget(m_hFolder.get(), to, root);
    if (target.empty())
        return false;
    const size_t bytes = target.size() * sizeof(wchar_t);
    std::vector<BYTE> buffer(sizeof(FILE_RENAME_INFO) + bytes);
    auto* info = reinterpret_cast<FILE_RENAME_INFO*>(buffer.data());
    info->ReplaceIfExists = FALSE;
    info->RootDirectory = root;
    info->FileNameLength = static_cast<DWORD>(bytes);
    std::copy(target.begin(), target.end(), info->FileName);
    return ::SetFileInformationByHandle(file.get(), FileRenameInfo, info,
                                        static_cast<DWORD>(buffer.size())) != FALSE;
}

bool CLogFolder::Delete(const std::wstring& name) const
{
    daxlib::unique_hfile file = OpenExisting(name, DELETE);
    return file && DeleteByHandle(file.get());
}

std::optional<uint64_t> CLogFolder::FileSize(const std::wstring& name) const
{
    daxlib::unique_hfile file = OpenExisting(name, FILE_READ_ATTRIBUTES);
    LARGE_INTEGER size{};
    if (!file || !::GetFileSizeEx(file.get(), &size))
        return std::nullopt;
    return static_cast<uint64_t>(size.QuadPart);
}

std::vector<CLogFolder::Entry> CLogFolder::List(const std::wstring& pattern) const
{
    return Walk(pattern, true);
}

std::vector<CLogFolder::Entry> CLogFolder::Walk(const std::wstring& pattern, bool plainOnly) const
{
    std::vector<Entry> entries;
    const std::u16string wanted = ToU16(pattern.c_str());
    daxlib::lock_guard lock(m_csList);
    std::vector<BYTE> buffer(size_t{64} * 1024);
    FILE_INFO_BY_HANDLE_CLASS kind = FileIdBothDirectoryRestartInfo;
    while (::GetFileInformationByHandleEx(m_hFolder.get(), kind, buffer.data(),
                                          static_cast<DWORD>(buffer.size())))
    {
        kind = FileIdBothDirectoryInfo;
        for (size_t offset = 0;;)
        {
            const auto* info = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(buffer.data() + offset);
            const std::wstring name(info->FileName, info->FileNameLength / sizeof(wchar_t));
            const DWORD skipped = plainOnly ? FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT
                                            : FILE_ATTRIBUTE_DIRECTORY;
            if (!(info->FileAttributes & skipped) && MatchesWildcard(ToU16(name.c_str()), wanted))
                entries.push_back({name, static_cast<uint64_t>(info->LastWriteTime.QuadPart)});
            if (info->NextEntryOffset == 0)
                break;
            offset += info->NextEntryOffset;
        }
    }
    return entries;
}

} // namespace cvlog
