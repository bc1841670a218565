#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "bridge/UIBridge.h"

// Records what would have been posted to the desktop; called from session
// and worker threads, read from the test's thread.
class RecordingNotifier : public Notifier {
public:
    struct Notice {
        std::string title;
        std::string description;
        std::string name;
        bool operator==(const Notice&) const = default;
    };

    void notify(const std::string& title, const std::string& description, const std::string& name) override
    {
        std::lock_guard lock(m_mutex);
        m_notices.push_back({title, description, name});
    }
    std::vector<Notice> notices() const
    {
        std::lock_guard lock(m_mutex);
        return m_notices;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<Notice> m_notices;
};
