#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Just enough JSON for the command line's --json output: values are written
// in order by the caller, who puts the commas and brackets; this quotes.
namespace Json {

// A JSON string literal, quotes included; control characters escaped, bytes
// that are not UTF-8 as U+FFFD.
std::string quote(std::string_view text);

} // namespace Json
