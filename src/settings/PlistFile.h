#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <plist/plist.h>

// Property-list files as the settings store keeps them: XML or binary read,
// XML written; and the lenient value readings applied to what was read.
namespace PlistFile {

struct NodeFree {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Node = std::unique_ptr<void, NodeFree>;

// Format numbers reported with a read failure: 0 when the bytes look like
// no property list at all, else the serialisation they were taken for.
inline constexpr int kFormatUnknown = 0;
inline constexpr int kFormatXml = 100;
inline constexpr int kFormatBinary = 200;

struct ReadResult {
    Node root;         // the root dictionary; null when reading failed
    std::string error; // why reading failed, for the log
    int format = kFormatUnknown;
};

ReadResult readDictionary(const std::string& path);
// Serialises the tree as XML and replaces the file atomically (owner-only,
// it holds the password hash). False when nothing was written.
bool writeXml(const std::string& path, plist_t root);

// The usual readings of a value found under a key. A value of a type with
// no such reading (data, date, array, dictionary) gives nothing, as if the
// key were absent.
std::optional<std::string> stringValue(plist_t node);
std::optional<std::int32_t> intValue(plist_t node);
std::optional<bool> boolValue(plist_t node);

} // namespace PlistFile
