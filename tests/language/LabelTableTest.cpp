// kelbase - tests/language/LabelTableTest.cpp
//
// The built-in English label table: its size, order, families, the texts the suite relies on,
// and its agreement with the code tables it was derived from.
#include "LanguageTestSupport.h"
#include "xmlLngSupport/XmlLanguage.h"

#include <kel/CodeTables.h>
#include <kel/LanguageSupport.h>

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <map>
#include <set>

using KEL::Language_Support::CLanguageSupport;
using KEL::Language_Support::NLS_DEFAULT;

namespace {

constexpr size_t kLabels = CLanguageSupport::Label_Count;

std::string Family(const char* key) {
    const char* us = std::strchr(key, '_');
    return us ? std::string(key, static_cast<size_t>(us - key)) : std::string(key);
}

const NLS_DEFAULT* ByKey(const std::string& key) {
    const NLS_DEFAULT* t = CLanguageSupport::GetDefaults();
    for (size_t i = 0; i < kLabels; ++i)
        if (key == t[i].key) return &t[i];
    return nullptr;
}

// The English text made from a code name: first letter upper case, the rest lower case,
// underscores as blanks.
std::string Readable(std::string_view name) {
    std::string s(name);
    for (size_t i = 0; i < s.size(); ++i) {
        s[i] = s[i] == '_' ? ' ' : static_cast<char>(std::tolower(static_cast<unsigned char>(s[i])));
    }
    if (!s.empty()) s[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(s[0])));
    return s;
}

TEST(LabelTable, KeysAreUniqueAndInByteOrder) {
    const NLS_DEFAULT* t = CLanguageSupport::GetDefaults();
    for (size_t i = 1; i < kLabels; ++i) EXPECT_LT(std::strcmp(t[i - 1].key, t[i].key), 0) << t[i].key;
}

TEST(LabelTable, OnlyTheTwoDeliberatePairsShareAnId) {
    const NLS_DEFAULT* t = CLanguageSupport::GetDefaults();
    std::map<unsigned int, int> uses;
    for (size_t i = 0; i < kLabels; ++i) ++uses[t[i].id];
    std::set<unsigned int> shared;
    for (const auto& u : uses) {
        if (u.second > 1) {
            EXPECT_EQ(2, u.second) << u.first;
            shared.insert(u.first);
        }
    }
    EXPECT_EQ((std::set<unsigned int>{40605u, 2147483647u}), shared);
}

TEST(LabelTable, FamiliesHaveTheirCountsAndRanges) {
    struct FAMILY {
        const char* prefix;
        size_t count;
        unsigned int low, high;
    };
    const FAMILY families[] = {
        {"EVT", 1374, 1, 12325},         {"VAL", 666, 40000, 40664},      {"PROP", 556, 30000, 2147483647u},
        {"ERR", 170, 20000, 20174},      {"OP", 161, 50000, 50161},       {"CONFIRM", 134, 22000, 22133},
        {"FRMHDR", 63, 35613, 35766},    {"OBJ", 53, 19000, 2147483647u}, {"TITLE", 52, 35000, 50500},
        {"TASK", 50, 35701, 35750},      {"HEADING", 30, 35100, 35129},   {"UNITS", 29, 21000, 21028},
        {"CRWIZ", 27, 35567, 35593},     {"RSC", 19, 35517, 35535},       {"DLG", 13, 35550, 35562},
        {"DLGEXEC", 12, 35678, 35689},   {"Login", 12, 35500, 35516},     {"EVTHDR", 6, 35594, 35699},
        {"GRPHDR", 6, 35594, 35699},     {"MNU", 6, 35594, 35699},        {"TABHDR", 6, 35594, 35699},
        {"HTTP", 5, 35510, 35769},       {"WRN", 5, 35600, 35604},        {"ACTIONERR", 4, 35200, 35699},
        {"DLGTITLE", 4, 35200, 35699},   {"EVTTYPE", 4, 35200, 35699},    {"QUERY", 4, 35200, 35699},
        {"ABOUT", 3, 35509, 35756},      {"PLEASEWAIT", 3, 35509, 35756}, {"PROPHDR", 3, 35509, 35756},
        {"REBOOTREQUIRED", 3, 35509, 35756}, {"TXT", 3, 35509, 35756},   {"NOTSUPPORTED", 2, 35539, 35753},
        {"PROPTXT", 2, 35539, 35753},    {"REQWRTACCESS", 2, 35539, 35753}, {"BST", 1, 35508, 35751},
        {"DLGHDR", 1, 35508, 35751},     {"EVTDATA", 1, 35508, 35751},    {"ServiceShutdown", 1, 35508, 35751},
        {"TOOLTIP", 1, 35508, 35751},    {"PSEUDO", 2, 19998, 19999},
    };
    std::map<std::string, std::vector<unsigned int>> ids;
    const NLS_DEFAULT* t = CLanguageSupport::GetDefaults();
    for (size_t i = 0; i < kLabels; ++i) ids[Family(t[i].key)].push_back(t[i].id);
    size_t total = 0;
    for (const FAMILY& f : families) {
        const std::vector<unsigned int>& v = ids[f.prefix];
        EXPECT_EQ(f.count, v.size()) << f.prefix;
        for (unsigned int id : v) {
            EXPECT_GE(id, f.low) << f.prefix;
            EXPECT_LE(id, f.high) << f.prefix;
        }
        total += v.size();
    }
    EXPECT_EQ(kLabels, total) << "a label outside every family";
}

