#pragma once

#include "session/Peer.h"
#include "session/SessionWork.h"

// Who may be served, asked before every command on the session's thread,
// and told when the session starts and ends.
// A phone held out is answered as a wrong password is and served nothing;
// the rule itself (settings, known phones) lives above the session.
class Admission {
public:
    virtual ~Admission() = default;
    // Whether the phone may be served now. Cheap and without side effects:
    // it runs for every command of every session.
    virtual bool admits(const Peer& peer) const = 0;
    // Told once per session, at the first command it holds out.
    virtual void heldOut(const Peer& peer) = 0;
    // Told on the session's thread as it starts, before its first command.
    virtual void sessionStarted(const Peer& peer) = 0;
    // Told on the session's thread as it ends, with what it did, so that
    // the phone is remembered.
    virtual void sessionEnded(const SessionStatus& status) = 0;
};
