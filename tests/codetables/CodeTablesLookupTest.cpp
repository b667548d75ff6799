// Look-ups over the code tables in both directions, the map interface, and what two units of
// one program see.
#include "CodeTablesSecondUnit.h"

#include <kel/CodeTables.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace KEL::CodeTables;

const std::string g_FirstUnitEarlyName = std::string(KEL::LayoutCodeNames.at(2147483647));

TEST(CodeTablesAcrossUnits, TwoUnitsSeeEqualTables) {
    const auto second = SecondUnitTables();
    ASSERT_EQ(second.size(), TableCount);
    for (std::size_t k = 0; k < TableCount; ++k) {
        const KEL::CCodeTable& mine = TableOf(static_cast<CODE_TABLE>(k));
        ASSERT_EQ(second[k].size(), mine.size()) << KindName(static_cast<CODE_TABLE>(k));
        std::size_t i = 0;
        for (const auto& [code, name] : mine) {
            EXPECT_EQ(second[k][i].first, code);
            EXPECT_EQ(second[k][i].second, name);
            ++i;
        }
    }
}

TEST(CodeTablesAcrossUnits, TablesAreCompleteDuringOtherUnitsStaticInitialisation) {
    EXPECT_EQ(SecondUnitNameReadDuringStaticInit(), "BIOS_BOOT_MODE_COE");
    EXPECT_EQ(SecondUnitLayoutSizeReadDuringStaticInit(), 654u);
    EXPECT_EQ(g_FirstUnitEarlyName, "UNSPECIFIED");
}

TEST(CodeTableMap, FindAndBoundsBehaveLikeAnOrderedMap) {
    const KEL::CCodeTable& ops = KEL::OperationCodeNames;
    EXPECT_EQ(ops.find(50116), ops.end());
    EXPECT_EQ(ops.lower_bound(50116)->first, 50117);
    EXPECT_EQ(ops.upper_bound(50116)->first, 50117);
    EXPECT_EQ(ops.upper_bound(50117)->first, 50118);
    EXPECT_EQ(ops.lower_bound(-2147483647 - 1), ops.begin());
    EXPECT_EQ(ops.lower_bound(2), ops.find(50000));
    EXPECT_EQ(ops.lower_bound(50501), ops.end());
    const auto [from, to] = ops.equal_range(50108);
    ASSERT_EQ(to - from, 1);
    EXPECT_EQ(from->second, "ADD_SERVER");
    const auto [none, none2] = ops.equal_range(50119);
    EXPECT_EQ(none, none2);
    EXPECT_EQ(ops.count(50119), 0u);
    EXPECT_EQ(ops.count(50118), 1u);
}

TEST(CodeTableMap, BoundsAgreeWithTheStandardSearchAroundEveryEntryAndAtTheExtremes) {
    const auto less = [](const KEL::CODE_NAME& row, int code) { return row.first < code; };
    for (std::size_t k = 0; k < TableCount; ++k) {
        const KEL::CCodeTable& whole = TableOf(static_cast<CODE_TABLE>(k));
        // Every prefix length exercises a different shape of the search.
        for (std::size_t n : {std::size_t(1), std::size_t(2), std::size_t(3), std::size_t(7), std::size_t(64),
                              whole.size() - 1, whole.size()}) {
            const KEL::CCodeTable table(whole.begin(), n);
            std::vector<int> probes = {-2147483647 - 1, -1, 0, 2147483647};
            for (const KEL::CODE_NAME& row : table) {
                probes.push_back(row.first);
                if (row.first > -2147483647 - 1)
                    probes.push_back(row.first - 1);
                if (row.first < 2147483647)
                    probes.push_back(row.first + 1);
            }
            for (int code : probes) {
                const auto expected = std::lower_bound(table.begin(), table.end(), code, less);
                ASSERT_EQ(table.lower_bound(code), expected) << KindName(static_cast<CODE_TABLE>(k)) << " " << n << " " << code;
                ASSERT_EQ(table.find(code) != table.end(), expected != table.end() && expected->first == code);
            }
        }
    }
}

TEST(CodeTableMap, AtThrowsOutOfRangeForACodeWithoutRow) {
    EXPECT_THROW((void)KEL::ErrorCodeNames.at(20167), std::out_of_range);
    EXPECT_THROW((void)KEL::ValueCodeNames.at(-1), std::out_of_range);
    EXPECT_EQ(KEL::ErrorCodeNames.at(20166), "SSD_ONLY");
}

TEST(CodeTableMap, ReverseIterationStartsAtTheHighestCode) {
    auto it = KEL::EventCodeNames.rbegin();
    EXPECT_EQ(it->first, 12325);
    ++it;
    EXPECT_EQ(it->first, 12324);
    EXPECT_EQ(std::prev(KEL::EventCodeNames.rend())->first, 1);
}

TEST(CodeTableMap, TablesCompareByContent) {
    EXPECT_TRUE(KEL::EventCodeNames == KEL::EventCodeNames);
    EXPECT_FALSE(KEL::EventCodeNames == KEL::ValueCodeNames);
    // A view of a prefix differs from the whole table, and equals a view of the same prefix.
    const KEL::CCodeTable head(KEL::ErrorCodeNames.begin(), 10);
    const KEL::CCodeTable head2(KEL::ErrorCodeNames.begin(), 10);
    EXPECT_TRUE(head != KEL::ErrorCodeNames);
    EXPECT_TRUE(head == head2);
    const KEL::CCodeTable shifted(KEL::ErrorCodeNames.begin() + 1, 10);
    EXPECT_TRUE(head != shifted);
    const KEL::CCodeTable empty(nullptr, 0);
    EXPECT_TRUE(empty.empty());
    EXPECT_EQ(empty.find(0), empty.end());
    EXPECT_EQ(empty.lower_bound(0), empty.begin());
}

