// kelbase - Src/trace/CircularBuffer.cpp
//
// The ring of recent trace entries.
#define KEL_SOURCE_FILE "Src/trace"
#include <kel/Trace.h>

#include <algorithm>

namespace KEL {
namespace Internals {

CCircularBuffer::CCircularBuffer(size_t capacity, size_t maxEntryLength)
    : m_Slots(std::max<size_t>(capacity, 1)), m_nMaxLength(maxEntryLength) {}

void CCircularBuffer::Write(const Strings::CStringRef& entry) {
    size_t length = std::min(entry.Length(), m_nMaxLength);
    std::lock_guard<std::mutex> hold(m_Lock);
    // assign() reuses the slot's storage once the ring has gone round.
    m_Slots[m_nNext].assign(entry.data(), length);
    m_nNext = (m_nNext + 1) % m_Slots.size();
    if (m_nCount < m_Slots.size()) ++m_nCount;
}

std::vector<std::string> CCircularBuffer::GetEntries() const {
    std::lock_guard<std::mutex> hold(m_Lock);
    std::vector<std::string> out;
    out.reserve(m_nCount);
    size_t first = (m_nNext + m_Slots.size() - m_nCount) % m_Slots.size();
    for (size_t i = 0; i < m_nCount; ++i) out.push_back(m_Slots[(first + i) % m_Slots.size()]);
    return out;
}

size_t CCircularBuffer::Count() const {
    std::lock_guard<std::mutex> hold(m_Lock);
    return m_nCount;
}

void CCircularBuffer::Clear() {
    std::lock_guard<std::mutex> hold(m_Lock);
    m_nCount = 0;
    m_nNext = 0;
}

} // namespace Internals
} // namespace KEL
