#define _GNU_SOURCE
#include "sim.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

int sim_path(char *path, const char *folder, const char *name, const char *leaf)
{
    const char *directory = getenv("VORBEL_SIM_DIR");
    if (!directory) {
        return 0;
    }
    const int length = snprintf(path, PATH_LIMIT, "%s/%s/%s%s%s", directory, folder, name, leaf ? "/" : "",
                                leaf ? leaf : "");
    return length > 0 && length < PATH_LIMIT;
}

/* System calls are made directly: the C library's names for them are the ones this library stands in for. */
static ssize_t read_file(const char *path, char *bytes, size_t size)
{
    const int fd = (int)syscall(SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        return -1;
    }
    const ssize_t length = syscall(SYS_read, fd, bytes, size);
    syscall(SYS_close, fd);
    return length;
}

int sim_read(const char *port, const char *leaf, char *text, size_t size)
{
    const int before = errno;
    char path[PATH_LIMIT];
    const ssize_t length = sim_path(path, "ports", port, leaf) ? read_file(path, text, size - 1) : -1;
    errno = before;
    if (length < 0) {
        return 0;
    }
    text[length] = '\0';
    return 1;
}
