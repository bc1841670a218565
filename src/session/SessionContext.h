#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <string>

#include "session/Peer.h"
#include "session/SessionWork.h"
#include "wire/StreamIO.h"

class InputStream;
class SessionActivity;
class Settings;
class UIBridge;

// What a session lends its command handlers: the byte layer, the
// connection's input (an upload waits on it), the shared settings and
// bridge, the flag that turns false once nobody will read an answer
// (stop, the lifetime timer), which cuts long digests short, the phone's
// address, its door to the activity journal and the trash, and the live
// status the handlers keep up to date. All of it
// belongs to the session and outlives its handlers; used on the session
// thread only.
struct SessionContext {
    StreamIO& io;
    const InputStream& input;
    const Settings& settings;
    const UIBridge& bridge;
    const std::atomic<bool>& answerable;
    const Peer& peer;
    SessionActivity& activity;
    SessionWork& work;
};

// Runs one handler's body inside the failure pattern every handler shares:
// answer with an error packet under `code`, then rethrow, so that the
// session loop logs the failure and ends the session.
template <typename Body>
void guarded(StreamIO& io, std::uint8_t code, const std::string& context, Body&& body)
{
    try {
        body();
    } catch (const std::exception& failure) {
        io.writeErrorPacket(code, failure, context);
        throw;
    }
}
