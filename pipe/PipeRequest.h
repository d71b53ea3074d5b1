#pragma once
// A connection's handle on its stream for reads and writes: one completion record
// (PIPE_OVERLAPPED) per operation, the list of records in flight, and a blocking write.
// Keep one object per connection for the connection's life: destroying it cancels what is
// still outstanding and frees the records.
#include "common/BaseLogger.h"
#include "common/Locks.h"
#include "common/UniqueHandle.h"
#include "pipe/NamedPipeStream.h"

#include <list>
#include <memory>
#include <mutex>
#include <vector>

class CPipeRequest : public CommonHelper::CvLogger::CBaseLogger
{
public:
    CPipeRequest(std::shared_ptr<CNamedPipeStream> stream, std::shared_ptr<ICvLogger> logger,
                 const wchar_t* className);
    ~CPipeRequest() override;
    CPipeRequest(const CPipeRequest&) = delete;
    CPipeRequest& operator=(const CPipeRequest&) = delete;

    // Writes and waits (without time limit) until the write completed, failed or was cancelled.
    BOOL Write(const void* data, uint32_t length);
    // Starts a write; its completion arrives through the stream's write callback.
    BOOL WriteAsync(const void* data, uint32_t length, PIPE_OVERLAPPED* record);
    // Asks for the next `bytes` bytes of received data; the callback receives them.
    BOOL ReadAsync(uint32_t bytes, std::shared_ptr<PipeIoCallback> callback, PIPE_OVERLAPPED* record);
    void CancelAll();
    // Retires a record: takes it off the list (when still there) and deletes it.
    void EndAsync(PIPE_OVERLAPPED* record);

    size_t OutstandingCount() const;
    const std::shared_ptr<CNamedPipeStream>& GetStream() const { return m_pStream; }

protected:
    std::wstring At(const wchar_t* method) const;

    const wchar_t* m_szClass;
    mutable daxlib::srw_lock m_srwLock;
    std::list<PIPE_OVERLAPPED*> m_records TS_GUARDED_BY(m_srwLock);
    // Events of blocking writes that ended normally, kept for the next ones: creating and
    // closing an event per message costs more than the write itself.
    std::vector<daxlib::unique_handle> m_spareEvents TS_GUARDED_BY(m_srwLock);
    std::shared_ptr<CNamedPipeStream> m_pStream;
    bool m_bServer = true;
};

class CPipeServerRequest : public CPipeRequest
{
public:
    CPipeServerRequest(std::shared_ptr<CNamedPipeStream> stream, std::shared_ptr<ICvLogger> logger);
};

class CPipeClientRequest : public CPipeRequest
{
public:
    CPipeClientRequest(std::shared_ptr<CNamedPipeStream> stream, std::shared_ptr<ICvLogger> logger);
};
