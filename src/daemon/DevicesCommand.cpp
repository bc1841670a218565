// `zandrel-syncd devices [--json]`, `devices allow ADDRESS [--name NAME]`,
// `devices block ADDRESS`, `devices forget ADDRESS`: the known phones.
// Changes are written to the known-phones file, then told to the running
// server (if any), which applies them at once: a blocked phone's sessions end.

#include <iostream>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <arpa/inet.h>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "ControlOutput.h"
#include "server/ControlChannel.h"
#include "server/ControlText.h"
#include "server/DeviceBook.h"
#include "server/ServerStatus.h"

namespace {

constexpr const char* kDevicesUsage = "Usage: zandrel-syncd devices [--json]\n"
                                      "       zandrel-syncd devices allow ADDRESS [--name NAME]\n"
                                      "       zandrel-syncd devices block ADDRESS\n"
                                      "       zandrel-syncd devices forget ADDRESS\n";

bool isAddress(const std::string& text)
{
    unsigned char buffer[16];
    return ::inet_pton(AF_INET, text.c_str(), buffer) == 1 || ::inet_pton(AF_INET6, text.c_str(), buffer) == 1;
}

std::set<std::string> connectedNow()
{
    std::set<std::string> found;
    if (auto reply = ControlChannel::ask("status"))
        if (auto status = ServerStatus::decode(*reply))
            for (const auto& s : status->sessions)
                found.insert(s.peer.address);
    return found;
}

int list(DeviceBook& book, bool json)
{
    const auto devices = book.all();
    const auto connected = connectedNow();
    if (json) {
        using ControlText::jsonQuote;
        std::vector<std::string> items;
        for (const auto& d : devices)
            items.push_back(fmt::format("{{\"address\":{},\"hardware\":{},\"name\":{},\"standing\":{},"
                                        "\"firstSeen\":{},\"lastSeen\":{},\"sessions\":{},\"sent\":{},"
                                        "\"received\":{},\"connected\":{}}}",
                jsonQuote(d.address), jsonQuote(d.hardware), jsonQuote(d.name),
                jsonQuote(DeviceBook::standingName(d.standing)), d.firstSeen, d.lastSeen, d.sessions, d.bytesSent,
                d.bytesReceived, connected.count(d.address) > 0));
        std::cout << fmt::format("[{}]\n", fmt::join(items, ","));
        return 0;
    }
    if (devices.empty()) {
        std::cout << "No phone has come yet.\n";
        return 0;
    }
    for (const auto& d : devices) {
        std::cout << fmt::format("{}{}{} — {}{}\n", d.address, d.name.empty() ? "" : " \"" + d.name + "\"",
            d.hardware.empty() ? "" : " (" + d.hardware + ")", DeviceBook::standingName(d.standing),
            connected.count(d.address) ? ", connected now" : "");
        std::cout << fmt::format("    first seen {}, last seen {}; {} sessions; {} to it, {} from it\n",
            ControlOutput::date(d.firstSeen), ControlOutput::date(d.lastSeen), d.sessions,
            ControlOutput::bytes(d.bytesSent), ControlOutput::bytes(d.bytesReceived));
    }
    return 0;
}

// Tells the running server; the number of sessions it ended, or nothing
// when no server runs.
std::optional<int> tellServer(const std::string& address)
{
    auto request = ControlText::line({"changed", address});
    request.pop_back();
    auto reply = ControlChannel::ask(request);
    if (!reply)
        return std::nullopt;
    auto fields = ControlText::fields(reply->substr(0, reply->find('\n')));
    if (fields.size() < 2 || fields[0] != "ok")
        return std::nullopt;
    try {
        return std::stoi(fields[1]);
    } catch (...) {
        return 0;
    }
}

int change(DeviceBook& book, const std::string& action, const std::vector<std::string>& args)
{
    if (args.empty() || !isAddress(args[0])) {
        std::cerr << fmt::format("zandrel-syncd: devices {} needs the phone's address (such as 192.168.1.30)\n",
            action);
        return 2;
    }
    const std::string address = args[0];
    std::optional<std::string> name;
    const std::size_t extra = action == "allow" && args.size() == 3 && args[1] == "--name" ? 2 : 0;
    if (extra)
        name = args[2];
    if (args.size() != 1 + extra) {
        std::cerr << kDevicesUsage;
        return 2;
    }
    if (action == "forget") {
        if (!book.forget(address)) {
            std::cerr << fmt::format("zandrel-syncd: {} is not a known phone\n", address);
            return 1;
        }
        tellServer(address);
        std::cout << fmt::format("Forgot {}.\n", address);
        return 0;
    }
    const auto standing = action == "allow" ? DeviceBook::Standing::Allowed : DeviceBook::Standing::Blocked;
    if (!book.setStanding(address, standing, name)) {
        std::cerr << fmt::format("zandrel-syncd: could not write the known phones' file\n");
        return 1;
    }
    const auto ended = tellServer(address);
    if (action == "allow")
        std::cout << fmt::format("Allowed {}.\n", address);
    else if (ended && *ended > 0)
        std::cout << fmt::format("Blocked {}; its {} open session{} ended.\n", address, *ended,
            *ended == 1 ? "" : "s");
    else
        std::cout << fmt::format("Blocked {}.\n", address);
    return 0;
}

} // namespace

int devicesCommand(const std::vector<std::string>& args)
{
    const bool listing = args.empty() || (args.size() == 1 && args[0] == "--json");
    const std::string action = listing ? "" : args[0];
    if (!listing && action != "allow" && action != "block" && action != "forget") {
        std::cerr << kDevicesUsage;
        return 2;
    }
    std::string error;
    auto book = DeviceBook::open(&error);
    if (!book) {
        std::cerr << fmt::format("zandrel-syncd: the known phones' file cannot be used: {}\n", error);
        return 1;
    }
    if (listing)
        return list(*book, !args.empty());
    return change(*book, action, std::vector<std::string>(args.begin() + 1, args.end()));
}
