#include "shell/StopSignals.h"

#include <csignal>

#include <sys/socket.h>
#include <unistd.h>

#include <QSocketNotifier>

namespace {

// Written by the handler, read on the GUI thread: the only thing a signal
// handler may safely do is write a byte.
int g_signalPipe[2] = {-1, -1};

void onSignal(int signal)
{
    const unsigned char byte = static_cast<unsigned char>(signal);
    [[maybe_unused]] auto written = ::write(g_signalPipe[0], &byte, 1);
}

} // namespace

StopSignals::StopSignals(QObject* parent) : QObject(parent)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, g_signalPipe) != 0)
        return;
    m_notifier = new QSocketNotifier(g_signalPipe[1], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &StopSignals::readSignal);
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
}

StopSignals::~StopSignals()
{
    ::signal(SIGTERM, SIG_DFL);
    ::signal(SIGINT, SIG_DFL);
    for (int& fd : g_signalPipe) {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
}

void StopSignals::readSignal()
{
    unsigned char byte = 0;
    if (::read(g_signalPipe[1], &byte, 1) == 1)
        emit received(byte);
}
