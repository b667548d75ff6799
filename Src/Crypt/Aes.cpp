// kelbase - Src/Crypt/Aes.cpp
//
// AES through OpenSSL's EVP interface: raw blocks under one key (CRijndael) and the
// authenticated printable form of short texts (CAES, AES-GCM).
#define KEL_SOURCE_FILE "Src/Crypt"
#include <kel/Crypt.h>
#include <kel/Exceptions.h>

#include "OpenSSL/SslModuleInfo.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <climits>
#include <cstring>
#include <memory>
#include <vector>

namespace KEL {
namespace Crypt {

namespace {

const EVP_CIPHER* EcbCipher(size_t keyLength) {
    switch (keyLength) {
    case 16:
        return EVP_aes_128_ecb();
    case 24:
        return EVP_aes_192_ecb();
    default:
        return EVP_aes_256_ecb();
    }
}

const EVP_CIPHER* GcmCipher(size_t keyLength) {
    switch (keyLength) {
    case 16:
        return EVP_aes_128_gcm();
    case 24:
        return EVP_aes_192_gcm();
    default:
        return EVP_aes_256_gcm();
    }
}

bool IsKeyLength(size_t length) { return length == 16 || length == 24 || length == 32; }

// Byte buffers that hold plain text or key material are wiped before they are freed.
class CSecretBuffer {
public:
    explicit CSecretBuffer(size_t size) : m_Bytes(size), m_nLength(size) {}
    ~CSecretBuffer() {
        if (!m_Bytes.empty()) OPENSSL_cleanse(m_Bytes.data(), m_Bytes.size());
    }
    CSecretBuffer(const CSecretBuffer&) = delete;
    CSecretBuffer& operator=(const CSecretBuffer&) = delete;
    unsigned char* data() noexcept { return m_Bytes.data(); }
    size_t size() const noexcept { return m_nLength; }
    /// Shortens the used part; the whole buffer is still wiped.
    void Shorten(size_t length) noexcept { m_nLength = length < m_nLength ? length : m_nLength; }

private:
    std::vector<unsigned char> m_Bytes;
    size_t m_nLength;
};

struct CCipherCtx {
    EVP_CIPHER_CTX* p = EVP_CIPHER_CTX_new();
    ~CCipherCtx() { EVP_CIPHER_CTX_free(p); }
};

int Base64Value(unsigned char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

// Strict RFC 4648 base64: whole quanta, only the alphabet, padding only at the end. OpenSSL's
// block decoder skips white space and keeps the padding's zero bytes, so the text is checked
// here first and the padding taken off afterwards.
std::unique_ptr<CSecretBuffer> DecodeBase64(const Strings::CSubStringRef& text) {
    const size_t n = text.Length();
    if (n == 0 || n % 4 != 0 || n > static_cast<size_t>(INT_MAX)) return nullptr;
    size_t padding = 0;
    if (text[n - 1] == '=') padding = (text[n - 2] == '=') ? 2 : 1;
    for (size_t i = 0; i < n - padding; ++i)
        if (Base64Value(static_cast<unsigned char>(text[i])) < 0) return nullptr;
    auto out = std::make_unique<CSecretBuffer>(n / 4 * 3);
    int got = EVP_DecodeBlock(out->data(), reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(n));
    if (got < 0 || static_cast<size_t>(got) != out->size()) return nullptr;
    out->Shorten(out->size() - padding);
    return out;
}

void EncodeBase64(const unsigned char* data, size_t length, Strings::CStringVar& text) {
    std::vector<unsigned char> encoded((length + 2) / 3 * 4 + 1);
    int n = EVP_EncodeBlock(encoded.data(), data, static_cast<int>(length));
    text = Strings::CSubStringRef(reinterpret_cast<const char*>(encoded.data()), n > 0 ? static_cast<size_t>(n) : 0);
}

} // namespace

CRijndael::~CRijndael() {
    Clear();
}

void CRijndael::Clear() noexcept {
    OPENSSL_cleanse(m_Key, sizeof m_Key);
    m_nKeyLength = 0;
    EVP_CIPHER_CTX_free(m_pEncrypt);
    EVP_CIPHER_CTX_free(m_pDecrypt);
    m_pEncrypt = m_pDecrypt = nullptr;
}

unsigned int CRijndael::MakeKey(const void* key, size_t length) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        Clear();
        if (!key || !IsKeyLength(length))
            KEL_RAISE(0x20010054u, "An AES key has 16, 24 or 32 bytes, not %d", static_cast<unsigned long long>(length));
        std::memcpy(m_Key, key, length);
        m_nKeyLength = length;
        m_pEncrypt = EVP_CIPHER_CTX_new();
        m_pDecrypt = EVP_CIPHER_CTX_new();
        if (!m_pEncrypt || !m_pDecrypt ||
            EVP_EncryptInit_ex(m_pEncrypt, EcbCipher(length), nullptr, m_Key, nullptr) != 1 ||
            EVP_DecryptInit_ex(m_pDecrypt, EcbCipher(length), nullptr, m_Key, nullptr) != 1) {
            Clear();
            KEL_RAISE_SSL(0x20010054u, "Can't set up AES under the key");
        }
        EVP_CIPHER_CTX_set_padding(m_pEncrypt, 0);
        EVP_CIPHER_CTX_set_padding(m_pDecrypt, 0);
        return 1u;
    });
}

