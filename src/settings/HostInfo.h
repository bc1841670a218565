#pragma once

#include <optional>
#include <string>
#include <vector>

// What the settings store asks of the machine: its visible name, the user,
// the running program and the IPv4 addresses. Callable from any thread.
namespace HostInfo {

// PRETTY_HOSTNAME from a machine-info file (shell-style KEY=value lines),
// nothing when the file or the key is missing or the value is empty.
std::optional<std::string> prettyHostname(const std::string& machineInfoPath);
// The pretty host name from that file when set, else the host name; every
// ":" turned into " " because ":" separates the identifier's fields.
std::string computerName(const std::string& machineInfoPath);
// "/etc/machine-info" unless a test pointed it elsewhere.
std::string machineInfoPath();
void setMachineInfoPath(const std::string& path);

// Login name of the effective user.
std::string userName();
// Absolute path of the running program (or the one a test set); empty
// when it cannot be found.
std::string programPath();
void setProgramPath(const std::string& path);
// The build folder (a folder holding CMakeCache.txt) the program lies
// below; nothing for an installed program.
std::optional<std::string> buildFolderOf(const std::string& programPath);

// Dotted-quad text of every IPv4 interface address, in the system's order;
// nothing when the interfaces cannot be listed.
std::optional<std::vector<std::string>> interfaceAddresses();
// Drops every text beginning with "127" and moves each copy of lastIP to
// the front; the others keep their order, duplicates included.
std::vector<std::string> orderAddresses(const std::vector<std::string>& found, const std::string& lastIP);

} // namespace HostInfo
