#include "ControlCommands.h"

#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "server/App.h"
#include "server/Doorkeeper.h"
#include "server/ServerControl.h"

int statusCommand(const std::vector<std::string>& args);
int devicesCommand(const std::vector<std::string>& args);

int runControlCommand(int argc, char** argv)
{
    if (argc < 2)
        return -1;
    const std::string_view command = argv[1];
    std::vector<std::string> args(argv + 2, argv + argc);
    if (command == "status")
        return statusCommand(args);
    if (command == "devices")
        return devicesCommand(args);
    return -1;
}

DaemonControl::DaemonControl(App& app, const std::shared_ptr<Settings>& settings) : m_app(app)
{
    std::string error;
    std::shared_ptr<DeviceBook> book = DeviceBook::open(&error);
    if (!book)
        std::cerr << fmt::format("zandrel-syncd: the known phones' file cannot be used ({}); no phone is known, "
                                 "so only admission \"everyone\" lets phones in.\n",
            error);
    m_doorkeeper = std::make_shared<Doorkeeper>(settings, app.uiBridge(), book);
    app.setAdmission(m_doorkeeper);
}

void DaemonControl::openChannel()
{
    m_control = std::make_unique<ServerControl>(m_app, m_doorkeeper);
    if (!m_control->channel().isOpen())
        std::cerr << fmt::format("zandrel-syncd: no control channel ({}); `zandrel-syncd status` and `devices` "
                                 "cannot reach this server.\n",
            m_control->channel().error());
}

DaemonControl::~DaemonControl() = default;
