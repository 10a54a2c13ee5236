// What Prometheus reads, and clients of HTTP that mean no good.
#include "gateway/metrics.h"

#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QTest>

#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <vector>

using namespace Gateway;

namespace
{

constexpr int enough = 10000; // ms, for what has to happen

Metrics s_metrics()
{
    Metrics metrics;
    metrics.isDaemonConnected = true;
    metrics.batchesPublished = 41;
    metrics.batchesSpooled = 3;
    metrics.bytesSpooled = 4096;
    metrics.batchesLost = 2;
    metrics.writesOk = 7;
    metrics.writesRefused = 8;
    metrics.writesFailed = 9;
    metrics.messagesReceived = 5000000000;
    metrics.newestValueAge = 0.25;
    return metrics;
}

const QByteArray s_text = R"(# HELP vorbel_gateway_daemon_connected Whether the daemon is connected.
# TYPE vorbel_gateway_daemon_connected gauge
vorbel_gateway_daemon_connected 1
# HELP vorbel_gateway_broker_connected Whether the broker is connected.
# TYPE vorbel_gateway_broker_connected gauge
vorbel_gateway_broker_connected 0
# HELP vorbel_gateway_messages_received_total Messages of values from the daemon.
# TYPE vorbel_gateway_messages_received_total counter
vorbel_gateway_messages_received_total 5000000000
# HELP vorbel_gateway_batches_published_total Batches of values handed to be published.
# TYPE vorbel_gateway_batches_published_total counter
vorbel_gateway_batches_published_total 41
# HELP vorbel_gateway_spooled_batches Batches that the broker has not acknowledged.
# TYPE vorbel_gateway_spooled_batches gauge
vorbel_gateway_spooled_batches 3
# HELP vorbel_gateway_spooled_bytes Bytes of the batches that the broker has not acknowledged.
# TYPE vorbel_gateway_spooled_bytes gauge
vorbel_gateway_spooled_bytes 4096
# HELP vorbel_gateway_batches_lost_total Batches that the spool gave up since the installation.
# TYPE vorbel_gateway_batches_lost_total counter
vorbel_gateway_batches_lost_total 2
# HELP vorbel_gateway_writes_total Writes from the broker, by what became of them.
# TYPE vorbel_gateway_writes_total counter
vorbel_gateway_writes_total{result="ok"} 7
vorbel_gateway_writes_total{result="refused"} 8
vorbel_gateway_writes_total{result="failed"} 9
# HELP vorbel_gateway_newest_value_age_seconds How long ago the newest value came.
# TYPE vorbel_gateway_newest_value_age_seconds gauge
vorbel_gateway_newest_value_age_seconds 0.250
)";

QByteArray s_refusal(const QByteArray &status, const QByteArray &more = {})
{
    return "HTTP/1.1 " + status + "\r\nContent-Type: text/plain; version=0.0.4\r\nContent-Length: " +
           QByteArray::number(status.size() + 1) + "\r\nConnection: close\r\n" + more + "\r\n" + status +
           '\n';
}

const QByteArray s_get = "GET /metrics HTTP/1.1\r\nHost: localhost\r\n\r\n";
const QByteArray s_page = "HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4\r\nContent-Length: " +
                          QByteArray::number(s_text.size()) + "\r\nConnection: close\r\n\r\n" + s_text;

// The lowest number that a file can still get, which is what the limit of open files counts.
rlim_t s_lowestFreeFile()
{
    const int file = dup(0);
    close(file);
    return static_cast<rlim_t>(file);
}

// Everything up to the end of the connection.
QByteArray s_whole(QTcpSocket &client)
{
    const auto isOver = [&client] {
        return client.state() == QTcpSocket::UnconnectedState;
    };
    return QTest::qWaitFor(isOver, enough) ? client.readAll() : QByteArray("no end");
}

// A client that keeps its end open.
class Stubborn
{
public:
    Stubborn(quint16 port, const QByteArray &request)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const auto size = static_cast<size_t>(request.size());
        const bool isSent =
            connect(m_socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
            write(m_socket, request.constData(), size) == request.size();
        if (!isSent) {
            qFatal("the client cannot say anything");
        }
    }

    ~Stubborn() { close(m_socket); }

    // What it has been told, once that is all.
    QByteArray heard() const
    {
        QByteArray text(8192, Qt::Uninitialized);
        text.resize(
            static_cast<int>(recv(m_socket, text.data(), static_cast<size_t>(text.size()), MSG_WAITALL)));
        return text;
    }

    bool isCutOff() const { return send(m_socket, "", 1, MSG_NOSIGNAL) < 0; }

private:
    Q_DISABLE_COPY(Stubborn)

    const int m_socket = socket(AF_INET, SOCK_STREAM, 0);
};

} // namespace

