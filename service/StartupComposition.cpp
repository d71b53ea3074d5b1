#include "service/StartupComposition.h"

namespace service
{

void RunStartupComposition(const std::shared_ptr<CCvLogger>& /*logger*/)
{
    // The service host alone has no servers to create yet.
}

} // namespace service
