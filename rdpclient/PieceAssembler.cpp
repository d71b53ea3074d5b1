#include "rdpclient/PieceAssembler.h"

#include <algorithm>

namespace RdpClient
{

void PieceAssembler::Reset()
{
    m_bInMessage = false;
    m_bComplete = false;
    m_cbTotal = 0;
    m_message.clear();
}

PieceAssembler::Result PieceAssembler::Add(const uint8_t* data, size_t size, uint32_t totalLength,
                                           uint32_t flags)
{
    if (m_bComplete)
    {
        m_bComplete = false;
        m_message.clear();
    }
    // Channel suspend and resume notices travel as pieces without data.
    if (flags & (kPieceSuspend | kPieceResume))
        return m_bInMessage ? Result::Partial : Result::Idle;
    if (flags & kPieceFirst)
    {
        // A new message while one was still open: the open one lost its end.
        if (m_bInMessage)
        {
            Reset();
            return Result::Lost;
        }
        m_bInMessage = true;
        m_cbTotal = totalLength;
        m_message.clear();
        if (totalLength > m_cbMax)
        {
            Reset();
            return Result::Lost;
        }
        m_message.reserve(totalLength);
    }
    else if (!m_bInMessage || totalLength != m_cbTotal)
    {
        Reset();
        return Result::Lost;
    }

    if (size > m_cbTotal - m_message.size() || (size > 0 && data == nullptr))
    {
        Reset();
        return Result::Lost;
    }
    m_message.insert(m_message.end(), data, data + size);

    if (flags & kPieceLast)
    {
        const bool whole = m_message.size() == m_cbTotal;
        m_bInMessage = false;
        if (!whole)
        {
            Reset();
            return Result::Lost;
        }
        m_bComplete = true;
        return Result::Complete;
    }
    return Result::Partial;
}

} // namespace RdpClient
