#pragma once

#include <string>
#include <string_view>

// Names from the server as the command line shows them. The protocol
// carries text as UTF-8 only: a name on the server's disk that is not valid
// UTF-8 is listed, but no command can name it back.
namespace Names {

// Whether a command can carry `name` to the server.
bool travels(std::string_view name);
// `name` with every byte that is not part of valid UTF-8 shown as U+FFFD.
std::string shown(std::string_view name);
// Why such a name cannot be fetched, for messages and --json.
inline constexpr const char* kCannotTravel = "the name is not UTF-8, which the protocol cannot carry";

} // namespace Names
