#include <thread>
#include <vector>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QObject>
#include <QProcess>
#include <QStringList>
#include <QVariantMap>
#include <gtest/gtest.h>

#include "ShellTestSupport.h"
#include "shell/DesktopNotifier.h"

namespace {

// A stand-in for the desktop's notification service: records every Notify
// call it receives on the bus it is registered on.
class NotificationService : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    // Application, summary, body, category and time-out of each call.
    std::vector<QStringList> received;

public slots:
    uint Notify(const QString& appName, uint, const QString&, const QString& summary, const QString& body,
                const QStringList&, const QVariantMap& hints, int expireTimeout)
    {
        received.push_back({appName, summary, body, hints.value("category").toString(), QString::number(expireTimeout)});
        return static_cast<uint>(received.size());
    }
    QStringList GetCapabilities() { return {"body", "body-markup"}; }
};

TEST(DesktopNotifierTest, NoticeReachesTheNotificationServiceOnTheSessionBus)
{
    // A session bus of the test's own, ended with it.
    QProcess bus;
    bus.start("dbus-daemon", {"--session", "--nofork", "--print-address"});
    if (!bus.waitForReadyRead(5000))
        GTEST_SKIP() << "dbus-daemon could not make a private bus";
    const QString address = QString::fromUtf8(bus.readLine()).trimmed();
    QDBusConnection serviceSide = QDBusConnection::connectToBus(address, "notification-service");
    NotificationService service;
    ASSERT_TRUE(
        serviceSide.registerObject("/org/freedesktop/Notifications", &service, QDBusConnection::ExportAllSlots));
    ASSERT_TRUE(serviceSide.registerService("org.freedesktop.Notifications"));

    DesktopNotifier notifier(QDBusConnection::connectToBus(address, "notifier"));
    // The service reads markup, so the body must come escaped.
    ASSERT_TRUE(waitUntil([&] { return notifier.bodyMarkup(); }));
    std::thread session([&] { notifier.notify("Receiving File", "/home/u/Music/Simon & Garfunkel/<1>.mp3", "RECEIVEFILE"); });
    session.join();
    ASSERT_TRUE(waitUntil([&] { return !service.received.empty(); }));

    EXPECT_EQ(service.received.front(), (QStringList{"Zandrel Sync", "Receiving File",
                                            "/home/u/Music/Simon &amp; Garfunkel/&lt;1&gt;.mp3", "RECEIVEFILE", "-1"}));
    for (const char* name : {"notification-service", "notifier"})
        QDBusConnection::disconnectFromBus(name);
    bus.kill();
    bus.waitForFinished();
}

TEST(DesktopNotifierTest, WithoutABusNothingBreaksAndUpdateTextBreaksLines)
{
    DesktopNotifier detached(QDBusConnection::connectToBus("unix:path=/nonexistent/bus", "nowhere"));
    detached.notify("Sending File", "/tmp/a.mp3", "SENDFILE");
    QCoreApplication::processEvents();
    QDBusConnection::disconnectFromBus("nowhere");

    // Plain bodies stay as they are; summary and category as over the bus.
    const auto message = DesktopNotifier::compose("Update Available", "Ver. 1.5.1\r\rChangeLog:\rA & B", "UPDATE", false);
    EXPECT_EQ(message.body, "Ver. 1.5.1\n\nChangeLog:\nA & B");
}

} // namespace

#include "DesktopNotifierTest.moc"
