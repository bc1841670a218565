#include "server/NeighbourTable.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

std::string hardwareAddressOf(const std::string& address, const std::string& table)
{
    std::ifstream in(table);
    std::string line;
    // The first line names the columns: IP address, HW type, Flags, HW address, Mask, Device.
    std::getline(in, line);
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string ip, type, flags, hardware;
        if (!(fields >> ip >> type >> flags >> hardware) || ip != address)
            continue;
        // Flag 0x2 marks a completed entry; others hold 00:00:00:00:00:00.
        if ((std::strtoul(flags.c_str(), nullptr, 16) & 0x2) == 0)
            return {};
        return hardware;
    }
    return {};
}
