// kelbase - Src/xmlLngSupport/XmlLanguage.cpp
//
// The label resolver: the built-in English table, the languages found as XML files in the folder
// "NLS" beside the program, and the per-thread choice between them.
#define KEL_SOURCE_FILE "Src/xmlLngSupport"
#include "xmlLngSupport/XmlLanguage.h"

#include <kel/Exceptions.h>
#include <kel/FileSystem.h>
#include <kel/Threading.h>
#include <kel/Trace.h>
#include <kel/Xml.h>

#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <cstring>

namespace KEL {
namespace Internals {

namespace {

using Language_Support::NLS_DEFAULT;

const NLS_DEFAULT s_nlsDefaults[] = {
#include "xmlLngSupport/NlsDefaults.inc"
};
static_assert(sizeof(s_nlsDefaults) / sizeof(s_nlsDefaults[0]) ==
                  Language_Support::CLanguageSupport::Label_Count,
              "the built-in table holds every label once");

constexpr unsigned int Trace_Nls = 0x40000000u;
const char* const s_pszNoInformation = "?: There is no information available!";

inline int FirstLetter(unsigned int languageId) noexcept {
    return static_cast<int>((languageId >> 8) & 0xFF);
}
inline int SecondLetter(unsigned int languageId) noexcept {
    return static_cast<int>(languageId & 0xFF);
}

inline bool IsAsciiLetter(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

} // namespace

void SortDefaults(const NLS_DEFAULT* table, size_t count, CSortedDefaults& out) {
    std::vector<uint16_t> order(count);
    for (size_t i = 0; i < count; ++i)
        order[i] = static_cast<uint16_t>(i);
    // Stable, so that the two deliberate pairs of equal ids always come out in key order.
    std::stable_sort(order.begin(), order.end(),
                     [table](uint16_t a, uint16_t b) { return table[a].id < table[b].id; });
    out.m_Labels.resize(count);
    out.m_PosOfKey.resize(count);
    for (size_t i = 0; i < count; ++i) {
        NLS_DEFAULT label = table[order[i]];
        if (label.text == nullptr || label.text[0] == '\0') label.text = "?";
        out.m_Labels[i] = label;
        out.m_PosOfKey[order[i]] = static_cast<uint16_t>(i);
    }
    for (size_t i = 1; i < count; ++i) {
        if (out.m_Labels[i].id <= out.m_Labels[i - 1].id) {
            KEL_TRACE(KEL_MODULE_INFO_KelLib, Trace_Nls,
                      "KEL::Language_Support::CLanguageSupport::BuildDefaults",
                      "nlsDefaults cannot be sorted by ID's");
        }
    }
}

const CSortedDefaults& SortedDefaults() {
    static const CSortedDefaults s_Sorted = [] {
        CSortedDefaults sorted;
        SortDefaults(s_nlsDefaults, Language_Support::CLanguageSupport::Label_Count, sorted);
        return sorted;
    }();
    return s_Sorted;
}

long FindDefaultKey(const char* key, size_t length) noexcept {
    // The table is in the byte order of its keys.
    size_t lo = 0, hi = Language_Support::CLanguageSupport::Label_Count;
    while (lo < hi) {
        size_t mid = lo + (hi - lo) / 2;
        const char* k = s_nlsDefaults[mid].key;
        int c = std::strncmp(k, key, length);
        if (c == 0) c = (k[length] == '\0') ? 0 : 1;
        if (c == 0) return static_cast<long>(mid);
        if (c < 0)
            lo = mid + 1;
        else
            hi = mid;
    }
    return -1;
}

bool IsLanguageFileName(const std::string& name) noexcept {
    return name.size() == 6 && IsAsciiLetter(name[0]) && IsAsciiLetter(name[1]) &&
           name.compare(2, 4, ".xml") == 0;
}

} // namespace Internals

namespace Language_Support {

using Internals::Trace_Nls;

CXMLLanguage::CXMLLanguage()
    : m_uLanguageId(Default_Language_ID), m_LanguageName("English"), m_ImagePath("public/SJT/images/en.gif"),
      m_HelpPath("public/help/en"), m_Orientation("LEFT_TO_RIGHT"), m_Version("7.10.2") {}

unsigned int CXMLLanguage::SetLanguageInfo(const std::string& filePath) {
    const char* fn = "KEL::Language_Support::CXMLLanguage::SetLanguageInfo";
    XML::xml_document doc;
    XML::xml_parse_result parsed = doc.load_file(filePath.c_str());
    if (!parsed) {
        KEL_TRACE(KEL_MODULE_INFO_KelLib, Trace_Nls, fn, "Bad xmlfile %s") << filePath;
        return 0;
    }
    XML::xml_node locale = doc.child("LOCALE");
    if (!locale) {
        KEL_TRACE(KEL_MODULE_INFO_KelLib, Trace_Nls, fn, "LOCALE not found %s") << filePath;
        return 0;
    }
    XML::xml_attribute id = locale.attribute("LANGUAGEID");
    const char* letters = id.value();
    if (!id || !Internals::IsAsciiLetter(letters[0]) || !Internals::IsAsciiLetter(letters[1]) ||
        letters[2] != '\0') {
        KEL_TRACE(KEL_MODULE_INFO_KelLib, Trace_Nls, fn, "LANGUAGEID not found %s") << filePath;
        return 0;
    }
    XML::xml_attribute version = locale.attribute("VERSION");
    if (!version) {
        KEL_TRACE(KEL_MODULE_INFO_KelLib, Trace_Nls, fn, "VERSION not found %s") << filePath;
        return 0;
    }
    XML::xml_attribute image = locale.attribute("IMAGEPATH");
    if (!image) {
        KEL_TRACE(KEL_MODULE_INFO_KelLib, Trace_Nls, fn, "IMAGEPATH not found %s") << filePath;
        return 0;
    }
    XML::xml_attribute name = locale.attribute("LANGUAGENAME");
    if (!name) {
        KEL_TRACE(KEL_MODULE_INFO_KelLib, Trace_Nls, fn, "LANGUAGENAME not found %s") << filePath;
        return 0;
    }
    m_uLanguageId = MakeLanguageID(letters[0], letters[1]);
    m_Version = version.value();
    m_ImagePath = image.value();
    m_LanguageName = name.value();
    m_HelpPath = locale.attribute("HELPPATH").value();
    m_Orientation = locale.attribute("ORIENTATION").value();
    m_FilePath = filePath;
    return 1;
}

void CXMLLanguage::Load() {
    if (m_bLoaded.load(std::memory_order_acquire)) return;
    Threading::CSyncGuard lock;
    m_LoadLock.Enter(lock);
    if (m_bLoaded.load(std::memory_order_relaxed)) return;
    const char* fn = "KEL::Language_Support::CXMLLanguage::Load";
    KEL_TRACE(KEL_MODULE_INFO_KelLib, Trace_Nls, fn, "NLS: Loading language: %c%c")
        << Internals::FirstLetter(m_uLanguageId) << Internals::SecondLetter(m_uLanguageId);

    // Every label exists in every language: a translation only replaces English texts.
    const Internals::CSortedDefaults& defaults = Internals::SortedDefaults();
    std::vector<unsigned int> ids(defaults.m_Labels.size());
    std::vector<LABEL> labels(defaults.m_Labels.size());
    for (size_t i = 0; i < labels.size(); ++i) {
        const NLS_DEFAULT& d = defaults.m_Labels[i];
        ids[i] = d.id;
        labels[i] = LABEL{d.text, static_cast<unsigned int>(std::strlen(d.text))};
    }
    std::deque<std::string> texts;
    if (!m_FilePath.empty()) {
        XML::xml_document doc;
        if (doc.load_file(m_FilePath.c_str())) {
            XML::xml_node locale = doc.child("LOCALE");
            for (XML::xml_node label = locale.first_child(); label; label = label.next_sibling()) {
                if (label.type() != XML::node_element) continue;
                const char* key = label.name();
                if (std::strcmp(key, "PSEUDO_OBJ_") == 0) continue;
                XML::xml_attribute attr = label.attribute("Text");
                if (!attr) continue;
                long index = Internals::FindDefaultKey(key, std::strlen(key));
                if (index < 0) continue; // a key this library does not know
                std::string text = attr.value();
                if (text.size() > Internals::Max_Label_Text) {
                    KEL_TRACE(KEL_MODULE_INFO_KelLib, Trace_Nls, fn, "NLS: text of %s too long in %s")
                        << key << m_FilePath;
                    continue;
                }
                size_t out = 0;
                for (size_t in = 0; in < text.size(); ++in) {
                    if (text[in] == '\\' && in + 1 < text.size() && text[in + 1] == 'n') {
                        text[out++] = '\n';
                        ++in;
                    } else {
                        text[out++] = text[in];
                    }
                }
                text.resize(out);
                if (text.empty()) text = "?";
                texts.push_back(std::move(text));
                LABEL& slot = labels[defaults.m_PosOfKey[static_cast<size_t>(index)]];
                slot.text = texts.back().c_str();
                slot.length = static_cast<unsigned int>(texts.back().size());
            }
        } else {
            KEL_TRACE(KEL_MODULE_INFO_KelLib, Trace_Nls, fn, "Bad xmlfile %s") << m_FilePath;
        }
    }
    m_Ids.swap(ids);
    m_Labels.swap(labels);
    m_Texts.swap(texts);
    m_bLoaded.store(true, std::memory_order_release);
}

const char* CXMLLanguage::Find(unsigned int labelId, size_t& length) const noexcept {
    // Branch-free binary search over the whole fixed-size table: the halving step compiles to a
    // conditional move, so unpredictable label ids cost no mispredicted jumps.
    size_t count = m_Ids.size();
    if (count == 0) return nullptr;
    const unsigned int* base = m_Ids.data();
    while (count > 1) {
        size_t half = count / 2;
        base = (base[half] <= labelId) ? base + half : base;
        count -= half;
    }
    if (*base != labelId) return nullptr;
    const LABEL& label = m_Labels[static_cast<size_t>(base - m_Ids.data())];
    length = label.length;
    return label.text;
}

void CXMLLanguages::Build(const boost::filesystem::path& nlsFolder) {
    Internals::SortedDefaults();
    std::vector<std::string> files;
    boost::system::error_code ec;
    if (boost::filesystem::is_directory(nlsFolder, ec)) {
        // Regular files (and links to them) named by two letters and ".xml".
        std::vector<boost::filesystem::path> entries;
        try {
            FileSystem::CDirectory(nlsFolder, "[A-Za-z]{2}\\.xml", 1 | 4).List(entries);
        } catch (const Exceptions::CKelException&) {
            entries.clear(); // an unreadable folder holds no language
        }
        for (const boost::filesystem::path& entry : entries) {
            std::string name = entry.filename().string();
            if (Internals::IsLanguageFileName(name)) files.push_back((nlsFolder / name).string());
        }
    }
    std::sort(files.begin(), files.end());

    std::vector<std::unique_ptr<CXMLLanguage>> records;
    records.reserve(files.size() + 1);
    records.emplace_back(new CXMLLanguage());
    for (const std::string& file : files) {
        std::unique_ptr<CXMLLanguage> language(new CXMLLanguage());
        if (!language->SetLanguageInfo(file)) continue;
        KEL_TRACE(KEL_MODULE_INFO_KelLib, Trace_Nls, "KEL::Language_Support::CXMLLanguages::Build",
                  "NLS: found: %c%c")
            << Internals::FirstLetter(language->m_uLanguageId)
            << Internals::SecondLetter(language->m_uLanguageId);
        records.push_back(std::move(language));
    }
    m_Records.swap(records);
}

CXMLLanguage& CXMLLanguages::Find(unsigned int languageId) const noexcept {
    for (const std::unique_ptr<CXMLLanguage>& record : m_Records) {
        if (record->m_uLanguageId == languageId) return *record;
    }
    return *m_Records[0];
}

const char* CXMLLanguages::Resolve(unsigned int labelId, unsigned int languageId, size_t& length) const {
    if (languageId == 0) languageId = Default_Language_ID;
    CXMLLanguage& language = Find(languageId);
    language.Load();
    const char* text = language.Find(labelId, length);
    if (text) return text;
    if (KEL_MODULE_INFO_KelLib.CheckTrcPoint(Trace_Nls)) {
        Threading::CCurrentThread thread;
        KEL_TRACE(KEL_MODULE_INFO_KelLib, Trace_Nls, "KEL::Language_Support::CLanguageSupport::ResolveString",
                  "NLS-Thread-ID=0x%x Language=%c%c Label-ID=%d\t??? not found ???")
            << thread.GetThreadID() << Internals::FirstLetter(languageId)
            << Internals::SecondLetter(languageId) << labelId;
    }
    length = std::strlen(Internals::s_pszNoInformation);
    return Internals::s_pszNoInformation;
}

CXMLLanguages& CLanguageSupport::Languages() {
    // Built by the first caller; every later call costs one check of the initialisation guard.
    static CXMLLanguages& s_Languages = *[] {
        static CXMLLanguages languages;
        boost::filesystem::path program;
        boost::filesystem::path folder;
        if (Misc::CKelApplication::GetProcessPath(program)) folder = program.parent_path() / "NLS";
        languages.Build(folder);
        return &languages;
    }();
    return s_Languages;
}

const NLS_DEFAULT* CLanguageSupport::GetDefaults() noexcept {
    return Internals::s_nlsDefaults;
}

namespace {
// The language a label is resolved in: English when asked for, or when the thread has none.
inline unsigned int ResolveLanguage(bool useDefaultLanguage) {
    if (useDefaultLanguage) return Default_Language_ID;
    return Threading::CCurrentThread().GetLngId();
}
} // namespace

void CLanguageSupport::ResolveString(unsigned int labelId, std::string& text, bool useDefaultLanguage) {
    text.clear();
    try {
        size_t length = 0;
        const char* p = Languages().Resolve(labelId, ResolveLanguage(useDefaultLanguage), length);
        text.assign(p, length);
    } catch (...) {
        // The resolver never raises: without memory the text stays empty.
        text.clear();
    }
}

void CLanguageSupport::ResolveString(unsigned int labelId, Strings::CStringVar& text,
                                     bool useDefaultLanguage) {
    try {
        size_t length = 0;
        const char* p = Languages().Resolve(labelId, ResolveLanguage(useDefaultLanguage), length);
        text = Strings::CSubStringRef(p, length);
    } catch (...) {
        text = Misc::Null;
    }
}

unsigned int CLanguageSupport::GetLanguageID(unsigned int& index) {
    CXMLLanguages& languages = Languages();
    if (index >= languages.size()) index = 0;
    return languages[index].m_uLanguageId;
}

unsigned int CLanguageSupport::GetImagePath(unsigned int index, std::string& imagePath,
                                            std::string& languageName) {
    CXMLLanguages& languages = Languages();
    if (index >= languages.size()) return 0;
    imagePath = languages[index].m_ImagePath;
    languageName = languages[index].m_LanguageName;
    return languages[index].m_uLanguageId;
}

void CLanguageSupport::GetHelpPath(unsigned int languageId, std::string& helpPath) {
    if (languageId == 0) languageId = Threading::CCurrentThread().GetLngId();
    if (languageId == 0) languageId = Default_Language_ID;
    CXMLLanguages& languages = Languages();
    for (size_t i = 0; i < languages.size(); ++i) {
        if (languages[i].m_uLanguageId == languageId && !languages[i].m_HelpPath.empty()) {
            helpPath = languages[i].m_HelpPath;
            return;
        }
    }
    helpPath = "public/help/en";
}

} // namespace Language_Support
} // namespace KEL
