// The Main object in a process of its own making: what it is, and that its end is clean while clients are
// there.
#include "service/main.h"
#include "tests/unit/logcollector.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QWebSocket>
#include <QtTest>

#include <memory>

class TestMain : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    // Happy
    void metaObjectHasTheNameAndNothingElse();
    void takesAParent();
    void everyHelloReadsTheEnvironmentAnew();

    // Rainy
    void endsCleanlyWithLiveClients();
    void endsCleanlyWhileClientsSend();
    void endsCleanlyBeforeItsFirstEvent();
    void closingAPortThatIsNotOpenIsHarmless();
    void startReadWithoutTheCanLinkDoesNothing();
    void withoutAnAdapterOpeningFailsSilently();
};

static const QUrl s_url(QStringLiteral("ws://127.0.0.1:10443"));

void TestMain::initTestCase()
{
    qputenv("VORBEL_SOURCE", "none");
}

void TestMain::metaObjectHasTheNameAndNothingElse()
{
    const QMetaObject &meta = Main::staticMetaObject;
    QCOMPARE(meta.className(), "Main");
    QCOMPARE(meta.methodCount(), QObject::staticMetaObject.methodCount());
    QCOMPARE(meta.propertyCount(), QObject::staticMetaObject.propertyCount());
    Main bridge(nullptr);
    QCOMPARE(bridge.qt_metacast("Main"), static_cast<void *>(&bridge));
}

void TestMain::takesAParent()
{
    QObject parent;
    auto *bridge = new Main(&parent);
    QCOMPARE(bridge->parent(), &parent);
}

void TestMain::everyHelloReadsTheEnvironmentAnew()
{
    Main bridge(nullptr);
    QWebSocket client;
    QSignalSpy greeted(&client, &QWebSocket::textMessageReceived);
    client.open(s_url);
    QVERIFY(greeted.wait());
    QCOMPARE(greeted.takeFirst().at(0).toString(), QStringLiteral(R"({"hello":{"type":"unknown"}})"));
    qputenv("VORBEL_DEVICE_TYPE", "gateway");
    qputenv("VORBEL_DEVICE_ID", "A7");
    bridge.sendHelloMessage();
    qunsetenv("VORBEL_DEVICE_TYPE");
    qunsetenv("VORBEL_DEVICE_ID");
    QVERIFY(greeted.wait());
    QCOMPARE(greeted.takeFirst().at(0).toString(),
             QStringLiteral(R"({"hello":{"id":"A7","type":"gateway"}})"));
}

void TestMain::endsCleanlyWithLiveClients()
{
    QWebSocket first;
    QWebSocket second;
    auto bridge = std::make_unique<Main>(nullptr);
    for (QWebSocket *client : {&first, &second}) {
        QSignalSpy greeted(client, &QWebSocket::textMessageReceived);
        client->open(s_url);
        QVERIFY(greeted.wait());
    }
    LogCollector log;
    log.start();
    bridge.reset();
    QTRY_COMPARE(first.state(), QAbstractSocket::UnconnectedState);
    QTRY_COMPARE(second.state(), QAbstractSocket::UnconnectedState);
    QCOMPARE(log.finish(), QStringList());
}

void TestMain::endsCleanlyWhileClientsSend()
{
    QWebSocket client;
    {
        Main bridge(nullptr);
        QSignalSpy greeted(&client, &QWebSocket::textMessageReceived);
        client.open(s_url);
        QVERIFY(greeted.wait());
        client.sendBinaryMessage(QByteArray(100000, '\x01'));
        client.sendTextMessage(QStringLiteral("{}"));
        client.abort();
    }
    QCoreApplication::processEvents();
}

void TestMain::endsCleanlyBeforeItsFirstEvent()
{
    Main(nullptr).sendToWebSocket(QVariant(1));
}

void TestMain::closingAPortThatIsNotOpenIsHarmless()
{
    Main bridge(nullptr);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("device not open")));
    bridge.closeSerialPort();
}

void TestMain::startReadWithoutTheCanLinkDoesNothing()
{
    Main bridge(nullptr);
    LogCollector log;
    log.start();
    bridge.startRead(); // Qt would complain of a device that is not there
    QCOMPARE(log.finish(), QStringList());
}

void TestMain::withoutAnAdapterOpeningFailsSilently()
{
    Main bridge(nullptr);
    LogCollector log;
    log.start();
    QVERIFY(!bridge.openSerialPort());
    QCOMPARE(log.finish(), QStringList());
}

QTEST_GUILESS_MAIN(TestMain)
#include "tst_main.moc"
