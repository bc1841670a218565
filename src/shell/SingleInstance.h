#pragma once

#include <QLocalServer>
#include <QObject>
#include <QString>

// Keeps the tray application to one instance per user: the first launch
// listens on a local socket, a later launch connects to it, asks it to show
// its settings window and ends. GUI thread only.
class SingleInstance : public QObject {
    Q_OBJECT

public:
    // `socketPath` defaults to one socket per user in the runtime folder.
    explicit SingleInstance(QString socketPath = defaultSocketPath(), QObject* parent = nullptr);

    // False when another instance runs and has been asked to show its
    // window; true otherwise (this process listens from here on).
    bool claim();

    static QString defaultSocketPath();

signals:
    // Another launch asked for the settings window.
    void showRequested();

private:
    bool askRunningInstance();
    void answer();

    QString m_socketPath;
    QLocalServer m_server;
};
