#pragma once

#include <vector>

#include <QDBusConnection>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

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

    bool registerOn(QDBusConnection connection);
    const std::vector<Notice>& received() const { return m_received; }
    int capabilityQueries() const { return m_capabilityQueries; }

public slots:
    uint Notify(const QString& appName, uint replacesId, const QString& appIcon, const QString& summary,
                const QString& body, const QStringList& actions, const QVariantMap& hints, int expireTimeout);
    QStringList GetCapabilities();

private:
    std::vector<Notice> m_received;
    int m_capabilityQueries = 0;
};
