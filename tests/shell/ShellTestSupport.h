#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QTcpServer>

#include "support/RecordingNotifier.h"

// Set by the test main when it made the process a network namespace of its
// own; only then may a test change that namespace's addresses.
inline bool g_ownsNetworkNamespace = false;
inline bool ownsNetworkNamespace() { return g_ownsNetworkNamespace; }

// Runs the event loop until the condition holds or the time runs out.
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = std::chrono::seconds(5));

// A port on 127.0.0.1 that nothing listens on at the moment of asking, and
// an update-description address there that nobody answers.
std::uint16_t freePort();
QString unansweredURL();

// A tiny HTTP/1.1 server on 127.0.0.1 serving fixed bodies by path; lives on
// the GUI thread, which must turn its event loop for it to answer.
class LocalHttpServer {
public:
    LocalHttpServer();

    QString root() const;
    QString url(const QString& path) const { return root() + path; }
    void serve(const QString& path, const QByteArray& body) { m_bodies[path] = body; }
    // Request heads as received, in order, and how many asked for a path.
    const std::vector<QByteArray>& requests() const { return m_requests; }
    int hits(const QString& path) const { return static_cast<int>(std::count(m_paths.begin(), m_paths.end(), path)); }

private:
    void answer(class QTcpSocket* socket);

    QTcpServer m_server;
    QMap<QString, QByteArray> m_bodies;
    std::vector<QByteArray> m_requests;
    std::vector<QString> m_paths;
};