TEST(LabelTable, TellingRowsHaveTheirExactTexts) {
    const std::pair<const char*, const char*> rows[] = {
        {"VAL_AUTOREPLACE", "Auto Replace"},
        {"VAL_FAILURE", "Failure"},
        {"VAL_ARRAY_HAS_OFFLINE_LD", "Array has offline ld"},
        {"WRN_InputNeeded", "This field cannot be blank (at least %d characters needed)!"},
        {"WRN_InputTooShort", "You have to enter at least %d characters!"},
        {"WRN_InvalidInputHdr", "Invalid input"},
        {"WRN_DiskTooSmall", "Disk cannot be used"},
        {"WRN_Field", "Field:"},
        {"ACTIONERR_Header", "Execution error"},
        {"ACTIONERR_Label1", "Action"},
    };
    for (const auto& r : rows) {
        const NLS_DEFAULT* label = ByKey(r.first);
        ASSERT_NE(nullptr, label) << r.first;
        EXPECT_STREQ(r.second, label->text) << r.first;
    }
    EXPECT_EQ(35602u, ByKey("WRN_InputNeeded")->id);
    EXPECT_EQ(35603u, ByKey("WRN_InputTooShort")->id);
    EXPECT_EQ(35600u, ByKey("WRN_InvalidInputHdr")->id);
    EXPECT_EQ(35541u, ByKey("ACTIONERR_Header")->id);
    EXPECT_EQ(35542u, ByKey("ACTIONERR_Label1")->id);
}

TEST(LabelTable, ExactlyThreeTextsAreEmptyAndReadAsQuestionMarks) {
    const NLS_DEFAULT* t = CLanguageSupport::GetDefaults();
    std::set<unsigned int> empty;
    for (size_t i = 0; i < kLabels; ++i)
        if (t[i].text[0] == '\0') empty.insert(t[i].id);
    EXPECT_EQ(3u, empty.size());
    for (const NLS_DEFAULT& l : KEL::Internals::SortedDefaults().m_Labels)
        if (empty.count(l.id)) {
            EXPECT_STREQ("?", l.text) << l.key;
        }
}

