#pragma once
// The received-data queue of a pipe stream: bytes appended by the I/O completion and taken from
// the front by readers, kept in 1024-byte pages that are freed once read.

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>

class CMemStream
{
public:
    static constexpr size_t kPageSize = 1024;
    static constexpr uint32_t kErrorInvalidParameter = 87;

    CMemStream();

    // 0, or 87 for an empty buffer or a zero length. Throws std::runtime_error
    // ("malloc page failed") when a page cannot be allocated.
    uint32_t Write(const void* data, size_t length);
    // Takes exactly `length` bytes from the front; false (nothing taken) when fewer are queued.
    bool Read(void* out, size_t length);
    size_t Size() const;
    size_t PageCount() const;

private:
    using Page = std::unique_ptr<unsigned char[]>;
    void ReleaseFrontPage();

    mutable std::mutex m_mutex;
    std::list<Page> m_pages;
    size_t m_nWritePos = 0; // in the last page
    size_t m_nReadPos = 0;  // in the first page
    size_t m_nSize = 0;
};
