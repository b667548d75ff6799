// kelbase - LanguageSupport.h
//
// Language-dependent texts (KEL::Language_Support). A module's own message strings live in a
// CLngFile: entry 0 holds the strings compiled into the module, further entries come from a
// binary ".nls" language file found on the application's NLS search path. CLanguageStrg is one
// such string; the string and format classes accept it wherever they accept a narrow string.
//
// CLanguageSupport resolves numeric label ids (the code tables' numbers and the user-interface
// texts) into the calling thread's language: a built-in English table of 3499 labels, and one
// record per XML language file ("de.xml", ...) in the folder "NLS" beside the program.
//
// A language is a 32-bit number packing its two-letter code, first letter in the high byte:
// "en" is 25966 (Default_Language_ID).
#pragma once

#include <kel/Strings.h>
#include <kel/Threading.h>

#include <boost/filesystem/path.hpp>

#include <atomic>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>


namespace KEL {
namespace Language_Support {

class CLngFile;

/// The packed id of a two-letter language code ("en" -> 25966).
constexpr unsigned int MakeLanguageID(char first, char second) noexcept {
    return (static_cast<unsigned int>(static_cast<unsigned char>(first)) << 8) |
           static_cast<unsigned int>(static_cast<unsigned char>(second));
}
constexpr unsigned int Default_Language_ID = MakeLanguageID('e', 'n');

/// One entry of a module's error-message list: the message number (low 16 bits compared) and
/// the index of its text in the module's language file. A list ends at message number 0.
struct ERROR_MSG_LIST {
    unsigned int message;
    unsigned int textIndex;
};

/// One language entry of a language file.
struct LNGDATA {
    unsigned int languageId = 0;
    int offset = 0;              ///< file offset of the string block
    unsigned int size = 0;       ///< byte size of the string block
    unsigned int isUtf8 = 0;     ///< nonzero when the strings are UTF-8
    const char* const* strings = nullptr; ///< one pointer per string; null until loaded
    CLngFile* file = nullptr;
    char name[33] = {};
};

/// A module's message strings: entry 0 from the compiled-in strings, more from a ".nls" file.
class KEL_API CLngFile {
public:
    /// `strings` (`stringCount` of them, in the language `languageId`, UTF-8 when `isUtf8`)
    /// become entry 0; `fileName` is the ".nls" file that may add more languages.
    CLngFile(const char* fileName, unsigned int languageId, const char* languageName, unsigned int isUtf8,
             const char* const* strings, unsigned long long stringCount);
    virtual ~CLngFile();
    CLngFile(const CLngFile&) = delete;
    CLngFile& operator=(const CLngFile&) = delete;

    /// The entry for the calling thread's language (entry 0 when there is none).
    LNGDATA& GetLngData();
    /// Entry 0: the compiled-in strings.
    LNGDATA& GetDefaultLngData() noexcept { return m_Default; }
    unsigned long long GetStringCount() const noexcept { return m_nStrings; }
    const char* GetFileName() const noexcept { return m_FileName.C_Str(); }

    /// 1 not searched yet, 2 searched without success (or search under way), 0 file opened.
    unsigned int GetState() const noexcept { return m_uState.load(std::memory_order_acquire); }
    size_t GetEntryCount() const noexcept { return m_nEntries; }

protected:
    /// Opens and indexes the file at `path`: 1 when it is a valid language file for this module,
    /// else 0 with only entry 0 left. A corrupt file (0x2001000a) or a failed allocation
    /// (0x2001000f) is logged to the thread's error log and not raised.
    unsigned int Open(const char* path);
    /// Reads the strings of entry `entryIndex` with one allocation and one read. Raises
    /// 0x2001000a on a short read, 0x2001000f when memory runs out; the entry stays unloaded.
    void LoadStrings(size_t entryIndex);
    /// Closes the file and frees every loaded entry and the entry array.
    void Release() noexcept;

    Strings::TString<32> m_FileName;
    unsigned long long m_nStrings;
    size_t m_nEntries = 1;
    LNGDATA* m_pEntries;
    LNGDATA m_Default;
    std::FILE* m_pFile = nullptr;
    Threading::Native_OS::CCriticalSection m_Lock; ///< serialises the search and the loading of entries
    std::atomic<unsigned int> m_uState{1};
};

/// One string of a language entry.
class KEL_API CLanguageStrg {
public:
    CLanguageStrg(LNGDATA& entry, size_t stringIndex) noexcept;
    /// The bytes as stored ("" for an index past the entry's strings).
    const char* Native() const noexcept { return m_pText; }
    operator const char*() const noexcept { return m_pText; }
    unsigned int IsUTF8() const noexcept { return m_uUtf8; }
    /// The string in the code page `codePage`: 65001 (UTF-8) copies the bytes as they are;
    /// any other value means the local single-byte code page, Latin-1 (0 and 28591 name it),
    /// into which UTF-8 strings are converted and others copied.
    void UTF8ToChar(Strings::CStringVar& out, unsigned int codePage = 0) const;

private:
    const char* m_pText;
    unsigned int m_uUtf8;
};

/// One record of the built-in English label table.
struct NLS_DEFAULT {
    unsigned int id;
    const char* key;
    const char* text;
};

/// One language: its LOCALE attributes and, once loaded, its 3499 labels sorted by id.
class KEL_API CXMLLanguage {
public:
    /// The built-in English language (record 0).
    CXMLLanguage();
    CXMLLanguage(const CXMLLanguage&) = delete;
    CXMLLanguage& operator=(const CXMLLanguage&) = delete;

