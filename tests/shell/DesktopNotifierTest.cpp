#include <thread>
#include <vector>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QObject>
#include <QProcess>
#include <QStandardPaths>
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
    struct Notice {
        QString appName;
        QString summary;
        QString body;
        QVariantMap hints;
        int expireTimeout = 0;
    };
    std::vector<Notice> received;

public slots:
    uint Notify(const QString& appName, uint, const QString&, const QString& summary, const QString& body,
                const QStringList&, const QVariantMap& hints, int expireTimeout)
    {
        received.push_back({appName, summary, body, hints, expireTimeout});
        return static_cast<uint>(received.size());
    }
    QStringList GetCapabilities() { return {"body", "body-markup"}; }
};

// A session bus of the test's own, made by dbus-run-session and ended with it.
class PrivateBus {
public:
    PrivateBus()
    {
        if (QStandardPaths::findExecutable("dbus-run-session").isEmpty())
            return;
        // The shell prints the bus address, then waits until its input closes.
        m_process.start("dbus-run-session",
                        {"--", "sh", "-c", "echo \"$DBUS_SESSION_BUS_ADDRESS\"; exec cat >/dev/null"});
        if (!m_process.waitForStarted(5000))
            return;
        while (!m_process.canReadLine() && m_process.waitForReadyRead(5000)) {
        }
        m_address = QString::fromUtf8(m_process.readLine()).trimmed();
    }
    ~PrivateBus()
    {
        for (const QString& name : m_names)
            QDBusConnection::disconnectFromBus(name);
        m_process.closeWriteChannel();
        if (!m_process.waitForFinished(5000))
            m_process.kill();
    }

    bool ok() const { return !m_address.isEmpty(); }
    QDBusConnection connect(const QString& name)
    {
        m_names << name;
        return QDBusConnection::connectToBus(m_address, name);
    }

private:
    QProcess m_process;
    QString m_address;
    QStringList m_names;
};

TEST(DesktopNotifierTest, NoticeReachesTheNotificationServiceOnTheSessionBus)
{
    PrivateBus bus;
    if (!bus.ok())
        GTEST_SKIP() << "dbus-run-session could not make a private bus";
    QDBusConnection serviceSide = bus.connect("notification-service");
    NotificationService service;
    ASSERT_TRUE(
        serviceSide.registerObject("/org/freedesktop/Notifications", &service, QDBusConnection::ExportAllSlots));
    ASSERT_TRUE(serviceSide.registerService("org.freedesktop.Notifications"));

    DesktopNotifier notifier(bus.connect("notifier"));
    // The service reads markup, so the body must come escaped.
    ASSERT_TRUE(waitUntil([&] { return notifier.bodyMarkup(); }));
    std::thread session([&] { notifier.notify("Receiving File", "/home/u/Music/Simon & Garfunkel/<1>.mp3", "RECEIVEFILE"); });
    session.join();
    ASSERT_TRUE(waitUntil([&] { return !service.received.empty(); }));

    const NotificationService::Notice notice = service.received.front();
    EXPECT_EQ(notice.appName, "Zandrel Sync");
    EXPECT_EQ(notice.summary, "Receiving File");
    EXPECT_EQ(notice.body, "/home/u/Music/Simon &amp; Garfunkel/&lt;1&gt;.mp3");
    EXPECT_EQ(notice.hints.value("category").toString(), "RECEIVEFILE");
    EXPECT_EQ(notice.expireTimeout, -1);
}

TEST(DesktopNotifierTest, WithoutABusNothingBreaksAndUpdateTextBreaksLines)
{
    DesktopNotifier detached(QDBusConnection::connectToBus("unix:path=/nonexistent/bus", "nowhere"));
    detached.notify("Sending File", "/tmp/a.mp3", "SENDFILE");
    QCoreApplication::processEvents();
    QDBusConnection::disconnectFromBus("nowhere");

    // Plain bodies stay as they are.
    const auto message = DesktopNotifier::compose("Update Available", "Ver. 1.5.1\r\rChangeLog:\rA & B", "UPDATE", false);
    EXPECT_EQ(message.summary, "Update Available");
    EXPECT_EQ(message.body, "Ver. 1.5.1\n\nChangeLog:\nA & B");
    EXPECT_EQ(message.hints.value("category").toString(), "UPDATE");
}

} // namespace

#include "DesktopNotifierTest.moc"
