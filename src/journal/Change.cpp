#include "journal/Change.h"

#include <array>
#include <utility>

namespace {

constexpr std::array<std::pair<Change::Kind, const char*>, 9> kKinds{{
    {Change::Kind::Connected, "connected"},
    {Change::Kind::Disconnected, "disconnected"},
    {Change::Kind::Downloaded, "downloaded"},
    {Change::Kind::Uploaded, "uploaded"},
    {Change::Kind::Replaced, "replaced"},
    {Change::Kind::CreatedFolder, "created folder"},
    {Change::Kind::DeletedFile, "deleted file"},
    {Change::Kind::DeletedFolder, "deleted folder"},
    {Change::Kind::Renamed, "renamed"},
}};

constexpr std::array<std::pair<Change::State, const char*>, 4> kStates{{
    {Change::State::None, ""},
    {Change::State::Kept, "kept"},
    {Change::State::Restored, "restored"},
    {Change::State::Purged, "purged"},
}};

} // namespace

std::string Change::kindText(Kind kind)
{
    for (const auto& [k, text] : kKinds)
        if (k == kind)
            return text;
    return "";
}

std::optional<Change::Kind> Change::kindFrom(const std::string& text)
{
    for (const auto& [k, name] : kKinds)
        if (text == name)
            return k;
    return std::nullopt;
}

std::string Change::stateText(State state)
{
    for (const auto& [s, text] : kStates)
        if (s == state)
            return text;
    return "";
}

Change::State Change::stateFrom(const std::string& text)
{
    for (const auto& [s, name] : kStates)
        if (text == name)
            return s;
    return State::None;
}
