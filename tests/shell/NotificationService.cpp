#include "NotificationService.h"

bool NotificationService::registerOn(QDBusConnection connection)
{
    return connection.registerObject("/org/freedesktop/Notifications", this, QDBusConnection::ExportAllSlots)
        && connection.registerService("org.freedesktop.Notifications");
}

uint NotificationService::Notify(const QString& appName, uint, const QString&, const QString& summary,
                                 const QString& body, const QStringList&, const QVariantMap& hints, int expireTimeout)
{
    m_received.push_back({appName, summary, body, hints, expireTimeout});
    return static_cast<uint>(m_received.size());
}

QStringList NotificationService::GetCapabilities()
{
    ++m_capabilityQueries;
    return {"body", "body-markup"};
}
