// Renders what a person sees of the tray application to PNG files, under the
// virtual X server of screenshots.sh; the update check points at a closed
// local port.

#include <cstdio>
#include <memory>

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QLineEdit>
#include <QMenu>
#include <QTcpServer>
#include <QTest>
#include <QTimer>

#include "ShellTestSupport.h"
#include "server/App.h"
#include "bridge/UIBridge.h"
#include "settings/Settings.h"
#include "shell/AboutDialog.h"
#include "shell/SettingsDialog.h"
#include "shell/TrayIcon.h"
#include "shell/TrayMenu.h"
#include "shell/UpdateCheck.h"

namespace {

constexpr int kSettleMs = 600;

bool save(QWidget* widget, const QString& path)
{
    // Lets the layout follow a text that just changed.
    QCoreApplication::processEvents();
    const bool ok = widget->grab().save(path);
    std::printf("%s %s\n", ok ? "wrote" : "could not write", qPrintable(path));
    return ok;
}

} // namespace

int main(int argc, char* argv[])
{
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QApplication::setWindowIcon(TrayIcon::icon());
    const QString out = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("screenshots");
    QDir().mkpath(out);
    UpdateCheck::setUpdateInfoURL(unansweredURL());

    TrayMenu tray(std::make_shared<RecordingNotifier>());
    tray.applicationDidFinishLaunching();
    tray.openSettings();

    int failures = 0;
    QTcpServer otherProgram;
    QTimer::singleShot(kSettleMs, [&] {
        SettingsDialog* window = tray.settingsWindow();
        window->updateStatusLine();
        failures += !save(window, out + "/settings.png");
        // An edit without a password: Save is disabled and says why.
        auto* port = window->findChild<QLineEdit*>("portField");
        port->selectAll();
        QTest::keyClicks(port, "35001");
        failures += !save(window, out + "/settings-save-hint.png");
        // Another program holds the port when the server restarts.
        otherProgram.listen(QHostAddress::AnyIPv4, 0);
        tray.app()->stop();
        tray.app()->settings()->setPort(otherProgram.serverPort());
        tray.app()->start();
        tray.app()->waitUntilRunning(std::chrono::seconds(5));
        window->_updateForm();
        failures += !save(window, out + "/settings-port-in-use.png");
        window->hide();
        tray.menu()->popup(QPoint(60, 40));
        tray.menu()->setActiveAction(tray.menu()->actions().front());
    });
    QTimer::singleShot(2 * kSettleMs, [&] {
        failures += !save(tray.menu(), out + "/tray-menu.png");
        tray.menu()->hide();
        tray.runAbout();
    });
    QTimer::singleShot(3 * kSettleMs, [&] {
        failures += !save(tray.aboutWindow(), out + "/about.png");
        QCoreApplication::exit(failures == 0 ? 0 : 1);
    });
    return QApplication::exec();
}
