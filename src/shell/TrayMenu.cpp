#include "shell/TrayMenu.h"

#include <chrono>
#include <cstdint>
#include <optional>

#include <QApplication>
#include <QCursor>
#include <QMenu>
#include <QSystemTrayIcon>

#include "server/App.h"
#include "server/DeviceBook.h"
#include "server/Doorkeeper.h"
#include "server/ServerControl.h"
#include "server/SocketListener.h"
#include "log/SystemLog.h"
#include "bridge/UIBridge.h"
#include "settings/Settings.h"
#include "shell/AboutDialog.h"
#include "shell/ActivityWindow.h"
#include "shell/BackgroundJobs.h"
#include "shell/DesktopNotifier.h"
#include "shell/PhoneRequests.h"
#include "shell/PhonesWindow.h"
#include "shell/SettingsDialog.h"
#include "shell/TrayIcon.h"
#include "shell/UpdateCheck.h"
#include "shell/UpdateDialog.h"

TrayMenu::TrayMenu(std::shared_ptr<Notifier> notifier)
    : m_notifier(notifier ? std::move(notifier) : std::make_shared<DesktopNotifier>())
{
}

TrayMenu::~TrayMenu()
{
    if (m_doorkeeper)
        m_doorkeeper->setAsker(nullptr);
    // The workers (a save among them) finish before the server stops for good.
    BackgroundJobs::stopAll();
    if (_app)
        _app->stop();
    if (m_updateWindow)
        delete m_updateWindow.data();
}

UpdateDialog* TrayMenu::updateWindow() const
{
    return m_updateWindow;
}

void TrayMenu::applicationDidFinishLaunching()
{
    _settings = std::make_shared<Settings>();
    _app = std::make_shared<App>(_settings);
    _app->uiBridge()->setNotifier(m_notifier);
    reportUnreadableSettings();
    startDoorkeeper();
    checkForUpdate(m_notifier);
    showStatusItem();
    _app->start();
    watchServer();
}

void TrayMenu::reportUnreadableSettings()
{
    const std::optional<std::string> why = _settings->readError();
    if (!why || !m_notifier)
        return;
    const QString message = tr("The settings file %1 could not be read (%2). The default settings are in use; "
                               "saving the settings window replaces the file with them.")
                                .arg(QString::fromStdString(Settings::preferencesPath()), QString::fromStdString(*why));
    m_notifier->notify(QT_TRANSLATE_NOOP("DesktopNotifier", "Zandrel Sync Settings Not Read"), message.toStdString(),
                       "SETTINGSERROR");
}

void TrayMenu::startDoorkeeper()
{
    std::string error;
    std::shared_ptr<DeviceBook> book = DeviceBook::open(&error);
    if (!book)
        SystemLog::write("The known phones' file cannot be used (" + error + "); no phone is known");
    m_doorkeeper = std::make_shared<Doorkeeper>(_settings, _app->uiBridge(), book);
    _app->setAdmission(m_doorkeeper);
    m_requests = std::make_unique<PhoneRequests>(_app, m_doorkeeper);
    connect(m_requests.get(), &PhoneRequests::openPhones, this, &TrayMenu::openPhones);
    m_doorkeeper->setAsker([requests = m_requests.get()](const Peer& peer) {
        requests->ask(QString::fromStdString(peer.address));
    });
    m_control = std::make_unique<ServerControl>(*_app, m_doorkeeper);
    if (!m_control->channel().isOpen())
        SystemLog::write("No control channel (" + m_control->channel().error()
            + "); zandrel-syncd status and devices cannot reach this server");
}

QString TrayMenu::toolTipText() const
{
    const auto port = _app ? _app->waitUntilRunning(std::chrono::milliseconds(0)) : std::nullopt;
    if (!port)
        return tr("Not serving — starting");
    if (*port == 0) {
        const std::int32_t configured = _settings->getPort();
        return static_cast<std::uint32_t>(configured) - 1024u < 64512u
            ? tr("Not serving — port %1 is used by another program").arg(configured)
            : tr("Not serving — the server could not listen for phones");
    }
    auto listener = _app->listener();
    const int phones = listener ? static_cast<int>(listener->statuses().size()) : 0;
    if (phones == 0)
        return tr("Serving — no phone connected");
    return phones == 1 ? tr("Serving — 1 phone connected") : tr("Serving — %1 phones connected").arg(phones);
}

void TrayMenu::updateToolTip()
{
    if (_statusItem)
        _statusItem->setToolTip(toolTipText());
}

void TrayMenu::openPhones()
{
    if (!m_phonesWindow)
        m_phonesWindow = std::make_unique<PhonesWindow>(_app, m_requests.get());
    m_phonesWindow->refresh();
    bringToFront(m_phonesWindow.get());
}

void TrayMenu::watchServer()
{
    if (_app)
        BackgroundJobs::start([app = _app, notifier = m_notifier] { _watchServer(app, notifier); });
}

