#include "service/process.h"

#include <QByteArray>

#include <malloc.h>
#include <sys/resource.h>

#include <csignal>

void ignoreBrokenPipes()
{
    std::signal(SIGPIPE, SIG_IGN);
}

void raiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void preferPlainEventLoop()
{
    if (!qEnvironmentVariableIsSet("QT_NO_GLIB")) {
        qputenv("QT_NO_GLIB", "1");
    }
}

void releaseFreeMemory()
{
    constexpr std::size_t worthReleasing = 4 * 1024 * 1024;
    if (mallinfo2().fordblks > worthReleasing) {
        malloc_trim(0);
    }
}
