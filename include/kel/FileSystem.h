// kelbase - FileSystem.h
//
// File-system helpers (KEL::FileSystem): a snapshot of one directory's entries, filtered by
// kind and by a regular expression on the entry's name. The process helpers (id, current
// directory, host names, tick time) are in Functions.h.
#pragma once

#include <kel/Config.h>

#include <boost/filesystem/path.hpp>

#include <string>
#include <vector>

namespace KEL {
namespace FileSystem {

/// The entries of one directory, taken once by the constructor (not recursively, never "."
/// or ".."), in the order the system lists them.
///
/// Kinds may be combined: STC_File (1) regular files, STC_Directory (2) directories,
/// STC_Symlink (4) symbolic links. A symbolic link counts as a link only (it is not followed
/// to decide whether it is a file or a directory). Without a kinds argument every entry is
/// taken, whatever its kind (sockets and pipes too).
///
/// The pattern is an ECMAScript regular expression that must match the whole name (".*"
/// takes all). Failures raise through the thread's error log: 0x20010017 with the system error
/// when the directory cannot be opened or read, 0x20010010 for a pattern that is not a valid
/// expression. An entry that vanishes while the directory is listed is left out.
class KEL_API CDirectory {
public:
    enum : unsigned int { STC_File = 1, STC_Directory = 2, STC_Symlink = 4, STC_All = 0xFFFFFFFFu };

    explicit CDirectory(const boost::filesystem::path& dir);
    CDirectory(const boost::filesystem::path& dir, unsigned int kinds);
    CDirectory(const boost::filesystem::path& dir, const std::string& pattern);
    CDirectory(const boost::filesystem::path& dir, const std::string& pattern, unsigned int kinds);
    CDirectory(const CDirectory&) = default;
    CDirectory(CDirectory&&) noexcept = default;
    CDirectory& operator=(const CDirectory&) = default;
    CDirectory& operator=(CDirectory&&) noexcept = default;
    ~CDirectory() = default;

    /// Copies the snapshot into `out` (replacing its contents; nothing happens when `out` is
    /// this object's own list).
    void List(std::vector<boost::filesystem::path>& out) const;
    /// The snapshot itself.
    const std::vector<boost::filesystem::path>& GetEntries() const noexcept { return m_Entries; }

private:
    void Take(const boost::filesystem::path& dir, const std::string* pattern, unsigned int kinds);
    std::vector<boost::filesystem::path> m_Entries;
};

} // namespace FileSystem
} // namespace KEL
