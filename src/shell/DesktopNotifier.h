#pragma once

#include <atomic>
#include <memory>
#include <string>

#include <QDBusConnection>
#include <QString>
#include <QVariantMap>

#include "bridge/UIBridge.h"

// Posts the core's notices to the freedesktop Notifications service on the
// session bus. notify is called on session and worker threads; it only
// queues the call onto the GUI thread. Without a bus or a service nothing
// happens: the call is sent and its answer ignored.
class DesktopNotifier : public Notifier {
public:
    explicit DesktopNotifier(const QDBusConnection& connection = QDBusConnection::sessionBus());

    // The title is a key ("Sending File", "Receiving File", "Update
    // Available") shown translated; the name becomes the category hint.
    void notify(const std::string& title, const std::string& description, const std::string& name) override;

    // The Notify arguments, for the GUI thread to send; public for tests.
    struct Message {
        QString summary;
        QString body;
        QVariantMap hints;
    };
    // Whether the service said it reads markup in bodies (asked once, at
    // construction; false until the answer arrives).
    bool bodyMarkup() const { return m_shared->bodyMarkup; }

    static Message compose(const QString& titleKey, const QString& description, const QString& name,
                           bool bodyMarkup);

private:
    struct Shared {
        explicit Shared(const QDBusConnection& c) : connection(c) {}
        QDBusConnection connection;
        // Set once the service says it reads markup in bodies: paths with
        // "&" or "<" must then be escaped to show as they are.
        std::atomic<bool> bodyMarkup{false};
    };
    static void send(const std::shared_ptr<Shared>& shared, const Message& message);
    void askCapabilities();

    std::shared_ptr<Shared> m_shared;
};
