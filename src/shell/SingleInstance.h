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

    // True when this process is now the instance (it listens from here on);
    // false when another one runs and has been asked to show its window.
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