class tst_Gateway_metrics : public QObject
{
    Q_OBJECT

    using Client = std::unique_ptr<QTcpSocket>;

    std::unique_ptr<MetricsServer> m_server;
    MetricsServer::Measure m_measure;

    Client connected() const;
    Client asking(const QByteArray &request) const;
    std::vector<Client> silent(const QByteArray &begin) const;
    QByteArray answerTo(const QByteArray &request) const;
    int sockets() const;

private slots:
    void init();
    void cleanup();

    void theTextIsPrometheusFormat();
    void anAgeIsThereOnceThereIsAValue();
    void promtoolHasNothingToSay();
    void theDocumentHasAllNames();

    void thePageIsServed();
    void aRequestMayComeInPieces();
    void onlyTheLoopbackInterfaceListens();
    void aPortThatIsTakenIsAnError();

    void requestsAreAnswered_data();
    void requestsAreAnswered();
    void aHeadMayHaveEightKilobytes();
    void hugeRequestsAreRefused();
    void whoSaysNothingIsCutOff();
    void whoDoesNotCloseIsCutOff();
    void whoDoesNotCloseKeepsNoPlace();
    void onlyEightAreServedAtATime();
    void whoWaitsIsNotKeptInMemory();
    void whoLeavesWhileWaitingTakesNoPlace();
    void anExceptionEndsOnlyItsRequest();
    void withoutFilesClientsWait();
};

tst_Gateway_metrics::Client tst_Gateway_metrics::connected() const
{
    auto client = std::make_unique<QTcpSocket>();
    client->connectToHost(QHostAddress::LocalHost, m_server->port());
    return client->waitForConnected(enough) ? std::move(client) : nullptr;
}

tst_Gateway_metrics::Client tst_Gateway_metrics::asking(const QByteArray &request) const
{
    Client client = connected();
    client->write(request);
    client->flush();
    return client;
}

// As many as are served at a time, which do not end what they begin.
std::vector<tst_Gateway_metrics::Client> tst_Gateway_metrics::silent(const QByteArray &begin) const
{
    std::vector<Client> clients(8);
    std::generate(clients.begin(), clients.end(), [&] { return asking(begin); });
    return clients;
}

QByteArray tst_Gateway_metrics::answerTo(const QByteArray &request) const
{
    return s_whole(*asking(request));
}

// Those that the server holds.
int tst_Gateway_metrics::sockets() const
{
    return m_server->findChildren<QTcpSocket *>().size();
}

void tst_Gateway_metrics::init()
{
    m_measure = s_metrics;
    m_server = std::make_unique<MetricsServer>([this] { return m_measure(); });
    m_server->setPatience(10 * enough);
    QCOMPARE(m_server->listen(0), QString());
}

void tst_Gateway_metrics::cleanup()
{
    m_server.reset();
}

void tst_Gateway_metrics::theTextIsPrometheusFormat()
{
    QCOMPARE(metricsText(s_metrics()), s_text);
}

void tst_Gateway_metrics::anAgeIsThereOnceThereIsAValue()
{
    Metrics metrics = s_metrics();
    metrics.newestValueAge = 0;
    QVERIFY(metricsText(metrics).endsWith("vorbel_gateway_newest_value_age_seconds 0.000\n"));
    metrics.newestValueAge.reset();
    metrics.isDaemonConnected = false;
    metrics.isBrokerConnected = true;
    const QByteArray text = metricsText(metrics);
    QVERIFY(!text.contains("newest_value_age"));
    QVERIFY(text.contains("\nvorbel_gateway_daemon_connected 0\n"));
    QVERIFY(text.contains("\nvorbel_gateway_broker_connected 1\n"));
}

void tst_Gateway_metrics::promtoolHasNothingToSay()
{
    QProcess promtool;
    promtool.setProcessChannelMode(QProcess::MergedChannels);
    promtool.start("promtool", {"check", "metrics"});
    QVERIFY2(promtool.waitForStarted(), "promtool is missing: it is in the package prometheus");
    promtool.write(metricsText(s_metrics()));
    promtool.closeWriteChannel();
    QVERIFY(promtool.waitForFinished());
    QCOMPARE(promtool.readAll(), QByteArray());
    QCOMPARE(promtool.exitCode(), 0);
}

void tst_Gateway_metrics::theDocumentHasAllNames()
{
    QFile document(QFINDTESTDATA("../../docs/gateway.md"));
    QVERIFY(document.open(QIODevice::ReadOnly));
    QStringList documented;
    for (const QString &line : QString::fromUtf8(document.readAll()).split('\n')) {
        if (line.startsWith("| vorbel_gateway_")) {
            documented << line.section(' ', 1, 1);
        }
    }
    QStringList names;
    for (const QString &line : QString::fromUtf8(metricsText(s_metrics())).split('\n')) {
        if (line.startsWith("vorbel_gateway_")) {
            names << line.section(' ', 0, 0);
        }
    }
    QCOMPARE(documented, names);
}

