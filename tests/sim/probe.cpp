// What stock Qt makes of the virtual hardware, for the simulator's own tests.
//
//   probe ports               one line per serial port: name, location, description, separated by tabs
//   probe serial PREFIX       opens the first port whose description begins so; echoes bytes
//   probe can                 creates and connects a "socketcan" device; echoes data frames
//
// Reports on standard output, a line each; obeys single words on standard input ("dtr 0", "rts 1", "pins",
// "state", "write", "reopen", "quit").
#include <QCanBus>
#include <QCoreApplication>
#include <QSerialPort>
#include <QSerialPortInfo>
#include <QSocketNotifier>
#include <QTextStream>

#include <cstdio>
#include <memory>

static void s_say(const QString &line)
{
    QTextStream(stdout) << line << Qt::endl;
}

static void s_listPorts()
{
    const auto ports = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo &port : ports) {
        s_say(QStringList{port.portName(), port.systemLocation(), port.description(), port.manufacturer(),
                          port.serialNumber(), QString::number(port.vendorIdentifier(), 16),
                          QString::number(port.productIdentifier(), 16)}
                  .join(QLatin1Char('\t')));
    }
}

template <typename Obey>
static void s_obeyStandardInput(QSocketNotifier *input, Obey obey)
{
    std::setvbuf(stdin, nullptr, _IONBF, 0); // the notifier must see the lines that were not read yet
    QObject::connect(input, &QSocketNotifier::activated, input, [input, obey] {
        char line[64];
        if (!std::fgets(line, sizeof line, stdin)) {
            input->setEnabled(false);
            QCoreApplication::quit();
            return;
        }
        obey(QString::fromLatin1(line).trimmed());
    });
}

static void s_openFirst(QSerialPort *port, const QString &prefix)
{
    const auto infos = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo &info : infos) {
        if (info.description().startsWith(prefix)) {
            port->setPort(info);
            port->setBaudRate(1000000);
            const bool opened = port->open(QIODevice::ReadWrite);
            s_say(QStringLiteral("open %1 %2 %3").arg(opened).arg(port->error()).arg(port->errorString()));
            return;
        }
    }
    s_say(QStringLiteral("open none"));
}

static void s_obey(QSerialPort *port, const QString &prefix, const QString &order)
{
    if (order == QLatin1String("pins")) {
        s_say(QStringLiteral("pins %1").arg(int(port->pinoutSignals()), 0, 16));
    } else if (order == QLatin1String("state")) {
        s_say(QStringLiteral("state %1 %2").arg(port->isOpen()).arg(port->error()));
    } else if (order == QLatin1String("write")) {
        port->write("written");
    } else if (order == QLatin1String("reopen")) {
        port->close();
        port->clearError();
        s_openFirst(port, prefix);
    } else if (order.startsWith(QLatin1String("dtr "))) {
        port->setDataTerminalReady(order.endsWith(QLatin1Char('1')));
    } else if (order.startsWith(QLatin1String("rts "))) {
        port->setRequestToSend(order.endsWith(QLatin1Char('1')));
    } else {
        port->close();
        QCoreApplication::quit();
    }
}

static int s_serial(const QString &prefix)
{
    QSerialPort port;
    int errors = 0; // said since the last order: a pulled adapter gives thousands a second
    QObject::connect(&port, &QSerialPort::readyRead, &port, [&port] {
        const QByteArray bytes = port.readAll();
        s_say(QStringLiteral("read %1").arg(QString::fromLatin1(bytes.toHex())));
        port.write(bytes);
    });
    QObject::connect(&port, &QSerialPort::errorOccurred, &port,
                     [&errors](QSerialPort::SerialPortError error) {
                         if (error != QSerialPort::NoError && ++errors <= 10) {
                             s_say(QStringLiteral("error %1").arg(error));
                         }
                     });
    s_openFirst(&port, prefix);
    QSocketNotifier input(0, QSocketNotifier::Read);
    s_obeyStandardInput(&input, [&port, &errors, prefix](const QString &order) {
        errors = 0;
        s_obey(&port, prefix, order);
    });
    return QCoreApplication::exec();
}

static QString s_describe(const QCanBusFrame &frame)
{
    return QStringLiteral("frame %1 id %2 type %3 extended %4 fd %5 valid %6")
        .arg(QString::fromLatin1(frame.payload().toHex()))
        .arg(frame.frameId(), 0, 16)
        .arg(frame.frameType())
        .arg(frame.hasExtendedFrameFormat())
        .arg(frame.hasFlexibleDataRateFormat())
        .arg(frame.isValid());
}

static int s_can()
{
    QString message;
    const std::unique_ptr<QCanBusDevice> device(
        QCanBus::instance()->createDevice(QStringLiteral("socketcan"), QStringLiteral("can0"), &message));
    if (!device) {
        s_say(QStringLiteral("not created: ") + message);
        return 1;
    }
    QObject::connect(device.get(), &QCanBusDevice::framesReceived, device.get(), [&device] {
        while (device->framesAvailable() > 0) {
            const QCanBusFrame frame = device->readFrame();
            s_say(s_describe(frame));
            device->writeFrame(frame);
        }
    });
    QObject::connect(device.get(), &QCanBusDevice::errorOccurred, device.get(), [&device](int error) {
        s_say(QStringLiteral("error %1 %2").arg(error).arg(device->errorString()));
    });
    const bool connected = device->connectDevice();
    s_say(QStringLiteral("connected %1 %2").arg(connected).arg(device->error()));
    QSocketNotifier input(0, QSocketNotifier::Read);
    s_obeyStandardInput(&input, [](const QString &) { QCoreApplication::quit(); });
    return QCoreApplication::exec();
}

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    const QString what = arguments.value(1);
    if (what == QLatin1String("serial")) {
        return s_serial(arguments.value(2));
    }
    if (what == QLatin1String("can")) {
        return s_can();
    }
    s_listPorts();
    return 0;
}
