#include "shell/SingleInstance.h"

#include <unistd.h>

#include <QDir>
#include <QLocalSocket>
#include <QStandardPaths>

namespace {

const QByteArray kShowRequest = "open-settings\n";
const QByteArray kShowAnswer = "ok\n";
constexpr int kWaitMs = 2000;

} // namespace

SingleInstance::SingleInstance(QString socketPath, QObject* parent)
    : QObject(parent), m_socketPath(std::move(socketPath))
{
    connect(&m_server, &QLocalServer::newConnection, this, &SingleInstance::answer);
}

QString SingleInstance::defaultSocketPath()
{
    QString folder = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (folder.isEmpty() || !QDir(folder).exists())
        return QDir::tempPath() + QStringLiteral("/ZandrelSync-%1.socket").arg(::getuid());
    return folder + QStringLiteral("/ZandrelSync.socket");
}

bool SingleInstance::claim()
{
    if (askRunningInstance())
        return false;
    // Nobody answered: a socket file left by an instance that was killed is
    // in the way of listening.
    QLocalServer::removeServer(m_socketPath);
    m_server.setSocketOptions(QLocalServer::UserAccessOption);
    // Where no socket can be made (a read-only runtime folder) the
    // application still runs, only without the guard.
    m_server.listen(m_socketPath);
    return true;
}

bool SingleInstance::askRunningInstance()
{
    QLocalSocket socket;
    socket.connectToServer(m_socketPath);
    if (!socket.waitForConnected(kWaitMs))
        return false;
    socket.write(kShowRequest);
    if (!socket.waitForBytesWritten(kWaitMs))
        return false;
    // An instance that is alive answers once its window is up; one that
    // hangs is treated as gone.
    while (socket.bytesAvailable() < kShowAnswer.size())
        if (!socket.waitForReadyRead(kWaitMs))
            return false;
    return socket.readAll().startsWith(kShowAnswer);
}

void SingleInstance::answer()
{
    while (QLocalSocket* socket = m_server.nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
            if (!socket->canReadLine())
                return;
            if (socket->readLine() == kShowRequest) {
                emit showRequested();
                socket->write(kShowAnswer);
            }
            socket->disconnectFromServer();
        });
    }
}
