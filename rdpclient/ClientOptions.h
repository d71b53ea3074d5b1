#pragma once
// The add-in's options as FreeRDP hands them over from `/vc:velomar,opener:/path,schemes:a:b`:
// the channel's word first, then one "key:value" word per comma.
#include <string>
#include <vector>

namespace RdpClient
{

struct ClientOptions
{
    std::string opener = "xdg-open"; // found on PATH unless it holds a "/"
    std::vector<std::string> schemes = {"http", "https", "mailto"};
};

// False, with a sentence saying why, for an unknown key, a repeated one or a bad value: the
// add-in then refuses to load rather than run with a policy the user did not ask for.
bool ParseClientOptions(const std::vector<std::string>& words, ClientOptions& options, std::string& error);

} // namespace RdpClient
