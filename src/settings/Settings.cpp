#include "settings/Settings.h"

#include <filesystem>
#include <optional>
#include <system_error>

#include <arpa/inet.h>

#include <fmt/format.h>
#include <plist/plist.h>

#include "log/SystemLog.h"
#include "settings/HostInfo.h"
#include "settings/LoginItems.h"
#include "settings/NumberText.h"
#include "settings/PlistFile.h"
#include "wire/Digest.h"
#include "wire/Paths.h"
#include "wire/Protocol.h"

namespace {

constexpr const char* kPreferencesFile = "~/Library/Preferences/com.orvantics.ZandrelSync.plist";
constexpr const char* kVersionPrefix = "ZandrelSync4Mac ";

// Copies a key's value into a field when the key is present and its value
// has the reading asked for; otherwise the field keeps what it had.
template <class T, class Reading>
void applyKey(plist_t dict, const char* key, T& field, Reading reading)
{
    if (plist_t node = plist_dict_get_item(dict, key)) {
        if (std::optional<T> value = reading(node))
            field = *value;
    }
}

// For the keys written only once set: present in the file means set.
template <class T, class Reading>
void applyOptionalKey(plist_t dict, const char* key, std::optional<T>& field, Reading reading)
{
    if (plist_t node = plist_dict_get_item(dict, key))
        if (auto value = reading(node))
            field = static_cast<T>(*value);
}

} // namespace

Settings::Settings()
{
    readPreferences();
    // Bring the login item in line with the stored choice at every start.
    bringLoginItemInLine(getStartOnLogin());
}

Settings::Settings(NoLoginItems)
{
    readPreferences();
}

// Caller holds m_mutex.
void Settings::setDefaults()
{
    m_basePath = defaultBasePath();
    m_lastIP.clear();
    m_password = hashPasswordWithSalt(Protocol::kDefaultPassword);
    // Rebuilt at every load and never stored in the file.
    m_version = std::string(kVersionPrefix) + ZANDREL_VERSION;
    m_port = Protocol::kDefaultPort;
    m_toast = true;
    m_startOnLogin = true;
    m_trace = false;
    m_verbose = false;
    m_confineToBasePath = false;
    m_strictIdentify = false;
    m_readOnly = false;
    m_listenAddress.clear();
    m_keepDeleted.reset();
    m_keepReplaced.reset();
    m_keepDays.reset();
    m_keepPercent.reset();
    m_admission.clear();
}

void Settings::readPreferences()
{
    {
        std::lock_guard lock(m_mutex);
        setDefaults();
        m_readError.reset();
    }
    const std::string path = preferencesPath();
    std::error_code ec;
    if (!std::filesystem::exists(path, ec) && !ec) {
        // The defaults go out before the addresses are consulted, so a
        // fresh file holds an empty lastIP.
        writePreferences();
    } else {
        PlistFile::ReadResult file = PlistFile::readDictionary(path);
        if (file.root) {
            applyFileKeys(file.root.get());
        } else {
            // Defaults stay; the bad file is left alone until the next save.
            SystemLog::write(fmt::format("Error reading plist: {}, format: {}", file.error, file.format));
            std::lock_guard lock(m_mutex);
            m_readError = file.error;
        }
    }
    // The stored last IP stays first while the machine still has it;
    // otherwise the first address found takes its place (in memory only).
    std::vector<std::string> addresses = validIPAddresses();
    if (!addresses.empty()) {
        std::lock_guard lock(m_mutex);
        m_lastIP = addresses.front();
    }
}

std::optional<std::string> Settings::readError() const
{
    std::lock_guard lock(m_mutex);
    return m_readError;
}

