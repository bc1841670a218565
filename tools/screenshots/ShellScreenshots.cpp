// Renders what a person sees of the tray application to PNG files, under the
// virtual X server of screenshots.sh; the update check points at a closed
// local port.

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QLineEdit>
#include <QTableView>
#include <QMenu>
#include <QTcpServer>
#include <QTest>
#include <QTimer>

#include "ShellTestSupport.h"
#include "journal/ActivityStore.h"
#include "server/App.h"
#include "bridge/UIBridge.h"
#include "settings/Settings.h"
#include "shell/AboutDialog.h"
#include "shell/ActivityWindow.h"
#include "shell/SafetySettings.h"
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

// A morning of two phones, as the activity window lists it. The paths are
// examples; nothing on disk stands behind them.
void writeActivity()
{
    using K = Change::Kind;
    using S = Change::State;
    const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::system_clock::now().time_since_epoch()).count();
    struct Row {
        int minutesAgo;
        const char* device;
        K kind;
        const char* path;
        std::int64_t size;
        S state;
        const char* extra;
    };
    const Row rows[] = {
        {26, "192.168.1.40", K::Connected, "", -1, S::None, ""},
        {25, "192.168.1.40", K::Uploaded, "/home/ana/Music/Live at the Roxy/01 Opening.mp3", 8'412'160, S::None, ""},
        {24, "192.168.1.40", K::Replaced, "/home/ana/Documents/setlist.txt", 1'984, S::Kept, ""},
        {22, "192.168.1.40", K::CreatedFolder, "/home/ana/Music/Demos", -1, S::None, ""},
        {21, "192.168.1.40", K::Renamed, "/home/ana/Music/Demos/take1.m4a", -1, S::None,
         "/home/ana/Music/Demos/Take 1.m4a"},
        {18, "192.168.1.40", K::DeletedFolder, "/home/ana/Pictures/Holiday 2025", 412'316'860, S::Kept, ""},
        {17, "192.168.1.40", K::DeletedFile, "/media/ana/USB/notes.txt", 3'120, S::None, "its volume is read-only"},
        {15, "192.168.1.40", K::Downloaded, "/home/ana/Music/mix.mp3", 5'734'400, S::None, ""},
        {12, "192.168.1.40", K::Disconnected, "", -1, S::None, ""},
        {5, "192.168.1.52", K::Connected, "", -1, S::None, ""},
        {4, "192.168.1.52", K::DeletedFile, "/home/ana/Documents/old-cv.pdf", 96'211, S::Restored,
         "/home/ana/Documents/old-cv.pdf"},
    };
    std::vector<Change> batch;
    for (const Row& row : rows) {
        Change c;
        c.at = now - row.minutesAgo * 60'000LL;
        c.device = row.device;
        c.session = std::strcmp(row.device, "192.168.1.40") == 0 ? 1 : 2;
        c.kind = row.kind;
        c.path = row.path;
        c.size = row.size;
        c.state = row.state;
        if (row.kind == K::DeletedFile && row.state == S::None)
            c.note = row.extra;
        else
            c.target = row.extra;
        if (row.state != S::None) {
            c.keptAs = std::string("/home/ana/.local/share/Trash/files/") + (std::strrchr(row.path, '/') + 1);
            c.keptSize = row.size;
        }
        batch.push_back(std::move(c));
    }
    if (auto store = ActivityStore::open())
        store->insert(batch);
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

    writeActivity();
    TrayMenu tray(std::make_shared<RecordingNotifier>());
    tray.applicationDidFinishLaunching();
    tray.openSettings();

    int failures = 0;
    QTcpServer otherProgram;
    QTimer::singleShot(kSettleMs, [&] {
        SettingsDialog* window = tray.settingsWindow();
        window->updateStatusLine();
        failures += !save(window, out + "/settings.png");
        failures += !save(window->findChild<SafetySettings*>(), out + "/settings-safety.png");
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
        tray.openActivity();
    });
    QTimer::singleShot(4 * kSettleMs, [&] {
        // The folder a phone deleted, chosen to be put back.
        tray.activityWindow()->findChild<QTableView*>("activityTable")->selectRow(5);
        failures += !save(tray.activityWindow(), out + "/activity.png");
        QCoreApplication::exit(failures == 0 ? 0 : 1);
    });
    return QApplication::exec();
}
