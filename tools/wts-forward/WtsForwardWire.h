#pragma once
// The loopback protocol between the test-only wtsapi32.dll (in the Wine prefix, beside the
// service) and the test RDP host that performs the calls against its real FreeRDP channel. Every
// call is one request and one answer on a connection of the calling thread; all numbers are
// little-endian. Free of platform headers: both sides include it.
#include <cstdint>
#include <cstring>

namespace WtsForward
{

enum class Op : uint32_t
{
    Enumerate = 1, // answer payload: per session u32 id, u32 state, u32 name length, UTF-16 name
    QueryLogon,    // a: session; answer payload: u64 logon time
    WaitEvent,     // a: event mask (with the flush bit: wakes every waiter); answer value: flags
    OpenEx,        // a: session, b: flags, payload: channel name; answer value: handle
    Read,          // a: handle, b: time-out ms, c: size; answer payload: the bytes
    Write,         // a: handle, payload: the bytes; answer value: bytes written
    Close,         // a: handle
};

struct Request
{
    uint32_t op = 0;
    uint32_t a = 0;
    uint32_t b = 0;
    uint32_t c = 0;
    uint32_t payloadLength = 0;
};

struct Answer
{
    uint32_t ok = 0;
    uint32_t error = 0; // the call's last error when it failed
    uint32_t value = 0;
    uint32_t payloadLength = 0;
};

static_assert(sizeof(Request) == 20 && sizeof(Answer) == 16, "sent as they are in memory");

// Room for the longest URL the service takes (2^19 UTF-16 units, at most 1.5 MiB of UTF-8) in one
// channel write.
constexpr uint32_t kMaxPayload = 4u << 20;

} // namespace WtsForward