void TrayMenu::_watchServer(const std::shared_ptr<App>& app, const std::shared_ptr<Notifier>& notifier)
{
    const std::optional<std::uint16_t> port = app->waitUntilRunning(std::chrono::seconds(30));
    if (!port || *port != 0 || !notifier)
        return;
    const std::int32_t configured = app->settings()->getPort();
    const QString message = static_cast<std::uint32_t>(configured) - 1024u < 64512u
        ? tr("Port %1 is used by another program, so phones cannot connect. Quit that program, "
             "or choose another port in the settings.")
              .arg(configured)
        : tr("The server could not listen for phones.");
    notifier->notify(QT_TRANSLATE_NOOP("DesktopNotifier", "Zandrel Sync Is Not Serving"), message.toStdString(),
                     "SERVERERROR");
}

void TrayMenu::showStatusItem()
{
    _statusItem = std::make_unique<QSystemTrayIcon>(TrayIcon::icon());
    // Instead of "Zandrel Sync": whether it serves, and how many phones.
    updateToolTip();
    connect(&m_toolTipTimer, &QTimer::timeout, this, &TrayMenu::updateToolTip);
    m_toolTipTimer.start(1000);
    _generateMenu();
    // A left click shows the menu as well: it is the whole interface.
    connect(_statusItem.get(), &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger && _menu)
            _menu->popup(QCursor::pos());
    });
    // Shown even without a tray: a panel that comes up later (one still
    // starting when we are started at login) takes the icon in then.
    _statusItem->show();
    if (QSystemTrayIcon::isSystemTrayAvailable())
        return;
    // Without a tray the person would see nothing at all.
    SystemLog::write("No system tray available; showing the settings window instead");
    openSettings();
}

void TrayMenu::_generateMenu()
{
    _menu = std::make_unique<QMenu>();
    _genMainMenu();
    _statusItem->setContextMenu(_menu.get());
}

void TrayMenu::_genMainMenu()
{
    _menu->setToolTipsVisible(true);
    _menu->addAction(tr("Open Settings"), this, &TrayMenu::openSettings);
    _menu->addAction(tr("Activity"), this, &TrayMenu::openActivity);
    _menu->addAction(tr("Phones"), this, &TrayMenu::openPhones);
    _menu->addAction(tr("Check For Update"), this, &TrayMenu::openCheckForUpdate);
    _menu->addAction(tr("About"), this, &TrayMenu::runAbout);
    _menu->addSeparator();
    QAction* quit = _menu->addAction(tr("Quit"), this, &TrayMenu::actionQuit);
    quit->setToolTip(tr("Click to Quit this App"));
}

void TrayMenu::openSettings()
{
    if (m_settingsWindow) {
        m_settingsWindow->setStandalone(!QSystemTrayIcon::isSystemTrayAvailable());
        m_settingsWindow->_updateForm();
        bringToFront(m_settingsWindow.get());
        return;
    }
    m_settingsWindow = std::make_unique<SettingsDialog>();
    m_settingsWindow->setStandalone(!QSystemTrayIcon::isSystemTrayAvailable());
    connect(m_settingsWindow.get(), &SettingsDialog::quitRequested, this, &TrayMenu::actionQuit);
    bringToFront(m_settingsWindow.get());
    _app->addSettingsDialog(m_settingsWindow->progressView());
    m_settingsWindow->addApp(_app, this);
}

void TrayMenu::openActivity()
{
    if (!m_activityWindow)
        m_activityWindow = std::make_unique<ActivityWindow>();
    bringToFront(m_activityWindow.get());
}

void TrayMenu::actionQuit()
{
    if (m_settingsWindow)
        m_settingsWindow->allowClosing();
    QCoreApplication::quit();
}

void TrayMenu::runAbout()
{
    if (m_aboutWindow) {
        bringToFront(m_aboutWindow.get());
        return;
    }
    m_aboutWindow = std::make_unique<AboutDialog>();
    bringToFront(m_aboutWindow.get());
    m_aboutWindow->fireItUp();
}

void TrayMenu::openCheckForUpdate()
{
    QMetaObject::invokeMethod(this, &TrayMenu::_openCheckForUpdate, Qt::QueuedConnection);
}

void TrayMenu::_openCheckForUpdate()
{
    if (m_updateWindow) {
        bringToFront(m_updateWindow);
        return;
    }
    m_updateWindow = new UpdateDialog();
    bringToFront(m_updateWindow);
    m_updateWindow->fireItUp(this);
}

void TrayMenu::updateWindowWillClose(UpdateDialog* window)
{
    if (m_updateWindow == window)
        m_updateWindow = nullptr;
    window->deleteLater();
}

void TrayMenu::bringToFront(QWidget* window)
{
    window->show();
    window->raise();
    window->activateWindow();
}

void TrayMenu::checkForUpdate(std::shared_ptr<Notifier> notifier)
{
    BackgroundJobs::start([notifier = std::move(notifier)] { _checkForUpdate(notifier); });
}

void TrayMenu::_checkForUpdate(const std::shared_ptr<Notifier>& notifier)
{
    const QStringList fields = UpdateCheck::fields(UpdateCheck::fetch(UpdateCheck::checkRequest()));
    if (fields.size() < 4 || !UpdateCheck::isNewer(fields[0]))
        return;
    const QString message = UpdateCheck::availabilityMessage(fields[0], fields[3]);
    if (notifier)
        notifier->notify("Update Available", message.toStdString(), "UPDATE");
}
