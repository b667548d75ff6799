// AES: the block object against the FIPS-197 vectors, and the printable authenticated form of
// short texts: round trips, randomised IVs, keys, contexts and every kind of tampering.
#include <kel/kelbase.h>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <set>
#include <string>
#include <vector>

using namespace KEL;
using KEL::Crypt::CAES;
using KEL::Crypt::CRijndael;

namespace {

std::vector<unsigned char> Hex(const std::string& hex) {
    std::vector<unsigned char> bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) bytes.push_back(static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

unsigned int LastStatus() { return Threading::CCurrentThread().GetErrorLog().GetError(); }

std::vector<unsigned char> Decoded(const std::string& base64) {
    std::vector<unsigned char> out(base64.size());
    int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(base64.data()), static_cast<int>(base64.size()));
    out.resize(n > 0 ? static_cast<size_t>(n) : 0);
    size_t padding = base64.size() - base64.find_last_not_of('=') - 1;
    out.resize(out.size() - padding);
    return out;
}

std::string Encoded(const std::vector<unsigned char>& bytes) {
    std::string out((bytes.size() + 2) / 3 * 4 + 1, '\0');
    int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&out[0]), bytes.data(), static_cast<int>(bytes.size()));
    out.resize(static_cast<size_t>(n));
    return out;
}

class AesText : public ::testing::Test {
protected:
    void SetUp() override {
        const unsigned char key[32] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16,
                                       17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32};
        ASSERT_EQ(1u, aes.SetKey(key, sizeof key));
    }
    std::string Encrypt(const std::string& text, const char* context = "") {
        Strings::TString<256> out;
        EXPECT_EQ(1u, aes.Encrypt(Strings::CSubStringRef(text.data(), text.size()), out, context));
        return out.str();
    }
    CAES aes;
};

} // namespace

// --- CRijndael ---------------------------------------------------------------------------

TEST(Rijndael, Fips197AppendixCVectors) {
    const std::string plain = "00112233445566778899aabbccddeeff";
    struct Vector {
        const char* key;
        const char* cipher;
    } vectors[] = {
        {"000102030405060708090a0b0c0d0e0f", "69c4e0d86a7b0430d8cdb78070b4c55a"},
        {"000102030405060708090a0b0c0d0e0f1011121314151617", "dda97ca4864cdfe06eaf70a0ec0d7191"},
        {"000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f", "8ea2b7ca516745bfeafc49904b496089"},
    };
    for (const Vector& v : vectors) {
        CRijndael aes;
        std::vector<unsigned char> key = Hex(v.key);
        ASSERT_EQ(1u, aes.MakeKey(key.data(), key.size()));
        EXPECT_EQ(key.size(), aes.GetKeyLength());
        std::vector<unsigned char> in = Hex(plain), out(16), back(16);
        ASSERT_EQ(1u, aes.EncryptBlock(in.data(), out.data()));
        EXPECT_EQ(Hex(v.cipher), out) << v.key;
        ASSERT_EQ(1u, aes.DecryptBlock(out.data(), back.data()));
        EXPECT_EQ(in, back);
    }
}

TEST(Rijndael, WholeBlocksInPlaceAndNothingElse) {
    CRijndael aes;
    std::vector<unsigned char> key = Hex("000102030405060708090a0b0c0d0e0f");
    ASSERT_EQ(1u, aes.MakeKey(key.data(), key.size()));
    std::vector<unsigned char> data(48);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i);
    std::vector<unsigned char> original = data;
    ASSERT_EQ(1u, aes.Encrypt(data.data(), data.data(), data.size()));
    EXPECT_NE(original, data);
    // ECB: equal blocks would give equal output; the first block matches a single-block call.
    std::vector<unsigned char> first(16);
    ASSERT_EQ(1u, aes.EncryptBlock(original.data(), first.data()));
    EXPECT_TRUE(std::equal(first.begin(), first.end(), data.begin()));
    ASSERT_EQ(1u, aes.Decrypt(data.data(), data.data(), data.size()));
    EXPECT_EQ(original, data);

    EXPECT_EQ(0x20010055u, aes.Encrypt(data.data(), data.data(), 15));
    EXPECT_EQ(0x20010055u, aes.Decrypt(data.data(), data.data(), 17));
    EXPECT_EQ(1u, aes.Encrypt(data.data(), data.data(), 0));
}

