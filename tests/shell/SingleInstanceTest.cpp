#include <atomic>
#include <fstream>
#include <thread>

#include <QProcess>
#include <QProcessEnvironment>
#include <QTcpSocket>
#include <gtest/gtest.h>

#include "ShellTestSupport.h"
#include "support/TestSupport.h"
#include "shell/SingleInstance.h"

namespace {

TEST(SingleInstanceTest, ASecondClaimAsksTheFirstToShowItsWindow)
{
    TempHome home;
    const QString path = QString::fromStdString((home.path() / "instance.socket").string());
    // A socket file left by an instance that was killed is no obstacle.
    std::ofstream(path.toStdString()) << "stale";
    SingleInstance first(path);
    ASSERT_TRUE(first.claim());
    int requests = 0;
    QObject::connect(&first, &SingleInstance::showRequested, [&] { ++requests; });

    // The second launch blocks while it asks, so it runs beside the loop
    // that lets the first one answer.
    std::atomic<int> secondClaimed{-1};
    std::thread second([&] { secondClaimed = SingleInstance(path).claim() ? 1 : 0; });
    EXPECT_TRUE(waitUntil([&] { return secondClaimed != -1; }));
    second.join();
    EXPECT_EQ(secondClaimed, 0);
    EXPECT_EQ(requests, 1);

    // Where no socket can be made the application runs all the same.
    EXPECT_TRUE(SingleInstance(QString::fromStdString((home.path() / "missing/instance.socket").string())).claim());
}

// The tray application as a desktop session runs it, with its own runtime
// folder so that it meets no other instance.
TEST(TrayProcessTest, ASecondLaunchLeavesAndSIGTERMQuitsLikeQuit)
{
    // The application checks for updates at launch: only where nothing can
    // leave the machine.
    if (!ownsNetworkNamespace())
        GTEST_SKIP() << "needs a private network namespace";
    TempHome home;
    const std::uint16_t port = freePort();
    home.write("Library/Preferences/com.orvantics.ZandrelSync.plist",
               "<plist version=\"1.0\"><dict><key>port</key><integer>" + std::to_string(port)
                   + "</integer><key>trace</key><true/><key>startOnLogin</key><false/></dict></plist>");
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("XDG_RUNTIME_DIR", QString::fromStdString(home.path().string()));
    QProcess first;
    QProcess second;
    for (QProcess* process : {&first, &second})
        process->setProcessEnvironment(env);

    first.start(ZANDREL_TRAY_APP, {"--log-stderr"});
    QByteArray log;
    auto logShows = [&](const QByteArray& line) {
        return waitUntil([&] {
            first.waitForReadyRead(100);
            log += first.readAllStandardError();
            return log.contains(line);
        }, std::chrono::seconds(20));
    };
    ASSERT_TRUE(logShows("Server started on port " + QByteArray::number(port))) << log.toStdString();
    QTcpSocket phone;
    phone.connectToHost(QHostAddress::LocalHost, port);
    ASSERT_TRUE(logShows("Added connection.\n")) << log.toStdString();

    second.start(ZANDREL_TRAY_APP, {"--log-stderr"});
    ASSERT_TRUE(second.waitForFinished(10000));
    EXPECT_EQ(second.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(second.exitCode(), 0);
    EXPECT_TRUE(second.readAllStandardOutput().contains("already running"));
    EXPECT_FALSE(second.readAllStandardError().contains("Server started")) << "no second server";

    first.terminate();
    ASSERT_TRUE(first.waitForFinished(10000));
    EXPECT_EQ(first.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(first.exitCode(), 0);
    log += first.readAllStandardError();
    EXPECT_TRUE(log.contains("Stopped Echo server\n")) << log.toStdString();
    EXPECT_TRUE(log.contains("Connection closed.\n")) << "the phone's session ended: " << log.toStdString();
}

} // namespace
