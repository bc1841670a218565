#pragma once

#include <optional>
#include <string>

// The per-user login item, kept as an XDG autostart entry: a desktop entry
// file whose Exec line starts the program at the desktop session's start.
namespace LoginItems {

// $XDG_CONFIG_HOME/autostart/ZandrelSync.desktop; "~/.config" stands in
// when the variable is unset, empty or not an absolute path.
std::string entryPath();

// The Exec value that runs exactly this program: quoted and escaped as
// desktop entries need when the path holds blanks or shell characters.
std::string execValue(const std::string& programPath);
// The program an Exec value names (its first argument, unescaped);
// nothing when the value names none.
std::optional<std::string> execProgram(const std::string& value);

// The program named by the entry file's [Desktop Entry] Exec key; nothing
// when the file is missing, hidden (Hidden=true) or has no Exec.
std::optional<std::string> entryProgram(const std::string& entryFile);
// Writes the entry for the program, replacing any entry of that name.
bool writeEntry(const std::string& entryFile, const std::string& programPath);

} // namespace LoginItems
