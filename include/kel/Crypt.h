// kelbase - Crypt.h
//
// AES encryption of short texts (KEL::Crypt): passwords and other secrets that the suite keeps
// in its configuration files.
//
//     KEL::Crypt::CAES aes;
//     aes.SetKey(passPhrase, salt);                        // or SetKey(bytes, 32)
//     aes.Encrypt("secret", printable, "ldapServer");      // "AQ..." base64 text
//     aes.Decrypt(printable, plain, "ldapServer");         // 1, or 0x20010056 if touched
//
// CAES encrypts with AES-GCM (the key's size: 128, 192 or 256 bits) through OpenSSL's EVP
// interface. Each text gets a fresh random 96-bit IV, so the same text never encrypts to the
// same result. The printable form is base64 (RFC 4648, padded, one line) of
//
//     version byte (1) | IV (12 bytes) | ciphertext (as long as the text) | GCM tag (16 bytes)
//
// The version byte and the caller's optional context text are authenticated with the data:
// a ciphertext decrypts only under the same key and the same context, and any change to it
// is refused. Texts may hold any bytes, NUL included.
//
// CRijndael is the block cipher beneath: it owns the key (in memory that is wiped when the
// key is replaced or the object goes) and encrypts or decrypts raw 16-byte blocks.
//
// Statuses (returned or thrown by the thread's throw mode, see Exceptions.h): 0x20010054 bad
// or missing key, 0x20010055 encryption failed or text too long, 0x20010056 a printable text
// that is not one of ours, was changed, or belongs to another key or context.
//
// An object is used by one thread at a time.
#pragma once

#include <kel/Strings.h>

#include <cstddef>

struct evp_cipher_ctx_st;

namespace KEL {
namespace Crypt {

class CAES;

/// AES (Rijndael with 128-bit blocks) under one key, block by block.
class KEL_API CRijndael {
public:
    static constexpr size_t BLOCK_SIZE = 16;
    static constexpr size_t MAX_KEY_SIZE = 32;

    CRijndael() noexcept = default;
    ~CRijndael();
    CRijndael(const CRijndael&) = delete;
    CRijndael& operator=(const CRijndael&) = delete;

    /// Sets a key of 16, 24 or 32 bytes (AES-128, -192, -256). Other sizes: 0x20010054, and
    /// the object has no key afterwards.
    unsigned int MakeKey(const void* key, size_t length);
    /// Forgets the key (wiping it).
    void Clear() noexcept;
    bool HasKey() const noexcept { return m_nKeyLength != 0; }
    /// Key size in bytes, 0 without a key.
    size_t GetKeyLength() const noexcept { return m_nKeyLength; }

    /// Encrypts / decrypts `length` bytes (a multiple of BLOCK_SIZE) block by block (ECB);
    /// `in` and `out` may be the same buffer. 0x20010054 without a key, 0x20010055 for a length
    /// that is not a whole number of blocks.
    unsigned int Encrypt(const void* in, void* out, size_t length);
    unsigned int Decrypt(const void* in, void* out, size_t length);
    /// One block.
    unsigned int EncryptBlock(const unsigned char* in, unsigned char* out) { return Encrypt(in, out, BLOCK_SIZE); }
    unsigned int DecryptBlock(const unsigned char* in, unsigned char* out) { return Decrypt(in, out, BLOCK_SIZE); }

private:
    friend class CAES;
    unsigned int Run(bool encrypt, const void* in, void* out, size_t length);
    unsigned char m_Key[MAX_KEY_SIZE] = {};
    size_t m_nKeyLength = 0;
    evp_cipher_ctx_st* m_pEncrypt = nullptr;
    evp_cipher_ctx_st* m_pDecrypt = nullptr;
};

/// Authenticated encryption of short texts to and from a printable form (see above).
class KEL_API CAES {
public:
    static constexpr unsigned char FORMAT_VERSION = 1;
    static constexpr size_t IV_SIZE = 12;
    static constexpr size_t TAG_SIZE = 16;
    /// Longest text Encrypt takes (1 MiB): the form is meant for short secrets.
    static constexpr size_t MAX_TEXT = 0x100000;
    /// PBKDF2 iterations SetKey uses for a pass phrase unless told otherwise.
    static constexpr unsigned int DEFAULT_ITERATIONS = 100000;

    CAES() noexcept = default;
    CAES(const CAES&) = delete;
    CAES& operator=(const CAES&) = delete;

    /// Uses `length` bytes of `key` (16, 24 or 32) as the AES key. 0x20010054 otherwise.
    unsigned int SetKey(const void* key, size_t length);
    /// Derives a 256-bit key from a pass phrase with PBKDF2-HMAC-SHA256 over `salt` (the same
    /// pass phrase, salt and iterations give the same key). An empty pass phrase or 0
    /// iterations: 0x20010054.
    unsigned int SetKey(const Strings::CSubStringRef& passPhrase, const Strings::CSubStringRef& salt,
                        unsigned int iterations = DEFAULT_ITERATIONS);
    /// Makes a random key of `bits` (128, 192 or 256) from OpenSSL's generator, uses it, and
    /// hands it out in base64 so that it can be stored (SetPrintableKey takes it back).
    unsigned int GenerateKey(Strings::CStringVar& printableKey, unsigned int bits = 256);
    /// Uses a key stored in base64 (as GenerateKey hands it out). 0x20010054 for anything else.
    unsigned int SetPrintableKey(const Strings::CSubStringRef& printableKey);
    bool HasKey() const noexcept { return m_Cipher.HasKey(); }

    /// Encrypts `text` into `printable` (replacing it), bound to `context`. 0x20010054 without
    /// a key, 0x20010055 for a text over MAX_TEXT or a failure inside OpenSSL.
    unsigned int Encrypt(const Strings::CSubStringRef& text, Strings::CStringVar& printable,
                         const Strings::CSubStringRef& context = Strings::CSubStringRef());
    /// Decrypts a printable form made by Encrypt under the same key and `context` into `text`
    /// (replacing it). Anything else fails 0x20010056 and leaves `text` unchanged.
    unsigned int Decrypt(const Strings::CSubStringRef& printable, Strings::CStringVar& text,
                         const Strings::CSubStringRef& context = Strings::CSubStringRef());

    /// The block cipher holding the key.
    CRijndael& GetRijndael() noexcept { return m_Cipher; }

private:
    CRijndael m_Cipher;
};

} // namespace Crypt
} // namespace KEL