void tst_Gateway_metrics::thePageIsServed()
{
    QCOMPARE(answerTo(s_get), s_page);
    QCOMPARE(answerTo("GET /metrics?name=a HTTP/1.0\r\n\r\n"), s_page);
    QTRY_COMPARE(sockets(), 0);
}

void tst_Gateway_metrics::aRequestMayComeInPieces()
{
    const Client client = connected();
    for (const char byte : s_get) {
        QCOMPARE(client->bytesAvailable(), 0);
        client->write(&byte, 1);
        client->flush();
        QCoreApplication::processEvents();
    }
    QCOMPARE(s_whole(*client), s_page);
}

void tst_Gateway_metrics::onlyTheLoopbackInterfaceListens()
{
    const auto *server = m_server->findChild<QTcpServer *>();
    QCOMPARE(server->serverAddress(), QHostAddress(QHostAddress::LocalHost));
}

void tst_Gateway_metrics::aPortThatIsTakenIsAnError()
{
    MetricsServer second(s_metrics);
    QCOMPARE(second.listen(m_server->port()), "The bound address is already in use");
}

void tst_Gateway_metrics::requestsAreAnswered_data()
{
    const QByteArray bad = s_refusal("400 Bad Request");
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QByteArray>("answer");
    QTest::newRow("another path") << QByteArray("GET / HTTP/1.1\r\n\r\n") << s_refusal("404 Not Found");
    QTest::newRow("a longer path") << QByteArray("GET /metrics/ HTTP/1.1\r\n\r\n")
                                   << s_refusal("404 Not Found");
    QTest::newRow("another method") << QByteArray("POST /metrics HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc")
                                    << s_refusal("405 Method Not Allowed", "Allow: GET\r\n");
    QTest::newRow("small letters") << QByteArray("get /metrics HTTP/1.1\r\n\r\n")
                                   << s_refusal("405 Method Not Allowed", "Allow: GET\r\n");
    QTest::newRow("another method elsewhere")
        << QByteArray("PUT /else HTTP/1.1\r\n\r\n") << s_refusal("404 Not Found");
    QTest::newRow("empty line") << QByteArray("\r\n") << bad;
    QTest::newRow("no version") << QByteArray("GET /metrics\r\n") << bad;
    QTest::newRow("no HTTP") << QByteArray("GET /metrics FTP/1.1\r\n") << bad;
    QTest::newRow("HTTP 2") << QByteArray("PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n") << bad;
    QTest::newRow("four words") << QByteArray("GET /metrics HTTP/1.1 x\r\n") << bad;
    QTest::newRow("no method") << QByteArray(" /metrics HTTP/1.1\r\n") << bad;
    QTest::newRow("no path") << QByteArray("GET metrics HTTP/1.1\r\n") << bad;
    QTest::newRow("no carriage return") << QByteArray("GET /metrics HTTP/1.1\n") << bad;
    QTest::newRow("binary") << QByteArray("\x16\x03\x01\x00\xff\n", 6) << bad;
}

void tst_Gateway_metrics::requestsAreAnswered()
{
    QFETCH(QByteArray, request);
    QFETCH(QByteArray, answer);
    QCOMPARE(answerTo(request), answer);
    QCOMPARE(answerTo(s_get), s_page);
}

void tst_Gateway_metrics::aHeadMayHaveEightKilobytes()
{
    const QByteArray line = "GET /metrics HTTP/1.1\r\n";
    const auto padded = [&](int size) {
        return line + QByteArray(size - line.size() - 4, 'a') + "\r\n\r\n";
    };
    QCOMPARE(answerTo(padded(8192)), s_page);
    QCOMPARE(answerTo(padded(8193)), s_refusal("431 Request Header Fields Too Large"));
    QCOMPARE(answerTo(QByteArray(8193, 'a')), s_refusal("431 Request Header Fields Too Large"));
}

void tst_Gateway_metrics::hugeRequestsAreRefused()
{
    const QByteArray huge = "GET /metrics HTTP/1.1\r\n" + QByteArray(16 << 20, 'a');
    QCOMPARE(answerTo(huge), s_refusal("431 Request Header Fields Too Large"));
    QCOMPARE(answerTo(s_get + QByteArray(16 << 20, 'a')), s_page);
    QTRY_COMPARE(sockets(), 0);
}

void tst_Gateway_metrics::whoSaysNothingIsCutOff()
{
    m_server->setPatience(1);
    QCOMPARE(answerTo(""), QByteArray());
    QCOMPARE(answerTo("GET /metr"), QByteArray());
    QTRY_COMPARE(sockets(), 0);
    m_server->setPatience(enough);
    QCOMPARE(answerTo(s_get), s_page);
}