TEST(Rijndael, KeySizesOtherThan128192256AreRefused) {
    CRijndael aes;
    unsigned char key[33] = {};
    for (size_t n : {size_t(0), size_t(8), size_t(15), size_t(17), size_t(31), size_t(33)}) {
        EXPECT_EQ(0x20010054u, aes.MakeKey(key, n)) << n;
        EXPECT_FALSE(aes.HasKey());
    }
    EXPECT_EQ(0x20010054u, aes.MakeKey(nullptr, 16));
    unsigned char block[16] = {};
    EXPECT_EQ(0x20010054u, aes.EncryptBlock(block, block));
    ASSERT_EQ(1u, aes.MakeKey(key, 24));
    aes.Clear();
    EXPECT_EQ(0u, aes.GetKeyLength());
    EXPECT_EQ(0x20010054u, aes.DecryptBlock(block, block));
}

// --- CAES --------------------------------------------------------------------------------

TEST_F(AesText, RoundTripsAnyBytes) {
    for (const std::string& text : {std::string(), std::string("p"), std::string("secret password"),
                                    std::string("with\0nul", 8), std::string(1000, '\xff'), std::string("\xc3\xa4\xc3\xb6")}) {
        std::string printable = Encrypt(text);
        Strings::TString<64> back("old");
        ASSERT_EQ(1u, aes.Decrypt(printable, back)) << printable;
        EXPECT_EQ(text, back.str());
    }
}

TEST_F(AesText, PrintableFormHasVersionIvBodyAndTag) {
    std::string printable = Encrypt("hello");
    EXPECT_EQ(std::string::npos, printable.find_first_not_of(
                                     "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/="));
    std::vector<unsigned char> raw = Decoded(printable);
    ASSERT_EQ(1u + 12u + 5u + 16u, raw.size());
    EXPECT_EQ(1, raw[0]);
    EXPECT_EQ(0u, printable.size() % 4);
}

TEST_F(AesText, SameTextEncryptsDifferentlyEachTime) {
    std::set<std::string> seen;
    std::set<std::string> ivs;
    for (int i = 0; i < 50; ++i) {
        std::string printable = Encrypt("same");
        seen.insert(printable);
        std::vector<unsigned char> raw = Decoded(printable);
        ivs.insert(std::string(raw.begin() + 1, raw.begin() + 13));
    }
    EXPECT_EQ(50u, seen.size());
    EXPECT_EQ(50u, ivs.size());
}

TEST_F(AesText, EveryChangedByteIsRefused) {
    std::vector<unsigned char> raw = Decoded(Encrypt("transfer 100"));
    for (size_t i = 0; i < raw.size(); ++i) {
        std::vector<unsigned char> bad = raw;
        bad[i] ^= 0x01;
        Strings::TString<64> out("untouched");
        EXPECT_EQ(0x20010056u, aes.Decrypt(Encoded(bad), out)) << "byte " << i;
        EXPECT_STREQ("untouched", out.C_Str());
    }
}

TEST_F(AesText, TruncatedExtendedOrForeignTextsAreRefused) {
    std::string printable = Encrypt("abc");
    std::vector<unsigned char> raw = Decoded(printable);
    std::vector<unsigned char> shorter(raw.begin(), raw.end() - 1);
    std::vector<unsigned char> longer = raw;
    longer.push_back(0);
    std::vector<unsigned char> tooShort(raw.begin(), raw.begin() + 28);
    std::vector<unsigned char> version2 = raw;
    version2[0] = 2;
    Strings::TString<64> out;
    for (const std::string& bad : {Encoded(shorter), Encoded(longer), Encoded(tooShort), Encoded(version2), std::string(),
                                   std::string("AQ"), printable.substr(0, printable.size() - 4), printable + "AAAA",
                                   " " + printable, printable + "\n", std::string("====") + printable.substr(4),
                                   printable.substr(0, 8) + "*" + printable.substr(9)}) {
        EXPECT_EQ(0x20010056u, aes.Decrypt(bad, out)) << bad;
    }
    EXPECT_EQ(0x20010056u, LastStatus());
}

TEST_F(AesText, ContextMustMatch) {
    std::string printable = Encrypt("pw", "ldapServer/1");
    Strings::TString<64> out;
    EXPECT_EQ(0x20010056u, aes.Decrypt(printable, out, "ldapServer/2"));
    EXPECT_EQ(0x20010056u, aes.Decrypt(printable, out));
    ASSERT_EQ(1u, aes.Decrypt(printable, out, "ldapServer/1"));
    EXPECT_STREQ("pw", out.C_Str());
}

