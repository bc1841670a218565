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

std::int32_t UIBridge::percent(std::int32_t done, std::int32_t total)
{
    if (total == 0)
        return 0;
    // Wraps like the 32-bit multiplication it stands for.
    auto times100 = static_cast<std::int32_t>(static_cast<std::uint32_t>(done) * 100u);
    if (total == -1 && times100 == INT32_MIN)
        return times100;
    return times100 / total;
}

void UIBridge::setProgress(std::int32_t done, std::int32_t total) const
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
