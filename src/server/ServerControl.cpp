#include "server/ServerControl.h"

#include "server/App.h"
#include "server/ControlText.h"
#include "server/Doorkeeper.h"
#include "server/ServerStatus.h"
#include "server/SocketListener.h"

ServerControl::ServerControl(App& app, std::shared_ptr<Doorkeeper> doorkeeper, const std::string& path)
    : m_app(app)
    , m_doorkeeper(std::move(doorkeeper))
    , m_started(std::chrono::steady_clock::now())
    , m_channel([this](const std::string& request) { return answer(request); }, path)
{
}

std::string ServerControl::answer(const std::string& request)
{
    const auto fields = ControlText::fields(request);
    if (fields[0] == "status")
        return ServerStatus::of(m_app, m_started).encode();
    if (fields[0] == "changed" && fields.size() == 2) {
        int ended = 0;
        if (m_doorkeeper && m_doorkeeper->reload(fields[1]) == Doorkeeper::Standing::Blocked) {
            if (auto listener = m_app.listener())
                ended = listener->endSessionsFrom(fields[1]);
        }
        return ControlText::line({"ok", std::to_string(ended)});
    }
    return ControlText::line({"error", "unknown request"});
}
