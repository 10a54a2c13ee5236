// The daemon's end of a connection, frame by frame, so that it can do what no daemon does.
#pragma once

#include <QByteArray>
#include <QObject>
#include <QStringList>
#include <QTcpServer>
#include <QTcpSocket>

class StandIn : public QObject
{
public:
    // Listens on a port of this machine that is free, or on a given one.
    explicit StandIn(quint16 port = 0);

    QString address() const { return QStringLiteral("127.0.0.1:%1").arg(m_port); }

    // From now on nobody can connect, or again.
    void stopListening();
    void listenAgain();

    // How it behaves; changes hold for what comes later.
    QByteArray greeting = R"({"hello":{"type":"unknown"}})"; // null: none
    QByteArray refusal;                                      // what it answers instead of the handshake
    bool answersPings = true;
    void setReading(bool reading); // also of the present connection

    // What it says, on the connection that came last.
    void sayText(const QByteArray &text) { say(0x1, text); }
    void sayBytes(const QByteArray &message) { say(0x2, message); }
    void sayPong(const QByteArray &payload) { say(0xa, payload); }
    void say(int opcode, const QByteArray &payload);
    void answerHeldPings();

    // Ends the connection without a word.
    void drop();

    // What came: the requests of handshakes, and then frames, as "text ...", "bytes 81a1...", "ping 1" and
    // "close 03e8".
    QList<QByteArray> requests;
    QStringList frames;
    qint64 bytesRead = 0;

    // The frames but the pings.
    QStringList said() const;

    bool isConnected() const;
    bool isOpen() const { return m_isOpen; } // the handshake is done

private:
    void accept();
    void read();
    bool takeHandshake();
    bool takeFrame();
    void note(int opcode, const QByteArray &payload);

    QTcpServer m_server;
    QTcpSocket *m_socket = nullptr;
    QByteArray m_buffer;
    QList<QByteArray> m_heldPings;
    quint16 m_port = 0;
    bool m_isOpen = false;
    bool m_isReading = true;
};
