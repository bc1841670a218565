#include "ShellTestSupport.h"

#include <QTcpSocket>
#include <QTest>
#include <QUrl>

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
{
    return QTest::qWaitFor(condition, static_cast<int>(timeout.count()));
}

std::uint16_t freePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

QString unansweredURL()
{
    return QStringLiteral("http://127.0.0.1:%1/CurrentZandrelMac.txt").arg(freePort());
}

LocalHttpServer::LocalHttpServer()
{
    m_server.listen(QHostAddress::LocalHost, 0);
    QObject::connect(&m_server, &QTcpServer::newConnection, &m_server, [this] {
        while (QTcpSocket* socket = m_server.nextPendingConnection()) {
            QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket] { answer(socket); });
            QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        }
    });
}

QString LocalHttpServer::root() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort());
}

void LocalHttpServer::answer(QTcpSocket* socket)
{
    QByteArray head = socket->property("head").toByteArray() + socket->readAll();
    socket->setProperty("head", head);
    if (!head.contains("\r\n\r\n"))
        return;
    m_requests.push_back(head);
    const QList<QByteArray> requestLine = head.left(head.indexOf("\r\n")).split(' ');
    const QString path = requestLine.size() > 1 ? QUrl::fromPercentEncoding(requestLine[1]) : QString();
    m_paths.push_back(path);
    const bool found = m_bodies.contains(path);
    const QByteArray body = found ? m_bodies.value(path) : QByteArray("Not Found");
    QByteArray reply = found ? "HTTP/1.1 200 OK\r\n" : "HTTP/1.1 404 Not Found\r\n";
    reply += "Content-Type: application/octet-stream\r\nContent-Length: " + QByteArray::number(body.size())
        + "\r\nConnection: close\r\n\r\n" + body;
    socket->write(reply);
    socket->disconnectFromHost();
}
