// kelbase - Src/OpenSSL/SslCertificate.cpp
//
// X.509 certificates: PEM reading and writing, names, and making self-signed or issued
// certificates for the suite's services.
#define KEL_SOURCE_FILE "Src/OpenSSL"
#include <kel/Ssl.h>

#include "OpenSSL/SslBio.h"
#include "OpenSSL/SslModuleInfo.h"

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace KEL {
namespace Sockets {

CSslCertificate::CSslCertificate(const CSslCertificate& other) noexcept : m_pCert(other.m_pCert) {
    if (m_pCert) X509_up_ref(m_pCert);
}

CSslCertificate& CSslCertificate::operator=(const CSslCertificate& other) noexcept {
    if (other.m_pCert) X509_up_ref(other.m_pCert);
    Attach(other.m_pCert);
    return *this;
}

CSslCertificate& CSslCertificate::operator=(CSslCertificate&& other) noexcept {
    if (this != &other) Attach(other.Release());
    return *this;
}

CSslCertificate::~CSslCertificate() { X509_free(m_pCert); }

void CSslCertificate::Attach(x509_st* certificate) noexcept {
    X509* old = m_pCert;
    m_pCert = certificate;
    X509_free(old);
}

x509_st* CSslCertificate::Release() noexcept {
    X509* certificate = m_pCert;
    m_pCert = nullptr;
    return certificate;
}

unsigned int CSslCertificate::Read(const Strings::CSubStringRef& pem) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        Internals::CMemBio bio(pem);
        Strings::CSubStringRef noPass;
        X509* certificate = PEM_read_bio_X509(bio, nullptr, &CSslKey::PasswordCallback, &noPass);
        if (!certificate) KEL_RAISE_SSL(0x20010049u, "No certificate read from the PEM text");
        Attach(certificate);
        return 1u;
    });
}

unsigned int CSslCertificate::Write(Strings::CStringVar& text, unsigned int format) const {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (!m_pCert) KEL_RAISE(0x20010037u, "The SSL certificate handle is empty");
        Internals::CMemBio bio;
        if ((format & WF_Text) && X509_print(bio, m_pCert) != 1) KEL_RAISE_SSL(0x2001004Du, "X509_print failed");
        if (PEM_write_bio_X509(bio, m_pCert) != 1) KEL_RAISE_SSL(0x2001004Du, "PEM_write_bio_X509 failed");
        bio.CopyTo(text);
        return 1u;
    });
}

namespace {

void NameText(const X509_NAME* name, Strings::CStringVar& text) {
    Internals::CMemBio bio;
    if (X509_NAME_print_ex(bio, name, 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB) < 0)
        KEL_RAISE_SSL(0x2001004Du, "X509_NAME_print_ex failed");
    bio.CopyTo(text);
}

} // namespace

unsigned int CSslCertificate::GetSubjectName(Strings::CStringVar& name) const {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (!m_pCert) KEL_RAISE(0x20010037u, "The SSL certificate handle is empty");
        NameText(X509_get_subject_name(m_pCert), name);
        return 1u;
    });
}

unsigned int CSslCertificate::GetIssuerName(Strings::CStringVar& name) const {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (!m_pCert) KEL_RAISE(0x20010037u, "The SSL certificate handle is empty");
        NameText(X509_get_issuer_name(m_pCert), name);
        return 1u;
    });
}

namespace {

struct CX509 {
    X509* p;
    ~CX509() { X509_free(p); }
};

void AddNameEntry(X509_NAME* name, const char* field, const std::string& value) {
    if (value.empty()) return;
    if (X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(value.data()),
                                   static_cast<int>(value.size()), -1, 0) != 1)
        KEL_RAISE_SSL(0x2001004Au, "Name field %s=\"%s\" refused", field, value);
}

void AddExtension(X509* certificate, X509V3_CTX& ctx, int nid, const std::string& value) {
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
    if (!extension) KEL_RAISE_SSL(0x2001004Cu, "Extension %s=\"%s\" refused", OBJ_nid2sn(nid), value);
    int added = X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
    if (added != 1) KEL_RAISE_SSL(0x2001004Cu, "Can't add extension %s", OBJ_nid2sn(nid));
}

// "name" -> "DNS:name", "10.0.0.1" or "::1" -> "IP:..."; typed entries stay as they are.
std::string AltNameList(const std::vector<std::string>& names) {
    static const char* const kTypes[] = {"DNS:", "IP:", "email:", "URI:", "RID:", "dirName:", "otherName:"};
    std::string list;
    for (const std::string& n : names) {
        if (n.empty()) continue;
        if (!list.empty()) list += ',';
        bool typed = false;
        for (const char* t : kTypes) typed = typed || n.compare(0, std::char_traits<char>::length(t), t) == 0;
        if (typed) {
            list += n;
        } else if (ASN1_OCTET_STRING* ip = a2i_IPADDRESS(n.c_str())) {
            ASN1_OCTET_STRING_free(ip);
            list += "IP:" + n;
        } else {
            list += "DNS:" + n;
        }
    }
    return list;
}

