#include "shell/DesktopNotifier.h"

#include <QCoreApplication>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QMetaObject>
#include <QStringList>

namespace {

const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kPath = QStringLiteral("/org/freedesktop/Notifications");
const QString kInterface = QStringLiteral("org.freedesktop.Notifications");
constexpr int kServerDefaultTimeout = -1;

// The title keys the core and the update check hand over, for translators.
[[maybe_unused]] const char* const kTitleKeys[] = {
    QT_TRANSLATE_NOOP("DesktopNotifier", "Sending File"),
    QT_TRANSLATE_NOOP("DesktopNotifier", "Receiving File"),
    QT_TRANSLATE_NOOP("DesktopNotifier", "Update Available"),
};

} // namespace

DesktopNotifier::DesktopNotifier(const QDBusConnection& connection)
    : m_shared(std::make_shared<Shared>(connection))
{
    askCapabilities();
}

void DesktopNotifier::askCapabilities()
{
    if (!m_shared->connection.isConnected() || !QCoreApplication::instance())
        return;
    QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("GetCapabilities"));
    auto* watcher = new QDBusPendingCallWatcher(m_shared->connection.asyncCall(call), QCoreApplication::instance());
    std::weak_ptr<Shared> weak = m_shared;
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher, [weak](QDBusPendingCallWatcher* w) {
        QDBusPendingReply<QStringList> reply = *w;
        if (auto shared = weak.lock(); shared && reply.isValid())
            shared->bodyMarkup = reply.value().contains(QStringLiteral("body-markup"));
        w->deleteLater();
    });
}

void DesktopNotifier::notify(const std::string& title, const std::string& description, const std::string& name)
{
    QCoreApplication* app = QCoreApplication::instance();
    if (!app)
        return;
    const Message message = compose(QString::fromStdString(title), QString::fromStdString(description),
                                    QString::fromStdString(name), m_shared->bodyMarkup);
    QMetaObject::invokeMethod(
        app, [shared = m_shared, message] { send(shared, message); }, Qt::QueuedConnection);
}

DesktopNotifier::Message DesktopNotifier::compose(const QString& titleKey, const QString& description,
                                                  const QString& name, bool bodyMarkup)
{
    Message message;
    message.summary = QCoreApplication::translate("DesktopNotifier", titleKey.toUtf8().constData());
    // The update text breaks its lines with "\r", which notification
    // services do not treat as a line break.
    QString body = description;
    body.replace(QLatin1Char('\r'), QLatin1Char('\n'));
    message.body = bodyMarkup ? body.toHtmlEscaped() : body;
    message.hints.insert(QStringLiteral("category"), name);
    message.hints.insert(QStringLiteral("desktop-entry"), QStringLiteral("ZandrelSync"));
    return message;
}

void DesktopNotifier::send(const std::shared_ptr<Shared>& shared, const Message& message)
{
    if (!shared->connection.isConnected())
        return;
    QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("Notify"));
    call << QStringLiteral("Zandrel Sync") << 0u << QString() << message.summary << message.body << QStringList()
         << message.hints << kServerDefaultTimeout;
    // Fire and forget: the id the service answers with is of no use here,
    // and a missing service only yields an error reply nobody reads.
    call.setAutoStartService(true);
    shared->connection.send(call);
}
