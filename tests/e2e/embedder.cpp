// A program with a Main of its own, for what the daemon never does with its link.
//
//   vorbel_embedder close     opens the adapter, closes it once DTR was raised, and opens it again
//   vorbel_embedder delete    opens the adapter, deletes Main before DTR is raised, and runs on for a while
//   vorbel_embedder flush     opens the adapter and serves clients; at the end of its input closes the
//   adapter without
//                             having come back to the event loop since the input's first byte
//   vorbel_embedder orphan    joins the CAN bus; at the first byte of its input deletes Main, says so, and
//   runs on until
//                             its input ends
//
// Ends with 0 if the adapter could be opened each time.
#include "service/main.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <unistd.h>

static void s_runFor(int milliseconds)
{
    QTimer::singleShot(milliseconds, [] { QCoreApplication::quit(); });
    QCoreApplication::exec();
}

static void s_runUntilInput()
{
    const QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, [] { QCoreApplication::quit(); });
    QCoreApplication::exec();
}

static bool s_read()
{
    char byte;
    return read(STDIN_FILENO, &byte, 1) == 1;
}

static void s_say(const char *word)
{
    std::puts(word);
    std::fflush(stdout);
}

static bool s_close(Main *bridge)
{
    const bool opened = bridge->openSerialPort();
    s_runFor(300);
    bridge->closeSerialPort();
    return bridge->openSerialPort() && opened;
}

static bool s_delete(std::unique_ptr<Main> bridge)
{
    const bool opened = bridge->openSerialPort();
    bridge.reset();
    s_runFor(300);
    return opened;
}

static bool s_flush(Main *bridge)
{
    const bool opened = bridge->openSerialPort();
    s_runUntilInput();
    s_read();
    s_say("blocked");
    while (s_read()) {
    }
    bridge->closeSerialPort();
    return opened;
}

// Nothing is left where the object was: whoever still looks there finds out.
static bool s_orphan()
{
    alignas(Main) static unsigned char place[sizeof(Main)];
    auto *bridge = new (place) Main(nullptr);
    s_runUntilInput();
    s_read();
    bridge->~Main();
    std::memset(place, 0xA5, sizeof place);
    s_say("deleted");
    s_runUntilInput();
    return true;
}

static bool s_do(const char *what)
{
    if (std::strcmp(what, "orphan") == 0) {
        return s_orphan();
    }
    auto bridge = std::make_unique<Main>(nullptr);
    if (std::strcmp(what, "close") == 0) {
        return s_close(bridge.get());
    }
    if (std::strcmp(what, "delete") == 0) {
        return s_delete(std::move(bridge));
    }
    return std::strcmp(what, "flush") == 0 && s_flush(bridge.get());
}

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    return argc == 2 && s_do(argv[1]) ? 0 : 1;
}
