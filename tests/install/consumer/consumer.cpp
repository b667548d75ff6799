// A program outside the kelbase tree, built against an installed kelbase: formatting, the
// module registry with every built-in module, a status text, a code table and a failure read
// back from the thread's error log. The install test compares its output line by line.
#include <kel/kelbase.h>

#include <cstdio>

int main() {
    KEL::Strings::TString<64> line;
    line.Format("%-.10s|%+ 6d|") << "module" << 42;
    std::printf("format %s\n", line.C_Str());

    // Each built-in module registers itself from a static initialiser of its own unit; a
    // static link that drops those units would lose them.
    for (unsigned int id = 1; id <= 4; ++id) {
        const KEL::Misc::CModuleInfo* module = KEL::Functions::GetModuleInfo(id);
        std::printf("module %u %s\n", id, module ? module->GetModuleName() : "(missing)");
    }
    KEL::Strings::CStringVar text;
    KEL::KEL_MODULE_INFO_KelLib.GetErrorMsg(text, 0x2001002Cu);
    std::printf("status 0x2001002C %s\n", text.C_Str());

    const std::optional<std::string_view> name = KEL::CodeTables::NameOf(KEL::OperationCodeNames, 50108);
    std::printf("operation 50108 %.*s\n", name ? static_cast<int>(name->size()) : 0,
                name ? name->data() : "");

    KEL::Strings::CStringVar latin1;
    const unsigned int status = latin1.CopyFromUTF8("\xE2\x82\xAC");
    std::printf("status of CopyFromUTF8 0x%08X\n", status);
    std::printf("version %s\n", KEL::KEL_MODULE_INFO_KelLib.GetVersionInfo());
    return 0;
}
