// The judgement of a CAS server's plain-text answer (the first TLS record of its reply, cut at
// 512 bytes and at the first NUL, as the connection test reads it). Any bytes: no crash, the
// result is 1 or 135, and an answer that holds the rejection after a blank line is always 1.
#include "LDAP/CasAnswer.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    char answer[513];
    const size_t n = size < 512 ? size : 512;
    std::memcpy(answer, data, n);
    answer[n] = '\0';
    const unsigned int r = KEL::Internals::JudgePlainCasAnswer(answer);
    if (r != 1 && r != 135) __builtin_trap();
    const size_t length = std::strlen(answer);
    if (length + 7 <= 512) {
        std::string rejected(answer, length);
        rejected += "\r\n\r\nno\n";
        if (KEL::Internals::JudgePlainCasAnswer(rejected.c_str()) != 1) __builtin_trap();
    }
    return 0;
}