TEST(CodeTableLookup, NameOfTellsAnAbsentCodeFromAnEmptyName) {
    const auto zero = NameOf(KEL::ValueCodeNames, 0);
    ASSERT_TRUE(zero.has_value());
    EXPECT_EQ(*zero, "");
    EXPECT_FALSE(NameOf(KEL::ValueCodeNames, 2).has_value());
    EXPECT_FALSE(NameOf(KEL::ErrorCodeNames, 1).has_value());
    EXPECT_EQ(NameOf(KEL::ErrorCodeNames, 0), std::optional<std::string_view>("SUCCESS"));
}

TEST(CodeTableLookup, CodesOfAndCodeOfAreExactAndCaseSensitive) {
    EXPECT_EQ(CodesOf(KEL::LayoutCodeNames, "RAID_LEVEL"), (std::vector<int>{29904, 30045}));
    EXPECT_EQ(CodeOf(KEL::LayoutCodeNames, "RAID_LEVEL"), 29904);
    EXPECT_EQ(CodeOf(KEL::EventCodeNames, "PD_FAIL_EX"), 10559);
    EXPECT_FALSE(CodeOf(KEL::EventCodeNames, "pd_fail_ex").has_value());
    EXPECT_FALSE(CodeOf(KEL::EventCodeNames, "PD_FAIL_E").has_value());
    EXPECT_FALSE(CodeOf(KEL::EventCodeNames, "PD_FAIL_EX ").has_value());
    EXPECT_TRUE(CodesOf(KEL::ErrorCodeNames, "").empty());
    EXPECT_EQ(CodesOf(KEL::ValueCodeNames, ""), (std::vector<int>{0}));
}

TEST(CodeTableLookup, EveryNameLeadsBackToItsCode) {
    for (std::size_t k = 0; k < TableCount; ++k) {
        const KEL::CCodeTable& table = TableOf(static_cast<CODE_TABLE>(k));
        for (const auto& [code, name] : table) {
            const std::vector<int> codes = CodesOf(table, name);
            EXPECT_NE(std::find(codes.begin(), codes.end(), code), codes.end()) << name;
            EXPECT_EQ(NameOf(table, code), name);
        }
    }
}

TEST(CodeTableSearch, FindTableOfListsEveryTableHoldingTheCode) {
    const std::vector<CODE_MATCH> one = FindTableOf(1);
    ASSERT_EQ(one.size(), 4u);
    EXPECT_EQ(one[0].table, CT_Event);
    EXPECT_EQ(one[1].table, CT_Operation);
    EXPECT_EQ(one[2].table, CT_Layout);
    EXPECT_EQ(one[3].table, CT_Value);
    for (const CODE_MATCH& hit : one) {
        EXPECT_EQ(hit.code, 1);
        EXPECT_EQ(hit.name, "UNDEFINED");
    }

    const std::vector<CODE_MATCH> zero = FindTableOf(0);
    ASSERT_EQ(zero.size(), 3u);
    EXPECT_EQ(zero[0].name, "SUCCESS");
    EXPECT_EQ(zero[1].name, "FRAME_START");
    EXPECT_EQ(zero[2].table, CT_Value);
    EXPECT_EQ(zero[2].name, "");

    const std::vector<CODE_MATCH> op = FindTableOf(50500);
    ASSERT_EQ(op.size(), 1u);
    EXPECT_EQ(op[0].table, CT_Operation);
    EXPECT_TRUE(FindTableOf(20167).empty());
    EXPECT_TRUE(FindTableOf(-1).empty());
}

TEST(CodeTableSearch, FindNameListsEveryCodeInEveryTable) {
    const std::vector<CODE_MATCH> undefined = FindName("UNDEFINED");
    ASSERT_EQ(undefined.size(), 4u);
    for (const CODE_MATCH& hit : undefined)
        EXPECT_EQ(hit.code, 1);

    const std::vector<CODE_MATCH> server = FindName("ADD_SERVER");
    ASSERT_EQ(server.size(), 2u);
    EXPECT_EQ(server[0].code, 50108);
    EXPECT_EQ(server[1].code, 50500);

    EXPECT_TRUE(FindName("FRAME_END").empty());
    EXPECT_TRUE(FindName("OBJECT_NAME").empty());
    EXPECT_TRUE(FindName("NO_SUCH_NAME").empty());

    // An operation and a log view share this name; CLEAR_BADBLOCK_LOG does not match it.
    const std::vector<CODE_MATCH> badblock = FindName("BADBLOCK_LOG");
    ASSERT_EQ(badblock.size(), 2u);
    EXPECT_EQ(badblock[0].table, CT_Operation);
    EXPECT_EQ(badblock[1].table, CT_Layout);
    EXPECT_EQ(badblock[1].code, 35200);
}

TEST(CodeTableKinds, KindNamesRoundTripIgnoringCase) {
    for (std::size_t k = 0; k < TableCount; ++k) {
        const CODE_TABLE kind = static_cast<CODE_TABLE>(k);
        EXPECT_EQ(KindFromName(KindName(kind)), kind);
    }
    EXPECT_EQ(KindFromName("event"), CT_Event);
    EXPECT_EQ(KindFromName("Operation"), CT_Operation);
    EXPECT_FALSE(KindFromName("EVENTS").has_value());
    EXPECT_FALSE(KindFromName("").has_value());
    EXPECT_FALSE(KindFromName("EVEN").has_value());
    EXPECT_EQ(&TableOf(CT_Layout), &KEL::LayoutCodeNames);
}

} // namespace
