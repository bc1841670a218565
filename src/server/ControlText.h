#pragma once

#include <string>
#include <string_view>
#include <vector>

// The control channel's text: one record a line, fields separated by tabs;
// a tab, newline or backslash inside a field (a phone's file name may hold
// any of them) is written as \t, \n or \\. Also the JSON quoting the
// programs that print records use.
namespace ControlText {

std::string line(const std::vector<std::string>& fields);
std::vector<std::string> fields(std::string_view line);
// Each line of `text`, as fields.
std::vector<std::vector<std::string>> records(std::string_view text);
// A JSON string literal, quotes included.
std::string jsonQuote(std::string_view text);

} // namespace ControlText
