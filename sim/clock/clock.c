/* Preloaded into programs whose wall clock is to be set while they run: a board without a battery-backed
 * clock begins in the past, and is set by years when the network comes.
 *
 * The file named by the environment variable VORBEL_SIM_CLOCK holds one number, in the machine's byte order:
 * how many nanoseconds the clock is ahead, 64 bits. It is mapped, so that a change is there at once. The
 * clocks that only count are left alone, as the kernel leaves them when the time is set.
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

enum { NANOSECONDS = 1000000000 };

static const volatile int64_t *offset;

__attribute__((constructor)) static void map_offset(void)
{
    const char *path = getenv("VORBEL_SIM_CLOCK");
    const int fd = path ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (fd == -1) {
        return;
    }
    void *const bytes = mmap(NULL, sizeof *offset, PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (bytes != MAP_FAILED) {
        offset = bytes;
    }
}

static int is_wall_clock(clockid_t clock)
{
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
}

/* The system call: the C library's name for it is the one that this stands in for. */
int clock_gettime(clockid_t clock, struct timespec *now)
{
    const int result = (int)syscall(SYS_clock_gettime, clock, now);
    if (result == 0 && offset && is_wall_clock(clock)) {
        const int64_t nanoseconds = (int64_t)now->tv_sec * NANOSECONDS + now->tv_nsec + *offset;
        now->tv_sec = nanoseconds / NANOSECONDS;
        now->tv_nsec = nanoseconds % NANOSECONDS;
    }
    return result;
}

int gettimeofday(struct timeval *restrict now, void *restrict zone)
{
    (void)zone; /* obsolete */
    struct timespec precise;
    const int result = clock_gettime(CLOCK_REALTIME, &precise);
    now->tv_sec = precise.tv_sec;
    now->tv_usec = precise.tv_nsec / 1000;
    return result;
}

time_t time(time_t *now)
{
    struct timespec precise;
    clock_gettime(CLOCK_REALTIME, &precise);
    if (now) {
        *now = precise.tv_sec;
    }
    return precise.tv_sec;
}
