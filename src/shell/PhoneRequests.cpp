#include "shell/PhoneRequests.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QMetaObject>
#include <QVariantMap>

#include "server/App.h"
#include "server/SocketListener.h"

namespace {

const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kPath = QStringLiteral("/org/freedesktop/Notifications");
const QString kInterface = QStringLiteral("org.freedesktop.Notifications");

} // namespace

PhoneRequests::PhoneRequests(
    std::shared_ptr<App> app, std::shared_ptr<Doorkeeper> doorkeeper, const QDBusConnection& bus, QObject* parent)
    : QObject(parent), m_app(std::move(app)), m_doorkeeper(std::move(doorkeeper)), m_bus(bus)
{
    // Any sender: the service may come up after us.
    m_bus.connect(QString(), kPath, kInterface, QStringLiteral("ActionInvoked"), this,
        SLOT(actionInvoked(uint, QString)));
}

void PhoneRequests::ask(const QString& address)
{
    QMetaObject::invokeMethod(this, [this, address] { request(address); }, Qt::QueuedConnection);
}

void PhoneRequests::request(const QString& address)
{
    if (m_waiting.contains(address))
        return;
    m_waiting << address;
    emit changed();
    notify(address);
}

void PhoneRequests::notify(const QString& address)
{
    if (!m_bus.isConnected()) {
        emit openPhones();
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("Notify"));
    const QVariantMap hints{{QStringLiteral("category"), QStringLiteral("device")},
        {QStringLiteral("desktop-entry"), QStringLiteral("ZandrelSync")}, {QStringLiteral("resident"), true}};
    call << QStringLiteral("Zandrel Sync") << 0u << QString() << tr("A Phone Asks To Connect")
         << tr("The phone at %1 wants to reach the files on this computer.").arg(address)
         << QStringList{QStringLiteral("allow"), tr("Allow"), QStringLiteral("block"), tr("Block")} << hints << 0;
    auto* watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, address](QDBusPendingCallWatcher* w) {
        QDBusPendingReply<uint> reply = *w;
        if (reply.isValid())
            m_notices[reply.value()] = address;
        else
            emit openPhones();
        w->deleteLater();
    });
}

void PhoneRequests::actionInvoked(uint id, const QString& action)
{
    auto found = m_notices.find(id);
    if (found == m_notices.end())
        return;
    const QString address = found->second;
    if (action == QLatin1String("allow"))
        setStanding(address, Doorkeeper::Standing::Allowed);
    else if (action == QLatin1String("block"))
        setStanding(address, Doorkeeper::Standing::Blocked);
}

void PhoneRequests::setStanding(const QString& address, Doorkeeper::Standing standing)
{
    m_doorkeeper->setStanding(address.toStdString(), standing);
    if (standing == Doorkeeper::Standing::Blocked)
        if (auto listener = m_app->listener())
            listener->endSessionsFrom(address.toStdString());
    m_waiting.removeAll(address);
    for (auto it = m_notices.begin(); it != m_notices.end();) {
        if (it->second != address) {
            ++it;
            continue;
        }
        if (m_bus.isConnected())
            m_bus.send(QDBusMessage::createMethodCall(kService, kPath, kInterface,
                           QStringLiteral("CloseNotification"))
                << it->first);
        it = m_notices.erase(it);
    }
    emit changed();
}

void PhoneRequests::rename(const QString& address, const QString& name)
{
    auto device = m_doorkeeper->book() ? m_doorkeeper->book()->find(address.toStdString()) : std::nullopt;
    const auto standing = device ? device->standing : Doorkeeper::Standing::Unknown;
    m_doorkeeper->setStanding(address.toStdString(), standing, name.toStdString());
    emit changed();
}

void PhoneRequests::forget(const QString& address)
{
    m_doorkeeper->forget(address.toStdString());
    m_waiting.removeAll(address);
    emit changed();
}