void tst_Gateway_metrics::whoDoesNotCloseIsCutOff()
{
    m_server->setPatience(1);
    const QSignalSpy came(m_server->findChild<QTcpServer *>(), &QTcpServer::newConnection);
    const Stubborn client(m_server->port(), s_get);
    QTRY_COMPARE(came.count(), 1);
    QTRY_COMPARE(sockets(), 0);
}

void tst_Gateway_metrics::whoDoesNotCloseKeepsNoPlace()
{
    const QSignalSpy came(m_server->findChild<QTcpServer *>(), &QTcpServer::newConnection);
    std::vector<std::unique_ptr<Stubborn>> clients(50);
    for (auto &client : clients) {
        client = std::make_unique<Stubborn>(m_server->port(),
                                            "GET /metrics HTTP/1.1\r\n" + QByteArray(100'000, 'a'));
    }
    QTRY_COMPARE(came.count(), 50);
    QTRY_COMPARE(sockets(), 8);
    QVERIFY(clients.front()->isCutOff());
    QVERIFY(!clients.back()->isCutOff());
    QCOMPARE(clients.back()->heard(), s_refusal("431 Request Header Fields Too Large"));
    QCOMPARE(answerTo(s_get), s_page);
    QTRY_COMPARE(sockets(), 7);
}

void tst_Gateway_metrics::onlyEightAreServedAtATime()
{
    QCOMPARE(answerTo(s_get), s_page);
    QTRY_COMPARE(sockets(), 0);
    std::vector<Client> others = silent("GET /met");
    QTRY_COMPARE(sockets(), 8);
    const Client ninth = asking(s_get);
    const Client tenth = asking(s_get);
    QTRY_COMPARE(sockets(), 9); // of which one is only held
    QTest::qWait(50);
    QCOMPARE(sockets(), 9);
    QCOMPARE(ninth->bytesAvailable() + tenth->bytesAvailable(), 0);
    others.back().reset();
    QCOMPARE(s_whole(*ninth), s_page);
    QCOMPARE(s_whole(*tenth), s_page);
    others.front()->write("rics HTTP/1.1\r\n\r\n");
    QCOMPARE(s_whole(*others.front()), s_page);
}

void tst_Gateway_metrics::whoWaitsIsNotKeptInMemory()
{
    std::vector<Client> others = silent("");
    QTRY_COMPARE(sockets(), 8);
    const Client flood = asking(QByteArray(16 << 20, 'a'));
    QTRY_COMPARE(sockets(), 9);
    const auto held = [this] {
        qint64 most = 0;
        for (const QTcpSocket *socket : m_server->findChildren<QTcpSocket *>()) {
            most = qMax(most, socket->bytesAvailable());
        }
        return most;
    };
    QTRY_COMPARE(held(), 8193);
    others.clear();
    QCOMPARE(s_whole(*flood), s_refusal("431 Request Header Fields Too Large"));
}

void tst_Gateway_metrics::whoLeavesWhileWaitingTakesNoPlace()
{
    std::vector<Client> others = silent("");
    QTRY_COMPARE(sockets(), 8);
    Client waiting = connected();
    QTRY_COMPARE(sockets(), 9);
    const QTcpSocket *held = m_server->findChildren<QTcpSocket *>().last();
    waiting.reset();
    QTRY_COMPARE(held->state(), QTcpSocket::UnconnectedState);
    others.clear();
    QTRY_COMPARE(sockets(), 0);
    whoSaysNothingIsCutOff();
}

void tst_Gateway_metrics::anExceptionEndsOnlyItsRequest()
{
    m_measure = []() -> Metrics {
        throw std::runtime_error("out of order");
    };
    QTest::ignoreMessage(QtCriticalMsg,
                         "vorbel-gateway: an exception ended a request for metrics: out of order");
    QCOMPARE(answerTo(s_get), QByteArray());
    m_measure = s_metrics;
    QCOMPARE(answerTo(s_get), s_page);
    QTRY_COMPARE(sockets(), 0);
}

void tst_Gateway_metrics::withoutFilesClientsWait()
{
    const Client client = asking(s_get);
    rlimit before{};
    QCOMPARE(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{s_lowestFreeFile(), before.rlim_max};
    int errors = 0;
    connect(m_server->findChild<QTcpServer *>(), &QTcpServer::acceptError, this, [&errors] { ++errors; });
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &none), 0);
    const bool hasFailed = QTest::qWaitFor([&errors] { return errors > 0; }, enough);
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &before), 0);
    QVERIFY(hasFailed);
    QCOMPARE(s_whole(*client), s_page);
    QCOMPARE(answerTo(s_get), s_page);
}

QTEST_GUILESS_MAIN(tst_Gateway_metrics)
#include "tst_gateway_metrics.moc"