unsigned int CRijndael::Run(bool encrypt, const void* in, void* out, size_t length) {
    if (!HasKey()) KEL_RAISE(0x20010054u, "No AES key set");
    if (length % BLOCK_SIZE != 0)
        KEL_RAISE(0x20010055u, "%d bytes are not a whole number of AES blocks", static_cast<unsigned long long>(length));
    EVP_CIPHER_CTX* ctx = encrypt ? m_pEncrypt : m_pDecrypt;
    const auto* src = static_cast<const unsigned char*>(in);
    auto* dst = static_cast<unsigned char*>(out);
    // EVP counts in int; large buffers go in whole-block pieces below that.
    constexpr size_t kPiece = size_t(1) << 30;
    while (length != 0) {
        size_t piece = length < kPiece ? length : kPiece;
        int got = 0;
        if (EVP_CipherUpdate(ctx, dst, &got, src, static_cast<int>(piece)) != 1 || static_cast<size_t>(got) != piece)
            KEL_RAISE_SSL(encrypt ? 0x20010055u : 0x20010056u, "AES block operation failed");
        src += piece;
        dst += piece;
        length -= piece;
    }
    return 1u;
}

unsigned int CRijndael::Encrypt(const void* in, void* out, size_t length) {
    return Exceptions::Guarded(KEL_SITE(), [&] { return Run(true, in, out, length); });
}

unsigned int CRijndael::Decrypt(const void* in, void* out, size_t length) {
    return Exceptions::Guarded(KEL_SITE(), [&] { return Run(false, in, out, length); });
}

unsigned int CAES::SetKey(const void* key, size_t length) { return m_Cipher.MakeKey(key, length); }

unsigned int CAES::SetKey(const Strings::CSubStringRef& passPhrase, const Strings::CSubStringRef& salt,
                          unsigned int iterations) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (passPhrase.Length() == 0 || iterations == 0 || passPhrase.Length() > static_cast<size_t>(INT_MAX) ||
            salt.Length() > static_cast<size_t>(INT_MAX) || iterations > static_cast<unsigned int>(INT_MAX)) {
            m_Cipher.Clear();
            KEL_RAISE(0x20010054u, "A key needs a pass phrase and at least one iteration");
        }
        CSecretBuffer key(32);
        if (PKCS5_PBKDF2_HMAC(passPhrase.data(), static_cast<int>(passPhrase.Length()),
                              reinterpret_cast<const unsigned char*>(salt.data()), static_cast<int>(salt.Length()),
                              static_cast<int>(iterations), EVP_sha256(), static_cast<int>(key.size()),
                              key.data()) != 1) {
            m_Cipher.Clear();
            KEL_RAISE_SSL(0x20010054u, "PBKDF2 failed");
        }
        unsigned int status = m_Cipher.MakeKey(key.data(), key.size());
        return status;
    });
}

unsigned int CAES::GenerateKey(Strings::CStringVar& printableKey, unsigned int bits) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (bits != 128 && bits != 192 && bits != 256) KEL_RAISE(0x20010054u, "No AES key has %d bits", bits);
        CSecretBuffer key(bits / 8);
        if (RAND_bytes(key.data(), static_cast<int>(key.size())) != 1)
            KEL_RAISE_SSL(0x20010054u, "No random bytes for the key");
        unsigned int status = m_Cipher.MakeKey(key.data(), key.size());
        if (status != 1) return status;
        EncodeBase64(key.data(), key.size(), printableKey);
        return 1u;
    });
}

unsigned int CAES::SetPrintableKey(const Strings::CSubStringRef& printableKey) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        std::unique_ptr<CSecretBuffer> hold = DecodeBase64(printableKey);
        if (!hold || !IsKeyLength(hold->size())) {
            m_Cipher.Clear();
            KEL_RAISE(0x20010054u, "Not a printable AES key");
        }
        return m_Cipher.MakeKey(hold->data(), hold->size());
    });
}

