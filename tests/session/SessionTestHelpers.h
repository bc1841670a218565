#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>

#include <gtest/gtest.h>

#include "client/SyncClient.h"
#include "wire/BitHelper.h"
#include "wire/Commands.h"
#include "wire/StreamIO.h"

// Payload fields and exact-reply checks shared by the session tests.
namespace SessionTest {

inline Bytes text(const std::string& value) { return BitHelper::encodeString(value); }
inline Bytes number(std::int64_t value) { return BitHelper::encodeLongLong(value); }
inline Bytes flag(bool value) { return BitHelper::encodeBool(value); }

inline Bytes join(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const auto& part : parts)
        out += part;
    return out;
}

// The next bytes on the connection must be exactly these.
inline void expectNext(SyncClient& client, const Bytes& expected)
{
    EXPECT_EQ(client.readExact(expected.size()), expected);
}

inline void expectDataPacket(SyncClient& client, std::uint8_t code, const Bytes& data)
{
    expectNext(client, StreamIO::dataPacket(code, data));
}

// A command that is answered proves that everything before it was consumed
// exactly and that the session goes on.
inline void expectSessionAlive(SyncClient& client)
{
    client.sendCommand(Command::StartSync);
    expectDataPacket(client, Command::StartSync, flag(true));
}

} // namespace SessionTest
