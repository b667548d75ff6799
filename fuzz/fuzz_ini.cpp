// kelbase - fuzz/fuzz_ini.cpp
//
// The INI reader on arbitrary bytes: parse, then ask for what a program would ask for (the
// first key of each section by name, numbers, switches and lists), checking that a parsed
// key is found again under its own name.
#include <kel/IniFiles.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    KEL::INI_Files::CIniFile ini;
    ini.Parse(KEL::Strings::CSubStringRef(reinterpret_cast<const char*>(data), size));
    KEL::INI_Files::CIniList names;
    ini.GetSectionNames(names);
    if (names.Count() != ini.GetSectionCount()) std::abort();
    for (size_t i = 0; i < ini.GetSectionCount(); ++i) {
        const KEL::INI_Files::CIniSection& s = ini.GetSection(i);
        const KEL::Strings::CSubStringRef section(s.GetName().data(), s.GetName().size());
        if (ini.FindSection(section) != &s) std::abort();
        for (size_t k = 0; k < s.GetKeyCount(); ++k) {
            const std::string& key = s.GetKey(k).GetName();
            const KEL::Strings::CSubStringRef name(key.data(), key.size());
            const KEL::INI_Files::CIniKey* found = s.FindKey(name);
            if (!found || found->GetValue() != ini.GetValue(section, name, "\x01missing")) std::abort();
            (void)ini.GetInt(section, name, 0);
            (void)ini.GetBool(section, name, false);
            KEL::INI_Files::CIniList items;
            ini.GetList(section, name, items);
            if (items.Count() == 0) std::abort();
        }
    }
    return 0;
}
