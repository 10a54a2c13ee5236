// How the gateway is doing, for Prometheus.
#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>
#include <QTcpServer>
#include <QTimer>

#include <functional>
#include <optional>

class QTcpSocket;

namespace Gateway
{

// What is measured. Counts are since the start of the gateway, unless they say otherwise.
struct Metrics {
    bool isDaemonConnected = false;
    bool isBrokerConnected = false;
    qint64 batchesPublished = 0;
    qint64 batchesSpooled = 0; // now
    qint64 bytesSpooled = 0;   // now
    qint64 batchesLost = 0;    // since the gateway was installed
    qint64 writesOk = 0;
    qint64 writesRefused = 0;
    qint64 writesFailed = 0;
    qint64 messagesReceived = 0;
    std::optional<double> newestValueAge; // seconds; none before the first value
};

// The same in Prometheus' text format, version 0.0.4: docs/gateway.md has the names.
QByteArray metricsText(const Metrics &metrics);

// A server of HTTP on the loopback interface, which has one page: GET /metrics. Each connection is for one
// request.
//
// At most eight connections are served at a time, and the next ones wait; each ends with its answer, or after
// the patience for it. Of none are more than 8 kB kept.
class MetricsServer : public QObject
{
    Q_OBJECT

public:
    using Measure = std::function<Metrics()>;

    // An exception that `measure` throws ends the request, with a critical line in the log.
    explicit MetricsServer(Measure measure, QObject *parent = nullptr);

    // Begins; the error in words, or nothing.
    QString listen(quint16 port);

    // Where it listens: another port than it was asked for if that was 0.
    quint16 port() const { return m_server->serverPort(); }

    // How many milliseconds a request and its answer may take, on connections to come; 5000 by default.
    void setPatience(int milliseconds) { m_patience = milliseconds; }

private:
    void takeWaiting();
    void take(QTcpSocket *socket);
    void leave(QTcpSocket *socket);
    void release(QTcpSocket *socket);
    void read(QTcpSocket *socket);
    QByteArray answerTo(const QByteArray &request);

    const Measure m_measure;
    QTcpServer *const m_server; // and with it, the sockets
    QTimer m_resumption;        // when the process had no file left for a connection
    int m_patience = 5000;
    int m_taken = 0;               // that have no answer yet
    QList<QTcpSocket *> m_leaving; // that have one, in the order of these
};

} // namespace Gateway
