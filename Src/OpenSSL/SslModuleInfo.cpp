// kelbase - Src/OpenSSL/SslModuleInfo.cpp
//
// The TLS library as module 4 ("OpenSSL"): its version banner and the texts of its error codes.
#define KEL_SOURCE_FILE "Src/OpenSSL"
#include <kel/Misc.h>

#include <openssl/crypto.h>
#include <openssl/err.h>

namespace KEL {
namespace Internals {

class CSslModuleInfo : public Misc::CModuleInfo {
public:
    CSslModuleInfo() : CModuleInfo(4, "OpenSSL", OpenSSL_version(OPENSSL_VERSION)) {}
    void GetErrorMsg(Strings::CStringVar& text, unsigned int code, unsigned int) override {
        char buffer[256];
        ERR_error_string_n(code, buffer, sizeof buffer);
        text = buffer;
    }
};

namespace {
CSslModuleInfo s_SslModule;
}

} // namespace Internals
} // namespace KEL
