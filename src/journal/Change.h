#pragma once

#include <cstdint>
#include <optional>
#include <string>

// One line of the activity journal: a session coming or going, or one
// thing a phone did, with where a removed or replaced item was kept (or
// why it was not).
struct Change {
    enum class Kind { Connected, Disconnected, Downloaded, Uploaded, Replaced, CreatedFolder, DeletedFile,
        DeletedFolder, Renamed };
    // The kept item's life: none (nothing kept), kept, restored, purged.
    enum class State { None, Kept, Restored, Purged };

    std::int64_t id = 0;
    // Milliseconds since 1970 (UTC).
    std::int64_t at = 0;
    std::int64_t session = 0;
    // The phone's address.
    std::string device;
    Kind kind = Kind::Connected;
    std::string path;
    // A rename's new path; where a restored item went.
    std::string target;
    // Bytes, or -1 when not known.
    std::int64_t size = -1;
    // The item in the trash, its bytes and its info file, when kept.
    std::string keptAs;
    std::int64_t keptSize = -1;
    std::string info;
    // Why a removed or replaced item was not kept.
    std::string note;
    State state = State::None;

    static std::string kindText(Kind kind);
    static std::optional<Kind> kindFrom(const std::string& text);
    static std::string stateText(State state);
    static State stateFrom(const std::string& text);
};

// What to list: a time range (milliseconds, inclusive), one phone, kinds.
struct ChangeFilter {
    std::optional<std::int64_t> since;
    std::optional<std::int64_t> until;
    std::optional<std::string> device;
    // Only entries whose kept item can still be restored.
    bool restorableOnly = false;
};
