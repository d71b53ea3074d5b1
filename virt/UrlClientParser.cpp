#include "virt/UrlClientParser.h"

#include <algorithm>

namespace UrlNet
{

size_t UrlClientParser::Wanted() const noexcept
{
    switch (m_state)
    {
    case State::Version:
    case State::OptionsLength:
        return 4;
    case State::VersionStatus:
    case State::OptionsStatus:
        return 1;
    case State::Header:
        return kHeaderSize;
    case State::Data:
        return m_header.cbData;
    default:
        return 0;
    }
}

bool UrlClientParser::Feed(const uint8_t* bytes, size_t size, std::vector<ClientItem>& out)
{
    while (m_state != State::Malformed)
    {
        if (m_qwSkip > 0)
        {
            const size_t n = static_cast<size_t>(std::min<uint64_t>(m_qwSkip, size));
            m_qwSkip -= n;
            bytes += n;
            size -= n;
            if (m_qwSkip > 0)
                break;
            continue;
        }
        const size_t wanted = Wanted();
        const size_t take = std::min(wanted - m_pending.size(), size);
        m_pending.insert(m_pending.end(), bytes, bytes + take);
        bytes += take;
        size -= take;
        if (m_pending.size() < wanted)
            break;
        Complete(out);
    }
    return m_state != State::Malformed;
}

void UrlClientParser::Complete(std::vector<ClientItem>& out)
{
    switch (m_state)
    {
    case State::Version:
        out.push_back({ClientItem::Kind::ServerVersion, GetU32(m_pending.data()), {}, {}});
        m_state = State::VersionStatus;
        break;
    case State::VersionStatus:
        out.push_back({ClientItem::Kind::ServerVersionStatus, m_pending[0], {}, {}});
        m_state = State::OptionsLength;
        break;
    case State::OptionsLength:
        m_qwSkip = GetU32(m_pending.data());
        out.push_back({ClientItem::Kind::ServerOptionsLength, static_cast<uint32_t>(m_qwSkip), {}, {}});
        m_state = m_qwSkip > m_dwMaxData ? State::Malformed : State::OptionsStatus;
        break;
    case State::OptionsStatus:
        out.push_back({ClientItem::Kind::ServerOptionsStatus, m_pending[0], {}, {}});
        m_state = State::Header;
        break;
    case State::Header:
        m_header = DecodeHeader(m_pending.data());
        if (m_header.cbData > m_dwMaxData)
            m_state = State::Malformed;
        else if (m_header.cbData == 0)
            out.push_back({ClientItem::Kind::Message, 0, m_header, {}});
        else
            m_state = State::Data;
        break;
    case State::Data:
        out.push_back({ClientItem::Kind::Message, 0, m_header, std::move(m_pending)});
        m_state = State::Header;
        break;
    default:
        break;
    }
    m_pending.clear();
}

} // namespace UrlNet
