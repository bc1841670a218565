#pragma once

#include <string>

// The hardware address the kernel's neighbour table (/proc/net/arp) holds
// for an IPv4 address on this link; empty when it holds none (another
// network, IPv6, a phone not heard from lately).
std::string hardwareAddressOf(const std::string& address, const std::string& table = "/proc/net/arp");
