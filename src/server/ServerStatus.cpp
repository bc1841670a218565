#include "server/ServerStatus.h"

#include <unistd.h>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "server/App.h"
#include "server/ControlText.h"
#include "server/SocketListener.h"
#include "settings/Settings.h"

namespace {

std::int64_t number(const std::string& text)
{
    try {
        return std::stoll(text);
    } catch (...) {
        return 0;
    }
}

std::vector<std::string> split(const std::string& text)
{
    std::vector<std::string> parts;
    std::size_t from = 0;
    while (from < text.size()) {
        auto comma = text.find(',', from);
        if (comma == std::string::npos)
            comma = text.size();
        parts.push_back(text.substr(from, comma - from));
        from = comma + 1;
    }
    return parts;
}

} // namespace

ServerStatus ServerStatus::of(App& app, std::chrono::steady_clock::time_point started)
{
    ServerStatus status;
    status.pid = ::getpid();
    status.port = app.waitUntilRunning(std::chrono::milliseconds(0)).value_or(0);
    status.uptimeSeconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started).count();
    const auto& settings = *app.settings();
    status.addresses = settings.servedAddresses();
    status.admission = settings.getAdmission();
    if (auto listener = app.listener())
        status.sessions = listener->statuses();
    return status;
}

std::string ServerStatus::encode() const
{
    std::string text = ControlText::line({"server", std::to_string(pid), std::to_string(port),
        std::to_string(uptimeSeconds), fmt::format("{}", fmt::join(addresses, ",")), admission});
    for (const auto& s : sessions) {
        const auto since = std::chrono::duration_cast<std::chrono::seconds>(s.since.time_since_epoch()).count();
        text += ControlText::line({"session", s.peer.address, std::to_string(s.peer.port), std::to_string(since),
            std::to_string(s.command), s.file, std::to_string(s.done), std::to_string(s.total),
            std::to_string(s.sent), std::to_string(s.received), s.heldOut ? "held out" : ""});
    }
    return text;
}

std::optional<ServerStatus> ServerStatus::decode(std::string_view text)
{
    auto records = ControlText::records(text);
    if (records.empty() || records[0].size() < 6 || records[0][0] != "server")
        return std::nullopt;
    const auto& head = records[0];
    ServerStatus status;
    status.pid = static_cast<long>(number(head[1]));
    status.port = static_cast<std::uint16_t>(number(head[2]));
    status.uptimeSeconds = number(head[3]);
    status.addresses = split(head[4]);
    status.admission = head[5];
    for (std::size_t i = 1; i < records.size(); ++i) {
        const auto& r = records[i];
        if (r.size() < 11 || r[0] != "session")
            continue;
        SessionStatus s;
        s.peer = {r[1], static_cast<std::uint16_t>(number(r[2]))};
        s.since = std::chrono::system_clock::time_point(std::chrono::seconds(number(r[3])));
        s.command = static_cast<int>(number(r[4]));
        s.file = r[5];
        s.done = number(r[6]);
        s.total = number(r[7]);
        s.sent = number(r[8]);
        s.received = number(r[9]);
        s.heldOut = !r[10].empty();
        status.sessions.push_back(std::move(s));
    }
    return status;
}
