#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <QApplication>
#include <QDir>
#include <QLibraryInfo>
#include <QLocale>
#include <QTimer>
#include <QTranslator>

#include "server/App.h"
#include "shell/SingleInstance.h"
#include "shell/StopSignals.h"
#include "shell/TrayIcon.h"
#include "shell/TrayMenu.h"

namespace {

const char* const kUsage =
    "Usage: ZandrelSync [--log-stderr]\n"
    "The Zandrel Sync server as a tray application. Launched again while it\n"
    "runs, it opens the running one's settings window instead.\n"
    "\n"
    "  --log-stderr  write the log lines to standard error instead of the system log\n"
    "  --help        show this text and exit\n"
    "  --version     show the version and exit\n";

bool hasDisplay()
{
    return !qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")
        || !qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM");
}

void loadTranslations(QApplication& app)
{
    // Our own catalogue sits beside the program or in its share folder.
    auto* ours = new QTranslator(&app);
    const QString appDir = QCoreApplication::applicationDirPath();
    for (const QString& dir : {appDir + QStringLiteral("/translations"),
                               appDir + QStringLiteral("/../share/zandrelsync/translations")}) {
        if (ours->load(QLocale(), QStringLiteral("ZandrelSync"), QStringLiteral("_"), dir)) {
            QCoreApplication::installTranslator(ours);
            break;
        }
    }
    auto* qt = new QTranslator(&app);
    if (qt->load(QLocale(), QStringLiteral("qtbase"), QStringLiteral("_"),
                 QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
        QCoreApplication::installTranslator(qt);
}

} // namespace

int main(int argc, char* argv[])
{
    // Answered before Qt starts, so they work without a display.
    bool logToStderr = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return EXIT_SUCCESS;
        }
        if (arg == "--version") {
            std::printf("ZandrelSync %s\n", ZANDREL_VERSION);
            return EXIT_SUCCESS;
        }
        if (arg == "--log-stderr") {
            logToStderr = true;
            continue;
        }
        std::fprintf(stderr, "ZandrelSync: unknown option %s\n%s", arg.c_str(), kUsage);
        return 2;
    }
    if (!hasDisplay()) {
        std::fputs("ZandrelSync: no display (DISPLAY and WAYLAND_DISPLAY are unset); "
                   "zandrel-syncd runs the same server without a window\n",
                   stderr);
        return EXIT_FAILURE;
    }
    if (logToStderr)
        App::logToStandardError(true);

    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("ZandrelSync"));
    QApplication::setApplicationVersion(QStringLiteral(ZANDREL_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("ZandrelSync"));
    QApplication::setWindowIcon(TrayIcon::icon());
    // A tray application: closing its last window does not end it.
    QApplication::setQuitOnLastWindowClosed(false);
    loadTranslations(app);

    // A second launch (from the application menu, on a desktop without a
    // tray) shows the running instance's window instead of a second server.
    SingleInstance instance;
    if (!instance.claim()) {
        std::puts("ZandrelSync is already running; its settings window has been opened.");
        return EXIT_SUCCESS;
    }

    auto trayMenu = std::make_unique<TrayMenu>();
    StopSignals stopSignals;
    QObject::connect(&stopSignals, &StopSignals::received, trayMenu.get(), &TrayMenu::actionQuit);
    QObject::connect(&instance, &SingleInstance::showRequested, trayMenu.get(), [menu = trayMenu.get()] {
        if (menu->app())
            menu->openSettings();
    });
    QTimer::singleShot(0, trayMenu.get(), &TrayMenu::applicationDidFinishLaunching);
    const int status = QApplication::exec();
    // The server stops with the menu, and its stop waits for the sessions.
    trayMenu.reset();
    return status;
}
