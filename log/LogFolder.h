#pragma once
// The folder the log files live in, held open from the moment it is checked. Every file of the
// logger is opened, renamed, listed and deleted relative to that handle, so that nothing a user
// does to the path after the check (a junction, a link, a folder moved into its place) can send
// a write elsewhere.
#include "common/Locks.h"
#include "common/UniqueHandle.h"

#include <windows.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace cvlog
{

// SYSTEM and Administrators full control, nobody else any right, not even to read: the log
// holds URLs, and URLs carry session tokens. Protected, so that no ACE of a parent is inherited.
extern const wchar_t kLogFolderSddl[];
extern const wchar_t kLogFileSddl[];

// What the file system reports of an opened folder.
struct FolderFacts
{
    DWORD attributes = 0;
    DWORD reparseTag = 0;
    // Whether owner and dacl were read: false where the file system keeps no descriptor.
    bool descriptorKnown = false;
    std::wstring owner; // SID as text, "S-1-5-18"
    std::wstring dacl;  // "D:P(...)"
};

// What the logger asks of the file system about its folder and the files it creates. Tests
// replace it to report what Windows would say where Wine cannot (reparse points, owners,
// descriptors) and to see the descriptors the logger applies.
class IFolderSystem
{
public:
    virtual ~IFolderSystem() = default;
    // The existing folder above the ones the logger owns; followed like any path.
    virtual daxlib::unique_hfile OpenRoot(const std::wstring& path) = 0;
    // `name` under `parent`, created with `descriptor` when missing, never following a reparse
    // point; `created` tells which. Empty on failure (last error set).
    virtual daxlib::unique_hfile OpenFolder(HANDLE parent, const std::wstring& name,
                                            PSECURITY_DESCRIPTOR descriptor, bool& created) = 0;
    virtual bool Inspect(HANDLE folder, FolderFacts& facts) = 0;
    // Removes the reparse point (tag 0: none), then sets owner and protected DACL. Error code.
    virtual DWORD Reset(HANDLE folder, DWORD reparseTag, PSECURITY_DESCRIPTOR descriptor) = 0;
    // Sets owner and protected DACL of a file kept in a folder that was reset. Error code.
    virtual DWORD Protect(HANDLE file, PSECURITY_DESCRIPTOR descriptor) = 0;
    // A file in `folder` (NT create disposition), never following a reparse point; `created`
    // tells whether it is new, and a new one gets `descriptor`.
    virtual daxlib::unique_hfile OpenFile(HANDLE folder, const std::wstring& name, ACCESS_MASK access,
                                          ULONG disposition, PSECURITY_DESCRIPTOR descriptor,
                                          bool& created) = 0;
};

// The system's own answers.
std::shared_ptr<IFolderSystem> WindowsFolderSystem();

// Wine 8 keeps no descriptor on files or folders and reports one made from the Unix mode bits,
// so owner and DACL cannot be checked there: the check of them is skipped. On Windows this is one
// GetProcAddress at start, and the check always runs.
bool FileSystemKeepsDescriptors();

class CLogFolder
{
public:
    struct Entry
    {
        std::wstring name;
        uint64_t lastWrite = 0;
    };

    // Opens `root`, then each of `owned` below it in turn. An owned folder is created with
    // kLogFolderSddl; an existing one must be a plain directory owned by SYSTEM or Administrators
    // with exactly that descriptor, or it is reset (reparse point removed, owner and descriptor
    // set, the files in it kept and given the file descriptor) before anything is written
    // through it. What was found and done is added to `findings`, one line each. Null when the
    // folder cannot be had safely.
    static std::shared_ptr<CLogFolder> Open(const std::shared_ptr<IFolderSystem>& system,
                                            const std::wstring& root, const std::vector<std::wstring>& owned,
                                            std::vector<std::wstring>& findings);

    CLogFolder(std::shared_ptr<IFolderSystem> system, daxlib::unique_hfile folder);

    // A log file opened for appending (truncated with `truncate`). A name that is a link, a
    // reparse point or a folder is removed and a new file made in its place. `created` tells
    // whether the file is new.
    daxlib::unique_hfile OpenLogFile(const std::wstring& name, bool truncate, bool& created) const;
    bool Rename(const std::wstring& from, const std::wstring& to) const;
    bool Delete(const std::wstring& name) const;
    std::optional<uint64_t> FileSize(const std::wstring& name) const;
    // The plain files whose names match a wildcard pattern (`*`, `?`), case-insensitively.
    std::vector<Entry> List(const std::wstring& pattern) const;
    HANDLE Handle() const { return m_hFolder.get(); }

private:
    daxlib::unique_hfile OpenExisting(const std::wstring& name, ACCESS_MASK access) const;
    // Entries matching `pattern`, folders left out, and reparse points too with `plainOnly`.
    std::vector<Entry> Walk(const std::wstring& pattern, bool plainOnly) const;
    // After a reset: files kept get the file descriptor; links and reparse points are removed.
    void ProtectContents(std::vector<std::wstring>& findings, const std::wstring& path);

    std::shared_ptr<IFolderSystem> m_pSystem;
    daxlib::unique_hfile m_hFolder;
    daxlib::unique_hlocal m_pFileDescriptor;
    // A listing walks the handle's one enumeration position: one at a time.
    mutable daxlib::critical_section m_csList;
};

} // namespace cvlog
