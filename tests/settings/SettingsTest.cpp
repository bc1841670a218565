#include <cstdlib>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <plist/plist.h>

#include "support/TestSupport.h"
#include "settings/HostInfo.h"
#include "settings/LoginItems.h"
#include "settings/PlistFile.h"
#include "settings/Settings.h"

namespace fs = std::filesystem;

namespace {

const std::string kSalt = "0E991F413708B1AE61C724F430F5965779D826E8E537CED914D3279314E25930518FFE";
const std::string kPrefs = "Library/Preferences/com.orvantics.ZandrelSync.plist";

// An MD5 worked out here, independently of the code under test.
std::string upperMd5(const std::string& text)
{
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    EVP_Digest(text.data(), text.size(), md, &len, EVP_md5(), nullptr);
    std::string hex;
    const char* digits = "0123456789ABCDEF";
    for (unsigned int i = 0; i < len; ++i) {
        hex += digits[md[i] >> 4];
        hex += digits[md[i] & 15];
    }
    return hex;
}

std::string xmlPlist(const std::string& body)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n" + body +
           "</dict>\n</plist>\n";
}

std::vector<std::string> split(const std::string& text, char sep)
{
    std::vector<std::string> parts(1);
    for (char c : text) {
        if (c == sep)
            parts.emplace_back();
        else
            parts.back() += c;
    }
    return parts;
}

// The settings file as written: it must parse as XML, with a dictionary root.
class WrittenFile {
public:
    explicit WrittenFile(const fs::path& path)
    {
        std::string text = readFile(path);
        plist_t root = nullptr;
        plist_from_xml(text.data(), static_cast<uint32_t>(text.size()), &root);
        m_root.reset(root);
    }
    bool ok() const { return m_root && plist_get_node_type(dict()) == PLIST_DICT; }
    std::set<std::string> keys() const
    {
        std::set<std::string> keys;
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(dict(), &it);
        for (;;) {
            char* key = nullptr;
            plist_t value = nullptr;
            plist_dict_next_item(dict(), it, &key, &value);
            if (!key)
                break;
            keys.insert(key);
            std::free(key);
        }
        std::free(it);
        return keys;
    }
    std::string string(const char* key) const { return *PlistFile::stringValue(item(key, PLIST_STRING)); }
    std::int32_t integer(const char* key) const { return *PlistFile::intValue(item(key, PLIST_UINT)); }
    bool boolean(const char* key) const { return *PlistFile::boolValue(item(key, PLIST_BOOLEAN)); }

private:
    plist_t dict() const { return static_cast<plist_t>(m_root.get()); }
    plist_t item(const char* key, plist_type type) const
    {
        plist_t node = plist_dict_get_item(dict(), key);
        if (!node || plist_get_node_type(node) != type)
            throw std::runtime_error(std::string("missing or mistyped key ") + key);
        return node;
    }
    PlistFile::Node m_root;
};

class SettingsTest : public ::testing::Test {
protected:
    fs::path prefsPath() const { return m_home.path() / kPrefs; }
    void writePrefs(const std::string& contents) { m_home.write(kPrefs, contents); }
    // lastIP after loading: the machine's first address wins over the file.
    std::string expectedLastIP(const Settings& s, const std::string& fromFile) const
    {
        std::vector<std::string> addresses = s.validIPAddresses();
        return addresses.empty() ? fromFile : addresses.front();
    }

    TempHome m_home;
};

TEST_F(SettingsTest, FreshStartWritesTheEightDefaultKeys)
{
    Settings s{Settings::NoLoginItems{}};

    ASSERT_TRUE(fs::exists(prefsPath()));
    WrittenFile file(prefsPath());
    ASSERT_TRUE(file.ok());
    EXPECT_EQ(file.keys(), (std::set<std::string>{"basePath", "hashword", "lastIP", "port", "startOnLogin",
                                                  "toast", "trace", "verbose"}));
    EXPECT_EQ(file.string("lastIP"), ""); // written before the addresses are consulted
    EXPECT_EQ(file.string("basePath"), "~/Documents");
    EXPECT_EQ(file.string("hashword"), upperMd5(kSalt + "Sesamely"));
    EXPECT_EQ(file.integer("port"), 35000);
    EXPECT_TRUE(file.boolean("toast"));
    EXPECT_TRUE(file.boolean("startOnLogin"));
    EXPECT_FALSE(file.boolean("trace"));
    EXPECT_FALSE(file.boolean("verbose"));

    // Nothing but the file itself is left beside it (no temporary file).
    EXPECT_EQ(std::distance(fs::directory_iterator(prefsPath().parent_path()), fs::directory_iterator()), 1);
    EXPECT_EQ(s.getHashedPassword(), upperMd5(kSalt + "Sesamely"));
    EXPECT_EQ(s.getLastIP(), expectedLastIP(s, ""));
}

