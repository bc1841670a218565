// Loads arbitrary bytes as the settings file, the way every start does:
// XML or binary property list and the lenient key readings. Runs in a
// temporary $HOME of its own.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "log/SystemLog.h"
#include "settings/PlistFile.h"
#include "settings/Settings.h"

namespace {

class DropLines : public LogSink {
public:
    void write(std::string_view) override {}
};

std::string g_file;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    char pattern[] = "/tmp/zandrel-fuzz-settings-XXXXXX";
    const char* home = ::mkdtemp(pattern);
    if (!home)
        std::abort();
    ::setenv("HOME", home, 1);
    ::setenv("XDG_CONFIG_HOME", (std::string(home) + "/.config").c_str(), 1);
    SystemLog::setSink(std::make_shared<DropLines>());
    g_file = Settings::preferencesPath();
    std::filesystem::create_directories(std::filesystem::path(g_file).parent_path());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    {
        std::ofstream out(g_file, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(size));
    }
    // Both halves of a load: the raw reading and the store's key rules.
    PlistFile::ReadResult read = PlistFile::readDictionary(g_file);
    if (read.root) {
        // Every reading of every value, whatever key it sits under.
        auto dict = static_cast<plist_t>(read.root.get());
        plist_dict_iter iter = nullptr;
        plist_dict_new_iter(dict, &iter);
        for (;;) {
            // No copy of the key: the settings look keys up, never list
            // them, and the copying getter aborts on a key holding U+0000.
            plist_t node = nullptr;
            plist_dict_next_item(dict, iter, nullptr, &node);
            if (!node)
                break;
            PlistFile::stringValue(node);
            PlistFile::intValue(node);
            PlistFile::boolValue(node);
        }
        std::free(iter);
    }
    Settings settings{Settings::NoLoginItems{}};
    return 0;
}
