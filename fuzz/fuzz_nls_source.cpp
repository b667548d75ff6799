// kelbase - fuzz/fuzz_nls_source.cpp
//
// The readable language source of the kelnls tool: any text is parsed; whatever is accepted
// must survive writing it out and reading it back unchanged, and its binary file must pass the
// library's own checks.
#include "../tools/kelnls/NlsSource.cpp"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<kelnls::LANGUAGE> languages;
    std::string error;
    if (!kelnls::ParseSource(text, 0, languages, error)) {
        if (error.empty()) std::abort();
        return 0;
    }
    // Strings holding NUL cannot be stored in the binary layout; the parser must refuse them.
    for (const kelnls::LANGUAGE& l : languages)
        for (const std::string& s : l.strings)
            if (s.find('\0') != std::string::npos) std::abort();
    std::vector<kelnls::LANGUAGE> again;
    if (!kelnls::ParseSource(kelnls::WriteSource(languages, "round trip"), 0, again, error)) std::abort();
    if (kelnls::BuildNls(again) != kelnls::BuildNls(languages)) std::abort();
    return 0;
}
