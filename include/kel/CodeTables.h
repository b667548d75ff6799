// kelbase - CodeTables.h
//
// The suite's five code tables: error, event, operation, layout and value codes with their
// symbolic names. Logs, language files and command output show and accept the name instead of
// the number; the numbers themselves travel as message identifiers and protocol codes.
//
// Each table is an ordered, read-only map from a signed 32-bit code to a name (upper-case ASCII
// words joined by underscores; value code 0 has the empty name, and value 40339 keeps its
// lower-case last word, "ADAPTER_STATUS_INFO_empty", as the suite has always spelt it). It is made from the row lists
// in CodeTables.inc, in list order: a row is numbered one above the row before it unless it
// carries its own number, which starts a new run; when two rows carry the same code the first
// one stays; two codes may share a name and both keep it; iteration runs by ascending code.
//
// The tables are computed by the compiler and live in read-only data. Nothing runs at start-up,
// nothing is allocated, and every unit of a program sees the same contents, so the header costs
// a program nothing until it reads a table. Reading is safe from any thread at any time,
// including from other units' static initialisers.
#pragma once

#include <cstddef>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

namespace KEL {

/// One entry of a code table. The member names follow std::map's value_type, so
/// `it->first`, `it->second` and `auto [code, name] = *it` read as they would on a map.
/// `second.data()` is NUL-terminated.
struct CODE_NAME {
    int first;                ///< the code
    std::string_view second;  ///< its symbolic name
};

/// A read-only ordered map from code to name, with the const interface of std::map<int, name>.
/// Copying a CCodeTable copies a view: both refer to the same rows.
class CCodeTable {
public:
    using key_type = int;
    using mapped_type = std::string_view;
    using value_type = CODE_NAME;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using const_reference = const CODE_NAME&;
    using reference = const_reference;
    using const_pointer = const CODE_NAME*;
    using pointer = const_pointer;
    using const_iterator = const CODE_NAME*;
    using iterator = const_iterator;
    using const_reverse_iterator = std::reverse_iterator<const_iterator>;
    using reverse_iterator = const_reverse_iterator;

    constexpr CCodeTable(const CODE_NAME* rows, size_type count) noexcept : m_pRows(rows), m_nCount(count) {}

    constexpr const_iterator begin() const noexcept { return m_pRows; }
    constexpr const_iterator end() const noexcept { return m_pRows + m_nCount; }
    constexpr const_iterator cbegin() const noexcept { return begin(); }
    constexpr const_iterator cend() const noexcept { return end(); }
    const_reverse_iterator rbegin() const noexcept { return const_reverse_iterator(end()); }
    const_reverse_iterator rend() const noexcept { return const_reverse_iterator(begin()); }

    constexpr size_type size() const noexcept { return m_nCount; }
    constexpr bool empty() const noexcept { return m_nCount == 0; }

    /// The first entry whose code is not below `code`. A binary search whose steps do not
    /// branch on the comparison: random look-ups would mispredict half of them.
    constexpr const_iterator lower_bound(int code) const noexcept {
        if (m_nCount == 0)
            return m_pRows;
        const_iterator base = m_pRows;
        size_type count = m_nCount;
        while (count > 1) {
            const size_type half = count / 2;
            base += (base[half].first < code) ? half : 0;
            count -= half;
        }
        return base + (base->first < code ? 1 : 0);
    }
    /// The first entry whose code is above `code`.
    constexpr const_iterator upper_bound(int code) const noexcept {
        const_iterator it = lower_bound(code);
        return (it != end() && it->first == code) ? it + 1 : it;
    }
    constexpr std::pair<const_iterator, const_iterator> equal_range(int code) const noexcept {
        return {lower_bound(code), upper_bound(code)};
    }
    /// The entry of `code`, or end().
    constexpr const_iterator find(int code) const noexcept {
        const_iterator it = lower_bound(code);
        return (it != end() && it->first == code) ? it : end();
    }
    constexpr size_type count(int code) const noexcept { return find(code) != end() ? 1 : 0; }
    constexpr bool contains(int code) const noexcept { return find(code) != end(); }
    /// The name of `code`; throws std::out_of_range when the table has no such code, as std::map does.
    std::string_view at(int code) const {
        const_iterator it = find(code);
        if (it == end())
            throw std::out_of_range("code table has no such code");
        return it->second;
    }

