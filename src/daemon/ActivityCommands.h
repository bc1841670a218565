#pragma once

#include <optional>

// `zandrel-syncd activity …` and `zandrel-syncd restore …`: what phones did,
// and bringing back what they removed or replaced. They read and write the
// journal and the trash directly, so they work with or without a server.
namespace ActivityCommands {

// The exit code when argv names one of these subcommands; nothing otherwise.
std::optional<int> dispatch(int argc, char** argv);

} // namespace ActivityCommands
