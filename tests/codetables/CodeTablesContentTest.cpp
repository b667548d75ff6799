// The contents of the five code tables: sizes, the numbering of the row lists, the rows that
// pin each run, codes without a name, repeated codes and repeated names, and the order.
#include <kel/CodeTables.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using KEL::CCodeTable;
using KEL::CodeTables::NameOf;
namespace Rows = KEL::Internals::CodeTables;

// The tables are finished by the compiler: nothing is left for start-up to do.
static_assert(KEL::ErrorCodeNames.size() == 175);
static_assert(KEL::EventCodeNames.size() == 1341);
static_assert(KEL::OperationCodeNames.size() == 161);
static_assert(KEL::LayoutCodeNames.size() == 654);
static_assert(KEL::ValueCodeNames.size() == 659);
static_assert(KEL::LayoutCodeNames.find(29900)->second == "RUI_PROPERTIES");

struct TELLING {
    int code;
    const char* name;
};

void ExpectRows(const CCodeTable& table, std::initializer_list<TELLING> rows) {
    for (const TELLING& row : rows) {
        const auto name = NameOf(table, row.code);
        ASSERT_TRUE(name.has_value()) << "no row for " << row.code;
        EXPECT_EQ(*name, row.name) << "code " << row.code;
    }
}

// The codes a table holds, as closed runs [from, to].
std::vector<std::pair<int, int>> RunsOf(const CCodeTable& table) {
    std::vector<std::pair<int, int>> runs;
    for (const KEL::CODE_NAME& row : table) {
        if (!runs.empty() && static_cast<long long>(runs.back().second) + 1 == row.first)
            runs.back().second = row.first;
        else
            runs.emplace_back(row.first, row.first);
    }
    return runs;
}

using Runs = std::vector<std::pair<int, int>>;

// With the table sizes above: only the two layout rows that repeat a code are dropped.
TEST(CodeTableRowLists, HoldTheListedNumberOfRows) {
    EXPECT_EQ(std::size(Rows::ErrorCodeRows), 175u);
    EXPECT_EQ(std::size(Rows::EventCodeRows), 1341u);
    EXPECT_EQ(std::size(Rows::OperationCodeRows), 161u);
    EXPECT_EQ(std::size(Rows::LayoutCodeRows), 656u);
    EXPECT_EQ(std::size(Rows::ValueCodeRows), 659u);
}

TEST(CodeTableRowLists, AnAbsentNumberContinuesTheRunAndAGivenNumberStartsOne) {
    // Replays the numbering rule on the row lists independently of the table builder.
    const auto replay = [](const Rows::CODE_ROW* first, const Rows::CODE_ROW* last) {
        std::map<int, std::string> map;
        long long next = 0;
        for (const Rows::CODE_ROW* row = first; row != last; ++row) {
            const long long code = row->startsRun ? row->code : next;
            next = code + 1;
            map.emplace(static_cast<int>(code), std::string(row->name, row->length));
        }
        return map;
    };
    const std::pair<const CCodeTable*, std::map<int, std::string>> cases[] = {
        {&KEL::ErrorCodeNames, replay(std::begin(Rows::ErrorCodeRows), std::end(Rows::ErrorCodeRows))},
        {&KEL::EventCodeNames, replay(std::begin(Rows::EventCodeRows), std::end(Rows::EventCodeRows))},
        {&KEL::OperationCodeNames, replay(std::begin(Rows::OperationCodeRows), std::end(Rows::OperationCodeRows))},
        {&KEL::LayoutCodeNames, replay(std::begin(Rows::LayoutCodeRows), std::end(Rows::LayoutCodeRows))},
        {&KEL::ValueCodeNames, replay(std::begin(Rows::ValueCodeRows), std::end(Rows::ValueCodeRows))},
    };
    for (const auto& [table, expected] : cases) {
        ASSERT_EQ(table->size(), expected.size());
        auto want = expected.begin();
        for (const KEL::CODE_NAME& row : *table) {
            EXPECT_EQ(row.first, want->first);
            EXPECT_EQ(row.second, want->second);
            ++want;
        }
    }
}

TEST(CodeTableOrder, EveryTableIteratesByStrictlyAscendingCode) {
    for (const CCodeTable* table : {&KEL::ErrorCodeNames, &KEL::EventCodeNames, &KEL::OperationCodeNames,
                                    &KEL::LayoutCodeNames, &KEL::ValueCodeNames}) {
        const bool ascending = std::adjacent_find(table->begin(), table->end(), [](const auto& a, const auto& b) {
                                   return a.first >= b.first;
                               }) == table->end();
        EXPECT_TRUE(ascending);
    }
}

