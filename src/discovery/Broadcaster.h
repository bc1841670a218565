#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>

struct sockaddr_in;
class Settings;
class UIBridge;

// Lets phones on the LAN find the server: one thread announces the
// identifier to 225.3.1.4:31415 every 5 seconds, another answers queries
// received on 225.3.1.5:31415 by unicast to the sender, port 31415.
// startBroadcasting/stopBroadcasting are called on the server or main thread;
// the broadcaster owns both threads and stop joins them.
class Broadcaster {
public:
    Broadcaster(std::shared_ptr<Settings> settings, std::shared_ptr<UIBridge> uiBridge);
    ~Broadcaster();
    Broadcaster(const Broadcaster&) = delete;
    Broadcaster& operator=(const Broadcaster&) = delete;

    // Starts both threads, unless the server listens on loopback only.
    void startBroadcasting();
    // Asks both threads to end and returns once they have.
    void stopBroadcasting();

    // A server that listens on a loopback address only is out of every
    // phone's reach, so it is neither announced nor answered for: nothing
    // is bound on the discovery port. See docs/protocol.md (loopback server
    // not announced).
    static bool staysSilent(const std::string& listenAddress);

private:
    void threadProc(const std::stop_token& stop);
    void threadProc2(const std::stop_token& stop);
    // One run of each thread's set-up and loop; false once it should end.
    bool announceOnce(const std::stop_token& stop);
    bool answerOnce(const std::stop_token& stop);
    // Sleeps up to `seconds`, waking early when `stop` is requested.
    void safeWait(const std::stop_token& stop, double seconds);
    void reply(const sockaddr_in& from, const char* identifier, int length);
    void logInfo(const std::string& message) const;
    void logAlways(const std::string& message) const;
    void logShortSend(long sent, int length, int error) const;

    std::shared_ptr<Settings> m_settings;
    std::shared_ptr<UIBridge> m_uiBridge;
    // Only for the threads' sleeps, which a stop request cuts short.
    std::mutex m_waitMutex;
    std::condition_variable_any m_wake;
    // Readable once stopped, so the answering thread's select() ends at once.
    int m_wakeFd = -1;
    // Guards the two threads: start and stop may come from the server and
    // the main thread at once.
    std::mutex m_threadsMutex;
    std::jthread m_announcer;
    std::jthread m_answerer;
};
