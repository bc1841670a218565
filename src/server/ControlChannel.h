#pragma once

#include <functional>
#include <optional>
#include <string>
#include <thread>

#include <sys/types.h>
#include <unistd.h>

// The running server's door for its own user: a Unix socket (mode 0600, in
// a folder of mode 0700 under $XDG_RUNTIME_DIR) on which one request line is
// answered by text, then the connection is closed. A connection from
// another user (SO_PEERCRED) is closed unanswered. Owned by a front end (the
// daemon's main, the tray application); its one thread answers requests in
// turn and is stopped and joined by the destructor.
class ControlChannel {
public:
    // Answers one request line (without its newline); runs on the channel's
    // thread.
    using Handler = std::function<std::string(const std::string& request)>;

    // $XDG_RUNTIME_DIR/zandrel/control; empty when there is no runtime folder.
    static std::string defaultPath();

    // Listens at `path` for connections from `owner` only. A socket left
    // there by a process that is gone is replaced; one that answers is
    // another server's, and this channel then stays closed (`error` says so).
    ControlChannel(Handler handler, std::string path = defaultPath(), uid_t owner = ::geteuid());
    ~ControlChannel();
    ControlChannel(const ControlChannel&) = delete;
    ControlChannel& operator=(const ControlChannel&) = delete;

    bool isOpen() const { return m_listenFd >= 0; }
    // Why the channel is closed, when it is.
    const std::string& error() const { return m_error; }
    const std::string& path() const { return m_path; }

    // The client's side: sends `request` to the channel at `path` and returns
    // the answer; nothing when nobody listens there (no server runs).
    static std::optional<std::string> ask(const std::string& request, const std::string& path = defaultPath());

private:
    bool listen();
    void run(const std::stop_token& stop);
    void answer(int fd);

    Handler m_handler;
    std::string m_path;
    uid_t m_owner;
    std::string m_error;
    int m_listenFd = -1;
    // Written to by the destructor to wake the thread's poll().
    int m_wake[2] = {-1, -1};
    std::jthread m_thread;
};
