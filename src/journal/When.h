#pragma once

#include <cstdint>
#include <optional>
#include <string>

// The times a person types for "since" and "until", in milliseconds since
// 1970: an ISO date ("2026-11-24", local midnight) or date and time
// ("2026-11-24T13:10", "2026-11-24 13:10:30"), a time of today ("13:10"),
// or an age ("-10m", "-2h", "-3d", "-30s"). Nothing when it is none of these.
namespace When {

std::optional<std::int64_t> parse(const std::string& text, std::int64_t nowMs);
// Local "YYYY-MM-DD HH:MM:SS".
std::string localText(std::int64_t ms);

} // namespace When
