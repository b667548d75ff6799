// kelbase - tools/kelnls/main.cpp
//
// kelnls: makes the binary language files that modules read their message texts from.
//
//     kelnls build <source> <file.nls> [--count N]   readable source -> binary file
//     kelnls dump <file.nls> [--count N]             checks a file as the library does and
//                                                    prints it as source
//
// --count is the number of strings the module was built with; without it build takes the
// first language's count and dump the count the file states. Exit status: 0 done, 1 usage or
// I/O error, 2 the source or the file is invalid.
#include "NlsSource.h"

#include <kel/Exceptions.h>
#include <kel/LanguageSupport.h>
#include <kel/OutputStreams.h>
#include <kel/Threading.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

namespace {

int Usage() {
    std::cerr << "usage: kelnls build <source> <file.nls> [--count N]\n"
                 "       kelnls dump <file.nls> [--count N]\n";
    return 1;
}

bool ReadFile(const char* path, std::string& content) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream s;
    s << in.rdbuf();
    content = s.str();
    return true;
}

// The library's own reader: a dump accepts exactly what a module would accept.
class CCheckedFile : public KEL::Language_Support::CLngFile {
public:
    explicit CCheckedFile(unsigned long long count)
        : CLngFile("", KEL::Language_Support::Default_Language_ID, "", 1, nullptr, count) {}
    using CLngFile::LoadStrings;
    using CLngFile::Open;
    const KEL::Language_Support::LNGDATA& Entry(size_t i) const { return m_pEntries[i]; }
};

std::string RenderThreadLog() {
    KEL::Strings::TString<1024> text;
    text.Format("%s") << KEL::Exceptions::ThreadErrorLog();
    return std::string(text.C_Str(), text.Length());
}

int Build(const char* sourcePath, const char* outPath, unsigned long long count) {
    std::string source;
    if (!ReadFile(sourcePath, source)) {
        std::cerr << "kelnls: cannot read " << sourcePath << ": " << std::strerror(errno) << "\n";
        return 1;
    }
    std::vector<kelnls::LANGUAGE> languages;
    std::string error;
    if (!kelnls::ParseSource(source, count, languages, error)) {
        std::cerr << sourcePath << ": " << error << "\n";
        return 2;
    }
    std::string bytes = kelnls::BuildNls(languages);
    std::ofstream out(outPath, std::ios::binary | std::ios::trunc);
    if (!out.write(bytes.data(), static_cast<std::streamsize>(bytes.size())) || !out.flush()) {
        std::cerr << "kelnls: cannot write " << outPath << "\n";
        return 1;
    }
    std::cout << outPath << ": " << languages.size() << " languages, " << languages[0].strings.size()
              << " strings each, " << bytes.size() << " bytes\n";
    return 0;
}

int Dump(const char* path, unsigned long long count) {
    if (count == 0) {
        // The count the file states; Open then checks everything else against it.
        std::FILE* f = std::fopen(path, "rb");
        if (!f) {
            std::cerr << "kelnls: cannot open " << path << ": " << std::strerror(errno) << "\n";
            return 1;
        }
        unsigned char head[8] = {};
        size_t got = std::fread(head, 1, sizeof(head), f);
        std::fclose(f);
        if (got != sizeof(head)) {
            std::cerr << path << ": not a language file (shorter than its header)\n";
            return 2;
        }
        count = head[4] | (head[5] << 8) | (head[6] << 16) | (static_cast<unsigned long long>(head[7]) << 24);
    }
    CCheckedFile file(count);
    if (!file.Open(path)) {
        std::cerr << path << ": rejected\n" << RenderThreadLog();
        return 2;
    }
    std::vector<kelnls::LANGUAGE> languages;
    for (size_t i = 1; i < file.GetEntryCount(); ++i) {
        try {
            file.LoadStrings(i);
        } catch (const KEL::Exceptions::CKelException&) {
            std::cerr << path << ": entry " << i << " rejected\n" << RenderThreadLog();
            return 2;
        }
        const KEL::Language_Support::LNGDATA& e = file.Entry(i);
        kelnls::LANGUAGE l;
        l.languageId = e.languageId;
        l.name = e.name;
        l.utf8 = e.isUtf8 != 0;
        for (unsigned long long k = 0; k < count; ++k) l.strings.emplace_back(e.strings[k]);
        languages.push_back(std::move(l));
    }
    std::cout << kelnls::WriteSource(languages, std::string("kelnls dump of ") + path + ": " +
                                                   std::to_string(languages.size()) + " languages, " +
                                                   std::to_string(count) + " strings each");
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) return Usage();
    std::string command = argv[1];
    unsigned long long count = 0;
    int positional = command == "build" ? 2 : 1;
    if (argc != 2 + positional && argc != 4 + positional) return Usage();
    if (argc == 4 + positional) {
        if (std::strcmp(argv[2 + positional], "--count") != 0) return Usage();
        char* end = nullptr;
        count = std::strtoull(argv[3 + positional], &end, 10);
        if (!end || *end != '\0' || count == 0 || count > 0xFFFFFFFFull) return Usage();
    }
    if (command == "build") return Build(argv[2], argv[3], count);
    if (command == "dump") return Dump(argv[2], count);
    return Usage();
}
