#include "standin.h"

#include <QCryptographicHash>
#include <QHostAddress>
#include <QtEndian>

StandIn::StandIn(quint16 port) : m_port(port)
{
    connect(&m_server, &QTcpServer::newConnection, this, &StandIn::accept);
    listenAgain();
}

void StandIn::stopListening()
{
    m_server.close();
}

void StandIn::listenAgain()
{
    if (!m_server.listen(QHostAddress::LocalHost, m_port)) {
        qFatal("the stand-in cannot listen: %s", qPrintable(m_server.errorString()));
    }
    m_port = m_server.serverPort();
}

void StandIn::setReading(bool reading)
{
    m_isReading = reading;
    if (m_socket) {
        m_socket->setReadBufferSize(reading ? 0 : 1);
        read();
    }
}

void StandIn::say(int opcode, const QByteArray &payload)
{
    QByteArray frame(1, static_cast<char>(0x80 | opcode));
    if (payload.size() < 126) {
        frame += static_cast<char>(payload.size());
    } else {
        frame += char(127);
        QByteArray length(8, '\0');
        qToBigEndian<quint64>(static_cast<quint64>(payload.size()), length.data());
        frame += length;
    }
    m_socket->write(frame + payload);
}

void StandIn::answerHeldPings()
{
    for (const QByteArray &payload : m_heldPings) {
        sayPong(payload);
    }
    m_heldPings.clear();
}

void StandIn::drop()
{
    m_socket->disconnectFromHost();
}

QStringList StandIn::said() const
{
    QStringList others;
    for (const QString &frame : frames) {
        if (!frame.startsWith("ping")) {
            others << frame;
        }
    }
    return others;
}

bool StandIn::isConnected() const
{
    return m_socket && m_socket->state() == QAbstractSocket::ConnectedState;
}

void StandIn::accept()
{
    m_socket = m_server.nextPendingConnection();
    m_buffer.clear();
    m_heldPings.clear();
    m_isOpen = false;
    connect(m_socket, &QTcpSocket::readyRead, this, &StandIn::read);
}

void StandIn::read()
{
    if (!m_isReading) {
        return;
    }
    const QByteArray bytes = m_socket->readAll();
    bytesRead += bytes.size();
    m_buffer += bytes;
    while (m_isOpen ? takeFrame() : takeHandshake()) {
    }
}

bool StandIn::takeHandshake()
{
    const int end = m_buffer.indexOf("\r\n\r\n");
    if (end < 0) {
        return false;
    }
    requests << m_buffer.left(end + 2);
    m_buffer.remove(0, end + 4);
    if (!refusal.isNull()) {
        m_socket->write(refusal);
        m_socket->disconnectFromHost();
        return false;
    }
    const int key = requests.last().indexOf("Sec-WebSocket-Key: ") + 19;
    const QByteArray proof = requests.last().mid(key, 24) + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    m_socket->write("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                    "Sec-WebSocket-Accept: " +
                    QCryptographicHash::hash(proof, QCryptographicHash::Sha1).toBase64() + "\r\n\r\n");
    m_isOpen = true;
    if (!greeting.isNull()) {
        sayText(greeting);
    }
    return true;
}

bool StandIn::takeFrame()
{
    const auto *bytes = reinterpret_cast<const uchar *>(m_buffer.constData());
    const int size = m_buffer.size();
    if (size < 2) {
        return false;
    }
    qint64 length = bytes[1] & 0x7f;
    const int width = length == 126 ? 2 : length == 127 ? 8 : 0;
    const int header = 2 + width + 4;
    if (size < header) {
        return false;
    }
    if (width > 0) {
        length = width == 2 ? qFromBigEndian<quint16>(bytes + 2) : qFromBigEndian<qint64>(bytes + 2);
    }
    if (size - header < length) {
        return false;
    }
    QByteArray payload = m_buffer.mid(header, static_cast<int>(length));
    for (int at = 0; at < payload.size(); ++at) {
        payload[at] = static_cast<char>(payload.at(at) ^ m_buffer.at(header - 4 + at % 4));
    }
    const int opcode = bytes[0] & 0x0f;
    m_buffer.remove(0, header + static_cast<int>(length));
    note(opcode, payload);
    return true;
}

void StandIn::note(int opcode, const QByteArray &payload)
{
    switch (opcode) {
    case 0x1:
        frames << "text " + payload;
        break;
    case 0x2:
        frames << "bytes " + payload.toHex();
        break;
    case 0x9:
        frames << "ping " + payload;
        if (answersPings) {
            sayPong(payload);
        } else {
            m_heldPings << payload;
        }
        break;
    case 0x8:
        frames << "close " + payload.left(2).toHex();
        break;
    default: // a long message goes on
        frames.last() += payload.toHex();
        break;
    }
}
