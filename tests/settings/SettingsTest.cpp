#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <plist/plist.h>

#include "support/TestSupport.h"
#include "settings/HostInfo.h"
#include "settings/LoginItems.h"
#include "settings/PlistFile.h"
#include "settings/Settings.h"
#include "wire/Digest.h"

namespace fs = std::filesystem;

namespace {

const std::string kPrefs = "Library/Preferences/com.orvantics.ZandrelSync.plist";
// The salted hash of the default password, worked out once by hand.
const std::string kDefaultHash = "344D21650894F12FAEE09C33AD7F3FE0";

std::string salted(const std::string& plain)
{
    return Digest::md5OfString("0E991F413708B1AE61C724F430F5965779D826E8E537CED914D3279314E25930518FFE" + plain);
}

std::string xmlPlist(const std::string& body) { return "<plist version=\"1.0\"><dict>" + body + "</dict></plist>"; }

using Entries = std::map<std::string, std::string>;

// The settings file as written, which must be XML with a dictionary root:
// each key with its value, integers and booleans shown as in XML.
Entries written(const fs::path& path)
{
    const std::string text = readFile(path);
    plist_t root = nullptr;
    plist_from_xml(text.data(), static_cast<uint32_t>(text.size()), &root);
    PlistFile::Node owner(root);
    if (!root || plist_get_node_type(root) != PLIST_DICT)
        return {{"not", "an XML dictionary"}};
    Entries entries;
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(root, &it);
    char* key = nullptr;
    plist_t value = nullptr;
    for (plist_dict_next_item(root, it, &key, &value); key; plist_dict_next_item(root, it, &key, &value)) {
        const plist_type type = plist_get_node_type(value);
        entries[key] = type == PLIST_STRING ? *PlistFile::stringValue(value)
            : type == PLIST_UINT            ? "<integer>" + std::to_string(*PlistFile::intValue(value)) + "</integer>"
            : type == PLIST_BOOLEAN         ? (*PlistFile::boolValue(value) ? "<true/>" : "<false/>")
                                            : "<other/>";
        std::free(key);
        key = nullptr;
    }
    std::free(it);
    return entries;
}

const Entries kDefaults = {
    {"basePath", "~/Documents"}, {"hashword", kDefaultHash}, {"lastIP", ""}, {"port", "<integer>35000</integer>"},
    {"startOnLogin", "<true/>"}, {"toast", "<true/>"}, {"trace", "<false/>"}, {"verbose", "<false/>"}};

class SettingsTest : public ::testing::Test {
protected:
    fs::path prefsPath() const { return m_home.path() / kPrefs; }
    void writePrefs(const std::string& contents) { m_home.write(kPrefs, contents); }

    TempHome m_home;
};

TEST_F(SettingsTest, FreshStartWritesTheEightDefaultKeys)
{
    Settings{Settings::NoLoginItems{}};

    // lastIP is written before the addresses are consulted.
    EXPECT_EQ(written(prefsPath()), kDefaults);
    // Nothing but the file itself is left beside it (no temporary file).
    EXPECT_EQ(std::distance(fs::directory_iterator(prefsPath().parent_path()), fs::directory_iterator()), 1);
}

TEST_F(SettingsTest, PlainPasswordWinsAndIsDroppedAtTheNextWrite)
{
    writePrefs(xmlPlist("<key>password</key><string>secret</string>\n"
                        "<key>hashword</key><string>00000000000000000000000000000000</string>\n"
                        "<key>colour</key><string>teal</string>\n"));
    Settings s{Settings::NoLoginItems{}};
    EXPECT_EQ(s.getHashedPassword(), salted("secret"));
    // Reading never rewrites an existing file.
    EXPECT_NE(readFile(prefsPath()).find("<key>password</key>"), std::string::npos);

    // Unknown keys do not survive a write either.
    s.writePreferences();
    Entries expected = kDefaults;
    expected["hashword"] = salted("secret");
    expected["lastIP"] = s.getLastIP();
    EXPECT_EQ(written(prefsPath()), expected);
}

TEST_F(SettingsTest, FileValuesAreReadWithLenientTypes)
{
    writePrefs(xmlPlist("<key>basePath</key><string>/srv/music</string>\n"
                        "<key>hashword</key><string>abc123 not a hash</string>\n"
                        "<key>lastIP</key><string>10.9.8.7</string>\n"
                        "<key>port</key><string>  8080abc</string>\n"
                        "<key>toast</key><integer>0</integer>\n"
                        "<key>startOnLogin</key><string>NO</string>\n"
                        "<key>trace</key><string>yes</string>\n"
                        "<key>verbose</key><real>0.5</real>\n"));
    Settings s{Settings::NoLoginItems{}};
    EXPECT_EQ(s.getBasePath(), "/srv/music");
    EXPECT_EQ(s.getHashedPassword(), "abc123 not a hash") << "a hashword alone is taken verbatim";
    // The machine's first address wins over the file's.
    const auto addresses = s.validIPAddresses();
    EXPECT_EQ(s.getLastIP(), addresses.empty() ? "10.9.8.7" : addresses.front());
    EXPECT_EQ(s.getPort(), 8080);
    EXPECT_FALSE(s.getToast());
    EXPECT_FALSE(s.getStartOnLogin());
    EXPECT_TRUE(s.getTrace());
    EXPECT_TRUE(s.getVerbose());
}

TEST_F(SettingsTest, BinaryFileIsRead)
{
    // A UTF-16 string holding U+0000 is read whole instead of ending the process.
    const char withNul[] = "bplist00\xd1\x01\x02XbasePathc\x00\xe9\x00\x00\x00\x62\x08\x0b\x14"
                           "\x00\x00\x00\x00\x00\x00\x01\x01\x00\x00\x00\x00\x00\x00\x00\x03"
                           "\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x1b";
    writePrefs(std::string(withNul, sizeof withNul - 1));
    EXPECT_EQ(Settings(Settings::NoLoginItems{}).getBasePath(), std::string("\xc3\xa9\x00" "b", 4));
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

    // The file is replaced whole: one opened before the write still reads the old.
    std::ifstream reader(prefsPath(), std::ios::binary);
    s.writePreferences();
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(reader), {}), fresh);
    EXPECT_EQ(written(prefsPath()),
              (Entries{{"basePath", "/home/x/Müsic & more"}, {"hashword", salted("pässword")},
                       {"lastIP", s.getLastIP()}, {"port", "<integer>-1</integer>"}, {"startOnLogin", "<false/>"},
                       {"toast", "<false/>"}, {"trace", "<true/>"}, {"verbose", "<true/>"}}));
    EXPECT_EQ(Settings(Settings::NoLoginItems{}).getPort(), -1) << "read back as written";
}

