#include "shell/SettingsDialog.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <QMessageBox>
#include <QScrollBar>
#include <QTimer>
#include <QTextCharFormat>
#include <QTextCursor>

#include "server/App.h"
#include "bridge/UIBridge.h"
#include "settings/Settings.h"
#include "shell/BackgroundJobs.h"
#include "shell/TrayIcon.h"
#include "shell/TrayMenu.h"
#include "ui_MainMenu.h"

namespace {

// Log lines below this level never reach the view. The three log
// operations use levels 0 to 2, so the view stays empty.
// kept: see docs/protocol.md (silent log view)
constexpr int kLogViewThreshold = 10;

// How often the status line looks at the server while the window is shown.
constexpr int kStatusRefreshMs = 1000;

// Two saves never overlap, even when the window is reopened (and Save
// enabled again) before the first has finished.
std::mutex g_saveMutex;

// Carries the core's progress to the window's GUI thread.
class ProgressRelay : public ProgressView {
public:
    explicit ProgressRelay(std::shared_ptr<GuiRelay<SettingsDialog>> relay) : m_relay(std::move(relay)) {}
    void setProgress(int percent) override
    {
        m_relay->post([percent](SettingsDialog& dialog) { dialog.setProgress(percent); });
    }

private:
    std::shared_ptr<GuiRelay<SettingsDialog>> m_relay;
};

} // namespace

SettingsDialog::SettingsDialog(QWidget* parent)
    : QDialog(parent)
    , m_ui(std::make_unique<Ui::MainMenu>())
    , m_relay(std::make_shared<GuiRelay<SettingsDialog>>(this))
{
    m_ui->setupUi(this);
    setWindowIcon(TrayIcon::icon());
    m_ui->logView->clear();
    // Below everything the form already has, just above the buttons.
    m_safety = new SafetySettings(this);
    m_ui->mainLayout->insertWidget(m_ui->mainLayout->count() - 1, m_safety);
    connect(m_safety, &SafetySettings::activityRequested, this, [this] {
        if (trayMenu)
            trayMenu->openActivity();
    });
    m_advanced = new AdvancedSettings(this);
    m_ui->mainLayout->insertWidget(m_ui->mainLayout->count() - 1, m_advanced);
    connect(m_advanced, &AdvancedSettings::textEdited, this, [this] { controlTextDidChange(nullptr); });
    connect(m_ui->portField, &QLineEdit::textEdited, this, [this] { controlTextDidChange(m_ui->portField); });
    connect(m_ui->passwordField, &QLineEdit::textEdited, this,
            [this] { controlTextDidChange(m_ui->passwordField); });
    connect(m_ui->saveButton, &QPushButton::clicked, this, &SettingsDialog::save);
    connect(m_ui->cancelButton, &QPushButton::clicked, this, &SettingsDialog::cancel);
    connect(m_ui->aboutButton, &QPushButton::clicked, this, [this] {
        if (trayMenu)
            trayMenu->runAbout();
    });
    connect(m_ui->checkForUpdateButton, &QPushButton::clicked, this, [this] {
        if (trayMenu)
            trayMenu->openCheckForUpdate();
    });
    connect(m_ui->quitButton, &QPushButton::clicked, this, [this] {
        if (trayMenu)
            trayMenu->actionQuit();
    });
    m_ui->appButtons->hide();
    m_statusTimer = new QTimer(this);
    m_statusTimer->setInterval(kStatusRefreshMs);
    connect(m_statusTimer, &QTimer::timeout, this, [this] {
        if (isVisible())
            updateStatusLine();
    });
    m_statusTimer->start();
}

SettingsDialog::~SettingsDialog()
{
    m_relay->detach();
}

void SettingsDialog::addApp(std::shared_ptr<App> app, TrayMenu* menu)
{
    _app = std::move(app);
    trayMenu = menu;
    m_settings = _app->settings();
    _updateForm();
}

std::shared_ptr<ProgressView> SettingsDialog::progressView() const
{
    return std::make_shared<ProgressRelay>(m_relay);
}

void SettingsDialog::_updateForm()
{
    if (!m_settings)
        return;
    // The product and its version; the label phones receive in the
    // identifier (getVersion) names another platform's build.
    m_ui->versionField->setText(tr("Zandrel Sync %1").arg(QString::fromStdString(Settings::getVersionAPI())));
    m_ui->hostnameField->setText(QString::fromStdString(Settings::computerName()));
    m_ui->usernameField->setText(QString::fromStdString(Settings::userName()));
    m_ui->progressBar->setValue(0);
    _getAndSetIPAddresses();
    m_ui->portField->setText(QString::number(m_settings->getPort()));
    m_ui->passwordField->setText(QString());
    m_ui->notificationsCheckBox->setChecked(m_settings->getToast());
    m_ui->startOnLoginCheckbox->setChecked(m_settings->getStartOnLogin());
    m_ui->enableLoggingCheckbox->setChecked(m_settings->getTrace());
    showLoginItemToolTip();
    m_advanced->load(*m_settings);
    m_safety->load(*m_settings);
    enforceLoginChoice(m_ui->startOnLoginCheckbox->isChecked());
    updateSaveButton();
    updateStatusLine();
}