// The code-table families: one label per code, keyed by the code's name.
void ExpectFamilyFollows(const KEL::CCodeTable& table, const char* prefix, int low, int high,
                         const std::set<int>& without, bool readableTexts) {
    std::map<int, const NLS_DEFAULT*> labels;
    const NLS_DEFAULT* t = CLanguageSupport::GetDefaults();
    std::string p = std::string(prefix) + "_";
    for (size_t i = 0; i < kLabels; ++i)
        if (std::strncmp(t[i].key, p.c_str(), p.size()) == 0) labels[static_cast<int>(t[i].id)] = &t[i];
    size_t rows = 0;
    for (const KEL::CODE_NAME& row : table) {
        if (row.first < low || row.first > high || without.count(row.first)) continue;
        ++rows;
        auto it = labels.find(row.first);
        ASSERT_NE(labels.end(), it) << prefix << " " << row.first << " " << row.second;
        std::string name(row.second);
        std::string key = name.compare(0, p.size(), p) == 0 ? name : p + name;
        EXPECT_EQ(key, it->second->key);
        if (readableTexts && key != "VAL_AUTOREPLACE") {
            EXPECT_EQ(Readable(name), it->second->text) << key;
        }
    }
    EXPECT_GT(rows, 0u);
}

TEST(LabelTable, CodeTableFamiliesFollowTheCodeTables) {
    ExpectFamilyFollows(KEL::EventCodeNames, "EVT", 1, 12325, {}, false);
    ExpectFamilyFollows(KEL::ErrorCodeNames, "ERR", 20000, 20174, {20169, 20170, 20171, 20172}, true);
    ExpectFamilyFollows(KEL::OperationCodeNames, "OP", 50000, 50161, {}, true);
    ExpectFamilyFollows(KEL::ValueCodeNames, "VAL", 40000, 40664, {}, true);
    ExpectFamilyFollows(KEL::LayoutCodeNames, "PROP", 30000, 34999, {}, true);
    // Every event code has its label; only the suite's own service events (6-38) come on top.
    size_t events = 0;
    for (const KEL::CODE_NAME& row : KEL::EventCodeNames) events += row.first >= 1 ? 1 : 0;
    EXPECT_EQ(1374u - 33u, events);
}

TEST(LabelTable, SortingTracesEachIdThatIsNotAboveItsPredecessor) {
    kel_test::CTraceCapture trace;
    KEL::Internals::CSortedDefaults sorted;
    KEL::Internals::SortDefaults(CLanguageSupport::GetDefaults(), kLabels, sorted);
    EXPECT_EQ(2u, trace.Count("nlsDefaults cannot be sorted by ID's"));
    ASSERT_EQ(kLabels, sorted.m_Labels.size());
    for (size_t i = 1; i < kLabels; ++i) ASSERT_LE(sorted.m_Labels[i - 1].id, sorted.m_Labels[i].id);
    // Each key finds its own record in the sorted table.
    for (size_t k = 0; k < kLabels; ++k)
        ASSERT_STREQ(CLanguageSupport::GetDefaults()[k].key, sorted.m_Labels[sorted.m_PosOfKey[k]].key);

    const NLS_DEFAULT distinct[] = {{3, "A", "a"}, {1, "B", ""}, {2, "C", "c"}};
    kel_test::CTraceCapture quiet;
    KEL::Internals::SortDefaults(distinct, 3, sorted);
    EXPECT_EQ(0u, quiet.Count("nlsDefaults cannot be sorted"));
    EXPECT_STREQ("?", sorted.m_Labels[0].text);
    EXPECT_EQ(2u, sorted.m_Labels[1].id);
}

TEST(LabelTable, KeyLookupFindsEveryKeyAndNothingElse) {
    const NLS_DEFAULT* t = CLanguageSupport::GetDefaults();
    for (size_t i = 0; i < kLabels; ++i)
        ASSERT_EQ(static_cast<long>(i), KEL::Internals::FindDefaultKey(t[i].key, std::strlen(t[i].key)));
    EXPECT_EQ(-1, KEL::Internals::FindDefaultKey("VAL_AUTOREPLAC", 14));
    EXPECT_EQ(-1, KEL::Internals::FindDefaultKey("VAL_AUTOREPLACEX", 16));
    EXPECT_EQ(-1, KEL::Internals::FindDefaultKey("", 0));
    EXPECT_EQ(-1, KEL::Internals::FindDefaultKey("zzz", 3));
}

} // namespace
