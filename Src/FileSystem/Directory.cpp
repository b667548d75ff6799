// kelbase - Src/FileSystem/Directory.cpp
//
// Directory snapshots. The listing goes through boost::filesystem with error codes, never
// exceptions, so a directory that changes under the iteration costs an entry, not the listing.
#define KEL_SOURCE_FILE "Src/FileSystem"
#include <kel/Exceptions.h>
#include <kel/FileSystem.h>

#include <boost/filesystem/directory.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/regex.hpp>

namespace KEL {
namespace FileSystem {

namespace fs = boost::filesystem;

CDirectory::CDirectory(const fs::path& dir) { Take(dir, nullptr, STC_All); }

CDirectory::CDirectory(const fs::path& dir, unsigned int kinds) { Take(dir, nullptr, kinds); }

CDirectory::CDirectory(const fs::path& dir, const std::string& pattern) { Take(dir, &pattern, STC_All); }

CDirectory::CDirectory(const fs::path& dir, const std::string& pattern, unsigned int kinds) {
    Take(dir, &pattern, kinds);
}

void CDirectory::List(std::vector<fs::path>& out) const {
    if (&out == &m_Entries) return;
    out = m_Entries;
}

namespace {

[[noreturn]] void RaiseListing(const fs::path& dir, const boost::system::error_code& ec) {
    Exceptions::NATIVE_ERROR native{2u, static_cast<unsigned int>(ec.value())};
    Exceptions::Raise(KEL_SITE(), 0x20010017u, &native, "Can't list directory %s", dir.string());
}

unsigned int KindOf(const fs::file_status& link, const fs::file_status& target) noexcept {
    if (fs::is_symlink(link)) return CDirectory::STC_Symlink;
    if (fs::is_regular_file(target)) return CDirectory::STC_File;
    if (fs::is_directory(target)) return CDirectory::STC_Directory;
    return 0;
}

} // namespace

void CDirectory::Take(const fs::path& dir, const std::string* pattern, unsigned int kinds) {
    boost::regex expression;
    if (pattern) {
        try {
            expression.assign(*pattern, boost::regex::ECMAScript);
        } catch (const boost::regex_error& e) {
            KEL_RAISE(0x20010010u, "Bad name pattern '%s': %s", *pattern, e.what());
        }
    }
    boost::system::error_code ec;
    fs::directory_iterator it(dir, ec);
    if (ec) RaiseListing(dir, ec);
    std::vector<fs::path> entries;
    for (const fs::directory_iterator end; it != end; it.increment(ec)) {
        if (ec) RaiseListing(dir, ec);
        const fs::path& p = it->path();
        boost::system::error_code sec;
        fs::file_status link = fs::symlink_status(p, sec);
        if (sec || link.type() == fs::file_not_found) continue; // gone since it was listed
        unsigned int kind = KindOf(link, link);
        if (kinds != STC_All && (kind & kinds) == 0) continue;
        if (pattern) {
            const std::string name = p.filename().string();
            if (!boost::regex_match(name, expression)) continue;
        }
        entries.push_back(p);
    }
    if (ec) RaiseListing(dir, ec);
    m_Entries.swap(entries);
}

} // namespace FileSystem
} // namespace KEL
