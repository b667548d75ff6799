// kelcode's argument reader and look-ups on arbitrary command-line words. Each input is cut
// into words at NUL and newline bytes; every word goes through the number reader, which is
// checked against strtoll/strtoull, and then through the look-up the tool would run.
#include "Lookup.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

namespace {

// Whether `word` is in the reader's grammar: an optional '-', then decimal digits, or 0x/0X
// and hexadecimal digits.
bool InGrammar(const std::string& word, int& base, std::string& digits) {
    size_t i = (!word.empty() && word[0] == '-') ? 1 : 0;
    base = 10;
    if (word.size() > i + 2 && word[i] == '0' && (word[i + 1] == 'x' || word[i + 1] == 'X')) {
        base = 16;
        i += 2;
    }
    digits = word.substr(i);
    if (digits.empty()) return false;
    for (char c : digits) {
        const bool dec = c >= '0' && c <= '9';
        const bool hex = (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
        if (!dec && !(base == 16 && hex)) return false;
    }
    return true;
}

void CheckNumber(const std::string& word) {
    const std::optional<long long> got = kelcode::ParseNumber(word);
    int base = 10;
    std::string digits;
    if (!InGrammar(word, base, digits)) {
        if (got) std::abort(); // accepted something outside its grammar
        return;
    }
    errno = 0;
    char* end = nullptr;
    const unsigned long long magnitude = std::strtoull(digits.c_str(), &end, base);
    const bool fits = errno == 0 && *end == '\0' && magnitude <= static_cast<unsigned long long>(LLONG_MAX);
    if (fits != got.has_value()) std::abort();
    if (!fits) return;
    const long long expected =
        word[0] == '-' ? -static_cast<long long>(magnitude) : static_cast<long long>(magnitude);
    if (*got != expected) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string word;
    for (size_t i = 0; i <= size; ++i) {
        if (i < size && data[i] != 0 && data[i] != '\n') {
            word.push_back(static_cast<char>(data[i]));
            continue;
        }
        if (word.empty() || word.size() > 64) {
            word.clear();
            continue;
        }
        CheckNumber(word);
        std::ostringstream out, err;
        if (const std::optional<long long> number = kelcode::ParseNumber(word)) {
            const bool found = kelcode::DescribeNumber(out, err, *number, std::nullopt);
            // Every answer goes to exactly one of the two streams.
            if (found == out.str().empty() || (!found && err.str().empty())) std::abort();
            if (*number >= 0 && *number <= 0xFFFFFFFFll)
                (void)kelcode::DescribeStatus(out, err, static_cast<unsigned int>(*number));
        } else {
            const bool found = kelcode::DescribeName(out, err, word, std::nullopt);
            if (found == out.str().empty() || (!found && err.str().empty())) std::abort();
        }
        word.clear();
    }
    return 0;
}
