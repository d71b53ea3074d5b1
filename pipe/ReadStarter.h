#pragma once
// The thread that starts the pipe streams' overlapped reads.
//
// Under Wine, a pipe read that has to wait is finished by the thread that started it: when the
// data comes, that thread is told and fetches it. While it is busy the data waits; if it ends
// as the data arrives, the data is lost with the read. Pool threads come and go (an idle one is
// retired after a few seconds), so a read started on one can outlive it. Reads are therefore
// started here, by one thread that lives as long as the pool and waits on its queue between
// starts. On Windows a read bound to a completion port needs nothing from its thread; there the
// cost is one wake-up of this thread per read, and the data still reaches the owner from the
// completion, without passing through here.
#include "common/ICvLogger.h"
#include "pipe/NamedPipeStream.h"
#include "pipe/SignalQueueThread.h"

#include <atomic>
#include <memory>

class CReadStarter
{
public:
    // Throws CDaxException when the thread cannot be made.
    explicit CReadStarter(const std::shared_ptr<ICvLogger>& logger);
    ~CReadStarter();
    CReadStarter(const CReadStarter&) = delete;
    CReadStarter& operator=(const CReadStarter&) = delete;

    // Queues the start of the stream's next read. False when the thread has stopped: the
    // caller then starts the read itself.
    bool Post(const std::weak_ptr<CNamedPipeStream>& stream);
    // Starts what is queued, then ends the thread.
    void Stop();
    // True on a starter's thread while it starts a read.
    static bool OnStarterThread();
    // True on this starter's own thread, which its Stop must not be called from.
    bool IsCurrentThread() const { return m_dwThreadId.load() == ::GetCurrentThreadId(); }

private:
    int Run(std::weak_ptr<CNamedPipeStream>& stream);

    std::atomic<DWORD> m_dwThreadId{0};
    CSignalQueueThread<std::weak_ptr<CNamedPipeStream>> m_thread;
};
