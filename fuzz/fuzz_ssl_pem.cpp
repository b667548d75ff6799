// PEM texts of keys and certificates as they arrive from files and the suite's configuration:
// CSslKey::Read (with and without a pass phrase) and CSslCertificate::Read, then the names of a
// certificate that did read.
#include <kel/kelbase.h>

#include <openssl/err.h>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    KEL::Strings::CSubStringRef text(reinterpret_cast<const char*>(data), size);
    KEL::Sockets::CSslKey key;
    key.Read(text);
    key.Read(text, "pass phrase");
    KEL::Sockets::CSslCertificate cert;
    if (cert.Read(text) == 1) {
        KEL::Strings::CStringVar name;
        cert.GetSubjectName(name);
        cert.GetIssuerName(name);
        cert.Write(name, KEL::Sockets::CSslCertificate::WF_Text);
    }
    ERR_clear_error();
    return 0;
}
