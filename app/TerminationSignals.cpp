#include "TerminationSignals.h"

#include <QSocketNotifier>

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int kWatchedSignals[] = {SIGTERM, SIGINT};

// [0] is written by the handler, [1] is read on the GUI thread.
int g_socketPair[2] = {-1, -1};

extern "C" void onTerminationSignal(int signalNumber)
{
    const int savedErrno = errno;
    const unsigned char byte = static_cast<unsigned char>(signalNumber);
    // A full pipe means a wake-up is already pending; losing this byte loses nothing.
    [[maybe_unused]] const ssize_t written = ::write(g_socketPair[0], &byte, 1);
    errno = savedErrno;
}

bool setDisposition(void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    bool ok = true;
    for (int signalNumber : kWatchedSignals)
        ok = ::sigaction(signalNumber, &action, nullptr) == 0 && ok;
    return ok;
}

void closeSocketPair()
{
    for (int& fd : g_socketPair) {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
}

} // namespace

TerminationSignals::TerminationSignals(QObject* parent)
    : QObject(parent)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, g_socketPair) != 0)
        return;
    ::fcntl(g_socketPair[0], F_SETFL, O_NONBLOCK);
    ::fcntl(g_socketPair[1], F_SETFL, O_NONBLOCK);
    m_notifier = new QSocketNotifier(g_socketPair[1], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &TerminationSignals::readPending);
    m_handlersInstalled = setDisposition(onTerminationSignal);
}

TerminationSignals::~TerminationSignals()
{
    setDisposition(SIG_DFL);
    delete m_notifier;
    closeSocketPair();
}

bool TerminationSignals::isActive() const
{
    return m_notifier && m_handlersInstalled;
}

void TerminationSignals::readPending()
{
    unsigned char byte = 0;
    while (::read(g_socketPair[1], &byte, 1) == 1)
        emit received(byte);
}
