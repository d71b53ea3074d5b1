#include "pipe/ReadStarter.h"

#include "common/DaxException.h"

namespace
{
thread_local bool t_bStarting = false;
} // namespace

CReadStarter::CReadStarter(const std::shared_ptr<ICvLogger>& logger)
    : m_thread(MakeMemberCallback<int(std::weak_ptr<CNamedPipeStream>&)>(this, &CReadStarter::Run), logger)
{
    if (!m_thread.Start())
        daxlib::ThrowDaxException(L"ReadStarter", 61);
}

CReadStarter::~CReadStarter()
{
    Stop();
}

bool CReadStarter::Post(const std::weak_ptr<CNamedPipeStream>& stream)
{
    return m_thread.Push(stream) != 0;
}

void CReadStarter::Stop()
{
    m_thread.Stop();
}

bool CReadStarter::OnStarterThread()
{
    return t_bStarting;
}

int CReadStarter::Run(std::weak_ptr<CNamedPipeStream>& stream)
{
    m_dwThreadId = ::GetCurrentThreadId();
    if (auto self = stream.lock())
    {
        t_bStarting = true;
        self->ContinueReading();
        t_bStarting = false;
    }
    return 1;
}
