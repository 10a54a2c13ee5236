#define _GNU_SOURCE
#include "faults.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

enum { FD_LIMIT = 1024 };

static struct fault_order no_orders[FAULT_ORDERS];
static struct fault_order *orders = no_orders;
static const char *kinds[FD_LIMIT]; /* by descriptor; null: none of those that are looked at */

__attribute__((constructor)) static void map_orders(void)
{
    const char *path = getenv("VORBEL_SIM_FAULTS");
    const int fd = path ? (int)syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC) : -1;
    if (fd == -1) {
        return;
    }
    void *shared = mmap(NULL, sizeof no_orders, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (shared != MAP_FAILED) {
        orders = shared;
    }
    syscall(SYS_close, fd);
}

/* What is behind this library, under the name of the function that it is used in. */
#define FORWARD(name, ...)                                                                                   \
    __extension__({                                                                                          \
        static __typeof__(&name) next;                                                                       \
        if (!next) {                                                                                         \
            void *symbol = dlsym(RTLD_NEXT, #name);                                                          \
            memcpy(&next, &symbol, sizeof next);                                                             \
        }                                                                                                    \
        next(__VA_ARGS__);                                                                                   \
    })

/* What kind of descriptor */

static const char *kind_of(int fd)
{
    return fd >= 0 && fd < FD_LIMIT ? kinds[fd] : NULL;
}

static int known_as(const char *kind, int fd)
{
    if (fd >= 0 && fd < FD_LIMIT) {
        kinds[fd] = kind;
    }
    return fd;
}

static const char *kind_of_path(const char *path)
{
    if (strstr(path, "/LCK..")) {
        return "lock";
    }
    return strstr(path, "/dev/tty") ? "serial" : NULL;
}

static const char *kind_of_family(int family)
{
    if (family == AF_INET || family == AF_INET6) {
        return "listener";
    }
    return family == AF_CAN ? "can" : NULL;
}

/* The port at the other end of an accepted socket, also when that end is gone; 0 when the kernel has
 * forgotten it. */
static uint32_t peer_of(int fd)
{
    struct sockaddr_in6 address = {0};
    socklen_t size = sizeof address;
    const int before = errno;
    const long result = syscall(SYS_getpeername, fd, &address, &size);
    errno = before;
    return result == 0 ? ntohs(address.sin6_port) : 0;
}

/* Whether a call is to fail */

static int is_meant(const struct fault_order *order, const char *kind, int fd, const char *call,
                    uint32_t detail)
{
    return order->times > 0 && strcmp(kind, order->descriptor) == 0 && strcmp(call, order->call) == 0 &&
           (!order->detail || order->detail == detail) && (!order->peer || order->peer == peer_of(fd));
}

static struct fault_order *order_for(const char *kind, int fd, const char *call, uint32_t detail)
{
    for (int i = 0; kind && i < FAULT_ORDERS; ++i) {
        if (is_meant(&orders[i], kind, fd, call, detail)) {
            return &orders[i];
        }
    }
    return NULL;
}

/* True, with errno set, when this call is one of those that were ordered to fail. */
static int fails_of(const char *kind, int fd, const char *call, uint32_t detail)
{
    struct fault_order *order = order_for(kind, fd, call, detail);
    if (order && order->skip > 0) {
        --order->skip;
        return 0;
    }
    if (order) {
        --order->times;
        ++order->injected;
        errno = order->error;
    }
    return order != NULL;
}

static int fails(int fd, const char *call, uint32_t detail)
{
    return fails_of(kind_of(fd), fd, call, detail);
}

/* The calls: by way of a descriptor */

ssize_t read(int fd, void *bytes, size_t size)
{
    return fails(fd, "read", 0) ? -1 : FORWARD(read, fd, bytes, size);
}

ssize_t write(int fd, const void *bytes, size_t size)
{
    return fails(fd, "write", 0) ? -1 : FORWARD(write, fd, bytes, size);
}

ssize_t recvmsg(int fd, struct msghdr *message, int flags)
{
    return fails(fd, "recvmsg", 0) ? -1 : FORWARD(recvmsg, fd, message, flags);
}

int eventfd_read(int fd, eventfd_t *value)
{
    return fails(fd, "read", 0) ? -1 : FORWARD(eventfd_read, fd, value);
}

int eventfd_write(int fd, eventfd_t value)
{
    return fails(fd, "write", 0) ? -1 : FORWARD(eventfd_write, fd, value);
}

/* The kernel releases the descriptor whatever close() returns. */
int close(int fd)
{
    const int is_said_to_fail = fails(fd, "close", 0);
    const int error = errno;
    known_as(NULL, fd);
    const int result = FORWARD(close, fd);
    if (is_said_to_fail) {
        errno = error;
    }
    return is_said_to_fail ? -1 : result;
}

int fcntl(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return fails(fd, "fcntl", (uint32_t)command) ? -1 : FORWARD(fcntl, fd, command, argument);
}

int ioctl(int fd, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return fails(fd, "ioctl", (uint32_t)request) ? -1 : FORWARD(ioctl, fd, request, argument);
}

int tcgetattr(int fd, struct termios *line)
{
    return fails(fd, "ioctl", TCGETS) ? -1 : FORWARD(tcgetattr, fd, line);
}

int tcsetattr(int fd, int actions, const struct termios *line)
{
    return fails(fd, "ioctl", TCSETS) ? -1 : FORWARD(tcsetattr, fd, actions, line);
}

int fstat(int fd, struct stat *status)
{
    return fails(fd, "newfstatat", 0) ? -1 : FORWARD(fstat, fd, status);
}

int flock(int fd, int operation)
{
    return fails(fd, "flock", 0) ? -1 : FORWARD(flock, fd, operation);
}

int fdatasync(int fd)
{
    return fails(fd, "fdatasync", 0) ? -1 : FORWARD(fdatasync, fd);
}

/* Sockets; their addresses have the types that the C library declares them with. */

int socket(int family, int type, int protocol)
{
    const char *kind = kind_of_family(family);
    return fails_of(kind, -1, "socket", (uint32_t)family)
               ? -1
               : known_as(kind, FORWARD(socket, family, type, protocol));
}

int bind(int fd, __CONST_SOCKADDR_ARG address, socklen_t size)
{
    return fails(fd, "bind", 0) ? -1 : FORWARD(bind, fd, address, size);
}

int listen(int fd, int backlog)
{
    return fails(fd, "listen", 0) ? -1 : FORWARD(listen, fd, backlog);
}

/* The errors of a connection that was lost before it was accepted. Told in its place, they take it from the
 * queue. */
static int is_of_connection(int error)
{
    static const int errors[] = {ECONNABORTED,    ECONNRESET, EHOSTDOWN,       EHOSTUNREACH, ENETDOWN,
                                 ENETUNREACH,     ENONET,     ENOPROTOOPT,     EOPNOTSUPP,   EPROTO,
                                 EPROTONOSUPPORT, ENOSR,      ESOCKTNOSUPPORT, ETIMEDOUT};
    for (size_t i = 0; i < sizeof errors / sizeof *errors; ++i) {
        if (errors[i] == error) {
            return 1;
        }
    }
    return 0;
}

int accept4(int fd, __SOCKADDR_ARG address, socklen_t *size, int flags)
{
    if (!fails(fd, "accept4", 0)) {
        return known_as("client", FORWARD(accept4, fd, address, size, flags));
    }
    const int error = errno;
    if (is_of_connection(error)) {
        syscall(SYS_close, FORWARD(accept4, fd, address, size, flags));
    }
    errno = error;
    return -1;
}

int getsockname(int fd, __SOCKADDR_ARG address, socklen_t *size)
{
    return fails(fd, "getsockname", 0) ? -1 : FORWARD(getsockname, fd, address, size);
}

int getpeername(int fd, __SOCKADDR_ARG address, socklen_t *size)
{
    return fails(fd, "getpeername", 0) ? -1 : FORWARD(getpeername, fd, address, size);
}

static uint32_t option_detail(int level, int option)
{
    return (uint32_t)level << 16 | (uint32_t)option;
}

int getsockopt(int fd, int level, int option, void *value, socklen_t *size)
{
    return fails(fd, "getsockopt", option_detail(level, option))
               ? -1
               : FORWARD(getsockopt, fd, level, option, value, size);
}

int setsockopt(int fd, int level, int option, const void *value, socklen_t size)
{
    return fails(fd, "setsockopt", option_detail(level, option))
               ? -1
               : FORWARD(setsockopt, fd, level, option, value, size);
}

/* By path */

int open64(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const unsigned mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(arguments, unsigned) : 0;
    va_end(arguments);
    const char *kind = kind_of_path(path);
    return fails_of(kind, -1, "openat", 0) ? -1 : known_as(kind, FORWARD(open64, path, flags, mode));
}

int stat(const char *path, struct stat *status)
{
    return fails_of(kind_of_path(path), -1, "newfstatat", 0) ? -1 : FORWARD(stat, path, status);
}

int access(const char *path, int mode)
{
    return fails_of(kind_of_path(path), -1, "access", 0) ? -1 : FORWARD(access, path, mode);
}

int unlink(const char *path)
{
    return fails_of(kind_of_path(path), -1, "unlink", 0) ? -1 : FORWARD(unlink, path);
}

/* The C library makes a socket of its own to ask by. */
unsigned if_nametoindex(const char *name)
{
    const int fails_to_ask =
        fails_of("interface", -1, "socket", 0) || fails_of("interface", -1, "ioctl", SIOCGIFINDEX);
    return fails_to_ask ? 0 : FORWARD(if_nametoindex, name);
}

/* The event loop */

int eventfd(unsigned count, int flags)
{
    return fails_of("loop", -1, "eventfd2", 0) ? -1 : known_as("wakeup", FORWARD(eventfd, count, flags));
}

int ppoll(struct pollfd *descriptors, nfds_t count, const struct timespec *timeout, const sigset_t *mask)
{
    return fails_of("loop", -1, "ppoll", 0) ? -1 : FORWARD(ppoll, descriptors, count, timeout, mask);
}
