#pragma once
// A byte buffer that lives inside its owner up to N bytes and moves to the heap beyond that.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

template <size_t N> class fmalloc_buffer
{
public:
    fmalloc_buffer() = default;
    ~fmalloc_buffer() { free(); }
    fmalloc_buffer(const fmalloc_buffer&) = delete;
    fmalloc_buffer& operator=(const fmalloc_buffer&) = delete;

    // Makes room for `size` bytes (contents are not kept); false when the heap refuses.
    bool malloc(size_t size) noexcept
    {
        if (size <= capacity())
            return true;
        void* block = std::malloc(size);
        if (!block)
            return false;
        free();
        m_pHeap = static_cast<uint8_t*>(block);
        m_nHeapSize = size;
        return true;
    }
    // Back to the inline storage.
    void free() noexcept
    {
        std::free(m_pHeap);
        m_pHeap = nullptr;
        m_nHeapSize = 0;
    }
    uint8_t* data() noexcept { return m_pHeap ? m_pHeap : m_inline; }
    size_t capacity() const noexcept { return m_pHeap ? m_nHeapSize : N; }

private:
    uint8_t m_inline[N]{};
    uint8_t* m_pHeap = nullptr;
    size_t m_nHeapSize = 0;
};