unsigned long long RandomSerial() {
    unsigned long long serial = 0;
    while (serial == 0) {
        unsigned char bytes[8];
        if (RAND_bytes(bytes, sizeof bytes) != 1) KEL_RAISE_SSL(0x2001004Bu, "No random serial number");
        for (unsigned char b : bytes) serial = (serial << 8) | b;
        serial &= 0x7FFFFFFFFFFFFFFFull;
    }
    return serial;
}

} // namespace

unsigned int CSslCertificate::MakeCertificate(CERTIFICATE_DATA& data, CSslKey& key, unsigned int keyBits) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (data.country.empty() && data.state.empty() && data.locality.empty() && data.organization.empty() &&
            data.organizationalUnit.empty() && data.commonName.empty() && data.email.empty())
            KEL_RAISE(0x2001004Eu, "The certificate has no subject name");
        if (data.daysValid == 0) KEL_RAISE(0x2001004Eu, "The certificate would never be valid (0 days)");
        const bool issued = data.issuerCertificate != nullptr || data.issuerKey != nullptr;
        if (issued) {
            if (!data.issuerCertificate || data.issuerCertificate->IsEmpty() || !data.issuerKey ||
                data.issuerKey->IsEmpty())
                KEL_RAISE(0x2001004Eu, "An issued certificate needs both the issuer's certificate and key");
            if (X509_check_private_key(*data.issuerCertificate, *data.issuerKey) != 1)
                KEL_RAISE_SSL(0x2001004Eu, "The issuer's key does not belong to the issuer's certificate");
        }
        if (key.IsEmpty()) {
            unsigned int status = key.MakeKey(keyBits, data.exponent);
            if (status != 1) return status;
        }

        CX509 made{X509_new()};
        if (!made.p) KEL_RAISE_SSL(0x20010048u, "X509_new failed");
        X509* x = made.p;
        if (data.serial == 0) data.serial = RandomSerial();
        if (X509_set_version(x, 2) != 1 || ASN1_INTEGER_set_uint64(X509_get_serialNumber(x), data.serial) != 1 ||
            !X509_gmtime_adj(X509_getm_notBefore(x), 0) ||
            !X509_time_adj_ex(X509_getm_notAfter(x), static_cast<int>(data.daysValid), 0, nullptr) ||
            X509_set_pubkey(x, key) != 1)
            KEL_RAISE_SSL(0x2001004Eu, "Can't set version, serial, validity or public key");

        X509_NAME* subject = X509_get_subject_name(x);
        AddNameEntry(subject, "C", data.country);
        AddNameEntry(subject, "ST", data.state);
        AddNameEntry(subject, "L", data.locality);
        AddNameEntry(subject, "O", data.organization);
        AddNameEntry(subject, "OU", data.organizationalUnit);
        AddNameEntry(subject, "CN", data.commonName);
        AddNameEntry(subject, "emailAddress", data.email);
        X509* issuer = issued ? static_cast<X509*>(*data.issuerCertificate) : x;
        if (X509_set_issuer_name(x, X509_get_subject_name(issuer)) != 1)
            KEL_RAISE_SSL(0x2001004Au, "Can't set the issuer name");

        X509V3_CTX ctx;
        X509V3_set_ctx(&ctx, issuer, x, nullptr, nullptr, 0);
        AddExtension(x, ctx, NID_basic_constraints, data.isCA ? "critical,CA:TRUE" : "critical,CA:FALSE");
        AddExtension(x, ctx, NID_key_usage,
                     data.isCA ? "critical,keyCertSign,cRLSign,digitalSignature"
                               : "critical,digitalSignature,keyEncipherment");
        if (!data.isCA) AddExtension(x, ctx, NID_ext_key_usage, "serverAuth,clientAuth");
        AddExtension(x, ctx, NID_subject_key_identifier, "hash");
        // A self-signed certificate names its own key identifier, which needs the one above.
        AddExtension(x, ctx, NID_authority_key_identifier, "keyid:always");
        std::string altNames = AltNameList(data.subjectAltNames);
        if (!altNames.empty()) AddExtension(x, ctx, NID_subject_alt_name, altNames);

        EVP_PKEY* signer = issued ? static_cast<EVP_PKEY*>(*data.issuerKey) : static_cast<EVP_PKEY*>(key);
        if (X509_sign(x, signer, EVP_sha256()) <= 0) KEL_RAISE_SSL(0x2001004Bu, "X509_sign failed");
        Attach(made.p);
        made.p = nullptr;
        return 1u;
    });
}

} // namespace Sockets
} // namespace KEL
