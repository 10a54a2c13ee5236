#include "vorbel/link_p.h"

#include "vorbel/contained_p.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkRequest>
#include <QTcpSocket>

#include <sys/socket.h>

namespace Vorbel
{

namespace
{

constexpr quint64 messageBytesMax =
    32 * 1024 * 1024;             // the daemon drops a client that leaves half of this unread
constexpr int leavingTime = 1000; // milliseconds for the closing handshake

// User and password go into a header: the handshake of Qt leaves them out.
QNetworkRequest s_requestFor(const QUrl &url)
{
    QNetworkRequest request(url);
    if (!url.userInfo().isEmpty()) {
        const QString login = url.userName() + QLatin1Char(':') + url.password();
        request.setRawHeader("Authorization", "Basic " + login.toUtf8().toBase64());
    }
    return request;
}

// The hello in a text; an empty object if it is none.
QJsonObject s_helloIn(const QString &text)
{
    const QJsonObject message = QJsonDocument::fromJson(text.toUtf8()).object();
    const QJsonObject hello = message.value(QLatin1String("hello")).toObject();
    return hello.value(QLatin1String("type")).isString() ? hello : QJsonObject();
}

// What has ended a connection. A failed handshake names one of Qt's functions.
QString s_reason(const QWebSocket &socket)
{
    const QString handshake = QStringLiteral("QWebSocketPrivate::processHandshake: ");
    QString text = socket.errorString();
    if (text.startsWith(handshake)) {
        return QStringLiteral("something else than a Vorbel daemon answers (%1)")
            .arg(text.mid(handshake.size()));
    }
    switch (socket.error()) {
    case QAbstractSocket::UnknownSocketError:
    case QAbstractSocket::RemoteHostClosedError:
        return QStringLiteral("the daemon ended the connection");
    default:
        return text;
    }
}

} // namespace

Link::Link(const QUrl &url, const std::optional<QSslConfiguration> &tls, int interval, int patience,
           QObject *parent)
    : QObject(parent), m_url(url)
{
    m_pulse.setInterval(interval);
    m_patience.setSingleShot(true);
    m_socket.setMaxAllowedIncomingFrameSize(messageBytesMax);
    m_socket.setMaxAllowedIncomingMessageSize(messageBytesMax);
    if (tls) {
        m_socket.setSslConfiguration(*tls);
    }
    connect(&m_socket, &QWebSocket::textMessageReceived, this,
            contained([this](const QString &text) { takeText(text); }));
    connect(&m_socket, &QWebSocket::binaryMessageReceived, this,
            contained([this](const QByteArray &message) { takeBytes(message); }));
    connect(&m_socket, &QWebSocket::pong, this,
            contained([this](quint64, const QByteArray &payload) { takeAnswer(payload); }));
    connect(&m_socket, QOverload<QAbstractSocket::SocketError>::of(&QWebSocket::error), this,
            contained([this](QAbstractSocket::SocketError) { end(s_reason(m_socket)); }));
    connect(&m_socket, &QWebSocket::disconnected, this, contained([this] { end(s_reason(m_socket)); }));
    connect(&m_patience, &QTimer::timeout, this,
            contained([this] { end(QStringLiteral("it does not answer in time")); }));
    connect(&m_pulse, &QTimer::timeout, this, contained([this] { beat(); }));
    m_patience.setInterval(patience);
}

void Link::start()
{
    m_patience.start();
    m_socket.open(s_requestFor(m_url));
}

void Link::sendText(const QString &message)
{
    if (isOpen()) {
        m_socket.sendTextMessage(message);
    }
}

void Link::sendBytes(const QByteArray &message)
{
    if (isOpen()) {
        m_socket.sendBinaryMessage(message);
    }
}

quint64 Link::ask()
{
    ++m_asked;
    if (isOpen()) {
        m_socket.ping(QByteArray::number(m_asked));
    }
    return m_asked;
}

void Link::leave()
{
    silence();
    // Whoever leaves may be gone first; an application that ends ends this, too.
    QObject *application = QCoreApplication::instance();
    setParent(application && application->thread() == thread() ? application : nullptr);
    if (!m_isGreeted || !isOpen()) {
        m_socket.abort();
        deleteLater();
        return;
    }
    // Meanwhile what comes is read: a socket that is closed with something unread resets the connection.
    const quint64 last = ask();
    connect(&m_socket, &QWebSocket::pong, this, [this, last](quint64, const QByteArray &payload) {
        if (payload.toULongLong() == last) {
            m_socket.close();
            deleteLater();
        }
    });
    connect(&m_patience, &QTimer::timeout, this, &QObject::deleteLater);
    m_patience.start(leavingTime);
    m_socket.flush();
}

void Link::takeText(const QString &text)
{
    m_unanswered = 0;
    const QJsonObject hello = s_helloIn(text);
    if (!hello.isEmpty()) {
        beginPulse();
        emit greeted(hello.value(QLatin1String("type")).toString(),
                     hello.value(QLatin1String("id")).toString());
    } else if (!m_isGreeted) {
        end(QStringLiteral("no Vorbel daemon: it greets with \"%1\"").arg(text.left(60)));
    }
}

void Link::takeBytes(const QByteArray &message)
{
    m_unanswered = 0;
    if (m_isGreeted) {
        emit received(message);
    } else {
        end(QStringLiteral("no Vorbel daemon: it does not greet"));
    }
}

void Link::takeAnswer(const QByteArray &payload)
{
    m_unanswered = 0;
    const quint64 number = payload.toULongLong();
    if (number == 0) {
        return;
    }
    emit answered(number);
    // Of the answers that a network held back, the last one alone stands for an interval.
    if (number == m_askedInInterval) {
        m_askedInInterval = 0;
        emit intervalPassed();
    }
}

void Link::beginPulse()
{
    if (m_isGreeted) {
        return;
    }
    m_isGreeted = true;
    m_patience.stop();
    m_pulse.start();
    m_unanswered = 1;
    ask();
}

void Link::beat()
{
    if (m_unanswered > lostAfter) {
        end(QStringLiteral("the daemon has not answered for %1 s")
                .arg(lostAfter * m_pulse.interval() / 1000.0));
        return;
    }
    ++m_unanswered;
    m_askedInInterval = ask();
}

void Link::end(const QString &reason)
{
    silence();
    reset();
    emit ended(reason);
}

// From here on the socket is not heard any more, whatever it signals while it is ended.
void Link::silence()
{
    m_socket.disconnect(this);
    m_patience.disconnect(this);
    m_patience.stop();
    m_pulse.stop();
}

void Link::reset()
{
    if (const auto *tcp = m_socket.findChild<QTcpSocket *>()) {
        const linger atOnce{1, 0};
        setsockopt(static_cast<int>(tcp->socketDescriptor()), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    }
    m_socket.abort();
}

} // namespace Vorbel
