#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

class Settings;

// Receives transfer progress. Implemented by the desktop settings window.
class ProgressView {
public:
    virtual ~ProgressView() = default;
    // Called on a session thread; return quickly (hop to your own thread).
    virtual void setProgress(int percent) = 0;
};

// Raises desktop notifications. Implemented by the desktop shell.
class Notifier {
public:
    virtual ~Notifier() = default;
    // Called on a session or worker thread; return quickly. `name` is the
    // notification's kind ("SENDFILE", "RECEIVEFILE", "UPDATE").
    virtual void notify(const std::string& title, const std::string& description, const std::string& name) = 0;
};

// The one object through which background threads report to the person:
// log lines (to the system log, gated by the trace setting) and progress.
// Callable from any thread; holds no lock while it reports.
class UIBridge {
public:
    explicit UIBridge(std::shared_ptr<Settings> settings = nullptr);

    void logError(const std::string& message) const;
    void logInfo(const std::string& message) const;
    void logMessage(const std::string& message) const;
    // Written whatever the trace setting says: the few lines a person must
    // see even with logging off.
    void logAlways(const std::string& message) const;
    // Whether log lines go anywhere at all: a caller whose line is costly to
    // build (it quotes what a phone sent) asks first.
    bool logging() const;
    // percent = done * 100 / total from the 64-bit offset and size, held
    // to 0-100; 0 when total is 0 or less. Only the desktop's progress bar
    // reads it, so it may be right where 32 bits were not.
    // see docs/protocol.md (progress in 64 bits)
    void setProgress(std::int64_t done, std::int64_t total) const;
    static int percent(std::int64_t done, std::int64_t total);
    // Posts a notification through the installed notifier, if any.
    void notify(const std::string& title, const std::string& description, const std::string& name) const;

    std::shared_ptr<Settings> settings() const;
    void setSettings(std::shared_ptr<Settings> settings);
    std::shared_ptr<ProgressView> settingsDialog() const;
    void setSettingsDialog(std::shared_ptr<ProgressView> view);
    std::shared_ptr<Notifier> notifier() const;
    void setNotifier(std::shared_ptr<Notifier> notifier);

private:
    void log(const std::string& message) const;

    // Guards the three pointers only; never held while calling out.
    mutable std::mutex m_mutex;
    std::shared_ptr<Settings> m_settings;
    std::shared_ptr<ProgressView> m_settingsDialog;
    std::shared_ptr<Notifier> m_notifier;
};
