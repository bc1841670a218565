#pragma once

#include <filesystem>
#include <optional>
#include <string>

class Settings;

// The one door through which a path a phone sent reaches the disk. Every
// handler that creates, opens, tests, lists, moves or deletes anything asks
// here first and treats "nothing" like a path where nothing exists. Display
// text (an absent path shows as "(null)") is for log lines only and never
// comes through here. Stateless; any session thread may call it.
namespace DiskPath {

// The path to use on disk, or nothing when the received text names no file:
// it was not UTF-8 (absent), or it holds a NUL byte, at which the kernel
// would cut it and act on another item ("a.txt\0.new" is not "a.txt").
// With the settings' confinement on, a path that leads outside the base
// folder once its symbolic links and ".." are followed names nothing too.
std::optional<std::string> of(const std::optional<std::string>& received, const Settings& settings);

// Where the kernel would take `text` from this process's working folder:
// every symbolic link followed (dangling ones too), ".." taken from the real
// parent, the part that does not exist yet kept as written. Nothing when it
// cannot be worked out (a link loop, ".." below a missing folder).
std::optional<std::filesystem::path> resolved(const std::string& text);

// Whether `path` is `folder` or lies below it, component by component, so
// "/base" does not contain "/base2".
bool contains(const std::filesystem::path& folder, const std::filesystem::path& path);

} // namespace DiskPath
