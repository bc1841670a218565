#pragma once

#include <memory>

class App;
class Doorkeeper;
class ServerControl;
class Settings;

// `zandrel-syncd status` and `zandrel-syncd devices ...`: they talk to the
// running server over its control channel and read or change the known
// phones. Returns the exit status, or -1 when argv names neither.
int runControlCommand(int argc, char** argv);

// What the serving daemon adds to its App: the doorkeeper (admission and the
// known phones) and the control channel. Made before the App starts; the
// channel opens once the server listens (a second daemon that cannot listen
// says only that), and its thread is joined when this goes, while the App
// object still exists.
class DaemonControl {
public:
    DaemonControl(App& app, const std::shared_ptr<Settings>& settings);
    ~DaemonControl();

    void openChannel();

private:
    App& m_app;
    std::shared_ptr<Doorkeeper> m_doorkeeper;
    std::unique_ptr<ServerControl> m_control;
};
