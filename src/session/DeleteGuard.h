#pragma once

#include <string>

// The rule that keeps a phone from removing the user's home folder, the base
// folder or anything that holds one of them ("/" included): the platform's
// remove-all would take the whole home, the settings file with it. Stateless;
// any session thread may call it.
namespace DeleteGuard {

// What a refused path holds; the home folder is named when it holds both.
enum class Holds { Nothing, HomeFolder, BaseFolder };

// `path` as a phone sent it, `home` the user's home folder, `base` the base
// folder (either may start with "~", which means `home`). The path is taken
// as removing it would take it: "~", "." and "..", repeated and trailing
// slashes resolved, links in its parent chain followed, its last component
// not (a link to the home folder goes as a link, and holds nothing). Home
// and base count both as written and with every link followed.
Holds check(const std::string& path, const std::string& home, const std::string& base);

// "Refused to delete PATH: it holds the home folder" (or base folder).
std::string refusal(const std::string& shownPath, Holds holds);

} // namespace DeleteGuard
