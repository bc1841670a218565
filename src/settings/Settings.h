#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "wire/Protocol.h"

// The server's configuration: loaded from the settings file when created,
// written back only by writePreferences. Shared by every thread; string
// fields are read and replaced whole under m_mutex, flags are atomic-free
// plain values guarded by the same lock, so a reader always sees a whole
// old or a whole new value.
class Settings {
public:
    // Skips reconciling the login item with startOnLogin (the daemon's way:
    // start at login belongs to the desktop application alone).
    struct NoLoginItems {};

    // Reads the settings file (writing the defaults when there is none),
    // then brings the login item in line with startOnLogin.
    Settings();
    explicit Settings(NoLoginItems);

    void readPreferences();
    void writePreferences();
    // Why the settings file could not be read at the last readPreferences
    // (the defaults are in force then); nothing when it was read or created.
    std::optional<std::string> readError() const;

    // IPv4 addresses of this machine, lastIP first, loopback never.
    std::vector<std::string> validIPAddresses() const;
    static std::string addressesToString(const std::vector<std::string>& addresses);
    // "version:computer:user:addr,addr:port:MD5(hash)" built fresh each call.
    std::string getIdentifier() const;
    static std::string hashPasswordWithSalt(const std::string& plain);
    void setPlainTextPassword(const std::string& plain);
    std::string getHashedPassword() const;

    std::string getBasePath() const;
    void setBasePath(const std::string& path);
    std::string getLastIP() const;
    void setLastIP(const std::string& ip);
    std::int32_t getPort() const;
    void setPort(std::int32_t port);
    bool getToast() const;
    void setToast(bool on);
    bool getStartOnLogin() const;
    void setStartOnLogin(bool on);
    bool getTrace() const;
    void setTrace(bool on);
    bool getVerbose() const;
    void setVerbose(bool on);
    std::string getVersion() const;
    void setVersion(const std::string& version);

    // Opt-in narrowing of what phones may do, all off by default. Each is
    // written to the file only when set.
    // kept: see docs/protocol.md (settings file)
    // Confine: a path outside the base folder names nothing.
    bool getConfineToBasePath() const;
    void setConfineToBasePath(bool on);
    // Strict identify: identify authenticates only with the right hash.
    bool getStrictIdentify() const;
    void setStrictIdentify(bool on);
    // Read only: upload, create, delete and rename change nothing.
    bool getReadOnly() const;
    void setReadOnly(bool on);
    // One IPv4 address to listen on; empty means every address.
    std::string getListenAddress() const;
    void setListenAddress(const std::string& address);
    // What phones delete or replace goes to the trash (both on by default),
    // for at most keepDays days and keepPercent percent of each volume.
    // Each is written to the file only once set.
    bool getKeepDeleted() const;
    void setKeepDeleted(bool on);
    bool getKeepReplaced() const;
    void setKeepReplaced(bool on);
    std::int32_t getKeepDays() const;
    void setKeepDays(std::int32_t days);
    std::int32_t getKeepPercent() const;
    void setKeepPercent(std::int32_t percent);
    // The addresses phones can reach the server at: the listen address
    // alone when it names one (0.0.0.0 names every address), else every
    // valid address, lastIP first.
    std::vector<std::string> servedAddresses() const;
    // Who may come in: "everyone" (the default, the protocol as it is),
    // "ask" (phones not yet allowed are held out and the person asked) or
    // "known" (allowed phones only). Written to the file once set; a value
    // the file holds that is none of these reads as "known".
    static constexpr const char* kAdmitEveryone = "everyone";
    static constexpr const char* kAdmitAsk = "ask";
    static constexpr const char* kAdmitKnown = "known";
    std::string getAdmission() const;
    void setAdmission(const std::string& rule);
    // Dotted-quad IPv4 text, the only form the listen address takes.
    static bool isListenAddress(const std::string& text);

    // The settings file, "~" expanded.
    static std::string preferencesPath();
    // "~/Documents", unexpanded.
    static std::string defaultBasePath();
    static std::string computerName();
    static std::string userName();
    // Absolute path of the running program.
    static std::string appURL();
    // The build folder the running program was started from. The login
    // item names an installed program only, so such a run leaves it alone.
    static std::optional<std::string> buildFolder();
    // Adds or removes this program's login item to match the choice; a
    // program run from a build folder leaves the login items alone.
    static void bringLoginItemInLine(bool wanted);
    static std::string getVersionAPI();
    static std::int32_t getVersionFromString(const std::string& version);
    // Login items: an XDG autostart entry whose Exec is the program's path.
    static bool willStartAtLogin(const std::string& appPath);
    static void setStartAtLogin(const std::string& appPath, bool enabled);
    // The autostart entry's path ($XDG_CONFIG_HOME/autostart/ZandrelSync.desktop).
    static std::string autostartEntryPath();

private:
    void setDefaults();
    void applyFileKeys(void* dict);

    mutable std::mutex m_mutex;
    std::string m_basePath;
    std::string m_lastIP;
    std::string m_password;
    std::string m_version;
    std::int32_t m_port = Protocol::kDefaultPort;
    bool m_toast = true;
    bool m_startOnLogin = true;
    bool m_trace = false;
    bool m_verbose = false;
    bool m_confineToBasePath = false;
    bool m_strictIdentify = false;
    bool m_readOnly = false;
    std::string m_listenAddress;
    // Unset: the default, and no key in the file.
    std::optional<bool> m_keepDeleted;
    std::optional<bool> m_keepReplaced;
    std::optional<std::int32_t> m_keepDays;
    std::optional<std::int32_t> m_keepPercent;
    std::optional<std::string> m_readError;
    // As the file or a setter gave it; empty until set.
    std::string m_admission;
};
