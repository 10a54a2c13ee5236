// What Qt costs by itself: reads records from the adapter and sends a ready-made message per record to every
// client. It checks nothing, converts nothing and packs nothing.
#include <QCoreApplication>
#include <QSerialPort>
#include <QSerialPortInfo>
#include <QTimer>
#include <QWebSocket>
#include <QWebSocketServer>

int main(int argc, char *argv[])
{
    qputenv("QT_NO_GLIB", "1");
    QCoreApplication application(argc, argv);
    const QByteArray message = QByteArray::fromHex(qgetenv("BENCH_MESSAGE"));

    QList<QWebSocket *> clients;
    QWebSocketServer server(QStringLiteral("skeleton"), QWebSocketServer::NonSecureMode);
    QObject::connect(&server, &QWebSocketServer::newConnection, [&] {
        QWebSocket *client = server.nextPendingConnection();
        client->sendTextMessage(QStringLiteral("{}"));
        clients.append(client);
    });

    QSerialPort port;
    int pending = 0;
    QObject::connect(&port, &QSerialPort::readyRead, [&] {
        constexpr int recordSize = 11;
        pending += port.readAll().size();
        for (; pending >= recordSize; pending -= recordSize) {
            for (QWebSocket *client : qAsConst(clients)) {
                client->sendBinaryMessage(message);
            }
        }
    });
    const auto ports = QSerialPortInfo::availablePorts();
    if (ports.isEmpty() || !server.listen(QHostAddress::Any, 10443)) {
        qCritical("no adapter, or the port is taken");
        return 1;
    }
    port.setPort(ports.first());
    port.open(QIODevice::ReadWrite);
    return QCoreApplication::exec();
}
