#include "session/DiskPath.h"

#include "settings/Settings.h"

namespace DiskPath {

std::optional<std::string> of(const std::optional<std::string>& received, [[maybe_unused]] const Settings& settings)
{
    if (!received || received->find('\0') != std::string::npos)
        return std::nullopt;
    return received;
}

} // namespace DiskPath
