#pragma once
// The scripting interface of the stand-in channel library. Tests reach these exports with
// GetProcAddress on the module the service's loader loaded; other processes use the control
// pipe (skeinctl.exe) with the same text commands. See README.md.
#include <windows.h>

#include <cstdint>

struct StandinStats
{
    uint32_t connectAttempts; // SkConnectTo calls for the session
    uint32_t connections;     // connections that reported CONNECTED
    uint32_t handshakes;      // handshakes the client side completed and accepted
    uint32_t submits;         // well-formed submit messages received
    uint32_t otherMessages;   // messages with another command or a short body
    uint32_t malformed;       // streams the client side could not parse (connection broken)
    uint32_t liveConnections; // open, unbroken connections now
};

extern "C"
{
    // Runs one text command (the grammar of README.md); writes the reply ("ok ..." or
    // "error: ...", UTF-8, zero-terminated) and returns its length without the terminator.
    using PFN_StandinCommand = DWORD(WINAPI*)(const char* command, char* reply, DWORD capacity);
    // The bytes the client side received on the session's latest connection; returns their count.
    using PFN_StandinGetReceived = DWORD(WINAPI*)(DWORD sessionId, uint8_t* buffer, DWORD capacity);
    using PFN_StandinGetStats = BOOL(WINAPI*)(DWORD sessionId, StandinStats* stats);
    // GetTickCount64 of each SkConnectTo for the session; returns how many there were.
    using PFN_StandinGetConnectTimes = DWORD(WINAPI*)(DWORD sessionId, uint64_t* ticks, DWORD capacity);
    // The next SkInit returns this error instead of initialising.
    using PFN_StandinFailNextInit = void(WINAPI*)(DWORD error);
}