    /// Reads the LOCALE attributes of the XML file at `filePath`: 1 when they are usable, else 0
    /// with the reason traced ("Bad xmlfile %s", "LOCALE not found %s", ...).
    unsigned int SetLanguageInfo(const std::string& filePath);
    /// Loads the label table on first use: English texts replaced by the file's translations.
    /// Any number of threads may call it at once; the table is built exactly once.
    void Load();
    bool IsLoaded() const noexcept { return m_bLoaded.load(std::memory_order_acquire); }
    /// The text of `labelId` (binary search; one of two equal ids), null when there is none.
    const char* Find(unsigned int labelId, size_t& length) const noexcept;

    unsigned int m_uLanguageId = 0;
    std::string m_LanguageName;
    std::string m_ImagePath;
    std::string m_HelpPath;
    std::string m_Orientation;
    std::string m_Version;
    std::string m_FilePath; ///< empty for the built-in language

private:
    struct LABEL {
        const char* text;
        unsigned int length;
    };
    std::atomic<bool> m_bLoaded{false};
    Threading::Native_OS::CCriticalSection m_LoadLock;
    std::vector<unsigned int> m_Ids; ///< sorted; searched apart from the texts to stay in cache
    std::vector<LABEL> m_Labels;
    std::deque<std::string> m_Texts; ///< the translated texts the labels point at
};

/// The languages known to the process: record 0 is the built-in English language, then one per
/// usable XML file of the NLS folder.
class KEL_API CXMLLanguages {
public:
    CXMLLanguages() = default;
    CXMLLanguages(const CXMLLanguages&) = delete;
    CXMLLanguages& operator=(const CXMLLanguages&) = delete;

    /// Lists `nlsFolder` for files named by two letters and ".xml" and reads their LOCALE
    /// attributes; files that fail a check are traced and left out. Replaces what was there, so
    /// it must not run while other threads resolve through this object.
    void Build(const boost::filesystem::path& nlsFolder);
    size_t size() const noexcept { return m_Records.size(); }
    CXMLLanguage& operator[](size_t index) const noexcept { return *m_Records[index]; }
    /// The record of `languageId`, else record 0.
    CXMLLanguage& Find(unsigned int languageId) const noexcept;
    /// The label text in `languageId` (0 = English), loading the language on first use; the
    /// text "?: There is no information available!" when the label does not exist.
    const char* Resolve(unsigned int labelId, unsigned int languageId, size_t& length) const;

private:
    std::vector<std::unique_ptr<CXMLLanguage>> m_Records;
};

/// The label resolver and the binary language files.
class KEL_API CLanguageSupport {
public:
    using LNGDATA = Language_Support::LNGDATA;
    using CLngFile = Language_Support::CLngFile;
    static constexpr unsigned int Default_Language_ID = Language_Support::Default_Language_ID;
    /// Number of labels of the built-in English table.
    static constexpr size_t Label_Count = 3499;

    /// The text of `labelId` in the calling thread's language (in English when
    /// `useDefaultLanguage` is true, or the thread has no language, or there is no file for it).
    /// A missing label gives "?: There is no information available!", an empty text "?".
    /// Never raises.
    static void ResolveString(unsigned int labelId, std::string& text, bool useDefaultLanguage = false);
    static void ResolveString(unsigned int labelId, Strings::CStringVar& text, bool useDefaultLanguage = false);
    /// The id of the language at `index`; an index past the end is set to 0 and record 0's id
    /// (25966) returned.
    static unsigned int GetLanguageID(unsigned int& index);
    /// The image path and name of the language at `index` and its id; 0 with both untouched for
    /// an index past the end.
    static unsigned int GetImagePath(unsigned int index, std::string& imagePath, std::string& languageName);
    /// The help path of `languageId` (0 = the thread's language): the first record with that id
    /// and a help path, else "public/help/en".
    static void GetHelpPath(unsigned int languageId, std::string& helpPath);

    /// The process's languages (m_Languages), built from the folder "NLS" beside the program
    /// on first use.
    static CXMLLanguages& Languages();
    /// The built-in English table in key order (3499 records).
    static const NLS_DEFAULT* GetDefaults() noexcept;
};

} // namespace Language_Support
} // namespace KEL
