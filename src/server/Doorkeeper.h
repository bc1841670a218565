#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "server/DeviceBook.h"
#include "session/Admission.h"
#include "session/SessionWork.h"

class Settings;
class UIBridge;

// Who may come in, by the `admission` setting and the known phones'
// standing: "everyone" serves all but blocked phones, "ask" and "known"
// only allowed ones. Holds every phone's standing in memory, so the check
// before each command costs a map look-up; the book is written only when a
// phone is first held out, when a session ends, and when the person
// decides. Called from session threads, the control channel's thread and
// the front end's thread; m_mutex guards the map and the asker.
class Doorkeeper : public Admission {
public:
    using Standing = DeviceBook::Standing;

    // `book` may be null (the activity file cannot be used): then nobody is
    // known, and only "everyone" lets phones in.
    Doorkeeper(std::shared_ptr<Settings> settings, std::shared_ptr<UIBridge> bridge, std::shared_ptr<DeviceBook> book);

    bool admits(const Peer& peer) const override;
    void heldOut(const Peer& peer) override;

    // A session started: the phone is remembered as seen now.
    void sessionStarted(const Peer& peer) override;
    // A session ended: the phone is remembered with what it moved.
    void sessionEnded(const SessionStatus& status) override;
    // Reads one phone's standing from the book again (another process
    // changed it) and returns it.
    Standing reload(const std::string& address);
    // The person's decisions, written to the book and in force at once.
    bool setStanding(const std::string& address, Standing standing,
        const std::optional<std::string>& name = std::nullopt);
    bool forget(const std::string& address);

    // Called (on a session thread) when "ask" holds out a phone; the desktop
    // asks the person. Without one, "ask" is "known" and the log says how to
    // let the phone in.
    void setAsker(std::function<void(const Peer&)> asker);
    std::shared_ptr<DeviceBook> book() const { return m_book; }

private:
    Standing standingOf(const std::string& address) const;

    std::shared_ptr<Settings> m_settings;
    std::shared_ptr<UIBridge> m_bridge;
    std::shared_ptr<DeviceBook> m_book;
    mutable std::mutex m_mutex;
    std::map<std::string, Standing> m_standing;
    std::function<void(const Peer&)> m_asker;
    // When each held-out address was last logged: one that reconnects in a
    // loop does not fill the log.
    std::map<std::string, std::chrono::steady_clock::time_point> m_logged;
};
