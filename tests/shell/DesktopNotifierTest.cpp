#include <memory>
#include <thread>
#include <vector>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QProcess>
#include <QStringList>
#include <QVariantMap>
#include <gtest/gtest.h>

#include "ShellTestSupport.h"
#include "server/App.h"
#include "server/DeviceBook.h"
#include "server/Doorkeeper.h"
#include "settings/Settings.h"
#include "shell/DesktopNotifier.h"
#include "shell/PhoneRequests.h"
#include "support/TestSupport.h"

namespace {

// A stand-in for the desktop's notification service: records every Notify
// call it receives on the bus it is registered on.
class NotificationService : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    // Application, summary, body, category and time-out of each call.
    std::vector<QStringList> received;
    QStringList lastActions;

public slots:
    uint Notify(const QString& appName, uint, const QString&, const QString& summary, const QString& body,
                const QStringList& actions, const QVariantMap& hints, int expireTimeout)
    {
        lastActions = actions;
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

    // A phone that admission "ask" held out: Allow and Block on the notice,
    // and the answer kept; without a service the Phones window is asked for.
    {
        TempHome home;
        auto settings = std::make_shared<Settings>(Settings::NoLoginItems{});
        auto app = std::make_shared<App>(settings);
        auto door = std::make_shared<Doorkeeper>(settings, app->uiBridge(), DeviceBook::open());
        PhoneRequests requests(app, door, QDBusConnection::connectToBus(address, "requests"));
        requests.ask("10.0.0.5");
        ASSERT_TRUE(waitUntil([&] { return service.received.size() == 1; }));
        EXPECT_EQ(service.lastActions, (QStringList{"allow", "Allow", "block", "Block"}));
        EXPECT_EQ(service.received[0][1], "A Phone Asks To Connect");
        EXPECT_EQ(requests.waiting(), QStringList{"10.0.0.5"});
        serviceSide.send(QDBusMessage::createSignal("/org/freedesktop/Notifications", "org.freedesktop.Notifications",
                             "ActionInvoked")
            << 1u << QString("block"));
        ASSERT_TRUE(waitUntil([&] { return requests.waiting().isEmpty(); }));
        EXPECT_EQ(door->book()->find("10.0.0.5")->standing, Doorkeeper::Standing::Blocked);

        PhoneRequests unheard(app, door, QDBusConnection::connectToBus("unix:path=/nonexistent/bus", "unheard"));
        bool opened = false;
        QObject::connect(&unheard, &PhoneRequests::openPhones, [&] { opened = true; });
        unheard.ask("10.0.0.6");
        EXPECT_TRUE(waitUntil([&] { return opened; }));
        service.received.clear();
        for (const char* name : {"requests", "unheard"})
            QDBusConnection::disconnectFromBus(name);
    }

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
