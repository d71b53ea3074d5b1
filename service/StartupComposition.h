#pragma once
#include <memory>

class CCvLogger;

namespace service
{

// Creates the process-wide objects in their fixed order and starts the servers. Throws when an
// object cannot be constructed; a server that fails to start does not stop the service.
void RunStartupComposition(const std::shared_ptr<CCvLogger>& logger);

} // namespace service
