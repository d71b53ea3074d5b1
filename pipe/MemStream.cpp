#include "pipe/MemStream.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>

namespace
{
std::unique_ptr<unsigned char[]> NewPage()
{
    std::unique_ptr<unsigned char[]> page(new (std::nothrow) unsigned char[CMemStream::kPageSize]);
    if (!page)
        throw std::runtime_error("malloc page failed");
    return page;
}
} // namespace

CMemStream::CMemStream()
{
    m_pages.push_back(NewPage());
}

uint32_t CMemStream::Write(const void* data, size_t length)
{
    if (!data || length == 0)
        return kErrorInvalidParameter;
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::lock_guard lock(m_mutex);
    while (length > 0)
    {
        if (m_nWritePos == kPageSize)
        {
            m_pages.push_back(NewPage());
            m_nWritePos = 0;
        }
        const size_t chunk = std::min(length, kPageSize - m_nWritePos);
        std::memcpy(m_pages.back().get() + m_nWritePos, bytes, chunk);
        m_nWritePos += chunk;
        m_nSize += chunk;
        bytes += chunk;
        length -= chunk;
    }
    return 0;
}

bool CMemStream::Read(void* out, size_t length)
{
    std::lock_guard lock(m_mutex);
    if (length > m_nSize)
        return false;
    auto* target = static_cast<unsigned char*>(out);
    while (length > 0)
    {
        const size_t end = m_pages.size() == 1 ? m_nWritePos : kPageSize;
        const size_t chunk = std::min(length, end - m_nReadPos);
        std::memcpy(target, m_pages.front().get() + m_nReadPos, chunk);
        m_nReadPos += chunk;
        m_nSize -= chunk;
        target += chunk;
        length -= chunk;
        if (m_nReadPos == kPageSize)
            ReleaseFrontPage();
    }
    if (m_nSize == 0 && m_pages.size() == 1)
    {
        // Everything read: start the one page over instead of allocating a new one.
        m_nReadPos = 0;
        m_nWritePos = 0;
    }
    return true;
}

void CMemStream::ReleaseFrontPage()
{
    if (m_pages.size() == 1)
    {
        if (m_nWritePos == kPageSize)
        {
            // The full last page is done: keep it as the fresh write page.
            m_nReadPos = 0;
            m_nWritePos = 0;
            return;
        }
        throw std::runtime_error("page is writable");
    }
    m_pages.pop_front();
    m_nReadPos = 0;
}

size_t CMemStream::Size() const
{
    std::lock_guard lock(m_mutex);
    return m_nSize;
}

size_t CMemStream::PageCount() const
{
    std::lock_guard lock(m_mutex);
    return m_pages.size();
}