TEST_F(SettingsTest, PlainPasswordWinsAndIsDroppedAtTheNextWrite)
{
    writePrefs(xmlPlist("<key>password</key><string>secret</string>\n"
                        "<key>hashword</key><string>00000000000000000000000000000000</string>\n"
                        "<key>colour</key><string>teal</string>\n"));
    Settings s{Settings::NoLoginItems{}};
    EXPECT_EQ(s.getHashedPassword(), upperMd5(kSalt + "secret"));
    // Reading never rewrites an existing file.
    EXPECT_NE(readFile(prefsPath()).find("<key>password</key>"), std::string::npos);

    s.writePreferences();
    WrittenFile file(prefsPath());
    ASSERT_TRUE(file.ok());
    std::set<std::string> keys = file.keys();
    EXPECT_EQ(keys.count("password"), 0u);
    EXPECT_EQ(keys.count("colour"), 0u); // unknown keys do not survive a write
    EXPECT_EQ(file.string("hashword"), upperMd5(kSalt + "secret"));
}

TEST_F(SettingsTest, HashwordAloneIsTakenVerbatim)
{
    writePrefs(xmlPlist("<key>hashword</key><string>abc123 not a hash</string>\n"));
    Settings s{Settings::NoLoginItems{}};
    EXPECT_EQ(s.getHashedPassword(), "abc123 not a hash");
}

TEST_F(SettingsTest, FileValuesAreReadWithLenientTypes)
{
    writePrefs(xmlPlist("<key>basePath</key><string>/srv/music</string>\n"
                        "<key>lastIP</key><string>10.9.8.7</string>\n"
                        "<key>port</key><string>  8080abc</string>\n"
                        "<key>toast</key><integer>0</integer>\n"
                        "<key>startOnLogin</key><string>NO</string>\n"
                        "<key>trace</key><string>yes</string>\n"
                        "<key>verbose</key><real>0.5</real>\n"));
    Settings s{Settings::NoLoginItems{}};
    EXPECT_EQ(s.getBasePath(), "/srv/music");
    EXPECT_EQ(s.getLastIP(), expectedLastIP(s, "10.9.8.7"));
    EXPECT_EQ(s.getPort(), 8080);
    EXPECT_FALSE(s.getToast());
    EXPECT_FALSE(s.getStartOnLogin());
    EXPECT_TRUE(s.getTrace());
    EXPECT_TRUE(s.getVerbose());
}

TEST_F(SettingsTest, BinaryFileIsRead)
{
    PlistFile::Node dict(plist_new_dict());
    auto d = static_cast<plist_t>(dict.get());
    plist_dict_set_item(d, "hashword", plist_new_string("0123456789ABCDEF0123456789ABCDEF"));
    plist_dict_set_item(d, "port", plist_new_uint(4242));
    plist_dict_set_item(d, "trace", plist_new_bool(1));
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(d, &bin, &length);
    ASSERT_NE(bin, nullptr);
    writePrefs(std::string(bin, length));
    plist_to_bin_free(bin);

    Settings s{Settings::NoLoginItems{}};
    EXPECT_EQ(s.getHashedPassword(), "0123456789ABCDEF0123456789ABCDEF");
    EXPECT_EQ(s.getPort(), 4242);
    EXPECT_TRUE(s.getTrace());

    // A UTF-16 string holding U+0000 is read whole instead of ending the process.
    const char withNul[] = "bplist00\xd1\x01\x02XbasePathc\x00\xe9\x00\x00\x00\x62\x08\x0b\x14"
                           "\x00\x00\x00\x00\x00\x00\x01\x01\x00\x00\x00\x00\x00\x00\x00\x03"
                           "\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x1b";
    writePrefs(std::string(withNul, sizeof withNul - 1));
    Settings nul{Settings::NoLoginItems{}};
    EXPECT_EQ(nul.getBasePath(), std::string("\xc3\xa9\x00" "b", 4));
}

