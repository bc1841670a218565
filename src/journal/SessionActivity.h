#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "journal/Change.h"

class Journal;
class Settings;

// One session's door to the journal and the trash: the handlers call one
// method per change, after the Parts' own checks, and nothing here alters
// what the phone sees (answers, flags, log lines). Removing and replacing
// keep the item in the trash when the settings say so and it can be done,
// and otherwise delete it as the Parts do; either way the journal says
// which. Used on the session's thread; the journal's disk is never waited for.
class SessionActivity {
public:
    SessionActivity(std::shared_ptr<Journal> journal, const Settings& settings, std::string device);

    void started();
    void ended();
    // `bytes`: what was sent of the file.
    void downloaded(const std::string& path, std::int64_t bytes);
    void createdFolder(const std::string& path);
    void renamed(const std::string& from, const std::string& to);
    // In place of unlinking (a file) or removing with its contents (a
    // folder; a link to one goes as a link).
    void remove(const std::string& path, bool folder);
    // Runs `move`, which puts an upload in place at `destination`, after
    // keeping whatever stood there; when the move fails the kept item goes
    // back. Returns what `move` returned.
    bool replace(const std::string& destination, std::int64_t size, const std::function<bool()>& move);

private:
    Change entry(Change::Kind kind, const std::string& path) const;

    std::shared_ptr<Journal> m_journal;
    const Settings& m_settings;
    std::string m_device;
    std::int64_t m_session;
};
