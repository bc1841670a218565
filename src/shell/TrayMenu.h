#pragma once

#include <memory>

#include <QObject>
#include <QPointer>
#include <QTimer>

class AboutDialog;
class ActivityWindow;
class App;
class Doorkeeper;
class Notifier;
class PhoneRequests;
class PhonesWindow;
class ServerControl;
class QMenu;
class QSystemTrayIcon;
class Settings;
class SettingsDialog;
class UpdateDialog;

// The application delegate: at launch it loads the settings, makes the
// server, starts a silent update check, puts up the tray icon and its menu,
// then starts the server. The menu opens the settings, activity, update and
// about windows and quits. GUI thread only, except _checkForUpdate.
class TrayMenu : public QObject {
    Q_OBJECT

public:
    // The notifier defaults to the desktop's notification service.
    explicit TrayMenu(std::shared_ptr<Notifier> notifier = nullptr);
    ~TrayMenu() override;

    void applicationDidFinishLaunching();

    QMenu* menu() const { return _menu.get(); }
    QSystemTrayIcon* statusItem() const { return _statusItem.get(); }
    SettingsDialog* settingsWindow() const { return m_settingsWindow.get(); }
    UpdateDialog* updateWindow() const;
    AboutDialog* aboutWindow() const { return m_aboutWindow.get(); }
    ActivityWindow* activityWindow() const { return m_activityWindow.get(); }
    PhonesWindow* phonesWindow() const { return m_phonesWindow.get(); }
    PhoneRequests* phoneRequests() const { return m_requests.get(); }
    std::shared_ptr<App> app() const { return _app; }

    // The update window is closing: the next "Check For Update" builds a
    // new one and checks again.
    void updateWindowWillClose(UpdateDialog* window);

    // After each start of the server: a worker waits for it to come up and,
    // when it could not listen, says so in a desktop notification.
    void watchServer();
    static void _watchServer(const std::shared_ptr<App>& app, const std::shared_ptr<Notifier>& notifier);

    // Any thread: starts the silent check on a thread of its own.
    static void checkForUpdate(std::shared_ptr<Notifier> notifier);
    // Worker thread: posts "UPDATE" through the notifier when a newer
    // version is offered; silent on everything else.
    static void _checkForUpdate(const std::shared_ptr<Notifier>& notifier);

    // "Serving — 2 phones connected", "Serving — no phone connected", or
    // why it is not serving; refreshed every second.
    void updateToolTip();
    QString toolTipText() const;

public slots:
    void openSettings();
    // The "Activity" entry (ours, after "Open Settings") and the settings
    // window's button: one window, shown again when open.
    void openActivity();
    void openPhones();
    void openCheckForUpdate();
    void runAbout();
    void actionQuit();

private:
    void _openCheckForUpdate();
    void startDoorkeeper();
    void _generateMenu();
    void _genMainMenu();
    void showStatusItem();
    // One notice naming the file, what is wrong with it and that the
    // defaults are in use (the log keeps its own line).
    void reportUnreadableSettings();
    static void bringToFront(QWidget* window);

    std::shared_ptr<Notifier> m_notifier;
    std::shared_ptr<Settings> _settings;
    std::shared_ptr<App> _app;
    std::shared_ptr<Doorkeeper> m_doorkeeper;
    // After the App it answers for, so it goes (joining its thread) first.
    std::unique_ptr<ServerControl> m_control;
    std::unique_ptr<PhoneRequests> m_requests;
    std::unique_ptr<PhonesWindow> m_phonesWindow;
    QTimer m_toolTipTimer;
    // Declared first so that it outlives the tray icon it belongs to.
    std::unique_ptr<QMenu> _menu;
    std::unique_ptr<QSystemTrayIcon> _statusItem;
    std::unique_ptr<SettingsDialog> m_settingsWindow;
    // Owned by Qt: deleted after it closes.
    QPointer<UpdateDialog> m_updateWindow;
    std::unique_ptr<AboutDialog> m_aboutWindow;
    std::unique_ptr<ActivityWindow> m_activityWindow;
};
