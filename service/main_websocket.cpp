#include "service/main.h"

#include "msgpack/msgpack.h"
#include "service/containment.h"
#include "service/decodedsize.h"

#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcessEnvironment>
#include <QWebSocket>

#include <algorithm>

namespace
{

// What a client may send in one message. The largest schema that fills every endpoint stays under 2 MiB, and
// a message of this size can take 40 times as much once it is decoded. Qt's own limit is 2 GiB.
constexpr quint64 incomingLimit = 4 * 1024 * 1024;

// What a message may take once it is decoded. Under a schema that fills its own limit, both together leave a
// fifth of the memory that the packaged unit grants.
constexpr qint64 decodedMessageLimit = 96 * 1024 * 1024;
constexpr qint64 decodedSchemaLimit = 128 * 1024 * 1024;

// What may wait for a client that does not read, and for all of them together. Qt's own buffers have no
// limit.
constexpr qint64 unreadLimit = 16 * 1024 * 1024;
constexpr qint64 unreadByAllLimit = 96 * 1024 * 1024;

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
void s_dropForNotReading(QWebSocket *client)
{
    qWarning() << "Dropping the client at" << client->peerAddress() << "which leaves"
               << client->bytesToWrite() << "bytes unread";
    client->abort();
}

QWebSocket *s_slowest(const QList<QWebSocket *> &clients)
{
    return *std::max_element(clients.cbegin(), clients.cend(), [](QWebSocket *a, QWebSocket *b) {
        return a->bytesToWrite() < b->bytesToWrite();
    });
}

void s_logRefusal(const char *what, int size, qint64 decodedSize, qint64 limit)
{
    qWarning() << "Dropping" << what << "of" << size << "bytes: decoded it takes up to" << decodedSize
               << "bytes of memory, and" << limit << "are granted";
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
    const QByteArray text = message.toUtf8();
    const qint64 size = parsedSize(text);
    if (size > decodedSchemaLimit) {
        s_logRefusal("a schema", text.size(), size, decodedSchemaLimit);
        return;
    }
    const QJsonDocument document = QJsonDocument::fromJson(text);
    converter.loadSchema(document);
    qInfo() << "Received schema:" << document;
}

void Main::receiveBinary(const QByteArray &message)
{
    const bool hasLink = source == SourceSerialPort || (source == SourceSocketCan && canDevice);
    if (!hasLink) {
        return;
    }
    const qint64 size = unpackedSize(message);
    if (size > decodedMessageLimit) {
        s_logRefusal("a message", message.size(), size, decodedMessageLimit);
        return;
    }
    const QVariant value = MsgPack::unpack(message);
    if (source == SourceSerialPort) {
        writeToSerialPort(value);
    } else {
        writeToSocketCan(value);
    }
}

// A client that reads has no more waiting than it can do something about: a message that is as large as the
// limit by itself, and the next one, are on their way to whoever reads.
qint64 Main::unreadAllowed() const
{
    return std::max(unreadLimit, 3 * largestMessage);
}

// Walks a copy of the list: dropping a client takes it out of `clients` before abort() returns.
template <typename Send>
void Main::broadcast(Send send)
{
    if (unreadByAll > unreadByAllLimit) {
        dropSlowestClients();
    }
    const QList<QWebSocket *> receivers = clients;
    bool isBehind = false;
    unreadByAll = 0;
    for (QWebSocket *client : receivers) {
        send(client);
        const qint64 unread = client->bytesToWrite();
        if (unread > unreadAllowed()) {
            s_dropForNotReading(client);
            continue;
        }
        isBehind = isBehind || unread > unreadLimit;
        unreadByAll += unread;
    }
    largestMessage = isBehind ? largestMessage : 0;
}

// Each of many clients may stay below its own limit and all of them together fill the memory. Those that
// leave most go first, and what the system takes at once is no fault of theirs.
void Main::dropSlowestClients()
{
    qint64 unread = 0;
    const QList<QWebSocket *> receivers = clients;
    for (QWebSocket *client : receivers) {
        client->flush();
        unread += client->bytesToWrite();
    }
    while (unread > unreadByAllLimit && !clients.isEmpty()) {
        QWebSocket *slowest = s_slowest(clients);
        unread -= slowest->bytesToWrite();
        s_dropForNotReading(slowest);
    }
}

void Main::sendToWebSocket(const QVariant &value)
{
    broadcast([this, &value](QWebSocket *client) {
        const QByteArray message = MsgPack::pack(value);
        largestMessage = std::max<qint64>(largestMessage, message.size());
        client->sendBinaryMessage(message);
    });
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