TEST(CodeTableOrder, LateBootModeEventsIterateBeforeTheRowsListedAheadOfThem) {
    auto it = KEL::EventCodeNames.find(10556);
    ASSERT_NE(it, KEL::EventCodeNames.end());
    EXPECT_EQ(it->second, "FOREIGN_CFG_UPGRADE_REQUIRED");
    ++it;
    EXPECT_EQ(it->first, 10557);
    EXPECT_EQ(it->second, "BIOS_BOOT_MODE_COE");
    ++it;
    EXPECT_EQ(it->first, 10558);
    EXPECT_EQ(it->second, "BIOS_BOOT_MODE_USER");
    ++it;
    EXPECT_EQ(it->first, 10559);
    EXPECT_EQ(it->second, "PD_FAIL_EX");
    // ... while the list itself puts them after SYSTEM_RESET_REQUIRED.
    ExpectRows(KEL::EventCodeNames, {{11108, "SYSTEM_RESET_REQUIRED"}, {11109, "BIOS_BOOT_MODE_HCOE"}});
}

TEST(ErrorCodeNames, TellingRows) {
    ExpectRows(KEL::ErrorCodeNames, {{0, "SUCCESS"},
                                     {20000, "GENERAL"},
                                     {20121, "TIMEOUT"},
                                     {20136, "SMTP_UNEXPECTED_CODE"},
                                     {20160, "SMTP_NO_SUBJECT"},
                                     {20168, "INVALID_INPUT_CHARACTER"},
                                     {20169, "PARSE_FAILED"},
                                     {20174, "MDADM_ERROR"}});
    EXPECT_EQ(KEL::ErrorCodeNames.rbegin()->first, 20174);
}

TEST(ErrorCodeNames, MailDeliveryErrorsRunUnbrokenAndAllStartWithSmtp) {
    for (int code = 20136; code <= 20160; ++code) {
        const auto name = NameOf(KEL::ErrorCodeNames, code);
        ASSERT_TRUE(name.has_value()) << code;
        EXPECT_EQ(name->substr(0, 5), "SMTP_") << code;
    }
    EXPECT_NE(NameOf(KEL::ErrorCodeNames, 20161)->substr(0, 5), "SMTP_");
}

TEST(ErrorCodeNames, CodesAreZeroAndTwentyThousandUpwardExceptTheGap) {
    EXPECT_EQ(RunsOf(KEL::ErrorCodeNames), (Runs{{0, 0}, {20000, 20166}, {20168, 20174}}));
    EXPECT_FALSE(KEL::ErrorCodeNames.contains(20167));
}

TEST(EventCodeNames, TellingRows) {
    ExpectRows(KEL::EventCodeNames, {{1, "UNDEFINED"},
                                     {2, "CONNECTED"},
                                     {3, "DISCONNECTED"},
                                     {4, "UNEXPECTED_DISCONNECT"},
                                     {5, "TEST_TRAP"},
                                     {10000, "UNKNOWN"},
                                     {10002, "WRITEACCESS_REVOKED"},
                                     {10921, "ARRAYDECK_STARTED"},
                                     {10922, "ARRAYDECK_STOPPED"},
                                     {10556, "FOREIGN_CFG_UPGRADE_REQUIRED"},
                                     {10557, "BIOS_BOOT_MODE_COE"},
                                     {10558, "BIOS_BOOT_MODE_USER"},
                                     {10559, "PD_FAIL_EX"},
                                     {11108, "SYSTEM_RESET_REQUIRED"},
                                     {11109, "BIOS_BOOT_MODE_HCOE"}});
}

TEST(EventCodeNames, NumbersWithoutARowHaveNone) {
    for (int code : {10854, 10855, 10856, 10857, 10914})
        EXPECT_FALSE(NameOf(KEL::EventCodeNames, code).has_value()) << code;
    EXPECT_EQ(RunsOf(KEL::EventCodeNames), (Runs{{1, 5},
                                                 {10000, 10853},
                                                 {10858, 10913},
                                                 {10915, 11112},
                                                 {12000, 12101},
                                                 {12200, 12325}}));
}

TEST(EventCodeNames, OtherControllerFamiliesOccupyTheirOwnRuns) {
    for (const KEL::CODE_NAME& row : KEL::EventCodeNames) {
        const bool microsemi = row.second.substr(0, 10) == "MICROSEMI_";
        const bool marvell =
            row.second.substr(0, 12) == "EVT_MV_CODE_" || row.second.substr(0, 8) == "MV_CODE_";
        EXPECT_EQ(microsemi, row.first >= 12000 && row.first <= 12101) << row.first << " " << row.second;
        EXPECT_EQ(marvell, row.first >= 12200) << row.first << " " << row.second;
    }
}

