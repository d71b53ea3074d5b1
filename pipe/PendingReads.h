#pragma once
// The reads a pipe stream owes its owner and the received bytes they are served from, without
// Windows. Reads are served strictly in the order they were asked for: a read gets its bytes
// once all of them have arrived, or the error that ended the connection once nothing more can
// arrive and what is queued is not enough. Not synchronised: the stream holds one lock around
// every call except FinalError and BufferedBytes, which are safe from any thread.
#include "pipe/MemStream.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <new>

template <class Request> class CPendingReads
{
public:
    using Bytes = std::shared_ptr<unsigned char[]>;

    void Push(Request request, uint32_t length)
    {
        m_reads.push_back({std::move(request), length});
        m_nOwed += length;
    }

    // Takes a read off the queue (a cancel); false when it was not there.
    bool Remove(const Request& request)
    {
        const auto it = std::find_if(m_reads.begin(), m_reads.end(),
                                     [&](const Entry& entry) { return entry.request == request; });
        if (it == m_reads.end())
            return false;
        m_nOwed -= it->length;
        m_reads.erase(it);
        return true;
    }

    // Received bytes; 0 or the queue's error (CMemStream::Write).
    uint32_t Append(const void* data, size_t length) { return m_data.Write(data, length); }

    // Nothing more will arrive; the first error given is the one readers get.
    void Finish(uint32_t error)
    {
        uint32_t none = 0;
        m_dwFinalError.compare_exchange_strong(none, error);
    }
    uint32_t FinalError() const { return m_dwFinalError.load(); }
    // Whether a read of `length` bytes can still be served.
    bool CanServe(uint32_t length) const { return FinalError() == 0 || m_data.Size() >= length; }

    size_t Count() const { return m_reads.size(); }
    size_t BufferedBytes() const { return m_data.Size(); }
    // Whether more may be received: the bytes queued stay within what the reads ask for plus
    // `readAhead`, so a peer that writes and never waits for answers holds only that much here.
    bool WantsMore(size_t readAhead) const
    {
        return FinalError() == 0 && m_data.Size() < m_nOwed + readAhead;
    }

    // Serves the reads at the front, in order, stopping at the first that must wait for data:
    // `dropped(request)` tells whether a read was cancelled (it is skipped), and
    // `deliver(request, bytes, error)` gets either the read's bytes and 0, or no bytes and the
    // final error. A read's buffer is allocated only here, when its bytes are all in: a peer
    // that announces a large message and trickles it holds only what it has sent.
    template <class Dropped, class Deliver> void Serve(Dropped dropped, Deliver deliver)
    {
        while (!m_reads.empty())
        {
            const Entry& front = m_reads.front();
            if (dropped(front.request))
            {
                m_nOwed -= front.length;
                m_reads.pop_front();
                continue;
            }
            if (m_data.Size() >= front.length)
            {
                Bytes bytes(new (std::nothrow) unsigned char[front.length ? front.length : 1]);
                if (!bytes || (front.length > 0 && !m_data.Read(bytes.get(), front.length)))
                    return; // tried again with the next arrival
                Entry served = std::move(m_reads.front());
                m_reads.pop_front();
                m_nOwed -= served.length;
                deliver(served.request, std::move(bytes), 0u);
                continue;
            }
            const uint32_t error = FinalError();
            if (error == 0)
                return;
            Entry failed = std::move(m_reads.front());
            m_reads.pop_front();
            m_nOwed -= failed.length;
            deliver(failed.request, Bytes(), error);
        }
    }

private:
    struct Entry
    {
        Request request;
        uint32_t length;
    };

    std::deque<Entry> m_reads;
    size_t m_nOwed = 0; // the lengths of m_reads added up
    CMemStream m_data;
    std::atomic<uint32_t> m_dwFinalError{0};
};
