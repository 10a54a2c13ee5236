#include "gateway/metrics.h"

#include <QDebug>
#include <QHostAddress>
#include <QTcpSocket>

#include <sys/socket.h>

#include <exception>
#include <utility>

namespace Gateway
{

namespace
{

constexpr int connectionsMost = 8;
constexpr int requestMost = 8192;       // bytes
constexpr int pauseWithoutFiles = 1000; // ms
constexpr char headEnd[] = "\r\n\r\n";

// Metrics

void s_describe(QByteArray &text, const QByteArray &name, const QByteArray &type, const QByteArray &help)
{
    text +=
        "# HELP vorbel_gateway_" + name + ' ' + help + "\n# TYPE vorbel_gateway_" + name + ' ' + type + '\n';
}

void s_sample(QByteArray &text, const QByteArray &name, const QByteArray &value)
{
    text += "vorbel_gateway_" + name + ' ' + value + '\n';
}

void s_gauge(QByteArray &text, const QByteArray &name, qint64 value, const QByteArray &help)
{
    s_describe(text, name, "gauge", help);
    s_sample(text, name, QByteArray::number(value));
}

void s_counter(QByteArray &text, const QByteArray &name, qint64 value, const QByteArray &help)
{
    s_describe(text, name, "counter", help);
    s_sample(text, name, QByteArray::number(value));
}

void s_writes(QByteArray &text, const Metrics &metrics)
{
    s_describe(text, "writes_total", "counter", "Writes from the broker, by what became of them.");
    s_sample(text, "writes_total{result=\"ok\"}", QByteArray::number(metrics.writesOk));
    s_sample(text, "writes_total{result=\"refused\"}", QByteArray::number(metrics.writesRefused));
    s_sample(text, "writes_total{result=\"failed\"}", QByteArray::number(metrics.writesFailed));
}

// HTTP

QByteArray s_answer(const QByteArray &status, const QByteArray &body, const QByteArray &more = {})
{
    return "HTTP/1.1 " + status + "\r\nContent-Type: text/plain; version=0.0.4\r\nContent-Length: " +
           QByteArray::number(body.size()) + "\r\nConnection: close\r\n" + more + "\r\n" + body;
}

QByteArray s_refusal(const QByteArray &status, const QByteArray &more = {})
{
    return s_answer(status, status + '\n', more);
}

struct RequestLine {
    QByteArray method;
    QByteArray path; // without a query
};

// What the first line asks for; none if it is none of HTTP 1.
std::optional<RequestLine> s_requestLine(const QByteArray &line)
{
    const QList<QByteArray> words = line.split(' ');
    const bool isHttp = line.endsWith('\r') && words.size() == 3 && words.at(2).startsWith("HTTP/1.");
    if (!isHttp || words.at(0).isEmpty() || !words.at(1).startsWith('/')) {
        return std::nullopt;
    }
    return RequestLine{words.at(0), words.at(1).split('?').first()};
}

// Sockets that keep no more than is needed to see that a request is too long, also while they wait.
class Listener : public QTcpServer
{
public:
    explicit Listener(QObject *parent) : QTcpServer(parent)
    {
        setMaxPendingConnections(1); // the others wait in the kernel
    }

protected:
    void incomingConnection(qintptr descriptor) override
    {
        auto *socket = new QTcpSocket(this);
        socket->setReadBufferSize(requestMost + 1);
        socket->setSocketDescriptor(descriptor);
        addPendingConnection(socket);
    }
};

// What else the client sends is read, but not kept: to close before would reset the connection, and the
// client might lose the answer.
void s_respond(QTcpSocket *socket, const QByteArray &answer)
{
    const auto drop = [socket] {
        socket->skip(socket->bytesAvailable());
    };
    socket->disconnect(SIGNAL(readyRead()));
    QObject::connect(socket, &QTcpSocket::readyRead, socket, drop);
    drop();
    socket->write(answer);
    socket->flush(); // all of it: an answer is smaller than the room that the kernel has for it
    ::shutdown(static_cast<int>(socket->socketDescriptor()), SHUT_WR);
}

} // namespace

QByteArray metricsText(const Metrics &metrics)
{
    QByteArray text;
    s_gauge(text, "daemon_connected", metrics.isDaemonConnected ? 1 : 0, "Whether the daemon is connected.");
    s_gauge(text, "broker_connected", metrics.isBrokerConnected ? 1 : 0, "Whether the broker is connected.");
    s_counter(text, "messages_received_total", metrics.messagesReceived,
              "Messages of values from the daemon.");
    s_counter(text, "batches_published_total", metrics.batchesPublished,
              "Batches of values handed to be published.");
    s_gauge(text, "spooled_batches", metrics.batchesSpooled, "Batches that the broker has not acknowledged.");
    s_gauge(text, "spooled_bytes", metrics.bytesSpooled,
            "Bytes of the batches that the broker has not acknowledged.");
    s_counter(text, "batches_lost_total", metrics.batchesLost,
              "Batches that the spool gave up since the installation.");
    s_writes(text, metrics);
    if (metrics.newestValueAge) {
        s_describe(text, "newest_value_age_seconds", "gauge", "How long ago the newest value came.");
        s_sample(text, "newest_value_age_seconds", QByteArray::number(*metrics.newestValueAge, 'f', 3));
    }
    return text;
}

MetricsServer::MetricsServer(Measure measure, QObject *parent)
    : QObject(parent), m_measure(std::move(measure)), m_server(new Listener(this))
{
    connect(m_server, &QTcpServer::newConnection, this, &MetricsServer::takeWaiting);
    connect(m_server, &QTcpServer::acceptError, this, [this] { m_resumption.start(pauseWithoutFiles); });
    connect(&m_resumption, &QTimer::timeout, m_server, &QTcpServer::resumeAccepting);
    m_resumption.setSingleShot(true);
}

QString MetricsServer::listen(quint16 port)
{
    const bool isListening = m_server->listen(QHostAddress::LocalHost, port);
    return isListening ? QString() : m_server->errorString();
}

void MetricsServer::takeWaiting()
{
    while (m_taken < connectionsMost && m_server->hasPendingConnections()) {
        QTcpSocket *socket = m_server->nextPendingConnection();
        if (socket->state() == QTcpSocket::ConnectedState) {
            take(socket);
        } else {
            socket->deleteLater(); // it was given up while it waited
        }
    }
}

void MetricsServer::take(QTcpSocket *socket)
{
    ++m_taken;
    connect(socket, &QTcpSocket::readyRead, this, [this, socket] { read(socket); });
    connect(socket, &QTcpSocket::disconnected, this, [this, socket] { release(socket); });
    QTimer::singleShot(m_patience, socket, [socket] { socket->abort(); });
    read(socket); // what came while it waited
}

// It has its answer, and makes room for another; until it goes, it is one of those that may be closed.
void MetricsServer::leave(QTcpSocket *socket)
{
    --m_taken;
    m_leaving << socket;
    if (m_leaving.size() > connectionsMost) {
        m_leaving.first()->abort();
    }
    takeWaiting();
}

void MetricsServer::release(QTcpSocket *socket)
{
    if (!m_leaving.removeOne(socket)) {
        --m_taken;
    }
    socket->deleteLater();
    takeWaiting();
}

// Qt's network library carries no unwind tables: an exception must not pass through it.
void MetricsServer::read(QTcpSocket *socket)
{
    try {
        const QByteArray answer = answerTo(socket->peek(requestMost + 1));
        if (!answer.isEmpty()) {
            s_respond(socket, answer);
            leave(socket);
        }
    } catch (const std::exception &exception) {
        qCritical("vorbel-gateway: an exception ended a request for metrics: %s", exception.what());
        socket->abort();
    }
}

// Empty while there has to come more.
QByteArray MetricsServer::answerTo(const QByteArray &request)
{
    const int lineEnd = request.indexOf('\n');
    const auto line = lineEnd < 0 ? RequestLine() : s_requestLine(request.left(lineEnd));
    if (!line) {
        return s_refusal("400 Bad Request");
    }
    const int end = request.indexOf(headEnd);
    if (end < 0 || end + int(sizeof headEnd) - 1 > requestMost) {
        return request.size() > requestMost ? s_refusal("431 Request Header Fields Too Large") : QByteArray();
    }
    if (line->path != "/metrics") {
        return s_refusal("404 Not Found");
    }
    return line->method == "GET" ? s_answer("200 OK", metricsText(m_measure()))
                                 : s_refusal("405 Method Not Allowed", "Allow: GET\r\n");
}

} // namespace Gateway