TEST_F(SettingsTest, SettersPersistOnlyThroughWritePreferences)
{
    Settings s{Settings::NoLoginItems{}};
    const std::string fresh = readFile(prefsPath());
    s.setBasePath("/home/x/Müsic & more");
    s.setPort(-1);
    s.setToast(false);
    s.setTrace(true);
    s.setVerbose(true);
    s.setStartOnLogin(false);
    s.setPlainTextPassword("pässword"); // hashed as its UTF-8 bytes
    EXPECT_EQ(readFile(prefsPath()), fresh);

    s.writePreferences();
    Settings again{Settings::NoLoginItems{}};
    EXPECT_EQ(again.getBasePath(), "/home/x/Müsic & more");
    EXPECT_EQ(again.getPort(), -1);
    EXPECT_FALSE(again.getToast());
    EXPECT_TRUE(again.getTrace());
    EXPECT_TRUE(again.getVerbose());
    EXPECT_FALSE(again.getStartOnLogin());
    EXPECT_EQ(again.getHashedPassword(), upperMd5(kSalt + "pässword"));
}

TEST_F(SettingsTest, HardeningKeysAreReadAndWrittenOnlyWhileSet)
{
    writePrefs(xmlPlist("<key>confineToBasePath</key><true/>\n<key>strictIdentify</key><true/>\n"
                        "<key>readOnly</key><true/>\n<key>listenAddress</key><string>127.0.0.2</string>\n"));
    Settings s{Settings::NoLoginItems{}};
    EXPECT_TRUE(s.getConfineToBasePath());
    EXPECT_TRUE(s.getStrictIdentify());
    EXPECT_TRUE(s.getReadOnly());
    EXPECT_EQ(s.getListenAddress(), "127.0.0.2");
    EXPECT_EQ(split(s.getIdentifier(), ':').at(3), "127.0.0.2") << "the one address phones can reach";
    s.writePreferences();
    EXPECT_EQ(WrittenFile(prefsPath()).keys().count("listenAddress"), 1u);

    // Switched off, they leave the file as a default one is.
    s.setConfineToBasePath(false);
    s.setStrictIdentify(false);
    s.setReadOnly(false);
    s.setListenAddress("");
    s.writePreferences();
    EXPECT_EQ(WrittenFile(prefsPath()).keys(), (std::set<std::string>{"basePath", "hashword", "lastIP", "port",
                                                    "startOnLogin", "toast", "trace", "verbose"}));

    EXPECT_TRUE(Settings::isListenAddress("10.0.0.7"));
    for (const std::string& bad : std::vector<std::string>{"", "::1", "10.0.0", "localhost", " 10.0.0.7", std::string("10.0.0.7\0x", 10)})
        EXPECT_FALSE(Settings::isListenAddress(bad)) << bad;
}

