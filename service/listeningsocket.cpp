#include "service/listeningsocket.h"

#include <QDebug>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace
{

struct SocketOption {
    const char *name;
    int level;
    int option;
    int value;
};

constexpr SocketOption inheritedOptions[] = {
    // With Nagle's algorithm a message waits for the acknowledgement of the one before it, 40 ms and more
    // from a client that delays its own.
    {"TCP_NODELAY", IPPROTO_TCP, TCP_NODELAY, 1},
    // An idle peer is asked after 10 s, then every 5 s, and given up after three silent probes.
    {"SO_KEEPALIVE", SOL_SOCKET, SO_KEEPALIVE, 1},
    {"TCP_KEEPIDLE", IPPROTO_TCP, TCP_KEEPIDLE, 10},
    {"TCP_KEEPINTVL", IPPROTO_TCP, TCP_KEEPINTVL, 5},
    {"TCP_KEEPCNT", IPPROTO_TCP, TCP_KEEPCNT, 3},
    // A peer that acknowledges nothing of what was sent is given up after 20 s, not after 15 minutes.
    {"TCP_USER_TIMEOUT", IPPROTO_TCP, TCP_USER_TIMEOUT, 20000},
};

} // namespace

void prepareListeningSocket(qintptr descriptor)
{
    const int socket = static_cast<int>(descriptor);
    for (const SocketOption &option : inheritedOptions) {
        if (setsockopt(socket, option.level, option.option, &option.value, sizeof option.value) != 0) {
            qWarning() << "Cannot set" << option.name << "on the listening socket:" << std::strerror(errno);
        }
    }
}

// A duplicate would not do: it takes a number of the process, and of the system neither an open file nor
// memory.
bool hasRoomForSocketLike(qintptr descriptor)
{
    int family = AF_INET;
    socklen_t size = sizeof family;
    getsockopt(static_cast<int>(descriptor), SOL_SOCKET, SO_DOMAIN, &family, &size);
    const int another = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (another >= 0) {
        close(another);
    }
    return another >= 0;
}