void SettingsDialog::updateStatusLine()
{
    if (!_app || !m_settings)
        return;
    const std::optional<std::uint16_t> port = _app->waitUntilRunning(std::chrono::milliseconds(0));
    const std::int32_t configured = m_settings->getPort();
    QString status;
    if (!port) {
        status = tr("Starting the server...");
    } else if (*port == 0 && static_cast<std::uint32_t>(configured) - 1024u < 64512u) {
        status = tr("Port %1 is used by another program, so phones cannot connect. Quit that program, "
                    "or choose another port and save.")
                     .arg(configured);
    } else if (*port == 0) {
        status = tr("The server could not listen for phones.");
    } else {
        const std::vector<std::string> addresses = m_settings->servedAddresses();
        status = addresses.empty()
            ? tr("Serving on port %1, but this computer has no network address yet.").arg(*port)
            : tr("Serving on port %1 at %2").arg(*port).arg(QString::fromStdString(addresses.front()));
    }
    if (status != m_ui->statusLine->text()) {
        m_ui->statusLine->setText(status);
        makeRoomForWrappedText();
    }
}

void SettingsDialog::makeRoomForWrappedText()
{
    // A window's minimum size leaves out how tall wrapped text gets at its
    // width, so a line that wraps would be laid over the log box above it.
    QLayout* layout = this->layout();
    layout->activate();
    const int needed = layout->hasHeightForWidth() ? layout->totalHeightForWidth(width())
                                                   : layout->totalMinimumSize().height();
    if (height() < needed)
        resize(width(), needed);
}

void SettingsDialog::showLoginItemToolTip()
{
    const std::optional<std::string> build = Settings::buildFolder();
    m_ui->startOnLoginCheckbox->setToolTip(build
            ? tr("This copy runs from the build folder %1, which may not be there at your next login, so the login "
                 "items are left as they are. Start at login takes effect for the installed program.")
                  .arg(QString::fromStdString(*build))
            : tr("Starts %1 when you log in").arg(QString::fromStdString(Settings::appURL())));
}

void SettingsDialog::setStandalone(bool standalone)
{
    m_standalone = standalone;
    m_ui->appButtons->setVisible(standalone);
}

void SettingsDialog::_getAndSetIPAddresses()
{
    m_ui->addressesPopup->clear();
    for (const std::string& address : m_settings->validIPAddresses())
        m_ui->addressesPopup->addItem(QString::fromStdString(address));
    m_ui->addressesPopup->setCurrentIndex(m_ui->addressesPopup->count() > 0 ? 0 : -1);
}

void SettingsDialog::updateSaveButton()
{
    m_ui->saveButton->setText(tr("Save"));
    m_ui->saveButton->setEnabled(true);
    m_ui->cancelButton->setEnabled(true);
    showSaveHint(false);
}

void SettingsDialog::showSaveHint(bool portOutOfRange)
{
    m_ui->saveHint->setText(portOutOfRange ? tr("Enter a port from 1024 to 65535 to save") : QString());
    makeRoomForWrappedText();
}

void SettingsDialog::controlTextDidChange(QLineEdit* field)
{
    m_ui->saveButton->setEnabled(true);
    if (field == m_ui->portField) {
        const QString text = field->text();
        QString digits;
        int cursor = field->cursorPosition();
        for (qsizetype i = 0; i < text.size(); ++i) {
            if (text[i].isDigit())
                digits += text[i];
            else if (i < field->cursorPosition())
                --cursor;
        }
        if (digits != text) {
            field->setText(digits);
            field->setCursorPosition(cursor);
        }
    }
    // value - 1024 as an unsigned 32-bit number below 64512: 1024 to 65535.
    const auto offset = static_cast<std::uint32_t>(intValue(m_ui->portField->text())) - 1024u;
    const bool portOutOfRange = offset >= 64512u;
    const bool addressInvalid = !m_advanced->listenAddressIsValid();
    // An empty password field keeps the stored hash, as its placeholder
    // says, so only the port and the address can keep Save disabled.
    // see docs/protocol.md (Save with an empty password)
    if (portOutOfRange || addressInvalid)
        m_ui->saveButton->setEnabled(false);
    // Say what is wrong, or the disabled button looks broken.
    showSaveHint(portOutOfRange);
    if (addressInvalid && !portOutOfRange) {
        m_ui->saveHint->setText(tr("Enter an IPv4 address such as 192.168.1.20 to listen on, or none, to save"));
        makeRoomForWrappedText();
    }
}

