#pragma once

#include <cstdint>
#include <string>

// How the control commands show sizes and dates to a person.
namespace ControlOutput {

// "0 B", "512 KB", "12.5 MB", "3.1 GB" (powers of 1000, as file managers show them).
std::string bytes(std::int64_t count);
// Local time "2026-11-24 13:05:07"; "never" for 0.
std::string date(std::int64_t secondsSince1970);
// "42s", "5m 03s", "2h 03m", "3d 4h".
std::string duration(std::int64_t seconds);

} // namespace ControlOutput