TEST_F(SettingsTest, HardeningKeepAndAdmissionKeysAreReadAndWrittenOnlyWhileSet)
{
    EXPECT_EQ(Settings(Settings::NoLoginItems{}).getAdmission(), "everyone");
    writePrefs(xmlPlist("<key>confineToBasePath</key><true/>\n<key>strictIdentify</key><true/>\n"
                        "<key>readOnly</key><true/>\n<key>listenAddress</key><string>127.0.0.2</string>\n"
                        "<key>admission</key><string>ask</string>\n"));
    Settings s{Settings::NoLoginItems{}};
    EXPECT_EQ(s.getAdmission(), "ask");
    EXPECT_TRUE(s.getConfineToBasePath());
    EXPECT_TRUE(s.getStrictIdentify());
    EXPECT_TRUE(s.getReadOnly());
    EXPECT_EQ(s.getListenAddress(), "127.0.0.2");
    // The one address phones can reach is the one announced.
    EXPECT_NE(s.getIdentifier().find(":127.0.0.2:"), std::string::npos) << s.getIdentifier();
    s.writePreferences();
    EXPECT_EQ(written(prefsPath()).size(), kDefaults.size() + 5);
    s.setListenAddress("0.0.0.0"); // every address: those are announced, never 0.0.0.0 itself
    EXPECT_EQ(s.getIdentifier().find(":0.0.0.0:"), std::string::npos) << s.getIdentifier();

    // Switched off, they leave the file as a default one is.
    s.setConfineToBasePath(false);
    s.setStrictIdentify(false);
    s.setReadOnly(false);
    s.setListenAddress("");
    s.setAdmission("");
    s.writePreferences();
    EXPECT_EQ(written(prefsPath()).size(), kDefaults.size());
    // Once chosen, admission stays in the file, even as the default; a word
    // it does not know narrows rather than opens.
    s.setAdmission("everyone");
    s.writePreferences();
    EXPECT_EQ(written(prefsPath()).at("admission"), "everyone");
    s.setAdmission("trusted");
    EXPECT_EQ(s.getAdmission(), "known");
    s.setAdmission("");

    // The keep keys: defaults unwritten; once set (even to the default), written.
    EXPECT_TRUE(s.getKeepDeleted() && s.getKeepReplaced());
    EXPECT_EQ(s.getKeepDays(), 30);
    EXPECT_EQ(s.getKeepPercent(), 10);
    s.setKeepDeleted(true);
    s.setKeepReplaced(false);
    s.setKeepDays(7);
    s.setKeepPercent(25);
    s.writePreferences();
    auto entries = written(prefsPath());
    EXPECT_EQ(entries.size(), kDefaults.size() + 4);
    Settings reread{Settings::NoLoginItems{}};
    EXPECT_TRUE(reread.getKeepDeleted());
    EXPECT_FALSE(reread.getKeepReplaced());
    EXPECT_EQ(reread.getKeepDays(), 7);
    EXPECT_EQ(reread.getKeepPercent(), 25);

    EXPECT_TRUE(Settings::isListenAddress("10.0.0.7"));
    for (const std::string& bad :
         std::vector<std::string>{"", "::1", "10.0.0", "localhost", " 10.0.0.7", std::string("10.0.0.7\0x", 10)})
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
        EXPECT_EQ(s.getHashedPassword(), kDefaultHash);
        std::vector<std::string> lines = log.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_THAT(lines[0], ::testing::MatchesRegex("Error reading plist: .+, format: " + std::to_string(c.format)));
        EXPECT_EQ(readFile(prefsPath()), c.contents);
        EXPECT_NE(lines[0].find(s.readError().value_or("none")), std::string::npos); // for the front ends
    }
}

