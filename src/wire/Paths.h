#pragma once

#include <string>

// Path text rules shared by every room: tilde expansion and the usual
// path-component arithmetic, done on the text alone (the disk is never asked).
namespace Paths {

// "~" and "~/x" use $HOME (else the password database); "~name/x" that
// user's home. Anything else, or an unknown user, comes back unchanged.
std::string expandTilde(const std::string& path);
// The user's home folder, as "~" expands.
std::string homeDirectory();
// "/a/b/" -> "/a"; "/" -> "/"; "a" -> "".
std::string deletingLastPathComponent(const std::string& path);
// "/a/b/" -> "b"; "/" -> "/"; "" -> "".
std::string lastPathComponent(const std::string& path);
// Text after the last "." of the last component, "" when there is none.
std::string pathExtension(const std::string& path);

} // namespace Paths