void Settings::applyFileKeys(void* root)
{
    auto dict = static_cast<plist_t>(root);
    std::lock_guard lock(m_mutex);
    // A plain password wins over the stored hash; it is hashed here and
    // disappears from the file at the next write.
    if (plist_t plain = plist_dict_get_item(dict, "password")) {
        if (auto text = PlistFile::stringValue(plain))
            m_password = hashPasswordWithSalt(*text);
    } else {
        // Taken verbatim, unchecked: a malformed hash simply never matches.
        applyKey(dict, "hashword", m_password, PlistFile::stringValue);
    }
    applyKey(dict, "basePath", m_basePath, PlistFile::stringValue);
    applyKey(dict, "lastIP", m_lastIP, PlistFile::stringValue);
    applyKey(dict, "port", m_port, PlistFile::intValue);
    applyKey(dict, "toast", m_toast, PlistFile::boolValue);
    applyKey(dict, "startOnLogin", m_startOnLogin, PlistFile::boolValue);
    applyKey(dict, "trace", m_trace, PlistFile::boolValue);
    applyKey(dict, "verbose", m_verbose, PlistFile::boolValue);
    applyKey(dict, "confineToBasePath", m_confineToBasePath, PlistFile::boolValue);
    applyKey(dict, "strictIdentify", m_strictIdentify, PlistFile::boolValue);
    applyKey(dict, "readOnly", m_readOnly, PlistFile::boolValue);
    applyKey(dict, "listenAddress", m_listenAddress, PlistFile::stringValue);
    applyOptionalKey(dict, "keepDeleted", m_keepDeleted, PlistFile::boolValue);
    applyOptionalKey(dict, "keepReplaced", m_keepReplaced, PlistFile::boolValue);
    applyOptionalKey(dict, "keepDays", m_keepDays, PlistFile::intValue);
    applyOptionalKey(dict, "keepPercent", m_keepPercent, PlistFile::intValue);
    applyKey(dict, "admission", m_admission, PlistFile::stringValue);
}

void Settings::writePreferences()
{
    // A fresh dictionary every time: unknown keys and a plain "password"
    // are dropped from the file here.
    PlistFile::Node root(plist_new_dict());
    auto dict = static_cast<plist_t>(root.get());
    {
        std::lock_guard lock(m_mutex);
        plist_dict_set_item(dict, "basePath", plist_new_string(m_basePath.c_str()));
        plist_dict_set_item(dict, "hashword", plist_new_string(m_password.c_str()));
        plist_dict_set_item(dict, "lastIP", plist_new_string(m_lastIP.c_str()));
        // Two's complement in 64 bits, so a negative port reads back as itself.
        plist_dict_set_item(dict, "port", plist_new_uint(static_cast<uint64_t>(static_cast<int64_t>(m_port))));
        plist_dict_set_item(dict, "startOnLogin", plist_new_bool(m_startOnLogin));
        plist_dict_set_item(dict, "toast", plist_new_bool(m_toast));
        plist_dict_set_item(dict, "trace", plist_new_bool(m_trace));
        plist_dict_set_item(dict, "verbose", plist_new_bool(m_verbose));
        // The hardening keys only when set, so that with all of them off the
        // file holds the usual keys alone.
        // kept: see docs/protocol.md (settings file)
        if (m_confineToBasePath)
            plist_dict_set_item(dict, "confineToBasePath", plist_new_bool(true));
        if (m_strictIdentify)
            plist_dict_set_item(dict, "strictIdentify", plist_new_bool(true));
        if (m_readOnly)
            plist_dict_set_item(dict, "readOnly", plist_new_bool(true));
        if (!m_listenAddress.empty())
            plist_dict_set_item(dict, "listenAddress", plist_new_string(m_listenAddress.c_str()));
        if (m_keepDeleted)
            plist_dict_set_item(dict, "keepDeleted", plist_new_bool(*m_keepDeleted));
        if (m_keepReplaced)
            plist_dict_set_item(dict, "keepReplaced", plist_new_bool(*m_keepReplaced));
        if (m_keepDays)
            plist_dict_set_item(dict, "keepDays", plist_new_uint(static_cast<uint64_t>(static_cast<int64_t>(*m_keepDays))));
        if (m_keepPercent)
            plist_dict_set_item(dict, "keepPercent", plist_new_uint(static_cast<uint64_t>(static_cast<int64_t>(*m_keepPercent))));
        if (!m_admission.empty())
            plist_dict_set_item(dict, "admission", plist_new_string(m_admission.c_str()));
    }
    // A failed save is not reported; the old file, if any, stays whole.
    PlistFile::writeXml(preferencesPath(), dict);
}

std::vector<std::string> Settings::validIPAddresses() const
{
    std::optional<std::vector<std::string>> found = HostInfo::interfaceAddresses();
    if (!found)
        return {};
    return HostInfo::orderAddresses(*found, getLastIP());
}

