#pragma once

#include <map>
#include <memory>

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QStringList>

#include "server/Doorkeeper.h"

class App;

// The person's say over phones: the requests that admission "ask" raises
// (each listed for the Phones window and put up as a desktop notification
// with Allow and Block) and the decisions on known phones. A decision is
// written to the known phones at once; blocking ends the phone's open
// sessions. Without a notification service the Phones window is asked to
// open instead. GUI thread only: the doorkeeper's asker hops here.
class PhoneRequests : public QObject {
    Q_OBJECT

public:
    PhoneRequests(std::shared_ptr<App> app, std::shared_ptr<Doorkeeper> doorkeeper,
        const QDBusConnection& bus = QDBusConnection::sessionBus(), QObject* parent = nullptr);

    // Any thread: a phone "ask" held out.
    void ask(const QString& address);
    QStringList waiting() const { return m_waiting; }

    void setStanding(const QString& address, Doorkeeper::Standing standing);
    void rename(const QString& address, const QString& name);
    void forget(const QString& address);
    std::shared_ptr<Doorkeeper> doorkeeper() const { return m_doorkeeper; }

signals:
    // The requests or the known phones changed.
    void changed();
    // A request could not be put up as a notification.
    void openPhones();

private slots:
    void actionInvoked(uint id, const QString& action);

private:
    void request(const QString& address);
    void notify(const QString& address);

    std::shared_ptr<App> m_app;
    std::shared_ptr<Doorkeeper> m_doorkeeper;
    QDBusConnection m_bus;
    QStringList m_waiting;
    // Notification ids of the requests still up.
    std::map<uint, QString> m_notices;
};
