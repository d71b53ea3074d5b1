#include "virt/Handshake.h"

#include "virt/UrlProtocol.h"

namespace UrlNet
{

namespace
{

class Exchange
{
public:
    explicit Exchange(const HandshakeIo& io) : m_io(io) {}

    bool WriteU32(HandshakeStep step, uint32_t value)
    {
        uint8_t item[4];
        PutU32(item, value);
        return Moved(step, m_io.write(item, 4));
    }
    bool ReadU32(HandshakeStep step, uint32_t& value)
    {
        uint8_t item[4];
        if (!Moved(step, m_io.read(item, 4)))
            return false;
        value = GetU32(item);
        return true;
    }
    bool WriteStatus(HandshakeStep step) { return Moved(step, m_io.write(&kStatusAccepted, 1)); }
    // False when the read fails or the client side refuses (`refusal`).
    bool ReadStatus(HandshakeStep step, HandshakeEnd refusal)
    {
        uint8_t status = 0;
        if (!Moved(step, m_io.read(&status, 1)))
            return false;
        if (status == kStatusAccepted)
            return true;
        result.end = refusal;
        return false;
    }
    void Passed(HandshakeStep step) const
    {
        if (m_io.passed)
            m_io.passed(step, result);
    }

    HandshakeResult result;

private:
    bool Moved(HandshakeStep step, bool ok)
    {
        result.lastStep = step;
        return ok;
    }
    const HandshakeIo& m_io;
};

} // namespace

HandshakeResult RunHandshake(const HandshakeIo& io)
{
    using Step = HandshakeStep;
    Exchange x(io);
    HandshakeResult& r = x.result;

    if (!x.WriteU32(Step::WriteLocalVersion, LocalVersion))
        return r;
    r.localVersion = LocalVersion;
    x.Passed(Step::WriteLocalVersion);
    if (!x.ReadU32(Step::ReadRemoteVersion, r.remoteVersion))
        return r;
    x.Passed(Step::ReadRemoteVersion);
    // Accepted whatever the remote version says; a low one is refused only at the end.
    if (!x.WriteStatus(Step::WriteVersionStatus))
        return r;
    x.Passed(Step::WriteVersionStatus);
    if (!x.ReadStatus(Step::ReadVersionStatus, HandshakeEnd::VersionRefused))
        return r;
    r.negotiatedVersion = LocalVersion;
    x.Passed(Step::ReadVersionStatus);

    if (!x.WriteU32(Step::WriteLocalOptions, kLocalOptionsLength))
        return r;
    x.Passed(Step::WriteLocalOptions);
    // Announced option bytes are never read: the next thing expected is a message header.
    if (!x.ReadU32(Step::ReadRemoteOptions, r.remoteOptionsLength))
        return r;
    x.Passed(Step::ReadRemoteOptions);
    if (!x.WriteStatus(Step::WriteOptionsStatus))
        return r;
    x.Passed(Step::WriteOptionsStatus);
    if (!x.ReadStatus(Step::ReadOptionsStatus, HandshakeEnd::OptionsRefused))
        return r;
    x.Passed(Step::ReadOptionsStatus);

    // Told "accepted" in the version exchange, dropped now without a word: kept as it is.
    r.end = r.remoteVersion < kLowestRemoteVersion ? HandshakeEnd::VersionTooLow : HandshakeEnd::Accepted;
    return r;
}

} // namespace UrlNet