unsigned int CAES::Encrypt(const Strings::CSubStringRef& text, Strings::CStringVar& printable,
                           const Strings::CSubStringRef& context) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (!m_Cipher.HasKey()) KEL_RAISE(0x20010054u, "No AES key set");
        if (text.Length() > MAX_TEXT)
            KEL_RAISE(0x20010055u, "A text of %d bytes is too long (at most %d)",
                      static_cast<unsigned long long>(text.Length()), static_cast<unsigned long long>(MAX_TEXT));
        if (context.Length() > static_cast<size_t>(INT_MAX)) KEL_RAISE(0x20010055u, "The context is too long");
        std::vector<unsigned char> out(1 + IV_SIZE + text.Length() + TAG_SIZE);
        out[0] = FORMAT_VERSION;
        unsigned char* iv = out.data() + 1;
        unsigned char* body = iv + IV_SIZE;
        unsigned char* tag = body + text.Length();
        if (RAND_bytes(iv, static_cast<int>(IV_SIZE)) != 1) KEL_RAISE_SSL(0x20010055u, "No random bytes for the IV");
        CCipherCtx ctx;
        int got = 0;
        if (!ctx.p || EVP_EncryptInit_ex(ctx.p, GcmCipher(m_Cipher.m_nKeyLength), nullptr, nullptr, nullptr) != 1 ||
            EVP_CIPHER_CTX_ctrl(ctx.p, EVP_CTRL_GCM_SET_IVLEN, static_cast<int>(IV_SIZE), nullptr) != 1 ||
            EVP_EncryptInit_ex(ctx.p, nullptr, nullptr, m_Cipher.m_Key, iv) != 1 ||
            EVP_EncryptUpdate(ctx.p, nullptr, &got, out.data(), 1) != 1 ||
            (context.Length() != 0 &&
             EVP_EncryptUpdate(ctx.p, nullptr, &got, reinterpret_cast<const unsigned char*>(context.data()),
                               static_cast<int>(context.Length())) != 1) ||
            EVP_EncryptUpdate(ctx.p, body, &got, reinterpret_cast<const unsigned char*>(text.data()),
                              static_cast<int>(text.Length())) != 1 ||
            EVP_EncryptFinal_ex(ctx.p, body + got, &got) != 1 ||
            EVP_CIPHER_CTX_ctrl(ctx.p, EVP_CTRL_GCM_GET_TAG, static_cast<int>(TAG_SIZE), tag) != 1)
            KEL_RAISE_SSL(0x20010055u, "AES-GCM encryption failed");
        EncodeBase64(out.data(), out.size(), printable);
        return 1u;
    });
}

unsigned int CAES::Decrypt(const Strings::CSubStringRef& printable, Strings::CStringVar& text,
                           const Strings::CSubStringRef& context) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (!m_Cipher.HasKey()) KEL_RAISE(0x20010054u, "No AES key set");
        if (context.Length() > static_cast<size_t>(INT_MAX)) KEL_RAISE(0x20010056u, "The context is too long");
        std::unique_ptr<CSecretBuffer> in = DecodeBase64(printable);
        if (!in) KEL_RAISE(0x20010056u, "The text is not base64");
        if (in->size() < 1 + IV_SIZE + TAG_SIZE)
            KEL_RAISE(0x20010056u, "%d bytes are too short for an encrypted text", static_cast<unsigned long long>(in->size()));
        if (in->data()[0] != FORMAT_VERSION) KEL_RAISE(0x20010056u, "Unknown form %d", in->data()[0]);
        const unsigned char* iv = in->data() + 1;
        const unsigned char* body = iv + IV_SIZE;
        const size_t length = in->size() - 1 - IV_SIZE - TAG_SIZE;
        unsigned char tag[TAG_SIZE];
        std::memcpy(tag, body + length, TAG_SIZE);
        CSecretBuffer plain(length + 1);
        CCipherCtx ctx;
        int got = 0;
        int last = 0;
        if (!ctx.p || EVP_DecryptInit_ex(ctx.p, GcmCipher(m_Cipher.m_nKeyLength), nullptr, nullptr, nullptr) != 1 ||
            EVP_CIPHER_CTX_ctrl(ctx.p, EVP_CTRL_GCM_SET_IVLEN, static_cast<int>(IV_SIZE), nullptr) != 1 ||
            EVP_DecryptInit_ex(ctx.p, nullptr, nullptr, m_Cipher.m_Key, iv) != 1 ||
            EVP_DecryptUpdate(ctx.p, nullptr, &got, in->data(), 1) != 1 ||
            (context.Length() != 0 &&
             EVP_DecryptUpdate(ctx.p, nullptr, &got, reinterpret_cast<const unsigned char*>(context.data()),
                               static_cast<int>(context.Length())) != 1) ||
            EVP_DecryptUpdate(ctx.p, plain.data(), &got, body, static_cast<int>(length)) != 1 ||
            EVP_CIPHER_CTX_ctrl(ctx.p, EVP_CTRL_GCM_SET_TAG, static_cast<int>(TAG_SIZE), tag) != 1)
            KEL_RAISE_SSL(0x20010056u, "AES-GCM decryption failed");
        // Only a matching tag releases the text.
        if (EVP_DecryptFinal_ex(ctx.p, plain.data() + got, &last) != 1)
            KEL_RAISE_SSL(0x20010056u, "The text was changed, or belongs to another key or context");
        text = Strings::CSubStringRef(reinterpret_cast<const char*>(plain.data()), length);
        return 1u;
    });
}

} // namespace Crypt
} // namespace KEL