TEST(OperationCodeNames, TellingRows) {
    ExpectRows(KEL::OperationCodeNames, {{1, "UNDEFINED"},
                                         {50000, "CREATE_LOGICAL_DRIVE"},
                                         {50064, "NONE"},
                                         {50108, "ADD_SERVER"},
                                         {50114, "TEST_CAS_CONNECTION"},
                                         {50115, "TEST_LDAP_CONNECTION"},
                                         {50117, "PAUSE_COPY_BACK"},
                                         {50121, "ENABLE_SSD_CACHING"},
                                         {50148, "ADD_LDAP_SERVER"},
                                         {50161, "DELETE_ARRAY_HOTSPARE"},
                                         {50500, "ADD_SERVER"}});
}

TEST(OperationCodeNames, AddServerKeepsBothCodes) {
    EXPECT_EQ(KEL::CodeTables::CodesOf(KEL::OperationCodeNames, "ADD_SERVER"), (std::vector<int>{50108, 50500}));
    EXPECT_EQ(KEL::OperationCodeNames.rbegin()->first, 50500);
}

TEST(OperationCodeNames, NumbersWithoutARowHaveNone) {
    for (int code : {50116, 50119, 50120})
        EXPECT_FALSE(NameOf(KEL::OperationCodeNames, code).has_value()) << code;
    EXPECT_EQ(RunsOf(KEL::OperationCodeNames),
              (Runs{{1, 1}, {50000, 50115}, {50117, 50118}, {50121, 50161}, {50500, 50500}}));
}

TEST(LayoutCodeNames, TellingRows) {
    ExpectRows(KEL::LayoutCodeNames, {{0, "FRAME_START"},
                                      {1, "UNDEFINED"},
                                      {2, "SEPARATOR_START"},
                                      {3, "SEPARATOR_END"},
                                      {29900, "RUI_PROPERTIES"},
                                      {29904, "RAID_LEVEL"},
                                      {29999, "DUMMY"},
                                      {30000, "MAJOR_VERSION"},
                                      {30045, "RAID_LEVEL"},
                                      {35000, "ADDR_00"},
                                      {35046, "SERVER"},
                                      {35047, "BASE_URL"},
                                      {35048, "URI_LOGIN"},
                                      {35049, "URI_SERVICEVALIDATE"},
                                      {35050, "DOMAIN"},
                                      {35100, "HEADING_ALL"},
                                      {35127, "HEADING_PROPERTY"},
                                      {35200, "BADBLOCK_LOG"},
                                      {2147483647, "UNSPECIFIED"}});
}

TEST(LayoutCodeNames, TheFirstRowOfASharedCodeWins) {
    EXPECT_EQ(KEL::LayoutCodeNames.at(1), "UNDEFINED");
    EXPECT_EQ(KEL::LayoutCodeNames.at(29900), "RUI_PROPERTIES");
    EXPECT_TRUE(KEL::CodeTables::CodesOf(KEL::LayoutCodeNames, "FRAME_END").empty());
    EXPECT_TRUE(KEL::CodeTables::CodesOf(KEL::LayoutCodeNames, "OBJECT_NAME").empty());
    // The dropped rows still advance the numbering: the rows behind them keep their places.
    EXPECT_EQ(KEL::LayoutCodeNames.at(2), "SEPARATOR_START");
    EXPECT_EQ(KEL::LayoutCodeNames.at(29901), "INTEGER_CONST");
}

TEST(LayoutCodeNames, TheLargestCodeIsTheLastEntry) {
    EXPECT_EQ(KEL::LayoutCodeNames.rbegin()->first, 2147483647);
    EXPECT_EQ(KEL::LayoutCodeNames.rbegin()->second, "UNSPECIFIED");
    EXPECT_EQ(KEL::LayoutCodeNames.upper_bound(2147483647), KEL::LayoutCodeNames.end());
}

TEST(LayoutCodeNames, ExactlySevenNamesStandTwice) {
    std::map<std::string_view, std::vector<int>> byName;
    for (const KEL::CODE_NAME& row : KEL::LayoutCodeNames)
        byName[row.second].push_back(row.first);
    std::map<std::string_view, std::vector<int>> repeated;
    for (const auto& [name, codes] : byName)
        if (codes.size() > 1)
            repeated.emplace(name, codes);
    ASSERT_EQ(repeated.size(), 7u);
    EXPECT_EQ(repeated["RAID_LEVEL"], (std::vector<int>{29904, 30045}));
    EXPECT_EQ(repeated["CACHE_SETTINGS"], (std::vector<int>{29905, 30334}));
    // The others stand once among the report properties and once among the report fields.
    EXPECT_EQ(repeated["TYPE"], (std::vector<int>{30056, 35044}));
    EXPECT_EQ(repeated["PRODUCT"], (std::vector<int>{30063, 35031}));
    EXPECT_EQ(repeated["SLOT"], (std::vector<int>{30224, 35040}));
    EXPECT_EQ(repeated["STARTTIME"], (std::vector<int>{30295, 35042}));
    EXPECT_EQ(repeated["REMAINING_RESERVE_SPACE"], (std::vector<int>{30486, 35034}));
}

