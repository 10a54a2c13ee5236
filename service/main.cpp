// The entry point of the daemon. It takes no options: three environment variables configure it.
#include "service/main.h"
#include "service/process.h"
#include "service/typedarrays.h"

#include <QCoreApplication>

int main(int argc, char *argv[])
{
    ignoreBrokenPipes();
    raiseDescriptorLimit();
    preferPlainEventLoop();
    QCoreApplication application(argc, argv);
    registerTypedArrays();
    Main bridge(nullptr);
    return QCoreApplication::exec();
}
