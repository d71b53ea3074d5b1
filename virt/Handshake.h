#pragma once
// The version and options exchange that opens every URL channel connection, as a fixed
// sequence of eight steps over a write and a read callable. Free of Windows headers: the
// session handler supplies the channel library's calls, its lock and its log texts; tests
// supply a client side in memory.
#include <cstdint>
#include <functional>

namespace UrlNet
{

// In the order of the items on the connection; Write steps go from the service to the client
// side, Read steps back.
enum class HandshakeStep : uint8_t
{
    WriteLocalVersion,
    ReadRemoteVersion,
    WriteVersionStatus,
    ReadVersionStatus,
    WriteLocalOptions,
    ReadRemoteOptions,
    WriteOptionsStatus,
    ReadOptionsStatus,
};
constexpr int HandshakeStepCount = 8;

// The two sides take turns, so every odd step is a read.
constexpr bool IsReadStep(HandshakeStep step) noexcept
{
    return static_cast<int>(step) % 2 == 1;
}

enum class HandshakeEnd
{
    Accepted,
    Broken,         // a write or read failed
    VersionRefused, // the client side's version status was not "accepted"
    OptionsRefused, // the client side's options status was not "accepted"
    VersionTooLow,  // every step passed, but the remote version is below the lowest accepted
};

struct HandshakeResult
{
    HandshakeEnd end = HandshakeEnd::Broken;
    HandshakeStep lastStep = HandshakeStep::WriteLocalVersion; // the step that ended it
    // As far as the exchange got; zero for what it never reached.
    uint32_t localVersion = 0;
    uint32_t remoteVersion = 0;
    uint32_t negotiatedVersion = 0;
    uint32_t remoteOptionsLength = 0;

    // A verdict of the client side (or on it), as opposed to a connection that failed.
    bool Refused() const noexcept { return end != HandshakeEnd::Accepted && end != HandshakeEnd::Broken; }
};

struct HandshakeIo
{
    // Each moves exactly `size` bytes or fails; a failure ends the exchange as Broken.
    std::function<bool(const void* bytes, uint32_t size)> write;
    std::function<bool(void* bytes, uint32_t size)> read;
    // Optional: told of each step that passed (a status read passes only when it accepts),
    // with the result so far, before the next step starts.
    std::function<void(HandshakeStep step, const HandshakeResult& sofar)> passed;
};

// The service's side: it speaks first, announces no options, accepts whatever version the
// client side names, never reads announced option bytes, and refuses a low version only after
// both status exchanges.
HandshakeResult RunHandshake(const HandshakeIo& io);

} // namespace UrlNet
