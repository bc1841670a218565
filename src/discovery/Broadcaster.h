#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

struct sockaddr_in;
class Settings;
class UIBridge;

// Lets phones on the LAN find the server: one thread announces the
// identifier to 225.3.1.4:31415 every 5 seconds, another answers queries
// received on 225.3.1.5:31415 by unicast to the sender, port 31415.
// startBroadcasting/stopBroadcasting are called on the server or main thread.
class Broadcaster {
public:
    Broadcaster(std::shared_ptr<Settings> settings, std::shared_ptr<UIBridge> uiBridge);
    ~Broadcaster();
    Broadcaster(const Broadcaster&) = delete;
    Broadcaster& operator=(const Broadcaster&) = delete;

    void startBroadcasting();
    // Returns once both threads have finished.
    void stopBroadcasting();
    // Sleeps up to `seconds`, waking early when broadcasting is stopped.
    void safeWait(double seconds);

private:
    void threadProc();
    void threadProc2();
    // One run of each thread's set-up and loop; false once it should end.
    bool announceOnce();
    bool answerOnce();
    void reply(const sockaddr_in& from, const char* identifier, int length);
    void logInfo(const std::string& message) const;
    void logAlways(const std::string& message) const;
    void logShortSend(long sent, int length, int error) const;
    // Bookkeeping that must be the last thing a thread does with `this`.
    void threadFinished();

    std::shared_ptr<Settings> m_settings;
    std::atomic<bool> m_keepBroadcasting{false};
    std::atomic<std::int32_t> m_stillBroadcasting{0};
    std::shared_ptr<UIBridge> m_uiBridge;
    // Guards the flag changes and counters the waits below depend on.
    std::mutex m_waitMutex;
    std::condition_variable m_wake;
    // Threads started and not yet returned; the destructor waits for 0 so a
    // thread that starts after a quick stop never outlives the object.
    std::int32_t m_threadsAlive = 0;
    // Readable once stopped, so the answering thread's select() ends at once.
    int m_wakeFd = -1;
};
