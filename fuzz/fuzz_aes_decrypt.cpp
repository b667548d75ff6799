// CAES::Decrypt on arbitrary printable texts: a stored secret comes from a configuration file
// that anyone with write access may have edited. The first byte picks the context length.
#include <kel/kelbase.h>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static KEL::Crypt::CAES* aes = [] {
        auto* a = new KEL::Crypt::CAES;
        const unsigned char key[32] = {7};
        a->SetKey(key, sizeof key);
        return a;
    }();
    if (size == 0) return 0;
    size_t contextLength = data[0] % 8;
    if (contextLength > size - 1) contextLength = size - 1;
    const char* context = reinterpret_cast<const char*>(data + 1);
    const char* text = context + contextLength;
    size_t textLength = size - 1 - contextLength;
    KEL::Strings::CStringVar plain;
    unsigned int status = aes->Decrypt(KEL::Strings::CSubStringRef(text, textLength), plain,
                                       KEL::Strings::CSubStringRef(context, contextLength));
    // Only a text made with the key can decrypt; random input that does is a broken check.
    if (status == 1 && textLength < 40) __builtin_trap();
    return 0;
}
