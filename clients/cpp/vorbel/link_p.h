// One connection to a daemon, from the first attempt to its end.
//
// It is asked once an interval, by a ping, whether the daemon still answers. When it does not, the connection
// is reset, so that what has not been delivered yet is gone: otherwise the kernel would go on trying for
// minutes, and what was written would move something when the network is back.
#pragma once

#include <QByteArray>
#include <QObject>
#include <QSslConfiguration>
#include <QString>
#include <QTimer>
#include <QUrl>
#include <QWebSocket>

#include <optional>

namespace Vorbel
{

// How many questions in a row are without an answer when nothing is to be written any more, and when the
// connection is given up. Questions are counted and not seconds: a program that blocks its event loop asks
// nothing meanwhile, and does not take its own silence for the daemon's.
constexpr int doubtedAfter = 2;
constexpr int lostAfter = 5;

class Link : public QObject
{
    Q_OBJECT

public:
    // `tls` counts where the URL begins with wss; none is that of Qt. Times are in milliseconds.
    Link(const QUrl &url, const std::optional<QSslConfiguration> &tls, int interval, int patience,
         QObject *parent);

    // Begins to connect, and may end at once.
    void start();

    // Whether the daemon has not answered for so long that what is sent now might arrive late, or not at all.
    bool isDoubtful() const { return m_unanswered >= doubtedAfter; }

    // Whether what is sent now goes out. A socket that is closing takes what it is given and sends nothing of
    // it.
    bool isOpen() const { return m_socket.state() == QAbstractSocket::ConnectedState; }

    // Bytes that the network has not taken yet.
    qint64 waiting() const { return m_socket.bytesToWrite(); }

    // Without effect on a socket that is not open.
    void sendText(const QString &message);
    void sendBytes(const QByteArray &message);

    // Sends a question. When answered() comes with its number, or a higher one, the daemon has handled
    // everything that was sent before.
    quint64 ask();

    // Ends the connection in an orderly way, once the daemon has handled everything that was sent or has had
    // the time to, and then deletes this object. Nothing is signalled any more.
    void leave();

signals:
    // Each hello; the first one begins the connection.
    void greeted(const QString &type, const QString &id);
    void received(const QByteArray &message);
    void answered(quint64 number);

    // The answer to an interval's question: everything has been heard that came in it.
    void intervalPassed();

    // Once, and nothing after it.
    void ended(const QString &reason);

private:
    void takeText(const QString &text);
    void takeBytes(const QByteArray &message);
    void takeAnswer(const QByteArray &payload);
    void beginPulse();
    void beat();
    void end(const QString &reason);
    void silence();
    void reset();

    const QUrl m_url;
    QWebSocket m_socket;
    QTimer m_patience;
    QTimer m_pulse;
    int m_unanswered = 0;          // questions since the last sign of life
    quint64 m_asked = 0;           // questions so far
    quint64 m_askedInInterval = 0; // the number of the interval's question
    bool m_isGreeted = false;
};

} // namespace Vorbel
