#include "service/main.h"

#include "msgpack/msgpack.h"
#include "service/containment.h"

#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcessEnvironment>
#include <QWebSocket>

namespace
{

// What a client may send in one message. The largest schema that fills every endpoint stays under 2 MiB, and
// a message of this size can take 40 times as much once it is decoded. Qt's own limit is 2 GiB.
constexpr quint64 incomingLimit = 4 * 1024 * 1024;

// What may wait for a client that does not read. Qt's own buffer has no limit.
constexpr qint64 unreadLimit = 16 * 1024 * 1024;

QString s_trimmedVariable(const QProcessEnvironment &environment, const QString &name,
                          const QString &fallback)
{
    return environment.value(name, fallback).trimmed();
}

QJsonDocument s_helloDocument()
{
    const auto environment = QProcessEnvironment::systemEnvironment();
    QJsonObject device;
    device.insert(QStringLiteral("type"), s_trimmedVariable(environment, QStringLiteral("VORBEL_DEVICE_TYPE"),
                                                            QStringLiteral("unknown")));
    const QString id = s_trimmedVariable(environment, QStringLiteral("VORBEL_DEVICE_ID"), QString());
    if (!id.isEmpty()) {
        device.insert(QStringLiteral("id"), id);
    }
    return QJsonDocument(QJsonObject{{QStringLiteral("hello"), device}});
}

// Both limits are needed: Qt checks the message's only when a frame is complete, so that the frame's alone
// bounds what is read, and the frame's says nothing of a message in many frames.
void s_limitIncoming(QWebSocket *client)
{
    client->setMaxAllowedIncomingFrameSize(incomingLimit);
    client->setMaxAllowedIncomingMessageSize(incomingLimit);
}

// abort(), not close(): a closing handshake would keep the unread bytes until the client takes part in it.
void s_dropIfNotReading(QWebSocket *client)
{
    if (client->bytesToWrite() > unreadLimit) {
        qWarning() << "Dropping the client at" << client->peerAddress() << "which leaves"
                   << client->bytesToWrite() << "bytes unread";
        client->abort();
    }
}

} // namespace

void Main::acceptClient()
{
    QWebSocket *client = server.nextPendingConnection();
    s_limitIncoming(client);
    clients.append(client);
    qInfo() << "New connection incoming from" << client->peerAddress();
    sendHelloMessage();
    connect(client, &QWebSocket::disconnected, contained([this, client] { forgetClient(client); }));
    connect(client, &QWebSocket::binaryMessageReceived,
            contained([this](const QByteArray &message) { receiveBinary(message); }));
    connect(client, &QWebSocket::textMessageReceived,
            contained([this](const QString &message) { receiveText(message); }));
}

void Main::forgetClient(QWebSocket *client)
{
    qInfo() << "Connection closed" << client->peerAddress();
    clients.removeAll(client);
    client->deleteLater();
}

// A text that is not JSON gives a null document, and that clears the schema.
void Main::receiveText(const QString &message)
{
    const QJsonDocument document = QJsonDocument::fromJson(message.toUtf8());
    converter.loadSchema(document);
    qInfo() << "Received schema:" << document;
}

void Main::receiveBinary(const QByteArray &message)
{
    if (source == SourceSerialPort) {
        writeToSerialPort(MsgPack::unpack(message));
    } else if (source == SourceSocketCan && canDevice) {
        writeToSocketCan(MsgPack::unpack(message));
    }
}

// Walks a copy of the list: dropping a client takes it out of `clients` before abort() returns.
template <typename Send>
void Main::broadcast(Send send)
{
    const QList<QWebSocket *> receivers = clients;
    for (QWebSocket *client : receivers) {
        send(client);
        s_dropIfNotReading(client);
    }
}

void Main::sendToWebSocket(const QVariant &value)
{
    broadcast([&value](QWebSocket *client) { client->sendBinaryMessage(MsgPack::pack(value)); });
}

// The messages of one read leave in one write per client, at once. Left to the event loop, they would wait
// for another poll, which finds every socket writable and wakes a notifier for each.
void Main::flushClients()
{
    broadcast([](QWebSocket *client) { client->flush(); });
}

// Without a broadcast a client is not looked at, yet Qt answers its pings, and it need not read the answers.
void Main::superviseClients()
{
    broadcast([](QWebSocket *) {});
}

void Main::sendTextToWebSocket(const QString &text)
{
    broadcast([&text](QWebSocket *client) { client->sendTextMessage(text); });
}

void Main::sendHelloMessage()
{
    const QJsonDocument hello = s_helloDocument();
    qInfo() << "Sending hello message" << hello << "for device" << portDescription;
    sendTextToWebSocket(QString(hello.toJson(QJsonDocument::Compact)));
}