std::string Settings::addressesToString(const std::vector<std::string>& addresses)
{
    std::string joined;
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        if (i > 0)
            joined += ',';
        joined += addresses[i];
    }
    return joined;
}

std::string Settings::getIdentifier() const
{
    std::string version;
    std::string hash;
    std::int32_t port = 0;
    {
        std::lock_guard lock(m_mutex);
        version = m_version;
        hash = m_password;
        port = m_port;
    }
    // A server bound to one address names only that one: phones try the
    // addresses in order, and the others would refuse them.
    const std::string addresses = addressesToString(servedAddresses());
    // The last field digests the stored hash so the hash itself is never
    // announced on the network.
    return fmt::format("{}:{}:{}:{}:{}:{}", version, computerName(), userName(), addresses, port,
                       Digest::md5OfString(hash));
}

std::string Settings::hashPasswordWithSalt(const std::string& plain)
{
    return Protocol::hashPassword(plain);
}

void Settings::setPlainTextPassword(const std::string& plain)
{
    std::string hash = hashPasswordWithSalt(plain);
    std::lock_guard lock(m_mutex);
    m_password = std::move(hash);
}

std::string Settings::getHashedPassword() const
{
    std::lock_guard lock(m_mutex);
    return m_password;
}

std::string Settings::getBasePath() const
{
    std::lock_guard lock(m_mutex);
    return m_basePath;
}

void Settings::setBasePath(const std::string& path)
{
    std::lock_guard lock(m_mutex);
    m_basePath = path;
}

std::string Settings::getLastIP() const
{
    std::lock_guard lock(m_mutex);
    return m_lastIP;
}

void Settings::setLastIP(const std::string& ip)
{
    std::lock_guard lock(m_mutex);
    m_lastIP = ip;
}

std::int32_t Settings::getPort() const
{
    std::lock_guard lock(m_mutex);
    return m_port;
}

void Settings::setPort(std::int32_t port)
{
    std::lock_guard lock(m_mutex);
    m_port = port;
}

bool Settings::getToast() const
{
    std::lock_guard lock(m_mutex);
    return m_toast;
}

void Settings::setToast(bool on)
{
    std::lock_guard lock(m_mutex);
    m_toast = on;
}

bool Settings::getStartOnLogin() const
{
    std::lock_guard lock(m_mutex);
    return m_startOnLogin;
}

void Settings::setStartOnLogin(bool on)
{
    std::lock_guard lock(m_mutex);
    m_startOnLogin = on;
}

bool Settings::getTrace() const
{
    std::lock_guard lock(m_mutex);
    return m_trace;
}

void Settings::setTrace(bool on)
{
    std::lock_guard lock(m_mutex);
    m_trace = on;
}

bool Settings::getVerbose() const
{
    std::lock_guard lock(m_mutex);
    return m_verbose;
}

void Settings::setVerbose(bool on)
{
    std::lock_guard lock(m_mutex);
    m_verbose = on;
}

std::string Settings::getVersion() const
{
    std::lock_guard lock(m_mutex);
    return m_version;
}

void Settings::setVersion(const std::string& version)
{
    std::lock_guard lock(m_mutex);
    m_version = version;
}

bool Settings::getConfineToBasePath() const
{
    std::lock_guard lock(m_mutex);
    return m_confineToBasePath;
}

void Settings::setConfineToBasePath(bool on)
{
    std::lock_guard lock(m_mutex);
    m_confineToBasePath = on;
}

bool Settings::getStrictIdentify() const
{
    std::lock_guard lock(m_mutex);
    return m_strictIdentify;
}

void Settings::setStrictIdentify(bool on)
{
    std::lock_guard lock(m_mutex);
    m_strictIdentify = on;
}

bool Settings::getReadOnly() const
{
    std::lock_guard lock(m_mutex);
    return m_readOnly;
}

void Settings::setReadOnly(bool on)
{
    std::lock_guard lock(m_mutex);
    m_readOnly = on;
}

std::string Settings::getListenAddress() const
{
    std::lock_guard lock(m_mutex);
    return m_listenAddress;
}

void Settings::setListenAddress(const std::string& address)
{
    std::lock_guard lock(m_mutex);
    m_listenAddress = address;
}

std::vector<std::string> Settings::servedAddresses() const
{
    const std::string listen = getListenAddress();
    if (listen.empty() || listen == "0.0.0.0")
        return validIPAddresses();
    return {listen};
}