    /// Equal when both hold the same codes with the same names.
    friend constexpr bool operator==(const CCodeTable& a, const CCodeTable& b) noexcept {
        if (a.m_nCount != b.m_nCount)
            return false;
        for (size_type i = 0; i < a.m_nCount; ++i)
            if (a.m_pRows[i].first != b.m_pRows[i].first || a.m_pRows[i].second != b.m_pRows[i].second)
                return false;
        return true;
    }
    friend constexpr bool operator!=(const CCodeTable& a, const CCodeTable& b) noexcept { return !(a == b); }

private:
    const CODE_NAME* m_pRows;
    size_type m_nCount;
};

namespace Internals {
namespace CodeTables {

/// One row of a code list as written: a name and, when the row starts a new run, its number.
/// The name's length comes from the literal's type: measuring 3000 names during constant
/// evaluation would add a noticeable share to the compile time of every unit.
struct CODE_ROW {
    const char* name;
    std::size_t length;
    int code;
    bool startsRun;

    /// A row numbered one above the row before it.
    template <std::size_t L>
    constexpr CODE_ROW(const char (&rowName)[L]) noexcept : name(rowName), length(L - 1), code(0), startsRun(false) {}
    /// A row with its own number.
    template <std::size_t L>
    constexpr CODE_ROW(const char (&rowName)[L], int rowCode) noexcept
        : name(rowName), length(L - 1), code(rowCode), startsRun(true) {}
};

#include <kel/CodeTables.inc>

/// The rows of a list, numbered, with repeated codes dropped, sorted by code: the first
/// `count` entries of `rows` are the table. Plain arrays keep constant evaluation quick.
template <std::size_t N>
struct SORTED_ROWS {
    CODE_NAME rows[N]{};
    std::size_t count = 0;
};

/// Numbers the rows and sorts them by insertion. The lists are ascending apart from a few rows
/// placed late on purpose, so each insertion walks back only a short way. A row numbered past
/// the largest code stops the build.
template <std::size_t N>
constexpr SORTED_ROWS<N> Number(const CODE_ROW (&list)[N]) {
    SORTED_ROWS<N> out{};
    long long next = 0;
    for (std::size_t i = 0; i < N; ++i) {
        const long long wanted = list[i].startsRun ? list[i].code : next;
        if (wanted > 2147483647LL)
            throw std::out_of_range("a code row runs past the largest code");
        const int code = static_cast<int>(wanted);
        next = wanted + 1;
        std::size_t pos = out.count;
        while (pos > 0 && out.rows[pos - 1].first > code)
            --pos;
        if (pos > 0 && out.rows[pos - 1].first == code)
            continue; // the first row with a code keeps it
        for (std::size_t j = out.count; j > pos; --j)
            out.rows[j] = out.rows[j - 1];
        out.rows[pos] = CODE_NAME{code, std::string_view(list[i].name, list[i].length)};
        ++out.count;
    }
    return out;
}

inline constexpr SORTED_ROWS<std::size(ErrorCodeRows)> ErrorSorted = Number(ErrorCodeRows);
inline constexpr SORTED_ROWS<std::size(EventCodeRows)> EventSorted = Number(EventCodeRows);
inline constexpr SORTED_ROWS<std::size(OperationCodeRows)> OperationSorted = Number(OperationCodeRows);
inline constexpr SORTED_ROWS<std::size(LayoutCodeRows)> LayoutSorted = Number(LayoutCodeRows);
inline constexpr SORTED_ROWS<std::size(ValueCodeRows)> ValueSorted = Number(ValueCodeRows);

} // namespace CodeTables
} // namespace Internals

/// Result and error codes: "SUCCESS" (0) and 20000 upward.
inline constexpr CCodeTable ErrorCodeNames{Internals::CodeTables::ErrorSorted.rows, Internals::CodeTables::ErrorSorted.count};
/// Events: connection events 1-5, controller events from 10000.
inline constexpr CCodeTable EventCodeNames{Internals::CodeTables::EventSorted.rows, Internals::CodeTables::EventSorted.count};
/// Operations: "UNDEFINED" (1) and 50000 upward; the request codes of the message channel.
inline constexpr CCodeTable OperationCodeNames{Internals::CodeTables::OperationSorted.rows,
                                               Internals::CodeTables::OperationSorted.count};
/// Layout elements of reports: frame markers 0-3, properties, fields, headings, log views.
inline constexpr CCodeTable LayoutCodeNames{Internals::CodeTables::LayoutSorted.rows, Internals::CodeTables::LayoutSorted.count};
/// Property values: the empty name (0), "UNDEFINED" (1) and 40000 upward.
inline constexpr CCodeTable ValueCodeNames{Internals::CodeTables::ValueSorted.rows, Internals::CodeTables::ValueSorted.count};

/// Look-ups over the code tables, for the programs of the suite.
namespace CodeTables {

/// The five tables, in the order they are searched.
enum CODE_TABLE : unsigned char { CT_Error, CT_Event, CT_Operation, CT_Layout, CT_Value };
inline constexpr std::size_t TableCount = 5;

/// The table of a kind.
constexpr const CCodeTable& TableOf(CODE_TABLE table) noexcept {
    switch (table) {
    case CT_Error: return ErrorCodeNames;
    case CT_Event: return EventCodeNames;
    case CT_Operation: return OperationCodeNames;
    case CT_Layout: return LayoutCodeNames;
    case CT_Value: break;
    }
    return ValueCodeNames;
}

/// A short upper-case word for a kind ("ERROR", "EVENT", "OPERATION", "LAYOUT", "VALUE").
constexpr std::string_view KindName(CODE_TABLE table) noexcept {
    switch (table) {
    case CT_Error: return "ERROR";
    case CT_Event: return "EVENT";
    case CT_Operation: return "OPERATION";
    case CT_Layout: return "LAYOUT";
    case CT_Value: break;
    }
    return "VALUE";
}

/// The kind a word of KindName names, compared without regard to case; none for other words.
constexpr std::optional<CODE_TABLE> KindFromName(std::string_view word) noexcept {
    for (std::size_t k = 0; k < TableCount; ++k) {
        const std::string_view known = KindName(static_cast<CODE_TABLE>(k));
        if (known.size() != word.size())
            continue;
        bool same = true;
        for (std::size_t i = 0; i < word.size() && same; ++i) {
            char c = word[i];
            if (c >= 'a' && c <= 'z')
                c = static_cast<char>(c - 'a' + 'A');
            same = c == known[i];
        }
        if (same)
            return static_cast<CODE_TABLE>(k);
    }
    return std::nullopt;
}

/// The name of `code` in `table`, or none when the table has no such code. A present code may
/// have the empty name (value code 0), so test the result, not its emptiness. The view stays
/// valid for the life of the program and its data() is NUL-terminated. O(log n).
constexpr std::optional<std::string_view> NameOf(const CCodeTable& table, int code) noexcept {
    const CCodeTable::const_iterator it = table.find(code);
    if (it == table.end())
        return std::nullopt;
    return it->second;
}

/// Every code of `table` named `name` (exact, case-sensitive), ascending; empty when there is
/// none. A name stands under more than one code in some tables ("ADD_SERVER" among the
/// operations). O(n).
inline std::vector<int> CodesOf(const CCodeTable& table, std::string_view name) {
    std::vector<int> codes;
    for (const CODE_NAME& row : table)
        if (row.second == name)
            codes.push_back(row.first);
    return codes;
}

/// The lowest code of `table` named `name`, or none. O(n).
constexpr std::optional<int> CodeOf(const CCodeTable& table, std::string_view name) noexcept {
    for (const CODE_NAME& row : table)
        if (row.second == name)
            return row.first;
    return std::nullopt;
}

/// One hit of a search over all tables.
struct CODE_MATCH {
    CODE_TABLE table;
    int code;
    std::string_view name;
};

/// Every table that holds `code`, with the name it has there, in CODE_TABLE order. Codes are
/// shared between tables at their low end (1 is "UNDEFINED" in four of them).
inline std::vector<CODE_MATCH> FindTableOf(int code) {
    std::vector<CODE_MATCH> hits;
    for (std::size_t k = 0; k < TableCount; ++k) {
        const CODE_TABLE kind = static_cast<CODE_TABLE>(k);
        if (const std::optional<std::string_view> name = NameOf(TableOf(kind), code))
            hits.push_back(CODE_MATCH{kind, code, *name});
    }
    return hits;
}

/// Every (table, code) whose name is exactly `name`, in CODE_TABLE order and by ascending code.
inline std::vector<CODE_MATCH> FindName(std::string_view name) {
    std::vector<CODE_MATCH> hits;
    for (std::size_t k = 0; k < TableCount; ++k) {
        const CODE_TABLE kind = static_cast<CODE_TABLE>(k);
        for (const CODE_NAME& row : TableOf(kind))
            if (row.second == name)
                hits.push_back(CODE_MATCH{kind, row.first, row.second});
    }
    return hits;
}

} // namespace CodeTables
} // namespace KEL