int SettingsDialog::intValue(const QString& text)
{
    // Leading ASCII digits, saturating, so that a long run of digits stays
    // out of range instead of wrapping into it.
    long long value = 0;
    for (QChar c : text) {
        if (c < QLatin1Char('0') || c > QLatin1Char('9'))
            break;
        value = std::min<long long>(value * 10 + (c.unicode() - '0'), INT_MAX);
    }
    return static_cast<int>(value);
}

void SettingsDialog::save()
{
    showSaveHint(false);
    m_ui->saveButton->setText(tr("Saving..."));
    m_ui->saveButton->setEnabled(false);
    m_ui->cancelButton->setEnabled(false);
    BackgroundJobs::start(
        [app = _app, settings = m_settings, form = readForm(), relay = m_relay] { saveSub(app, settings, form, relay); });
}

SettingsDialog::Form SettingsDialog::readForm() const
{
    Form form;
    for (int i = 0; i < m_ui->addressesPopup->count(); ++i)
        form.addresses << m_ui->addressesPopup->itemText(i);
    form.selectedAddress = m_ui->addressesPopup->currentText();
    form.port = m_ui->portField->text();
    form.password = m_ui->passwordField->text();
    form.toast = m_ui->notificationsCheckBox->isChecked();
    form.trace = m_ui->enableLoggingCheckbox->isChecked();
    form.startOnLogin = m_ui->startOnLoginCheckbox->isChecked();
    form.advanced = m_advanced->values();
    form.safety = m_safety->values();
    return form;
}

void SettingsDialog::saveSub(std::shared_ptr<App> app, std::shared_ptr<Settings> settings, Form form,
                             std::shared_ptr<GuiRelay<SettingsDialog>> relay)
{
    std::lock_guard lock(g_saveMutex);
    if (app)
        app->stop();
    if (settings)
        _updateSettings(*settings, form);
    if (app)
        app->start();
    relay->post([](SettingsDialog& dialog) { dialog.closeAfterSave(); });
}

void SettingsDialog::_updateSettings(Settings& settings, const Form& form)
{
    if (form.addresses.size() == 1)
        settings.setLastIP(form.addresses.front().toStdString());
    else if (form.addresses.size() >= 2)
        settings.setLastIP(form.selectedAddress.toStdString());
    settings.setPort(intValue(form.port));
    if (!form.password.isEmpty())
        settings.setPlainTextPassword(form.password.toStdString());
    settings.setToast(form.toast);
    settings.setTrace(form.trace);
    settings.setStartOnLogin(form.startOnLogin);
    enforceLoginChoice(form.startOnLogin);
    AdvancedSettings::apply(settings, form.advanced);
    SafetySettings::apply(settings, form.safety);
    settings.writePreferences();
}

void SettingsDialog::enforceLoginChoice(bool startAtLogin)
{
    Settings::bringLoginItemInLine(startAtLogin);
}

void SettingsDialog::closeAfterSave()
{
    // Save keeps its "Saving..." title until the next opening refills the
    // form; a standalone window, the only way back in, is refilled at once.
    if (m_standalone)
        _updateForm();
    else
        hide();
    if (trayMenu)
        trayMenu->watchServer();
}

void SettingsDialog::cancel()
{
    if (m_standalone)
        _updateForm();
    else
        hide();
}

void SettingsDialog::reject()
{
    if (!m_standalone || m_quitting) {
        QDialog::reject();
        return;
    }
    const bool quit = m_confirmQuit ? m_confirmQuit()
                                    : QMessageBox::question(this, tr("Quit Zandrel Sync?"),
                                          tr("This window is the only way back to Zandrel Sync on this desktop. "
                                             "Closing it quits, and phones can no longer connect. Quit?"))
            == QMessageBox::Yes;
    if (quit)
        emit quitRequested();
}

void SettingsDialog::setProgress(int percent)
{
    m_ui->progressBar->setValue(percent);
}

void SettingsDialog::logError(const QString& text)
{
    _logToScreen(text, Qt::red, 2);
}

void SettingsDialog::logInfo(const QString& text)
{
    _logToScreen(text, QColor(128, 0, 128), 0);
}

void SettingsDialog::logMessage(const QString& text)
{
    _logToScreen(text, Qt::black, 1);
}

void SettingsDialog::_logToScreen(const QString& text, const QColor& colour, int level)
{
    if (level < kLogViewThreshold)
        return;
    QTextCharFormat format;
    format.setForeground(colour);
    QTextCursor cursor(m_ui->logView->document());
    cursor.movePosition(QTextCursor::End);
    cursor.insertText(text + QLatin1Char('\n'), format);
    scrollToBottom();
}

void SettingsDialog::scrollToBottom()
{
    QScrollBar* bar = m_ui->logView->verticalScrollBar();
    bar->setValue(bar->maximum());
}
