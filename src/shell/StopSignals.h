#pragma once

#include <QObject>

class QSocketNotifier;

// Turns SIGTERM and SIGINT (a session logging out, a service manager,
// Ctrl-C) into a signal on the GUI thread, so that they end the application
// the way Quit does instead of killing it with the server still running.
// One instance per process; the handlers stay installed for its life.
class StopSignals : public QObject {
    Q_OBJECT

public:
    explicit StopSignals(QObject* parent = nullptr);
    ~StopSignals() override;

signals:
    void received(int signal);

private:
    void readSignal();

    QSocketNotifier* m_notifier = nullptr;
};
