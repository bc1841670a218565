#include "shell/UpdateDialog.h"

#include <mutex>
#include <system_error>

#include <QCoreApplication>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTimer>
#include <QUrl>

#include "shell/BackgroundJobs.h"
#include "shell/TrayMenu.h"
#include "shell/UpdateCheck.h"
#include "ui_UpdateForm.h"
#include "wire/Digest.h"
#include "wire/Paths.h"

namespace {

constexpr int kCheckDelayMs = 700;

// Guards g_installer.
std::mutex g_installerMutex;
UpdateDialog::Installer g_installer{
    [](const QString& path) { QDesktopServices::openUrl(QUrl::fromLocalFile(path)); },
    [] { QCoreApplication::quit(); },
};

} // namespace

void UpdateDialog::setInstaller(Installer installer)
{
    std::lock_guard lock(g_installerMutex);
    g_installer = std::move(installer);
}

UpdateDialog::Installer UpdateDialog::installer()
{
    std::lock_guard lock(g_installerMutex);
    return g_installer;
}

UpdateDialog::UpdateDialog(QWidget* parent)
    : QDialog(parent)
    , m_ui(std::make_unique<Ui::UpdateForm>())
    , m_relay(std::make_shared<Relay>(this))
{
    m_ui->setupUi(this);
    m_statusMessage = m_ui->statusBox->text();
    connect(m_ui->updateButton, &QPushButton::clicked, this, &UpdateDialog::updatePressed);
    connect(this, &QDialog::finished, this, &UpdateDialog::windowWillClose);
}

UpdateDialog::~UpdateDialog()
{
    m_relay->detach();
}

void UpdateDialog::fireItUp(TrayMenu* trayMenu)
{
    mTrayMenu = trayMenu;
    const QString label = tr("Zandrel Sync: ") + UpdateCheck::bundleVersion();
    _timer = new QTimer(this);
    _timer->setSingleShot(true);
    connect(_timer, &QTimer::timeout, this, &UpdateDialog::checkForUpdate);
    _timer->start(kCheckDelayMs);
    m_ui->updateButton->hide();
    m_ui->versionLabel->setText(label);
    m_ui->progressBar->setRange(0, 0);
    m_ui->progressBar->show();
}

void UpdateDialog::checkForUpdate()
{
    BackgroundJobs::start([relay = m_relay] { _checkForUpdate(relay); });
}

void UpdateDialog::_checkForUpdate(const std::shared_ptr<Relay>& relay)
{
    const QStringList fields = UpdateCheck::fields(UpdateCheck::fetch(UpdateCheck::checkRequest()));
    if (fields.size() < 4) {
        displayStatusBox(relay, tr("Retrieval Error"));
        return;
    }
    if (!UpdateCheck::isNewer(fields[0])) {
        displayNoUpdate(relay);
        return;
    }
    displayStatusBox(relay, UpdateCheck::availabilityMessage(fields[0], fields[3]));
    showUpdateButton(relay);
}

void UpdateDialog::updatePressed()
{
    QMetaObject::invokeMethod(this, &UpdateDialog::_updatePressed, Qt::QueuedConnection);
}

void UpdateDialog::_updatePressed()
{
    // Two presses can both be queued before the first is handled; only the
    // first may start a download.
    if (!m_ui->updateButton->isEnabled())
        return;
    // Disabled for good: a second press could start a second download.
    m_ui->updateButton->setEnabled(false);
    m_ui->progressBar->show();
    BackgroundJobs::start([relay = m_relay] { _downloadUpdate(relay); });
}

void UpdateDialog::_downloadUpdate(const std::shared_ptr<Relay>& relay)
{
    // Read afresh: what the check saw is not reused, nor is the version
    // compared again.
    const QNetworkRequest infoRequest = UpdateCheck::request(
        QUrl(UpdateCheck::updateInfoURL()), UpdateCheck::CachePolicy::ReloadRevalidating);
    const QStringList fields = UpdateCheck::fields(UpdateCheck::fetch(infoRequest));
    if (fields.size() < 4) {
        displayStatusBox(relay, tr("\r\rRetrieval Error"));
        return;
    }
    const QString& version = fields[0];
    const QString& digest = fields[1];
    const QString& packageURL = fields[2];
    // A substring test, not a prefix test.
    // kept: see docs/protocol.md (trusted download prefix)
    if (!packageURL.contains(UpdateCheck::trustedDownloadPrefix())) {
        displayStatusBox(relay, tr("\rInvalid file path"));
        return;
    }
    const QByteArray package = UpdateCheck::fetch(UpdateCheck::request(
        QUrl(packageURL, QUrl::TolerantMode), UpdateCheck::CachePolicy::ReloadIgnoringLocal));

    const QString destination = packagePath(version);
    // ~/Downloads may not exist on a fresh Linux account.
    QDir().mkpath(QFileInfo(destination).absolutePath());
    QFile::remove(destination);
    if (!package.isNull()) {
        QFile file(destination);
        if (file.open(QIODevice::WriteOnly))
            file.write(package);
    }
    // Compared exactly: an upper-case digest in the description is a mismatch.
    if (QString::fromStdString(Digest::md5OfFile(destination.toStdString())) != digest) {
        displayStatusBox(relay, tr("\rBad file checksum"));
        return;
    }
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [destination] {
            const Installer hooks = installer();
            hooks.open(destination);
            hooks.quit();
        },
        Qt::QueuedConnection);
}

QString UpdateDialog::packagePath(const QString& version)
{
    const QString downloads = QString::fromStdString(Paths::expandTilde("~/Downloads"));
    return downloads + QStringLiteral("/ZandrelSync ") + version + QStringLiteral(".pkg");
}

void UpdateDialog::displayNoUpdate(const std::shared_ptr<Relay>& relay)
{
    displayStatusBox(relay, tr("No update available"));
}

void UpdateDialog::displayStatusBox(const std::shared_ptr<Relay>& relay, const QString& text)
{
    relay->post([text](UpdateDialog& dialog) { dialog._displayStatusBox(text); });
}

void UpdateDialog::_displayStatusBox(const QString& text)
{
    m_ui->progressBar->hide();
    m_statusMessage = text;
    // "\r" breaks the lines of these texts; a label would show it as a blank.
    QString shown = text;
    shown.replace(QLatin1Char('\r'), QLatin1Char('\n'));
    m_ui->statusBox->setText(shown);
}

void UpdateDialog::showUpdateButton(const std::shared_ptr<Relay>& relay)
{
    relay->post([](UpdateDialog& dialog) { dialog._showUpdateButton(); });
}

void UpdateDialog::_showUpdateButton()
{
    m_ui->updateButton->show();
}

void UpdateDialog::windowWillClose()
{
    if (mTrayMenu)
        mTrayMenu->updateWindowWillClose(this);
}
