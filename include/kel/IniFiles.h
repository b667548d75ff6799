// kelbase - IniFiles.h
//
// INI settings files (KEL::INI_Files), read the way users of such files expect:
//
//     ; a comment            (also "# a comment"; only whole lines are comments)
//     top = value            (keys before the first section belong to the section "")
//     [Trace]
//     Demo_MaxFileSize = 10
//     Greeting = "  kept as written  "
//
// Rules:
//  - Lines end in "\n", "\r\n" or "\r"; the last line needs no line end. A UTF-8 byte-order
//    mark at the very start is skipped.
//  - Blanks (space, tab) around section names, key names and values are dropped. A value
//    wholly enclosed in double quotes loses the quotes and keeps its blanks. A ';' or '#'
//    inside a value is part of the value (as the Windows profile functions read it).
//  - Section and key names compare without regard to ASCII case. When a key appears twice in
//    a section the first value wins; a section that appears twice is one section.
//  - A line that is neither blank, comment, "[section]" nor "key=value" is broken: it is
//    skipped and counted (GetBrokenLines), the rest of the file still counts. A broken
//    "[section" header takes the keys under it along (each counted as broken), so no key can
//    land in the wrong section.
//  - Bytes are taken as they are (no encoding check); a NUL byte ends nothing.
//  - Files above 64 MiB are refused.
//
// Reading takes a shared advisory lock (flock) on the file, so a writer that locks the file
// exclusively is never seen half-way. Objects are not locked: one thread at a time.
#pragma once

#include <kel/Strings.h>

#include <boost/filesystem/path.hpp>

#include <string>
#include <vector>

namespace KEL {
namespace INI_Files {

/// A list of names or values (section names, key names, or a value split at commas).
class KEL_API CIniList {
public:
    size_t Count() const noexcept { return m_Items.size(); }
    const std::string& operator[](size_t i) const { return m_Items[i]; }
    void Add(std::string item) { m_Items.push_back(std::move(item)); }
    void Clear() noexcept { m_Items.clear(); }
    std::vector<std::string>::const_iterator begin() const noexcept { return m_Items.begin(); }
    std::vector<std::string>::const_iterator end() const noexcept { return m_Items.end(); }

private:
    std::vector<std::string> m_Items;
};

/// One "key = value" line. `GetLine` is the line number (1-based) it came from, 0 when set by
/// the program.
class KEL_API CIniKey {
public:
    CIniKey(std::string name, std::string value, unsigned int line = 0)
        : m_Name(std::move(name)), m_Value(std::move(value)), m_uLine(line) {}
    const std::string& GetName() const noexcept { return m_Name; }
    const std::string& GetValue() const noexcept { return m_Value; }
    void SetValue(std::string value) { m_Value = std::move(value); }
    unsigned int GetLine() const noexcept { return m_uLine; }

private:
    std::string m_Name;
    std::string m_Value;
    unsigned int m_uLine;
};

/// One section with its keys in file order.
class KEL_API CIniSection {
public:
    explicit CIniSection(std::string name) : m_Name(std::move(name)) {}
    const std::string& GetName() const noexcept { return m_Name; }
    /// The key of that name (ASCII case ignored), null when missing.
    const CIniKey* FindKey(const Strings::CSubStringRef& name) const noexcept;
    /// The key's value, or `defaultValue` when the key is missing.
    std::string GetValue(const Strings::CSubStringRef& name, const Strings::CSubStringRef& defaultValue = "") const;
    /// Sets (or adds) a key; a program's own change, not written back to the file.
    void SetValue(const Strings::CSubStringRef& name, const Strings::CSubStringRef& value);
    size_t GetKeyCount() const noexcept { return m_Keys.size(); }
    const CIniKey& GetKey(size_t i) const { return m_Keys[i]; }
    void GetKeyNames(CIniList& names) const;

private:
    friend class CIniFile;
    /// Adds unless the key already exists (the first value wins).
    void AddParsed(std::string name, std::string value, unsigned int line);
    std::string m_Name;
    std::vector<CIniKey> m_Keys;
};

/// The contents of one INI file.
class KEL_API CIniFile {
public:
    CIniFile() = default;

    /// Reads `file` under a shared advisory lock, waiting up to `waitMs` milliseconds for the
    /// lock (0 tries once, 0xFFFFFFFF waits for ever), and replaces the contents of this object.
    /// Returns 1, or the failure's status with the reason in the thread's error log (or throws
    /// in throw mode):
    /// 0x20010017 with the system error when the file cannot be opened or read or the lock was
    /// not had in time (EWOULDBLOCK), 0x20010029 when the file is larger than 64 MiB. On failure
    /// the previous contents stay.
    unsigned int Read(const boost::filesystem::path& file, unsigned int waitMs);
    /// Parses `text` as the contents of a file; never fails on bad lines.
    void Parse(const Strings::CSubStringRef& text);

    /// The section of that name (ASCII case ignored; "" is the part before the first section).
    const CIniSection* FindSection(const Strings::CSubStringRef& name) const noexcept;
    /// The value of `key` in `section`, or `defaultValue` when either is missing.
    std::string GetValue(const Strings::CSubStringRef& section, const Strings::CSubStringRef& key,
                         const Strings::CSubStringRef& defaultValue = "") const;
    /// The value read as a number (decimal, or hexadecimal with 0x); `defaultValue` when the
    /// key is missing or its value is not entirely a number in the range of long long.
    long long GetInt(const Strings::CSubStringRef& section, const Strings::CSubStringRef& key,
                     long long defaultValue) const;
    /// The value read as a switch: 1/yes/true/on and 0/no/false/off (case ignored), else the
    /// default.
    bool GetBool(const Strings::CSubStringRef& section, const Strings::CSubStringRef& key, bool defaultValue) const;
    /// The value split at commas, each item without its surrounding blanks; empty when missing.
    void GetList(const Strings::CSubStringRef& section, const Strings::CSubStringRef& key, CIniList& items) const;
    /// Sets a value (adding section and key as needed), in memory only.
    void SetValue(const Strings::CSubStringRef& section, const Strings::CSubStringRef& key,
                  const Strings::CSubStringRef& value);

    size_t GetSectionCount() const noexcept { return m_Sections.size(); }
    const CIniSection& GetSection(size_t i) const { return m_Sections[i]; }
    void GetSectionNames(CIniList& names) const;
    /// Lines skipped as broken by the last Parse or Read.
    unsigned int GetBrokenLines() const noexcept { return m_uBrokenLines; }
    /// The file of the last successful Read.
    const boost::filesystem::path& GetFileName() const noexcept { return m_File; }

private:
    CIniSection& Section(const Strings::CSubStringRef& name);
    size_t IndexOf(const CIniSection& section) const noexcept;
    std::vector<CIniSection> m_Sections;
    unsigned int m_uBrokenLines = 0;
    boost::filesystem::path m_File;
};

} // namespace INI_Files
} // namespace KEL
