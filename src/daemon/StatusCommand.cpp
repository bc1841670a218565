// `zandrel-syncd status [--json]`: what the server of this user is doing.

#include <chrono>
#include <iostream>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "ControlOutput.h"
#include "server/ControlChannel.h"
#include "server/ControlText.h"
#include "server/ServerStatus.h"

namespace {

// No server runs for this user (or it is not listening).
constexpr int kNotServing = 3;

std::int64_t epochSeconds(std::chrono::system_clock::time_point t)
{
    return std::chrono::duration_cast<std::chrono::seconds>(t.time_since_epoch()).count();
}

std::string sessionLine(const SessionStatus& s)
{
    std::string doing = s.heldOut ? "held out" : SessionWork::commandName(s.command);
    if (doing.empty())
        doing = "idle";
    if (!s.file.empty()) {
        const auto percent = s.total > 0 ? s.done * 100 / s.total : 100;
        doing += fmt::format(" {}, {} of {} ({}%)", s.file, ControlOutput::bytes(s.done),
            ControlOutput::bytes(s.total), percent);
    }
    return fmt::format("  {} since {}: {}; moved {} to the phone, {} from it", s.peer.text(),
        ControlOutput::date(epochSeconds(s.since)), doing, ControlOutput::bytes(s.sent),
        ControlOutput::bytes(s.received));
}

void printText(const ServerStatus& status)
{
    if (status.port == 0) {
        std::cout << fmt::format("Not serving: the server (process {}) is not listening.\n", status.pid);
        return;
    }
    std::cout << fmt::format("Serving on port {} at {} (process {}, up {}; admission: {})\n", status.port,
        status.addresses.empty() ? std::string("no network address") : fmt::format("{}", fmt::join(status.addresses, ", ")),
        status.pid, ControlOutput::duration(status.uptimeSeconds), status.admission);
    if (status.sessions.empty()) {
        std::cout << "No phone connected.\n";
        return;
    }
    std::cout << fmt::format("{} {} connected:\n", status.sessions.size(),
        status.sessions.size() == 1 ? "phone" : "phones");
    for (const auto& s : status.sessions)
        std::cout << sessionLine(s) << "\n";
}

void printJson(const ServerStatus& status)
{
    using ControlText::jsonQuote;
    std::vector<std::string> addresses, sessions;
    for (const auto& a : status.addresses)
        addresses.push_back(jsonQuote(a));
    for (const auto& s : status.sessions)
        sessions.push_back(fmt::format("{{\"address\":{},\"port\":{},\"since\":{},\"command\":{},\"file\":{},"
                                       "\"done\":{},\"total\":{},\"sent\":{},\"received\":{},\"heldOut\":{}}}",
            jsonQuote(s.peer.address), s.peer.port, epochSeconds(s.since),
            jsonQuote(SessionWork::commandName(s.command)), jsonQuote(s.file), s.done, s.total, s.sent,
            s.received, s.heldOut));
    std::cout << fmt::format("{{\"running\":{},\"pid\":{},\"port\":{},\"uptime\":{},\"addresses\":[{}],"
                             "\"admission\":{},\"sessions\":[{}]}}\n",
        status.port != 0, status.pid, status.port, status.uptimeSeconds, fmt::join(addresses, ","),
        jsonQuote(status.admission), fmt::join(sessions, ","));
}

} // namespace

int statusCommand(const std::vector<std::string>& args)
{
    bool json = false;
    for (const auto& arg : args) {
        if (arg != "--json") {
            std::cerr << "zandrel-syncd: status takes only --json\n";
            return 2;
        }
        json = true;
    }
    const auto path = ControlChannel::defaultPath();
    const auto reply = ControlChannel::ask("status", path);
    const auto status = reply ? ServerStatus::decode(*reply) : std::nullopt;
    if (!status) {
        if (json)
            std::cout << "{\"running\":false}\n";
        else
            std::cerr << fmt::format("zandrel-syncd: no server runs for this user (nothing answers at {}).\n",
                path.empty() ? std::string("$XDG_RUNTIME_DIR/zandrel/control") : path);
        return kNotServing;
    }
    if (json)
        printJson(*status);
    else
        printText(*status);
    if (status->port == 0) {
        if (!json)
            std::cerr << "zandrel-syncd: the server is not listening (its port is taken?).\n";
        return kNotServing;
    }
    return 0;
}
