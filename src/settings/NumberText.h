#pragma once

#include <cstdint>
#include <string>

// Numbers and truth read from the start of a text, leniently, the way the
// settings file's values and dotted versions are read; and blank trimming.
namespace NumberText {

// Leading blanks, an optional sign, digits; 0 when there are no digits.
// Saturates instead of overflowing.
std::int64_t leadingInteger(const std::string& text);
// True when, after blanks, a sign and leading zeros, the text starts with
// Y, T (either case) or a non-zero digit.
bool leadingTruth(const std::string& text);
// The text without leading and trailing blanks.
std::string trim(const std::string& text);

} // namespace NumberText