TEST(SettingsVersion, ThreeDottedPartsMakeANumber)
{
    EXPECT_EQ(Settings::getVersionFromString("1.5"), 0);
    EXPECT_EQ(Settings::getVersionFromString("2.10.3"), 21003);
    EXPECT_EQ(Settings::getVersionFromString(" 1.5b.0rc2"), 10500); // leading integer of each part
    EXPECT_EQ(Settings::getVersionFromString("1.100.0"), 20000);    // a minor of 100 spills over
}

TEST_F(SettingsTest, IdentifierCarriesADigestOfTheStoredHashBuiltAfreshOnEveryCall)
{
    Settings s{Settings::NoLoginItems{}};
    const std::string host = ":" + Settings::computerName() + ":" + Settings::userName() + ":"
        + Settings::addressesToString(s.validIPAddresses()) + ":";
    EXPECT_EQ(s.getIdentifier(), "ZandrelSync4Mac 1.5.0" + host + "35000:75458E1E93FE2D524C242A72F6EA2980");
    s.setPort(4000);
    s.setPlainTextPassword("other");
    EXPECT_EQ(s.getIdentifier(), "ZandrelSync4Mac 1.5.0" + host + "4000:" + Digest::md5OfString(salted("other")));
}

TEST_F(SettingsTest, ComputerNameIsThePrettyNameWithoutColonsElseTheHostName)
{
    EXPECT_EQ(HostInfo::computerName(m_home.write("machine-info", "CHASSIS=laptop\nPRETTY_HOSTNAME=\"Bob:Mac\"\n")),
              "Bob Mac") << "a colon would split the identifier";
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

    EXPECT_EQ(Settings::addressesToString({"192.168.1.20", "10.0.0.7"}), "192.168.1.20,10.0.0.7");
}

TEST_F(SettingsTest, LoginItemExecLinesRoundTripAndOnlyOurEntryCounts)
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
    const fs::path entry = m_home.path() / ".config/autostart/ZandrelSync.desktop";
    EXPECT_EQ(Settings::autostartEntryPath(), entry.string());
    m_home.write(".config/autostart/ZandrelSync.desktop",
                 "[Desktop Entry]\nName=x\nExec = \"/opt/My App/run\" --minimized\n"
                 "[Desktop Action Other]\nExec=/usr/bin/other\n");
    EXPECT_TRUE(Settings::willStartAtLogin("/opt/My App/run"));
    EXPECT_FALSE(Settings::willStartAtLogin("/usr/bin/other"));
    const std::string handWritten = readFile(entry);
    Settings::setStartAtLogin("/opt/My App/run", true); // already there: untouched
    Settings::setStartAtLogin("/usr/bin/other", false); // not ours: untouched
    EXPECT_EQ(readFile(entry), handWritten);
    m_home.write(".config/autostart/ZandrelSync.desktop", "[Desktop Entry]\nExec=/usr/bin/z\nHidden=true\n");
    EXPECT_FALSE(Settings::willStartAtLogin("/usr/bin/z"));

    ::unsetenv("XDG_CONFIG_HOME");
    EXPECT_EQ(Settings::autostartEntryPath(), entry.string());
}

TEST_F(SettingsTest, CreationBringsTheInstalledProgramsLoginItemInLineWithTheSetting)
{
    ASSERT_TRUE(fs::equivalent(Settings::appURL(), "/proc/self/exe"));
    ASSERT_TRUE(Settings::buildFolder().has_value()); // this test's: never named at login
    Settings{};
    EXPECT_FALSE(fs::exists(Settings::autostartEntryPath()));

    const std::string app = "/usr/bin/ZandrelSync";
    HostInfo::setProgramPath(app);
    Settings{Settings::NoLoginItems{}};
    EXPECT_FALSE(Settings::willStartAtLogin(app)); // the daemon's way leaves login items alone

    Settings first; // startOnLogin defaults to on
    EXPECT_TRUE(Settings::willStartAtLogin(app));

    first.setStartOnLogin(false);
    first.writePreferences();
    Settings second;
    EXPECT_FALSE(Settings::willStartAtLogin(app));
    EXPECT_FALSE(fs::exists(Settings::autostartEntryPath()));
    HostInfo::setProgramPath("");
}

} // namespace
