#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// What the sync protocol fixes besides the command codes: where a server
// listens and announces itself, the password a fresh install takes and the
// salt its hash is made with, the size of a transfer chunk and the names a
// listing leaves out. Server and client both read them from here.
namespace Protocol {

// The TCP port a server listens on until its settings say otherwise.
inline constexpr std::uint16_t kDefaultPort = 35000;

// Discovery: announcements go to the first group, queries to the second,
// and both (and the unicast answers) to the same UDP port.
inline constexpr const char* kAnnounceGroup = "225.3.1.4";
inline constexpr const char* kQueryGroup = "225.3.1.5";
inline constexpr std::uint16_t kDiscoveryPort = 31415;
// The IP-level multicast TTL of every sending socket.
inline constexpr int kMulticastTtl = 32;
// A query is this text and a terminating zero byte.
inline constexpr std::string_view kQueryText = "ZandrelSync";
// Receive buffer for a discovery datagram; an identifier goes out in at
// most one byte less.
inline constexpr std::size_t kDatagramSize = 1000;

// The password of a fresh install, and the salt every password hash starts
// with: the hash is the upper-case MD5 text of salt + plain password.
inline constexpr const char* kDefaultPassword = "Sesamely";
inline constexpr const char* kPasswordSalt =
    "0E991F413708B1AE61C724F430F5965779D826E8E537CED914D3279314E25930518FFE";
std::string hashPassword(std::string_view plain);

// File data moves in pieces of this size, both ways.
inline constexpr std::size_t kChunkSize = 512000;

// An upload is received into "<destination>" + this, beside its destination.
inline constexpr std::string_view kPartialSuffix = ".zandrel";
// Folder metadata a desktop leaves behind.
inline constexpr std::string_view kFolderMetadataName = ".DS_Store";

// Names a whole-tree listing and a folder's file count leave out: the
// server's own partial uploads and the desktop's folder metadata.
constexpr bool isLeftOutOfListings(std::string_view name)
{
    return name.ends_with(kPartialSuffix) || name == kFolderMetadataName;
}

} // namespace Protocol