std::string Settings::getAdmission() const
{
    std::lock_guard lock(m_mutex);
    if (m_admission.empty() || m_admission == kAdmitEveryone)
        return kAdmitEveryone;
    if (m_admission == kAdmitAsk)
        return kAdmitAsk;
    // "known", and any word this version does not know: a person who wrote
    // one meant to narrow who comes in, not to open the door.
    return kAdmitKnown;
}

void Settings::setAdmission(const std::string& rule)
{
    std::lock_guard lock(m_mutex);
    m_admission = rule;
}

bool Settings::isListenAddress(const std::string& text)
{
    in_addr address{};
    return text.find('\0') == std::string::npos && ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

std::string Settings::preferencesPath()
{
    // Expanded at every access: $HOME may change between calls (tests do).
    return Paths::expandTilde(kPreferencesFile);
}

std::string Settings::defaultBasePath()
{
    // Left unexpanded on purpose: phones are shown the text with "~".
    static const std::string path = "~/Documents";
    return path;
}

std::string Settings::computerName()
{
    return HostInfo::computerName(HostInfo::machineInfoPath());
}

std::string Settings::userName()
{
    return HostInfo::userName();
}

std::string Settings::appURL()
{
    return HostInfo::programPath();
}

void Settings::bringLoginItemInLine(bool wanted)
{
    const std::string app = appURL();
    if (app.empty() || buildFolder())
        return;
    if (willStartAtLogin(app) != wanted)
        setStartAtLogin(app, wanted);
}

std::optional<std::string> Settings::buildFolder()
{
    return HostInfo::buildFolderOf(appURL());
}

std::string Settings::getVersionAPI()
{
    return ZANDREL_VERSION;
}

std::int32_t Settings::getVersionFromString(const std::string& version)
{
    std::vector<std::string> parts(1);
    for (char c : version) {
        if (c == '.')
            parts.emplace_back();
        else
            parts.back() += c;
    }
    if (parts.size() != 3)
        return 0;
    // 32-bit wrap-around, done unsigned to stay defined; a minor or patch
    // of 100 or more spills into the next place.
    // kept: see docs/protocol.md (version numbers)
    std::uint32_t value = 0;
    for (const std::string& part : parts)
        value = value * 100u + static_cast<std::uint32_t>(NumberText::leadingInteger(part));
    return static_cast<std::int32_t>(value);
}

bool Settings::willStartAtLogin(const std::string& appPath)
{
    std::optional<std::string> program = LoginItems::entryProgram(LoginItems::entryPath());
    return program && *program == appPath;
}

void Settings::setStartAtLogin(const std::string& appPath, bool enabled)
{
    const bool present = willStartAtLogin(appPath);
    const std::string entry = LoginItems::entryPath();
    // One entry name is ours, so adding for a new path replaces an entry
    // left by an old one. Failures are silent: the login item is a comfort.
    if (enabled && !present) {
        LoginItems::writeEntry(entry, appPath);
    } else if (!enabled && present) {
        std::error_code ec;
        std::filesystem::remove(entry, ec);
    }
}

std::string Settings::autostartEntryPath()
{
    return LoginItems::entryPath();
}

bool Settings::getKeepDeleted() const
{
    std::lock_guard lock(m_mutex);
    return m_keepDeleted.value_or(true);
}

void Settings::setKeepDeleted(bool on)
{
    std::lock_guard lock(m_mutex);
    m_keepDeleted = on;
}

bool Settings::getKeepReplaced() const
{
    std::lock_guard lock(m_mutex);
    return m_keepReplaced.value_or(true);
}

void Settings::setKeepReplaced(bool on)
{
    std::lock_guard lock(m_mutex);
    m_keepReplaced = on;
}

std::int32_t Settings::getKeepDays() const
{
    std::lock_guard lock(m_mutex);
    return m_keepDays.value_or(30);
}

void Settings::setKeepDays(std::int32_t days)
{
    std::lock_guard lock(m_mutex);
    m_keepDays = days;
}

std::int32_t Settings::getKeepPercent() const
{
    std::lock_guard lock(m_mutex);
    return m_keepPercent.value_or(10);
}

void Settings::setKeepPercent(std::int32_t percent)
{
    std::lock_guard lock(m_mutex);
    m_keepPercent = percent;
}
