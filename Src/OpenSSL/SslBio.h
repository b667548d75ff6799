// kelbase - Src/OpenSSL/SslBio.h
//
// A memory BIO owned for one PEM read or write: the texts of keys and certificates pass
// through OpenSSL's I/O abstraction without touching a file.
#pragma once

#include <kel/Exceptions.h>
#include <kel/Strings.h>

#include <openssl/bio.h>

#include <climits>

namespace KEL {
namespace Internals {

class CMemBio {
public:
    /// An empty BIO to write into; the secure heap is used where OpenSSL has one, so key texts
    /// are wiped when the BIO goes.
    CMemBio() : m_pBio(BIO_new(BIO_s_secmem())) {
        if (!m_pBio) Fail();
    }
    /// A read-only BIO over `text` (not copied; it must outlive the BIO).
    explicit CMemBio(const Strings::CSubStringRef& text) {
        if (text.Length() > static_cast<size_t>(INT_MAX)) Fail();
        m_pBio = BIO_new_mem_buf(text.data(), static_cast<int>(text.Length()));
        if (!m_pBio) Fail();
    }
    ~CMemBio() { BIO_free(m_pBio); }
    CMemBio(const CMemBio&) = delete;
    CMemBio& operator=(const CMemBio&) = delete;

    operator BIO*() const noexcept { return m_pBio; }

    /// Replaces `text` with what was written into the BIO.
    void CopyTo(Strings::CStringVar& text) const {
        char* data = nullptr;
        long length = BIO_get_mem_data(m_pBio, &data);
        text = Strings::CSubStringRef(data, length > 0 ? static_cast<size_t>(length) : 0);
    }

private:
    [[noreturn]] static void Fail() { KEL_RAISE(0x2001000Fu, "Can't allocate a memory BIO"); }
    BIO* m_pBio = nullptr;
};

} // namespace Internals
} // namespace KEL
