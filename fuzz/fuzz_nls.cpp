// kelbase - fuzz/fuzz_nls.cpp
//
// The binary language file reader: any bytes as a ".nls" file go through CLngFile::Open and, when
// accepted, every entry through LoadStrings; every string handed out is read to its end.
#include <kel/Exceptions.h>
#include <kel/LanguageSupport.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

class CFuzzFile : public KEL::Language_Support::CLngFile {
public:
    explicit CFuzzFile(unsigned long long count)
        : CLngFile("fuzz.nls", KEL::Language_Support::Default_Language_ID, "English", 1, nullptr, count) {}
    using CLngFile::LoadStrings;
    using CLngFile::Open;
    const KEL::Language_Support::LNGDATA& Entry(size_t i) const { return m_pEntries[i]; }
};

const std::string& ScratchFile() {
    static const std::string path = [] {
        char name[] = "/tmp/kel-fuzz-nls-XXXXXX";
        int fd = ::mkstemp(name);
        if (fd < 0) std::abort();
        ::close(fd);
        return std::string(name);
    }();
    return path;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& path = ScratchFile();
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return 0;
    if (size) std::fwrite(data, 1, size, f);
    std::fclose(f);

    // Usually the count the file states, so that the deeper checks are reached; a small cap
    // keeps the string tables of the fuzzed entries small.
    unsigned long long count = 3;
    if (size >= 8) {
        unsigned long long stated = data[4] | (data[5] << 8) | (data[6] << 16) | (static_cast<unsigned long long>(data[7]) << 24);
        if (stated <= 4096 && (data[size - 1] & 0x80) == 0) count = stated;
    }
    CFuzzFile file(count);
    if (file.Open(path.c_str())) {
        for (size_t i = 1; i < file.GetEntryCount(); ++i) {
            try {
                file.LoadStrings(i);
            } catch (const KEL::Exceptions::CKelException&) {
                continue;
            }
            const KEL::Language_Support::LNGDATA& e = file.Entry(i);
            size_t total = 0;
            for (unsigned long long k = 0; k < count; ++k) total += std::strlen(e.strings[k]) + 1;
            if (total != e.size) std::abort(); // the strings must fill the block exactly
        }
    }
    KEL::Exceptions::ThreadErrorLog().Clear();
    return 0;
}