TEST_F(SettingsTest, UnreadableFileKeepsDefaultsLogsAndIsLeftAlone)
{
    struct Case {
        const char* what;
        std::string contents;
        int format;
    };
    const std::vector<Case> cases = {
        {"truncated XML", "<?xml version=\"1.0\"?>\n<plist version=\"1.0\"><dict><key>port</key>", 100},
        {"XML with an array root", "<plist version=\"1.0\"><array/></plist>", 100},
        {"damaged binary", std::string("bplist00") + std::string(40, '\x07'), 200},
        {"plain text", "port = 1234\n", 0},
        {"empty file", "", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        CapturedLog log;
        writePrefs(c.contents);
        Settings s{Settings::NoLoginItems{}};

        EXPECT_EQ(s.getPort(), 35000);
        EXPECT_EQ(s.getHashedPassword(), upperMd5(kSalt + "Sesamely"));
        std::vector<std::string> lines = log.lines();
        ASSERT_EQ(lines.size(), 1u);
        const std::string suffix = ", format: " + std::to_string(c.format);
        EXPECT_EQ(lines[0].rfind("Error reading plist: ", 0), 0u) << lines[0];
        EXPECT_GT(lines[0].size(), std::string("Error reading plist: ").size() + suffix.size()) << lines[0];
        EXPECT_EQ(lines[0].substr(lines[0].size() - suffix.size()), suffix) << lines[0];
        EXPECT_EQ(readFile(prefsPath()), c.contents);
    }
}

TEST(SettingsVersion, ThreeDottedPartsMakeANumber)
{
    EXPECT_EQ(Settings::getVersionFromString("1.5"), 0);
    EXPECT_EQ(Settings::getVersionFromString("1.5.0.1"), 0);
    EXPECT_EQ(Settings::getVersionFromString(""), 0);
    EXPECT_EQ(Settings::getVersionFromString("1.5.0"), 10500);
    EXPECT_EQ(Settings::getVersionFromString("2.10.3"), 21003);
    EXPECT_EQ(Settings::getVersionFromString(" 1.5b.0rc2"), 10500); // leading integer of each part
    EXPECT_EQ(Settings::getVersionFromString("x.y.z"), 0);
    EXPECT_EQ(Settings::getVersionFromString("1..2"), 10002);
    EXPECT_EQ(Settings::getVersionFromString("1.-2.3"), 9803);
    EXPECT_EQ(Settings::getVersionFromString("1.100.0"), 20000); // a minor of 100 spills over
    EXPECT_LT(Settings::getVersionFromString("1.5.0"), Settings::getVersionFromString("1.5.1"));
}

TEST_F(SettingsTest, IdentifierCarriesADigestOfTheStoredHash)
{
    Settings s{Settings::NoLoginItems{}};
    std::vector<std::string> fields = split(s.getIdentifier(), ':');
    ASSERT_EQ(fields.size(), 6u) << s.getIdentifier();
    EXPECT_EQ(fields[0], "ZandrelSync4Mac 1.5.0");
    EXPECT_EQ(fields[1], Settings::computerName());
    EXPECT_EQ(fields[2], Settings::userName());
    EXPECT_EQ(fields[3], Settings::addressesToString(s.validIPAddresses()));
    EXPECT_EQ(fields[4], "35000");
    EXPECT_EQ(fields[5], upperMd5(upperMd5(kSalt + "Sesamely")));

    // Built afresh on every call.
    s.setPort(4000);
    s.setPlainTextPassword("other");
    fields = split(s.getIdentifier(), ':');
    ASSERT_EQ(fields.size(), 6u);
    EXPECT_EQ(fields[4], "4000");
    EXPECT_EQ(fields[5], upperMd5(upperMd5(kSalt + "other")));
}

// Points the computer name at a machine-info file for one test.
class MachineInfoOverride {
public:
    explicit MachineInfoOverride(const fs::path& path) : m_old(HostInfo::machineInfoPath())
    {
        HostInfo::setMachineInfoPath(path.string());
    }
    ~MachineInfoOverride() { HostInfo::setMachineInfoPath(m_old); }

private:
    std::string m_old;
};

TEST_F(SettingsTest, ColonsInTheComputerNameBecomeBlanksInTheIdentifier)
{
    MachineInfoOverride info(m_home.write("machine-info", "CHASSIS=laptop\nPRETTY_HOSTNAME=\"Bob:Mac\"\n"));
    EXPECT_EQ(Settings::computerName(), "Bob Mac");

    Settings s{Settings::NoLoginItems{}};
    std::vector<std::string> fields = split(s.getIdentifier(), ':');
    ASSERT_EQ(fields.size(), 6u) << s.getIdentifier();
    EXPECT_EQ(fields[1], "Bob Mac");
}

TEST_F(SettingsTest, ComputerNameFallsBackToTheHostName)
{
    char host[256] = {};
    ASSERT_EQ(gethostname(host, sizeof host - 1), 0);
    EXPECT_EQ(HostInfo::computerName((m_home.path() / "absent").string()), host);
    EXPECT_EQ(HostInfo::computerName(m_home.write("empty", "PRETTY_HOSTNAME=\n").string()), host);

    auto pretty = [&](const std::string& contents) {
        return HostInfo::prettyHostname(m_home.write("mi", contents).string());
    };
    EXPECT_EQ(pretty("PRETTY_HOSTNAME='It''s \"mine\"'\n"), "Its \"mine\"");
    EXPECT_EQ(pretty("PRETTY_HOSTNAME=Office\\ Mac  \n"), "Office Mac");
    EXPECT_EQ(pretty("PRETTY_HOSTNAME=first\nPRETTY_HOSTNAME=second\n"), "second");
    EXPECT_EQ(pretty("# PRETTY_HOSTNAME=no\nOTHER_PRETTY_HOSTNAME=no\n"), std::nullopt);
}

TEST(SettingsAddresses, LastIPFirstLoopbackNeverDuplicatesKept)
{
    EXPECT_EQ(HostInfo::orderAddresses({"127.0.0.1", "192.168.1.5", "10.0.0.2"}, "10.0.0.2"),
              (std::vector<std::string>{"10.0.0.2", "192.168.1.5"}));
    EXPECT_EQ(HostInfo::orderAddresses({"192.168.1.5", "127.4.5.6", "10.0.0.2", "192.168.1.5"}, "172.16.0.1"),
              (std::vector<std::string>{"192.168.1.5", "10.0.0.2", "192.168.1.5"}));
    EXPECT_TRUE(HostInfo::orderAddresses({"127.0.0.1"}, "127.0.0.1").empty());

    EXPECT_EQ(Settings::addressesToString({}), "");
    EXPECT_EQ(Settings::addressesToString({"192.168.1.20"}), "192.168.1.20");
    EXPECT_EQ(Settings::addressesToString({"192.168.1.20", "10.0.0.7"}), "192.168.1.20,10.0.0.7");

    for (const std::string& address : Settings{Settings::NoLoginItems{}}.validIPAddresses())
        EXPECT_NE(address.rfind("127", 0), 0u) << address;
}

TEST_F(SettingsTest, LoginItemIsAddedAndRemovedOnce)
{
    const std::string app = "/opt/Zandrel Sync/bin/zandrel \"$HOME\" 100%\\x";
    const fs::path entry = m_home.path() / ".config/autostart/ZandrelSync.desktop";
    EXPECT_EQ(Settings::autostartEntryPath(), entry.string());
    EXPECT_FALSE(Settings::willStartAtLogin(app));

    Settings::setStartAtLogin(app, true);
    ASSERT_TRUE(fs::exists(entry));
    EXPECT_TRUE(Settings::willStartAtLogin(app));
    EXPECT_FALSE(Settings::willStartAtLogin("/opt/Zandrel Sync/bin/zandrel"));
    const std::string written = readFile(entry);
    EXPECT_NE(written.find("[Desktop Entry]\n"), std::string::npos);

    Settings::setStartAtLogin(app, true); // already there: untouched
    EXPECT_EQ(readFile(entry), written);
    Settings::setStartAtLogin("/usr/bin/other", false); // not ours: untouched
    EXPECT_TRUE(fs::exists(entry));

    Settings::setStartAtLogin(app, false);
    EXPECT_FALSE(fs::exists(entry));
    EXPECT_FALSE(Settings::willStartAtLogin(app));
    Settings::setStartAtLogin(app, false);
    EXPECT_FALSE(fs::exists(entry));
}

TEST_F(SettingsTest, LoginItemExecLinesAreQuotedOnlyWhenNeeded)
{
    EXPECT_EQ(LoginItems::execValue("/usr/bin/zandrel"), "/usr/bin/zandrel");
    EXPECT_EQ(LoginItems::execValue("/opt/My App/run"), "\"/opt/My App/run\"");
    for (std::string path : {"/a b/c", "/x/$y`z\"", "/p/100%", "/back\\slash", "/new\nline", "/plain"}) {
        SCOPED_TRACE(path);
        std::string value = LoginItems::execValue(path);
        EXPECT_EQ(value.find('\n'), std::string::npos);
        EXPECT_EQ(LoginItems::execProgram(value), path);
    }

    // Hand-written entries: only the main group counts, arguments after the
    // program are ignored, and a hidden entry is as good as none.
    const std::string entry = Settings::autostartEntryPath();
    m_home.write(".config/autostart/ZandrelSync.desktop",
                 "[Desktop Entry]\nName=x\nExec = \"/opt/My App/run\" --minimized\n"
                 "[Desktop Action Other]\nExec=/usr/bin/other\n");
    EXPECT_TRUE(Settings::willStartAtLogin("/opt/My App/run"));
    EXPECT_FALSE(Settings::willStartAtLogin("/usr/bin/other"));
    m_home.write(".config/autostart/ZandrelSync.desktop", "[Desktop Entry]\nExec=/usr/bin/z\nHidden=true\n");
    EXPECT_FALSE(Settings::willStartAtLogin("/usr/bin/z"));

    ::unsetenv("XDG_CONFIG_HOME");
    EXPECT_EQ(Settings::autostartEntryPath(), (m_home.path() / ".config/autostart/ZandrelSync.desktop").string());
    ::setenv("XDG_CONFIG_HOME", "relative/dir", 1);
    EXPECT_EQ(Settings::autostartEntryPath(), (m_home.path() / ".config/autostart/ZandrelSync.desktop").string());
}

TEST_F(SettingsTest, CreationBringsTheLoginItemInLineWithTheSetting)
{
    const std::string app = Settings::appURL();
    ASSERT_TRUE(fs::path(app).is_absolute());
    ASSERT_TRUE(fs::equivalent(app, "/proc/self/exe"));

    Settings{Settings::NoLoginItems{}};
    EXPECT_FALSE(Settings::willStartAtLogin(app)); // the daemon's way leaves login items alone

    Settings first; // startOnLogin defaults to on
    EXPECT_TRUE(Settings::willStartAtLogin(app));

    first.setStartOnLogin(false);
    first.writePreferences();
    Settings second;
    EXPECT_FALSE(Settings::willStartAtLogin(app));
    EXPECT_FALSE(fs::exists(Settings::autostartEntryPath()));
}

} // namespace
