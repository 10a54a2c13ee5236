// A program with a Main of its own, for what the daemon never does with its adapter.
//
//   vorbel_embedder close     opens the adapter, closes it once DTR was raised, and opens it again
//   vorbel_embedder delete    opens the adapter, deletes Main before DTR is raised, and runs on for a while
//
// Ends with 0 if the adapter could be opened each time.
#include "service/main.h"

#include <QCoreApplication>

#include <cstring>
#include <memory>

static void s_runFor(int milliseconds)
{
    QTimer::singleShot(milliseconds, [] { QCoreApplication::quit(); });
    QCoreApplication::exec();
}

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    const bool closes = argc > 1 && std::strcmp(argv[1], "close") == 0;
    auto bridge = std::make_unique<Main>(nullptr);
    bool opened = bridge->openSerialPort();
    if (closes) {
        s_runFor(300);
        bridge->closeSerialPort();
        opened = bridge->openSerialPort() && opened;
    } else {
        bridge.reset();
        s_runFor(300);
    }
    return opened ? 0 : 1;
}
