#include "gateway/supervisor.h"

#include <QByteArray>

#include <csignal>
#include <cstddef>
#include <cstring>

#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace Gateway
{

namespace
{

// The protocol of sd_notify(3): one datagram to the socket that the environment names, @ standing for the
// zero byte of an abstract address. Its library brings six others, which would take a megabyte of memory for
// this.
void s_notify(const char *state)
{
    const QByteArray path = qgetenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (path.isEmpty() || path.size() >= static_cast<int>(sizeof address.sun_path)) {
        return;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
    if (path.startsWith('@')) {
        address.sun_path[0] = '\0';
    }
    const auto length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path)) + static_cast<socklen_t>(path.size());
    const int out = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ::sendto(out, state, std::strlen(state), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&address),
             length);
    ::close(out);
}

sigset_t s_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    return set;
}

} // namespace

void Supervisor::blockSignals()
{
    const sigset_t set = s_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

Supervisor::Supervisor(const std::function<void()> &end)
{
    hearSignals(end);
    beginWatchdog();
    m_ready.setSingleShot(true);
    connect(&m_ready, &QTimer::timeout, this, [] { s_notify("READY=1"); });
    m_ready.start(0);
}

Supervisor::~Supervisor()
{
    s_notify("STOPPING=1");
    ::close(m_signals);
}

// By a descriptor, so that they are heard between two events.
void Supervisor::hearSignals(const std::function<void()> &end)
{
    const sigset_t set = s_signals();
    m_signals = signalfd(-1, &set, SFD_CLOEXEC);
    auto *notifier = new QSocketNotifier(m_signals, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, [notifier, end] {
        notifier->setEnabled(false);
        s_notify("STOPPING=1");
        end();
    });
}

void Supervisor::beginWatchdog()
{
    const int period = qEnvironmentVariableIntValue("WATCHDOG_USEC") / 1000; // ms
    if (period > 0) {
        connect(&m_alive, &QTimer::timeout, this, [] { s_notify("WATCHDOG=1"); });
        m_alive.start(period / 3);
    }
}

} // namespace Gateway
