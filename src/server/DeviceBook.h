#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

class ActivityDatabase;

// Every phone that ever opened a session, and the person's word on it: the
// `devices` table of the activity file ($XDG_STATE_HOME/zandrel/activity.sqlite).
// The server adds to it as sessions end; `zandrel-syncd devices` and the
// desktop's Phones view read it and change a phone's standing. Callable
// from any thread (one connection, under m_mutex).
class DeviceBook {
public:
    enum class Standing { Unknown, Allowed, Blocked };

    struct Device {
        std::string address;
        // From the kernel's neighbour table while the phone was on this link.
        std::string hardware;
        std::string name;
        // Seconds since 1970; 0 for a phone allowed or blocked before it came.
        std::int64_t firstSeen = 0;
        std::int64_t lastSeen = 0;
        std::int64_t sessions = 0;
        // File bytes to the phone and from it.
        std::int64_t bytesSent = 0;
        std::int64_t bytesReceived = 0;
        Standing standing = Standing::Unknown;
    };

    // Null when the file cannot be used at all; `error` says why.
    static std::unique_ptr<DeviceBook> open(std::string* error = nullptr);
    static std::unique_ptr<DeviceBook> open(const std::string& file, std::string* error);
    ~DeviceBook();

    std::vector<Device> all() const;
    std::optional<Device> find(const std::string& address) const;
    // Sets a phone's standing (and name, when given), adding it if new.
    bool setStanding(const std::string& address, Standing standing, const std::optional<std::string>& name);
    bool forget(const std::string& address);
    // A phone was seen now: added if new, its last-seen date and hardware
    // address refreshed.
    void seen(const std::string& address, const std::string& hardware);
    // One of its sessions ended, having moved these many file bytes.
    void sessionEnded(const std::string& address, const std::string& hardware, std::int64_t sent,
        std::int64_t received);

    static std::string standingName(Standing standing);

private:
    explicit DeviceBook(std::unique_ptr<ActivityDatabase> db);
    bool run(const std::string& sql, const std::vector<std::string>& text, const std::vector<std::int64_t>& numbers);

    mutable std::mutex m_mutex;
    std::unique_ptr<ActivityDatabase> m_db;
};
