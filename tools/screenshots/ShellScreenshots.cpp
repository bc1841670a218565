// Renders what a person sees of the tray application to PNG files, under the
// virtual X server of screenshots.sh; the update check points at a closed
// local port.

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QFile>
#include <QLineEdit>
#include <QTableView>
#include <QMenu>
#include <QTcpServer>
#include <QTest>
#include <QTimer>

#include "ShellTestSupport.h"
#include "journal/ActivityStore.h"
#include "journal/Trash.h"
#include "server/App.h"
#include "bridge/UIBridge.h"
#include "settings/Settings.h"
#include "client/SyncClient.h"
#include "server/DeviceBook.h"
#include "server/Doorkeeper.h"
#include "shell/AboutDialog.h"
#include "shell/ActivityWindow.h"
#include "shell/SafetySettings.h"
#include "shell/PhoneRequests.h"
#include "shell/PhonesWindow.h"
#include "wire/BitHelper.h"
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

// A file of the given size that takes no room (sparse).
std::string file(const std::filesystem::path& path, std::uintmax_t size)
{
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path).put('x');
    std::filesystem::resize_file(path, size);
    return path.string();
}

// A morning of two phones, as the activity window lists it: what was kept
// is really in the home's trash, and one item is already restored.
void writeActivity(const std::filesystem::path& home)
{
    using K = Change::Kind;
    const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::system_clock::now().time_since_epoch()).count();
    std::vector<Change> batch;
    auto add = [&](int minutesAgo, const char* device, K kind, const std::string& path, std::int64_t size) -> Change& {
        Change& c = batch.emplace_back();
        c.at = now - minutesAgo * 60'000LL;
        c.device = device;
        c.session = device == std::string("192.168.1.40") ? 1 : 2;
        c.kind = kind;
        c.path = path;
        c.size = size;
        return c;
    };
    auto keep = [](Change& c) {
        const Trash::Kept kept = Trash::keep(c.path);
        c.keptAs = kept.item;
        c.info = kept.info;
        c.keptSize = Trash::sizeOf(kept.item);
        c.size = c.keptSize;
        c.state = kept.kept ? Change::State::Kept : Change::State::None;
        c.note = kept.why;
    };
    const char* first = "192.168.1.40";
    const char* second = "192.168.1.52";
    add(26, first, K::Connected, "", -1);
    add(25, first, K::Uploaded, file(home / "Music/Live at the Roxy/01 Opening.mp3", 8'412'160), 8'412'160);
    const std::string setlist = file(home / "Documents/setlist.txt", 1'984);
    keep(add(24, first, K::Replaced, setlist, -1));
    file(setlist, 2'210);
    std::filesystem::create_directories(home / "Music/Demos");
    add(22, first, K::CreatedFolder, (home / "Music/Demos").string(), -1);
    add(21, first, K::Renamed, (home / "Music/Demos/take1.m4a").string(), -1).target
        = file(home / "Music/Demos/Take 1.m4a", 3'145'728);
    for (const char* name : {"IMG_2041.jpg", "IMG_2042.jpg", "VID_2043.mp4"})
        file(home / "Pictures/Holiday 2025" / name, name[0] == 'V' ? 401'604'608 : 5'356'126);
    keep(add(18, first, K::DeletedFolder, (home / "Pictures/Holiday 2025").string(), -1));
    add(17, first, K::DeletedFile, "/media/ana/USB/notes.txt", 3'120).note = "its volume is read-only";
    add(15, first, K::Downloaded, file(home / "Music/mix.mp3", 5'734'400), 5'734'400);
    add(12, first, K::Disconnected, "", -1);
    add(5, second, K::Connected, "", -1);
    keep(add(4, second, K::DeletedFile, file(home / "Documents/old-cv.pdf", 96'211), -1));
    auto store = ActivityStore::open();
    if (!store || !store->insert(batch))
        return;
    store->restore(batch.back().id);
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

    // The example entries go into the throwaway home's journal, whatever the
    // environment names.
    qputenv("XDG_STATE_HOME", QDir::home().filePath(".local/state").toLocal8Bit());
    writeActivity(QDir::homePath().toStdString());
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
        // A port out of range: Save is disabled and says why.
        auto* port = window->findChild<QLineEdit*>("portField");
        port->selectAll();
        QTest::keyClicks(port, "99999");
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
    // Two phones: one fetching an album it reads slowly, one held out by
    // "ask" and waiting for an answer; two more known from before.
    SyncClient fetching, asking;
    QTimer::singleShot(3 * kSettleMs, [&] {
        failures += !save(tray.aboutWindow(), out + "/about.png");
        tray.openActivity();
    });
    QTimer::singleShot(4 * kSettleMs, [&] {
        // The folder a phone deleted, chosen to be put back.
        tray.activityWindow()->findChild<QTableView*>("activityTable")->selectRow(5);
        failures += !save(tray.activityWindow(), out + "/activity.png");
        tray.activityWindow()->hide();
        tray.aboutWindow()->hide();
        tray.app()->stop();
        tray.app()->settings()->setPort(0);
        tray.app()->start();
        const auto port = tray.app()->waitUntilRunning(std::chrono::seconds(5)).value_or(0);
        auto door = tray.phoneRequests()->doorkeeper();
        door->book()->sessionEnded("192.168.1.31", "3c:22:fb:41:9a:07", 2'400'000'000, 36'000'000);
        door->setStanding("192.168.1.31", Doorkeeper::Standing::Allowed, "Kitchen tablet");
        door->setStanding("192.168.1.23", Doorkeeper::Standing::Allowed, "Anna's phone");
        door->book()->sessionEnded("192.168.1.77", "", 0, 0);
        door->setStanding("192.168.1.77", Doorkeeper::Standing::Blocked, "");
        const QString album = QDir::homePath() + "/Music/Night Drive";
        QDir().mkpath(album);
        QFile track(album + "/04 Coastline.flac");
        track.open(QIODevice::WriteOnly);
        track.resize(48'000'000);
        track.close();
        fetching.connect("192.168.1.23", port);
        Bytes fields = BitHelper::encodeLongLong(1);
        fields += BitHelper::encodeString(track.fileName().toStdString());
        fields += BitHelper::encodeLongLong(0);
        fields += BitHelper::encodeBool(false);
        fetching.sendCommandWithPassword(26, tray.app()->settings()->getHashedPassword(), fields);
        tray.app()->settings()->setAdmission(Settings::kAdmitAsk);
        asking.connect("10.0.0.5", port);
        asking.sendCommandWithPassword(14, "");
    });
    QTimer::singleShot(5 * kSettleMs, [&] {
        PhonesWindow* phones = tray.phonesWindow();
        if (!phones) {
            tray.openPhones();
            phones = tray.phonesWindow();
        }
        phones->refresh();
        failures += !save(phones, out + "/phones.png");
        QCoreApplication::exit(failures == 0 ? 0 : 1);
    });
    return QApplication::exec();
}
