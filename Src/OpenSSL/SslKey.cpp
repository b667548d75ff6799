// kelbase - Src/OpenSSL/SslKey.cpp
//
// Private keys: RSA generation, PEM reading and writing with pass phrases.
#define KEL_SOURCE_FILE "Src/OpenSSL"
#include <kel/Ssl.h>

#include "OpenSSL/SslBio.h"
#include "OpenSSL/SslModuleInfo.h"

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstring>

namespace KEL {
namespace Sockets {

CSslKey::CSslKey(const CSslKey& other) noexcept : m_pKey(other.m_pKey) {
    if (m_pKey) EVP_PKEY_up_ref(m_pKey);
}

CSslKey& CSslKey::operator=(const CSslKey& other) noexcept {
    if (other.m_pKey) EVP_PKEY_up_ref(other.m_pKey);
    Attach(other.m_pKey);
    return *this;
}

CSslKey& CSslKey::operator=(CSslKey&& other) noexcept {
    if (this != &other) Attach(other.Release());
    return *this;
}

CSslKey::~CSslKey() { EVP_PKEY_free(m_pKey); }

void CSslKey::Attach(evp_pkey_st* key) noexcept {
    EVP_PKEY* old = m_pKey;
    m_pKey = key;
    EVP_PKEY_free(old);
}

evp_pkey_st* CSslKey::Release() noexcept {
    EVP_PKEY* key = m_pKey;
    m_pKey = nullptr;
    return key;
}

unsigned int CSslKey::GetBits() const noexcept { return m_pKey ? static_cast<unsigned int>(EVP_PKEY_get_bits(m_pKey)) : 0; }

int CSslKey::PasswordCallback(char* buffer, int size, int, void* userData) {
    const auto* pass = static_cast<const Strings::CSubStringRef*>(userData);
    if (!pass || pass->Length() == 0 || size <= 0 || pass->Length() > static_cast<size_t>(size)) return -1;
    std::memcpy(buffer, pass->data(), pass->Length());
    return static_cast<int>(pass->Length());
}

namespace {

struct CPkeyCtx {
    EVP_PKEY_CTX* p;
    ~CPkeyCtx() { EVP_PKEY_CTX_free(p); }
};

struct CBigNum {
    BIGNUM* p;
    ~CBigNum() { BN_free(p); }
};

} // namespace

unsigned int CSslKey::MakeKey(unsigned int bits, unsigned int exponent) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (bits == 0) bits = 2048;
        if (exponent == 0) exponent = 65537;
        CPkeyCtx ctx{EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr)};
        if (!ctx.p) KEL_RAISE_SSL(0x20010043u, "EVP_PKEY_CTX_new_from_name(RSA) failed");
        if (EVP_PKEY_keygen_init(ctx.p) != 1) KEL_RAISE_SSL(0x20010043u, "EVP_PKEY_keygen_init failed");
        CBigNum e{BN_new()};
        if (!e.p || BN_set_word(e.p, exponent) != 1) KEL_RAISE_SSL(0x20010043u, "Can't allocate the exponent");
        if (EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.p, static_cast<int>(bits)) <= 0 ||
            EVP_PKEY_CTX_set1_rsa_keygen_pubexp(ctx.p, e.p) <= 0)
            KEL_RAISE_SSL(0x20010044u, "RSA key parameters refused (bits=%d, exponent=%d)", bits, exponent);
        EVP_PKEY* key = nullptr;
        if (EVP_PKEY_keygen(ctx.p, &key) != 1 || !key)
            KEL_RAISE_SSL(0x20010045u, "RSA key generation failed (bits=%d, exponent=%d)", bits, exponent);
        Attach(key);
        return 1u;
    });
}

unsigned int CSslKey::Read(const Strings::CSubStringRef& pem, const Strings::CSubStringRef& passPhrase) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        Internals::CMemBio bio(pem);
        Strings::CSubStringRef pass(passPhrase);
        EVP_PKEY* key = PEM_read_bio_PrivateKey(bio, nullptr, &CSslKey::PasswordCallback, &pass);
        if (!key) KEL_RAISE_SSL(0x20010046u, "No private key read from the PEM text");
        Attach(key);
        return 1u;
    });
}

unsigned int CSslKey::Write(Strings::CStringVar& pem, const Strings::CSubStringRef& passPhrase) const {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (!m_pKey) KEL_RAISE(0x20010037u, "The SSL key handle is empty");
        Internals::CMemBio bio;
        Strings::CSubStringRef pass(passPhrase);
        const EVP_CIPHER* cipher = pass.Length() ? EVP_aes_256_cbc() : nullptr;
        if (PEM_write_bio_PKCS8PrivateKey(bio, m_pKey, cipher, nullptr, 0,
                                          cipher ? &CSslKey::PasswordCallback : nullptr, cipher ? &pass : nullptr) != 1)
            KEL_RAISE_SSL(0x20010047u, "PEM_write_bio_PKCS8PrivateKey failed");
        bio.CopyTo(pem);
        return 1u;
    });
}

unsigned int CSslKey::WriteRSA(Strings::CStringVar& pem, const Strings::CSubStringRef& passPhrase) const {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (!m_pKey) KEL_RAISE(0x20010037u, "The SSL key handle is empty");
        if (EVP_PKEY_get_base_id(m_pKey) != EVP_PKEY_RSA) KEL_RAISE(0x20010047u, "The key is not an RSA key");
        Internals::CMemBio bio;
        Strings::CSubStringRef pass(passPhrase);
        const EVP_CIPHER* cipher = pass.Length() ? EVP_aes_256_cbc() : nullptr;
        if (PEM_write_bio_PrivateKey_traditional(bio, m_pKey, cipher, nullptr, 0,
                                                 cipher ? &CSslKey::PasswordCallback : nullptr,
                                                 cipher ? &pass : nullptr) != 1)
            KEL_RAISE_SSL(0x20010047u, "PEM_write_bio_PrivateKey_traditional failed");
        bio.CopyTo(pem);
        return 1u;
    });
}

unsigned int CSslKey::WritePublic(Strings::CStringVar& pem) const {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (!m_pKey) KEL_RAISE(0x20010037u, "The SSL key handle is empty");
        Internals::CMemBio bio;
        if (PEM_write_bio_PUBKEY(bio, m_pKey) != 1) KEL_RAISE_SSL(0x20010047u, "PEM_write_bio_PUBKEY failed");
        bio.CopyTo(pem);
        return 1u;
    });
}

} // namespace Sockets
} // namespace KEL
