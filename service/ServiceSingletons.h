#pragma once
// The process-wide objects of the service, each in a slot of its own. They are created at
// start-up and live until the process ends.
#include <memory>
#include <string>
#include <vector>

class CCvLogger;

namespace service
{

std::shared_ptr<CCvLogger> GetServiceLogger();
void SetServiceLogger(std::shared_ptr<CCvLogger> logger);

// Creates the service's logger from the product key, writes its first record and sets the
// service's header fields. Null when the logger cannot be created.
std::shared_ptr<CCvLogger> CreateServiceLogger();

// Creates (or checks and resets) the service's log folder, as the service does before its first
// write; the package runs it at install so that the folder exists before any user could make
// it. Returns what the check found and did.
std::vector<std::wstring> PrepareLogFolder();

} // namespace service
