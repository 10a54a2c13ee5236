/* The calls that QSerialPort makes on an open port: what a pty cannot do is done here, the rest is passed on.
 *
 * A pty has no modem lines; DTR and RTS are kept per descriptor. As with a USB adapter, opening raises both.
 * Hanging up is the pty's own: when its other end closes, the kernel does to the port what it does to one
 * whose adapter was pulled (read returns 0, write and ioctl fail with EIO, poll reports a hang-up).
 *
 * Every step is appended to history/NAME as a line "SECONDS EVENT VALUE", the time being that of
 * CLOCK_MONOTONIC: "open FD", "baud-in RATE" and "baud-out RATE" for every setting of the line, "rts LEVEL"
 * and "dtr LEVEL" for every request to set the line (also to the level it has), "close FD".
 *
 * On success errno is left as it was, as system calls do: QSerialPort looks at stale ones.
 */
#define _GNU_SOURCE
#include "sim.h"

/* The kernel's own view of the terminal: the baud rates as numbers. */
#include <asm/termbits.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

enum { FD_LIMIT = 1024 };

struct adapter {
    char port[NAME_LIMIT]; /* empty: this descriptor is not open on a virtual adapter */
    int lines;             /* TIOCM_DTR and TIOCM_RTS */
};

static struct adapter open_adapters[FD_LIMIT]; /* by descriptor */

static struct adapter *adapter_of(int fd)
{
    return fd >= 0 && fd < FD_LIMIT && open_adapters[fd].port[0] ? &open_adapters[fd] : NULL;
}

static void append_line(const char *path, const char *line, size_t length)
{
    const int fd = (int)syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd != -1) {
        syscall(SYS_write, fd, line, length);
        syscall(SYS_close, fd);
    }
}

static void record(const struct adapter *adapter, const char *event, unsigned value)
{
    const int before = errno;
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    char line[96];
    const int length =
        snprintf(line, sizeof line, "%lld.%09ld %s %u\n", (long long)now.tv_sec, now.tv_nsec, event, value);
    char path[PATH_LIMIT];
    if (sim_path(path, "history", adapter->port, NULL)) {
        append_line(path, line, (size_t)length);
    }
    errno = before;
}

/* True, with errno set, when the hardware was told to fail this operation. */
static int fails(const char *port, const char *fault)
{
    char number[16];
    if (!sim_read(port, fault, number, sizeof number)) {
        return 0;
    }
    errno = atoi(number);
    return 1;
}

/* The port's name when `path` is one of the virtual device nodes, else null. */
static const char *port_of(const char *path)
{
    char folder[PATH_LIMIT];
    if (!sim_path(folder, "dev", "", NULL)) {
        return NULL;
    }
    const size_t length = strlen(folder);
    return strncmp(path, folder, length) == 0 && strlen(path + length) < NAME_LIMIT ? path + length : NULL;
}

/* What reached the port while nobody had it open is lost, as with a real one. */
static void attach(int fd, const char *port)
{
    struct adapter *adapter = &open_adapters[fd];
    snprintf(adapter->port, sizeof adapter->port, "%s", port);
    adapter->lines = TIOCM_DTR | TIOCM_RTS;
    syscall(SYS_ioctl, fd, TCFLSH, TCIFLUSH);
    record(adapter, "open", (unsigned)fd);
}

int open64(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const unsigned mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(arguments, unsigned) : 0;
    va_end(arguments);

    const char *port = port_of(path);
    if (port && fails(port, "fail-open")) {
        return -1;
    }
    const int fd = (int)syscall(SYS_openat, AT_FDCWD, path, flags, mode);
    if (port && fd >= 0 && fd < FD_LIMIT) {
        attach(fd, port);
    }
    return fd;
}

int close(int fd)
{
    struct adapter *adapter = adapter_of(fd);
    if (adapter) {
        record(adapter, "close", (unsigned)fd);
        adapter->port[0] = '\0';
    }
    return (int)syscall(SYS_close, fd);
}

ssize_t read(int fd, void *bytes, size_t size)
{
    const struct adapter *adapter = adapter_of(fd);
    return adapter && fails(adapter->port, "fail-read") ? -1 : syscall(SYS_read, fd, bytes, size);
}

ssize_t write(int fd, const void *bytes, size_t size)
{
    const struct adapter *adapter = adapter_of(fd);
    return adapter && fails(adapter->port, "fail-write") ? -1 : syscall(SYS_write, fd, bytes, size);
}

/* Sets the lines in `which` to their levels in `levels`. */
static void set_lines(struct adapter *adapter, int which, int levels)
{
    adapter->lines = (adapter->lines & ~which) | (levels & which);
    if (which & TIOCM_RTS) {
        record(adapter, "rts", (levels & TIOCM_RTS) != 0);
    }
    if (which & TIOCM_DTR) {
        record(adapter, "dtr", (levels & TIOCM_DTR) != 0);
    }
}

/* 0, or -1 when the request has nothing to do with modem lines. The lines that an adapter's other end would
 * drive read as raised. */
static int modem_request(struct adapter *adapter, unsigned long request, int *argument)
{
    switch (request) {
    case TIOCMGET:
        *argument = adapter->lines | TIOCM_CTS | TIOCM_DSR | TIOCM_CAR;
        return 0;
    case TIOCMSET:
        set_lines(adapter, TIOCM_DTR | TIOCM_RTS, *argument);
        return 0;
    case TIOCMBIS:
        set_lines(adapter, *argument, ~0);
        return 0;
    case TIOCMBIC:
        set_lines(adapter, *argument, 0);
        return 0;
    default:
        return -1;
    }
}

int ioctl(int fd, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);

    const int before = errno;
    const int result = (int)syscall(SYS_ioctl, fd, request, argument);
    struct adapter *adapter = adapter_of(fd);
    /* A pty that was hung up answers EIO, and so must the lines. */
    const int unknown_to_ptys = result == -1 && (errno == ENOTTY || errno == EINVAL);
    if (adapter && unknown_to_ptys && modem_request(adapter, request, argument) == 0) {
        errno = before;
        return 0;
    }
    return result;
}

static void record_baud_rates(int fd, const struct adapter *adapter)
{
    struct termios2 line;
    if (syscall(SYS_ioctl, fd, TCGETS2, &line) == 0) {
        record(adapter, "baud-in", line.c_ispeed);
        record(adapter, "baud-out", line.c_ospeed);
    }
}

/* As it was asked for: a pty refuses all but eight bits without parity. */
static void record_framing(const struct adapter *adapter, const struct termios *line)
{
    record(adapter, "framing", line->c_cflag & (CSIZE | PARENB | PARODD | CSTOPB | CRTSCTS));
    record(adapter, "software-flow", line->c_iflag & (IXON | IXOFF));
}

int tcsetattr(int fd, int actions, const struct termios *line)
{
    static int (*next)(int, int, const struct termios *);
    if (!next) {
        void *symbol = dlsym(RTLD_NEXT, "tcsetattr");
        memcpy(&next, &symbol, sizeof next);
    }
    const int result = next(fd, actions, line);
    const struct adapter *adapter = adapter_of(fd);
    if (adapter && result == 0) {
        record_baud_rates(fd, adapter);
    }
    if (adapter) {
        record_framing(adapter, line);
    }
    return result;
}
