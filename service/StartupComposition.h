#pragma once
#include "pipeserver/PipeServer.h"
#include "statusapi/StatusServer.h"

#include <windows.h>

#include <memory>
#include <string>

class CCvLogger;
class CVirtServer;
class CPipeServer;
class CStatusServer;

namespace service
{

// Creates the process-wide objects in their fixed order (thread pool, virtual-channel server,
// agent pipe server, status API server) and starts the three servers. Throws when an object
// cannot be constructed; a server that fails to start does not stop the service: without the
// channel library agents are still served, and their URLs are answered as not sent.
void RunStartupComposition(const std::shared_ptr<CCvLogger>& logger);

// The agent pipe's access and connection limits from the product key: "AllowLegacyAgentAccess",
// "MaxAgentConnectionsPerSession" and "MaxAgentConnections" (REG_DWORD each).
AgentPipeSettings ReadAgentPipeSettings(HKEY root = HKEY_LOCAL_MACHINE);

std::shared_ptr<CVirtServer> GetVirtServer();
// "MaxStatusConnectionsPerSession" and "MaxStatusConnections" (REG_DWORD each).
StatusApiSettings ReadStatusApiSettings(HKEY root = HKEY_LOCAL_MACHINE);

std::shared_ptr<CPipeServer> GetPipeServer();
// How URLs leave this host, for the start event: the channel library, and whether it loaded.
std::wstring ChannelTransportText();
std::shared_ptr<CStatusServer> GetStatusServer();

} // namespace service
