#include "server/Doorkeeper.h"

#include <fmt/format.h>

#include "bridge/UIBridge.h"
#include "server/NeighbourTable.h"
#include "settings/Settings.h"

namespace {

constexpr auto kLogEvery = std::chrono::minutes(1);

} // namespace

Doorkeeper::Doorkeeper(
    std::shared_ptr<Settings> settings, std::shared_ptr<UIBridge> bridge, std::shared_ptr<DeviceBook> book)
    : m_settings(std::move(settings)), m_bridge(std::move(bridge)), m_book(std::move(book))
{
    if (!m_book)
        return;
    for (const auto& device : m_book->all())
        m_standing[device.address] = device.standing;
}

Doorkeeper::Standing Doorkeeper::standingOf(const std::string& address) const
{
    std::lock_guard lock(m_mutex);
    auto found = m_standing.find(address);
    return found == m_standing.end() ? Standing::Unknown : found->second;
}

bool Doorkeeper::admits(const Peer& peer) const
{
    const Standing standing = standingOf(peer.address);
    if (standing == Standing::Blocked)
        return false;
    return standing == Standing::Allowed || m_settings->getAdmission() == Settings::kAdmitEveryone;
}

void Doorkeeper::heldOut(const Peer& peer)
{
    const Standing standing = standingOf(peer.address);
    const std::string rule = m_settings->getAdmission();
    std::function<void(const Peer&)> asker;
    bool log = false;
    {
        std::lock_guard lock(m_mutex);
        if (standing != Standing::Blocked && rule == Settings::kAdmitAsk)
            asker = m_asker;
        auto now = std::chrono::steady_clock::now();
        auto& last = m_logged[peer.address];
        log = last == std::chrono::steady_clock::time_point{} || now - last >= kLogEvery;
        if (log)
            last = now;
    }
    if (asker) {
        asker(peer);
        return;
    }
    if (!log)
        return;
    if (standing == Standing::Blocked)
        m_bridge->logAlways(fmt::format("Held out the phone at {}: it is blocked.", peer.address));
    else
        m_bridge->logAlways(fmt::format("Held out the phone at {}: admission is \"{}\" and it is not allowed. "
                                        "To let it in: zandrel-syncd devices allow {}",
            peer.address, rule, peer.address));
}

void Doorkeeper::sessionStarted(const Peer& peer)
{
    if (m_book && !peer.address.empty())
        m_book->seen(peer.address, hardwareAddressOf(peer.address));
}

void Doorkeeper::sessionEnded(const SessionStatus& status)
{
    if (m_book && !status.peer.address.empty())
        m_book->sessionEnded(
            status.peer.address, hardwareAddressOf(status.peer.address), status.sent, status.received);
}

Doorkeeper::Standing Doorkeeper::reload(const std::string& address)
{
    auto device = m_book ? m_book->find(address) : std::nullopt;
    const Standing standing = device ? device->standing : Standing::Unknown;
    std::lock_guard lock(m_mutex);
    m_standing[address] = standing;
    m_logged.erase(address);
    return standing;
}

bool Doorkeeper::setStanding(const std::string& address, Standing standing, const std::optional<std::string>& name)
{
    if (!m_book || !m_book->setStanding(address, standing, name))
        return false;
    std::lock_guard lock(m_mutex);
    m_standing[address] = standing;
    m_logged.erase(address);
    return true;
}

bool Doorkeeper::forget(const std::string& address)
{
    if (!m_book || !m_book->forget(address))
        return false;
    std::lock_guard lock(m_mutex);
    m_standing.erase(address);
    m_logged.erase(address);
    return true;
}

void Doorkeeper::setAsker(std::function<void(const Peer&)> asker)
{
    std::lock_guard lock(m_mutex);
    m_asker = std::move(asker);
}