TEST(LayoutCodeNames, NumbersWithoutARowHaveNone) {
    for (int code : {30528, 30546, 35126})
        EXPECT_FALSE(NameOf(KEL::LayoutCodeNames, code).has_value()) << code;
    EXPECT_EQ(RunsOf(KEL::LayoutCodeNames), (Runs{{0, 3},
                                                  {29900, 29908},
                                                  {29999, 30527},
                                                  {30529, 30545},
                                                  {30547, 30556},
                                                  {35000, 35050},
                                                  {35100, 35125},
                                                  {35127, 35129},
                                                  {35200, 35203},
                                                  {2147483647, 2147483647}}));
}

TEST(ValueCodeNames, TellingRows) {
    ExpectRows(KEL::ValueCodeNames, {{0, ""},
                                     {1, "UNDEFINED"},
                                     {40000, "ENABLED"},
                                     {40001, "DISABLED"},
                                     {40002, "SATA"},
                                     {40007, "RAID0"},
                                     {40664, "AUTOREPLACE"}});
    EXPECT_EQ(KEL::ValueCodeNames.rbegin()->first, 40664);
}

TEST(ValueCodeNames, CodeZeroIsPresentWithTheEmptyName) {
    const auto it = KEL::ValueCodeNames.find(0);
    ASSERT_NE(it, KEL::ValueCodeNames.end());
    EXPECT_TRUE(it->second.empty());
    EXPECT_EQ(it->second.data()[0], '\0');
    EXPECT_EQ(KEL::ValueCodeNames.count(0), 1u);
}

TEST(ValueCodeNames, TheOneLowerCaseNameKeepsItsSpelling) {
    EXPECT_EQ(KEL::ValueCodeNames.at(40339), "ADAPTER_STATUS_INFO_empty");
    EXPECT_EQ(KEL::ValueCodeNames.at(40338), "ADAPTER_STATUS_INFO_NOT_APPLICABLE");
    std::size_t lowerCase = 0;
    for (std::size_t k = 0; k < KEL::CodeTables::TableCount; ++k)
        for (const KEL::CODE_NAME& row : KEL::CodeTables::TableOf(static_cast<KEL::CodeTables::CODE_TABLE>(k)))
            lowerCase += std::any_of(row.second.begin(), row.second.end(), [](char c) { return c >= 'a' && c <= 'z'; });
    EXPECT_EQ(lowerCase, 1u);
}

TEST(ValueCodeNames, NumbersLeftToUnlistedRowsHaveNone) {
    for (int code : {40276, 40382, 40503, 40504, 40505, 40506, 40541, 40585})
        EXPECT_FALSE(NameOf(KEL::ValueCodeNames, code).has_value()) << code;
    EXPECT_EQ(RunsOf(KEL::ValueCodeNames), (Runs{{0, 1},
                                                 {40000, 40275},
                                                 {40277, 40381},
                                                 {40383, 40502},
                                                 {40507, 40540},
                                                 {40542, 40584},
                                                 {40586, 40664}}));
}

TEST(CodeTableNames, AreIdentifierWordsAndUniqueWhereNoRepeatIsIntended) {
    const std::pair<const CCodeTable*, size_t> cases[] = {
        {&KEL::ErrorCodeNames, 0}, {&KEL::EventCodeNames, 0}, {&KEL::OperationCodeNames, 1},
        {&KEL::LayoutCodeNames, 7}, {&KEL::ValueCodeNames, 0}};
    for (const auto& [table, repeats] : cases) {
        std::set<std::string_view> seen;
        size_t repeated = 0;
        for (const KEL::CODE_NAME& row : *table) {
            if (!seen.insert(row.second).second)
                ++repeated;
            if (table == &KEL::ValueCodeNames && row.first == 0)
                continue; // the one deliberately empty name
            ASSERT_FALSE(row.second.empty()) << row.first;
            EXPECT_NE(row.second.front(), '_') << row.second;
            EXPECT_NE(row.second.back(), '_') << row.second;
            EXPECT_EQ(row.second.find("__"), std::string_view::npos) << row.second;
            for (char c : row.second)
                EXPECT_TRUE((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_')
                    << row.second;
            EXPECT_EQ(row.second.data()[row.second.size()], '\0') << row.second;
        }
        EXPECT_EQ(repeated, repeats);
    }
}

} // namespace
