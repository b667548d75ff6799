// kelbase - fuzz/fuzz_nls_xml.cpp
//
// The XML language loader: any bytes as "de.xml" in a language folder are listed, their LOCALE
// read, and, when the language is accepted, its labels loaded and resolved.
#include <kel/LanguageSupport.h>
#include <kel/Exceptions.h>
#include <kel/Misc.h>

#include <boost/filesystem.hpp>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const boost::filesystem::path& Folder() {
    static const boost::filesystem::path folder = [] {
        boost::filesystem::path p =
            boost::filesystem::unique_path(boost::filesystem::temp_directory_path() / "kel-fuzz-xml-%%%%-%%%%");
        boost::filesystem::create_directories(p);
        // Trace points on: the trace lines of bad files are formatted too (and then dropped).
        KEL::KEL_MODULE_INFO_KelLib.SetTrcPoints(0x40000000u);
        return p;
    }();
    return folder;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string file = (Folder() / "de.xml").string();
    std::FILE* f = std::fopen(file.c_str(), "wb");
    if (!f) return 0;
    if (size) std::fwrite(data, 1, size, f);
    std::fclose(f);

    KEL::Language_Support::CXMLLanguages languages;
    languages.Build(Folder());
    const unsigned int labels[] = {1u, 2u, 19998u, 35600u, 35602u, 40605u, 2147483647u, 99999u};
    for (size_t i = 0; i < languages.size(); ++i) {
        for (unsigned int label : labels) {
            size_t length = 0;
            const char* text = languages.Resolve(label, languages[i].m_uLanguageId, length);
            if (!text || std::strlen(text) != length) std::abort();
        }
    }
    return 0;
}
