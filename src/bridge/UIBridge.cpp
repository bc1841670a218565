#include "bridge/UIBridge.h"

#include "log/SystemLog.h"
#include "settings/Settings.h"

UIBridge::UIBridge(std::shared_ptr<Settings> settings) : m_settings(std::move(settings)) {}

bool UIBridge::logging() const
{
    auto s = settings();
    return s && s->getTrace();
}

void UIBridge::log(const std::string& message) const
{
    if (logging())
        SystemLog::write(message);
}

void UIBridge::logError(const std::string& message) const { log(message); }
void UIBridge::logInfo(const std::string& message) const { log(message); }
void UIBridge::logMessage(const std::string& message) const { log(message); }
void UIBridge::logAlways(const std::string& message) const { SystemLog::write(message); }

int UIBridge::percent(std::int64_t done, std::int64_t total)
{
    if (total <= 0 || done <= 0)
        return 0;
    if (done >= total)
        return 100;
    // 128 bits: done * 100 overflows 64 bits past 92 PB.
    return static_cast<int>(static_cast<__int128>(done) * 100 / total);
}

void UIBridge::setProgress(std::int64_t done, std::int64_t total) const
{
    auto view = settingsDialog();
    if (!view)
        return;
    try {
        view->setProgress(percent(done, total));
    } catch (...) {
    }
}

void UIBridge::notify(const std::string& title, const std::string& description, const std::string& name) const
{
    auto n = notifier();
    if (!n)
        return;
    try {
        n->notify(title, description, name);
    } catch (...) {
    }
}

std::shared_ptr<Settings> UIBridge::settings() const
{
    std::lock_guard lock(m_mutex);
    return m_settings;
}

void UIBridge::setSettings(std::shared_ptr<Settings> settings)
{
    std::lock_guard lock(m_mutex);
    m_settings = std::move(settings);
}

std::shared_ptr<ProgressView> UIBridge::settingsDialog() const
{
    std::lock_guard lock(m_mutex);
    return m_settingsDialog;
}

void UIBridge::setSettingsDialog(std::shared_ptr<ProgressView> view)
{
    std::lock_guard lock(m_mutex);
    m_settingsDialog = std::move(view);
}

std::shared_ptr<Notifier> UIBridge::notifier() const
{
    std::lock_guard lock(m_mutex);
    return m_notifier;
}

void UIBridge::setNotifier(std::shared_ptr<Notifier> notifier)
{
    std::lock_guard lock(m_mutex);
    m_notifier = std::move(notifier);
}
