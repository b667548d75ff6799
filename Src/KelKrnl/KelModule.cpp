// kelbase - Src/KelKrnl/KelModule.cpp
//
// The library's own module (id 1, "kelbase") and its message texts. The texts are the
// compiled-in entry of kelbase's language file: the string with index n is the text of status
// 0x20010000 + n, and index 98 is the text for a status that has no text of its own.
#define KEL_SOURCE_FILE "Src/KelKrnl"
#include <kel/LanguageSupport.h>
#include <kel/Misc.h>

#include "KelKrnl/KelModule.h"

#include <ctime>

namespace KEL {
namespace Internals {

namespace {

struct MESSAGE {
    unsigned int number;
    const char* text;
};

// The library's status codes and their texts.
constexpr MESSAGE kMessages[] = {
    {0x07, "Trace instance already open"},
    {0x0a, "Corrupt language file"},
    {0x0f, "Out of memory"},
    {0x10, "Bad format"},
    {0x16, "Can't initalize a synchronization object"},
    {0x17, "General operating system error"},
    {0x18, "Synchronization object not initialized"},
    {0x1a, "General synchronization object error"},
    {0x1b, "Bad field number in format order"},
    {0x1c, "Can't resolve host address"},
    {0x1d, "No address information available"},
    {0x1e, "Socket is not connected"},
    {0x1f, "Error in socket function"},
    {0x20, "Socket already connected"},
    {0x22, "Socket timeout"},
    {0x24, "Socket connection closed by peer"},
    {0x25, "Socket is not listening"},
    {0x26, "Socket protocol error - bad command"},
    {0x27, "Wrong socket state"},
    {0x28, "Socket out of sync"},
    {0x29, "Integer out of range"},
    {0x2a, "Socket already in error state"},
    {0x2b, "Socket already attached"},
    {0x2c, "Protocol error"},
    {0x2d, "Connection rejected"},
    {0x2e, "Connection refused"},
    {0x2f, "Data missing"},
    {0x30, "Can't allocated thread local storage"},
    {0x31, "Thread is still running"},
    {0x32, "Can't start thread"},
    {0x33, "No thread started"},
    {0x34, "Thread already stopped"},
    {0x35, "Object already in error state"},
    {0x36, "Max count reached"},
    {0x37, "Invalid handle"},
    {0x38, "Synchronization object already initialized"},
    {0x39, "Can't create synchronization object"},
    {0x3a, "Thread interrupt"},
    {0x3b, "Wait interrupt"},
    {0x3c, "Pool already initialized"},
    {0x3d, "Pool not initialized"},
    {0x41, "Status code of an unknown module"},
    {0x42, "Can't initialize SSL library"},
    {0x43, "Can't allocate SSL key"},
    {0x44, "Can't assign RSA key"},
    {0x45, "Can't generate RSA key"},
    {0x46, "Can't read SSL key"},
    {0x47, "Can't export SSL key"},
    {0x48, "Can't allocate SSL certificate"},
    {0x49, "Can't read SSL certificate"},
    {0x4a, "Can't set certificate name"},
    {0x4b, "Can't sign certificate"},
    {0x4c, "Can't add certificate extension"},
    {0x4d, "Can't export SSL certificate"},
    {0x4e, "Bad SSL certification data"},
    {0x4f, "Can't set SSL private key"},
    {0x50, "Can't set SSL certificate"},
    {0x51, "SSL private key does not match certificate"},
    {0x52, "Can't create session context"},
    {0x53, "Can't add SSL session"},
    {0x54, "Bad cipher key"},
    {0x55, "Can't encrypt text"},
    {0x56, "Can't decrypt text"},
    {0x57, "SSL can't accept"},
    {0x58, "SSL can't connect"},
    {0x59, "SSL can't read"},
    {0x5a, "SSL can't shutdown"},
    {0x5b, "SSL can't write"},
    {0x5c, "SSL error"},
    {0x5d, "Socket is already secure"},
    {0x5e, "Can't allocate SSL handle"},
    {0x5f, "Can't reuse SSL session"},
    {0x60, "Text is not acceptable UTF-8"},
};

constexpr size_t kStringCount = kUnknownCodeText + 1;

struct CTables {
    const char* strings[kStringCount];
    Language_Support::ERROR_MSG_LIST list[sizeof kMessages / sizeof kMessages[0] + 1];

    constexpr CTables() : strings{}, list{} {
        for (size_t i = 0; i < kStringCount; ++i) strings[i] = "";
        size_t n = 0;
        for (const MESSAGE& m : kMessages) {
            strings[m.number] = m.text;
            list[n++] = {m.number, m.number};
        }
        strings[kUnknownCodeText] = "No text is available for this status code";
        list[n] = {0, 0};
    }
};

constexpr CTables kTables{};

} // namespace

bool g_bKelModuleAlive = false;

Language_Support::CLngFile* KelLngFile() noexcept {
    // A function-local object: any module may need kelbase's texts during static start-up.
    static Language_Support::CLngFile s_File("kelbase.nls", Language_Support::Default_Language_ID, "English", 1,
                                              kTables.strings, kStringCount);
    return &s_File;
}

bool KelModuleAlive() noexcept { return g_bKelModuleAlive; }

std::string AscTimeNow() {
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char buffer[32];
    if (!asctime_r(&local, buffer)) return std::string();
    std::string text(buffer);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

} // namespace Internals

// The module list only reads the message list; it is declared writable for the suite's modules.
Misc::CModuleInfo KEL_MODULE_INFO_KelLib(1, "kelbase", "P:7.10.2 F:7.10.2", Internals::KelLngFile(),
                                         const_cast<Language_Support::ERROR_MSG_LIST*>(Internals::kTables.list));

} // namespace KEL
