#include "service/main.h"

#include "service/containment.h"
#include "service/listeningsocket.h"
#include "service/process.h"

#include <QHostAddress>
#include <QProcessEnvironment>
#include <QWebSocket>

namespace
{

constexpr int supervisionInterval = 1000; // ms
constexpr int handshakeTimeout = 5000;    // ms a client may take to get from connecting to WebSocket
constexpr quint16 port = 10443;

} // namespace

Main::Main(QObject *parent)
    : QObject(parent),
      server(QStringLiteral("vorbel"), QWebSocketServer::NonSecureMode),
      source(sourceFromEnvironment())
{
    connectSignals();
    listen();
}

// Nobody else releases the sockets that are still connected, and left to themselves they would report their
// disconnection while the server goes, when the list of clients is gone already. The CAN device stays, and
// may receive frames for ever.
Main::~Main()
{
    disconnect(canReading);
    for (QWebSocket *client : qAsConst(clients)) {
        client->disconnect();
        delete client;
    }
}

Main::Source Main::sourceFromEnvironment()
{
    const QString name = QProcessEnvironment::systemEnvironment().value(QStringLiteral("VORBEL_SOURCE"),
                                                                        QStringLiteral("serialport"));
    if (name == QLatin1String("serialport")) {
        return SourceSerialPort;
    }
    return name == QLatin1String("socketcan") ? SourceSocketCan : SourceNone;
}

void Main::connectSignals()
{
    connect(&serialPort, &QSerialPort::readyRead, contained([this] { readSerialPort(); }));
    terminalReadyTimer.setSingleShot(true);
    terminalReadyTimer.setTimerType(Qt::PreciseTimer);
    connect(&terminalReadyTimer, &QTimer::timeout, contained([this] { raiseTerminalReady(); }));
    connect(&converter, &SchemaConverter::variantToSend,
            contained([this] { sendToWebSocket(converter.takeVariantToSend(false)); }));
    connect(&server, &QWebSocketServer::newConnection, contained([this] { acceptClient(); }));
    timer.start(supervisionInterval);
    connect(&timer, &QTimer::timeout, contained([this] { superviseLinks(); }));
}

void Main::listen()
{
    server.setHandshakeTimeout(handshakeTimeout);
    if (!server.listen(QHostAddress::Any, port)) {
        qWarning() << "Main::Main(QObject*)"
                   << "error" << server.errorString();
        return;
    }
    prepareListeningSocket(server.nativeDescriptor());
}

void Main::superviseLinks()
{
    releaseFreeMemory();
    superviseListener();
    superviseClients();
    if (source == SourceSerialPort) {
        superviseSerialPort();
    } else if (source == SourceSocketCan) {
        superviseSocketCan();
    }
}

// Qt tries an accept that failed for want of a descriptor again and again, at full speed, and gives up
// accepting for good after some other errors. So accepting pauses while descriptors are out, those of the
// process or those of the system, and is resumed on every tick that finds one.
void Main::superviseListener()
{
    if (!server.isListening()) {
        return;
    }
    if (hasRoomForSocketLike(server.nativeDescriptor())) {
        server.resumeAccepting();
    } else {
        qWarning() << "No file descriptor is left: new clients have to wait";
        server.pauseAccepting();
    }
}

// What both links deliver: the low 11 bits of the frame's header or CAN identifier name the endpoint. One
// frame whose conversion throws must not cost the frames behind it, so each is contained on its own.
void Main::insertFrame(quint16 identifier, const QByteArray &payload)
{
    contained([&] {
        converter.insertFrame(VEKEndpoint(vek_header_mac(identifier), vek_header_cmd(identifier), false),
                              payload);
    })();
}