TEST_F(AesText, AnotherKeyCannotDecrypt) {
    std::string printable = Encrypt("pw");
    CAES other;
    unsigned char key[32] = {};
    ASSERT_EQ(1u, other.SetKey(key, sizeof key));
    Strings::TString<64> out;
    EXPECT_EQ(0x20010056u, other.Decrypt(printable, out));
    // A shorter key of the same bytes is another cipher altogether.
    CAES shorter;
    const unsigned char prefix[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    ASSERT_EQ(1u, shorter.SetKey(prefix, sizeof prefix));
    EXPECT_EQ(0x20010056u, shorter.Decrypt(printable, out));
}

TEST(AesKeys, PassPhraseKeysAreReproducible) {
    CAES a, b, c;
    ASSERT_EQ(1u, a.SetKey("pass phrase", "suite-salt", 1000));
    ASSERT_EQ(1u, b.SetKey("pass phrase", "suite-salt", 1000));
    ASSERT_EQ(1u, c.SetKey("pass phrase", "other-salt", 1000));
    Strings::TString<128> printable, out;
    ASSERT_EQ(1u, a.Encrypt("text", printable));
    ASSERT_EQ(1u, b.Decrypt(printable, out));
    EXPECT_STREQ("text", out.C_Str());
    EXPECT_EQ(0x20010056u, c.Decrypt(printable, out));
    EXPECT_EQ(32u, a.GetRijndael().GetKeyLength());
}

TEST(AesKeys, PassPhraseKeyIsPbkdf2Sha256) {
    // RFC 7914 section 11 test vector for PBKDF2-HMAC-SHA256 (first 32 bytes).
    CAES aes;
    ASSERT_EQ(1u, aes.SetKey("passwd", "salt", 1));
    CRijndael expected;
    std::vector<unsigned char> key = Hex("55ac046e56e3089fec1691c22544b605f94185216dde0465e68b9d57c20dacbc");
    ASSERT_EQ(1u, expected.MakeKey(key.data(), key.size()));
    unsigned char block[16] = {}, a[16], b[16];
    ASSERT_EQ(1u, aes.GetRijndael().EncryptBlock(block, a));
    ASSERT_EQ(1u, expected.EncryptBlock(block, b));
    EXPECT_EQ(0, std::memcmp(a, b, 16));
}

TEST(AesKeys, GeneratedKeysTravelAsBase64) {
    for (unsigned int bits : {128u, 192u, 256u}) {
        CAES made;
        Strings::TString<64> printableKey, printable, out;
        ASSERT_EQ(1u, made.GenerateKey(printableKey, bits));
        EXPECT_EQ(bits / 8, Decoded(printableKey.str()).size());
        ASSERT_EQ(1u, made.Encrypt("x", printable));
        CAES restored;
        ASSERT_EQ(1u, restored.SetPrintableKey(printableKey));
        ASSERT_EQ(1u, restored.Decrypt(printable, out));
        EXPECT_STREQ("x", out.C_Str());
    }
    CAES aes;
    Strings::TString<64> printableKey;
    EXPECT_EQ(0x20010054u, aes.GenerateKey(printableKey, 512));
    EXPECT_EQ(0x20010054u, aes.SetPrintableKey("AAAA"));
    EXPECT_EQ(0x20010054u, aes.SetPrintableKey("not base64!"));
    EXPECT_FALSE(aes.HasKey());
}

TEST(AesKeys, NoKeyNoWork) {
    CAES aes;
    Strings::TString<64> out;
    EXPECT_EQ(0x20010054u, aes.Encrypt("x", out));
    EXPECT_EQ(0x20010054u, aes.Decrypt("AQAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA", out));
    EXPECT_EQ(0x20010054u, aes.SetKey("", "salt"));
    EXPECT_EQ(0x20010054u, aes.SetKey("pw", "salt", 0));
    EXPECT_EQ(0x20010054u, aes.SetKey("0123456789", 10));
}

TEST(AesKeys, OnlyShortTextsAreTaken) {
    CAES aes;
    unsigned char key[16] = {};
    ASSERT_EQ(1u, aes.SetKey(key, sizeof key));
    std::string limit(CAES::MAX_TEXT, 'a');
    Strings::CStringVar printable, out;
    ASSERT_EQ(1u, aes.Encrypt(limit, printable));
    ASSERT_EQ(1u, aes.Decrypt(printable, out));
    EXPECT_EQ(limit.size(), out.Length());
    limit.push_back('a');
    EXPECT_EQ(0x20010055u, aes.Encrypt(limit, printable));
}
