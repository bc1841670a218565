#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "server/ControlChannel.h"

class App;
class Doorkeeper;

// What the running server answers on its control channel:
//   status            the ServerStatus records
//   changed ADDRESS   the phone's standing changed in the known-phones file:
//                     the doorkeeper reads it again, and a blocked phone's
//                     sessions end at once
// Owned by a front end (daemon main, tray application) for as long as it
// runs; the channel's thread is joined when this goes.
class ServerControl {
public:
    ServerControl(App& app, std::shared_ptr<Doorkeeper> doorkeeper,
        const std::string& path = ControlChannel::defaultPath());

    const ControlChannel& channel() const { return m_channel; }

private:
    std::string answer(const std::string& request);

    App& m_app;
    std::shared_ptr<Doorkeeper> m_doorkeeper;
    std::chrono::steady_clock::time_point m_started;
    // Last: its thread starts once everything it answers from exists, and
    // is joined before any of it goes.
    ControlChannel m_channel;
};
