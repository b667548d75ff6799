// kelbase - tests/language/LanguageTestSupport.h
//
// Shared helpers of the language tests: temporary folders and builders of binary language
// files with chosen faults.
#pragma once

#include <kel/Exceptions.h>
#include <kel/Misc.h>

#include "../common/TraceCapture.h"

#include <boost/filesystem.hpp>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace kel_test {

/// A folder below the system's temporary folder, removed with everything in it.
class CTempDir {
public:
    CTempDir() {
        boost::filesystem::path p = boost::filesystem::temp_directory_path() / "kel-lng-%%%%-%%%%-%%%%";
        m_Path = boost::filesystem::unique_path(p);
        boost::filesystem::create_directories(m_Path);
    }
    ~CTempDir() {
        boost::system::error_code ec;
        boost::filesystem::remove_all(m_Path, ec);
    }
    CTempDir(const CTempDir&) = delete;
    CTempDir& operator=(const CTempDir&) = delete;
    const boost::filesystem::path& Path() const { return m_Path; }
    std::string File(const std::string& name) const { return (m_Path / name).string(); }
    std::string Write(const std::string& name, const std::string& content) const {
        std::string path = File(name);
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(content.data(), static_cast<std::streamsize>(content.size()));
        return path;
    }

private:
    boost::filesystem::path m_Path;
};

inline void PutLE32(std::string& out, unsigned int v) {
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

/// One language entry of a test file.
struct NLS_ENTRY {
    unsigned int languageId;
    std::vector<std::string> strings;
    unsigned int isUtf8 = 1;
    std::string name = "Test";
};

/// A well-formed binary language file holding `entries`, each with `count` strings.
inline std::string MakeNls(const std::vector<NLS_ENTRY>& entries, unsigned int count) {
    std::string out;
    PutLE32(out, 0x25031961u);
    PutLE32(out, count);
    PutLE32(out, static_cast<unsigned int>(entries.size()));
    std::vector<std::string> blocks;
    for (const NLS_ENTRY& e : entries) {
        std::string b;
        for (const std::string& s : e.strings)
            b += s + std::string(1, '\0');
        blocks.push_back(b);
    }
    unsigned int offset = static_cast<unsigned int>(12 + 48 * entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
        PutLE32(out, entries[i].languageId);
        PutLE32(out, offset);
        PutLE32(out, static_cast<unsigned int>(blocks[i].size()));
        PutLE32(out, entries[i].isUtf8);
        std::string name = entries[i].name;
        name.resize(32, '\0');
        out += name;
        offset += static_cast<unsigned int>(blocks[i].size());
    }
    for (const std::string& b : blocks)
        out += b;
    return out;
}

/// Overwrites the 32-bit little-endian number at `offset`.
inline void Patch32(std::string& bytes, size_t offset, unsigned int v) {
    for (int i = 0; i < 4; ++i)
        bytes[offset + i] = static_cast<char>((v >> (8 * i)) & 0xFF);
}

} // namespace kel_test
