// What VorbelClient does when the daemon, or the way to it, falls silent. A stand-in is the daemon.
#include "standin.h"
#include "tests/unit/logcollector.h"
#include "vorbel/vorbelclient.h"
#include "vorbel/wire.h"

#include <QSignalSpy>
#include <QThread>
#include <QtTest>

using namespace Vorbel;

using Bytes = QByteArray;

namespace
{

constexpr int s_interval = 40; // milliseconds

const Bytes s_message = Bytes::fromHex("81a16105");

} // namespace

class TestClientStalls : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    // Happy
    void anIdleConnectionIsAskedAndKept();
    void valuesAreAnAnswerToo();
    void aBusyProgramKeepsItsConnection();

    // Rainy
    void nothingIsWrittenInDoubt();
    void aLinkThatFallsSilentIsLost();
    void whatWasNotDeliveredIsTakenBack();
    void noMoreIsWrittenThanTheLinkTakes();
    void nothingIsWrittenIntoAnEnd();
    void anOrderThatIsNotAnsweredIsNotSent();
    void anOrderForAnotherSchemaIsNotSent();
    void anOrderThatGrewOldIsNotSent();
    void anOrderThatWasSentIsInDoubt();
    void ordersEndWithTheClient();
    void nothingWaitsForTheConnectionToComeBack();

private:
    LogCollector m_log;
    std::unique_ptr<StandIn> m_daemon;
    std::unique_ptr<VorbelClient> m_client;
    std::unique_ptr<QSignalSpy> m_disconnected;
};

void TestClientStalls::init()
{
    m_log.start();
    m_daemon = std::make_unique<StandIn>();
    m_client = std::make_unique<VorbelClient>(m_daemon->address());
    m_client->setPauses(20, 100);
    m_client->setInterval(s_interval);
    m_disconnected = std::make_unique<QSignalSpy>(m_client.get(), &VorbelClient::disconnected);
    m_client->open();
    QTRY_VERIFY(m_client->isConnected());
}

void TestClientStalls::cleanup()
{
    m_client.reset();
    m_daemon.reset();
    QCOMPARE(m_log.finish(), QStringList());
}

// Happy

void TestClientStalls::anIdleConnectionIsAskedAndKept()
{
    QTRY_VERIFY(m_daemon->frames.size() > 10);
    QCOMPARE(m_daemon->frames.at(0), QString("ping 1"));
    QCOMPARE(m_daemon->frames.at(9), QString("ping 10"));
    QVERIFY(m_disconnected->isEmpty());
}

// A daemon whose answers to pings are queued behind many values.
void TestClientStalls::valuesAreAnAnswerToo()
{
    QSignalSpy values(m_client.get(), &VorbelClient::valuesReceived);
    m_daemon->answersPings = false;
    while (values.size() < 40) {
        m_daemon->sayBytes(s_message);
        QTest::qWait(s_interval / 4);
    }
    QVERIFY(m_client->write({{"a", 1}}).isSent());
    while (values.size() < 80) {
        m_daemon->sayText(m_daemon->greeting);
        m_daemon->sayBytes(s_message);
        QTest::qWait(s_interval / 4);
    }
    QVERIFY(m_disconnected->isEmpty());
}

void TestClientStalls::aBusyProgramKeepsItsConnection()
{
    for (int turn = 0; turn < 4; ++turn) {
        QThread::msleep(8 * s_interval);
        QVERIFY(m_client->write({{"a", turn}}).isSent());
        QTest::qWait(s_interval / 2);
    }
    QTRY_COMPARE(m_daemon->said().size(), 4);
    QVERIFY(m_disconnected->isEmpty());
}

// Rainy

void TestClientStalls::nothingIsWrittenInDoubt()
{
    m_daemon->answersPings = false;
    QVERIFY(m_client->write({{"a", 1}}).isSent()); // nothing has been noticed yet
    WriteResult result;
    QTRY_VERIFY(!(result = m_client->write({{"a", 2}})).isSent());
    QCOMPARE(result.error,
             QString("Not written: ws://%1 has not answered for 0.08 s").arg(m_daemon->address()));
    QCOMPARE(m_client->deliver({{"a", 3}}).error, result.error);
    QVERIFY(m_client->isConnected());
    m_daemon->answersPings = true;
    m_daemon->answerHeldPings();
    QTRY_VERIFY(m_client->write({{"a", 4}}).isSent());
    QTRY_COMPARE(m_daemon->said().last(), QString("bytes 81a16104"));
    QVERIFY(!m_daemon->said().contains("bytes 81a16103"));
    QVERIFY(m_disconnected->isEmpty());
}

void TestClientStalls::aLinkThatFallsSilentIsLost()
{
    int asked = 0;
    connect(m_client.get(), &VorbelClient::disconnected, this, [&] { asked = m_daemon->frames.size(); });
    m_daemon->answersPings = false;
    m_daemon->frames.clear();
    QTRY_COMPARE(m_disconnected->size(), 1);
    QCOMPARE(m_disconnected->at(0).at(0).toString(), QString("the daemon has not answered for 0.2 s"));
    QVERIFY2(asked == 5 || asked == 6, qPrintable(QString::number(asked)));
    m_daemon->answersPings = true;
    QTRY_VERIFY(m_client->isConnected());
}

// The kernel would go on delivering what it has.
void TestClientStalls::whatWasNotDeliveredIsTakenBack()
{
    m_daemon->setReading(false);
    const Bytes large(4000000, 'x');
    QVERIFY(m_client->write({{"a", large}}).isSent());
    QVERIFY(m_client->write({{"b", 1}}).isSent());
    QTRY_COMPARE(m_disconnected->size(), 1);
    QCOMPARE(m_disconnected->at(0).at(0).toString(), QString("the daemon has not answered for 0.2 s"));
    m_client->close();
    const qint64 before = m_daemon->bytesRead;
    m_daemon->setReading(true);
    QTRY_VERIFY(!m_daemon->isConnected());
    QVERIFY2(m_daemon->bytesRead - before < large.size() / 2,
             qPrintable(QString::number(m_daemon->bytesRead)));
    QCOMPARE(m_daemon->said(), QStringList());
}

void TestClientStalls::noMoreIsWrittenThanTheLinkTakes()
{
    m_daemon->setReading(false);
    const Bytes large(4000000, 'x');
    WriteResult result;
    int written = 0;
    while ((result = m_client->write({{"a", large}})).isSent()) {
        QVERIFY(++written < 10);
    }
    QCOMPARE(result.error,
             QString("Not written: ws://%1 does not take what was sent before").arg(m_daemon->address()));
}

// The daemon has ended the connection, but what it was sent before keeps it from going.
void TestClientStalls::nothingIsWrittenIntoAnEnd()
{
    QSignalSpy unconfirmed(m_client.get(), &VorbelClient::unconfirmed);
    m_daemon->setReading(false);
    QVERIFY(m_client->write({{"a", Bytes(4000000, 'x')}}).isSent());
    m_daemon->say(0x8, Bytes::fromHex("03e8"));
    WriteResult result;
    QTRY_VERIFY(!(result = m_client->write({{"a", 1}})).isSent());
    QCOMPARE(result.error, QString("Not written: ws://%1 is ending the connection").arg(m_daemon->address()));
    QVERIFY(m_client->isConnected());
    const quint64 number = m_client->confirm();
    QTRY_COMPARE(m_disconnected->size(), 1);
    QCOMPARE(m_disconnected->at(0).at(0).toString(), QString("the daemon has not answered for 0.2 s"));
    QCOMPARE(unconfirmed.size(), 1);
    QCOMPARE(unconfirmed.at(0).at(0).toULongLong(), number);
}

void TestClientStalls::anOrderThatIsNotAnsweredIsNotSent()
{
    QSignalSpy undelivered(m_client.get(), &VorbelClient::undelivered);
    m_daemon->answersPings = false;
    const quint64 first = m_client->deliver({{"a", 1}}).number;
    const quint64 second = m_client->deliver({{"a", 2}}).number;
    QTRY_COMPARE(undelivered.size(), 2);
    QCOMPARE(undelivered.at(0).at(0).toULongLong(), first);
    QCOMPARE(undelivered.at(1).at(0).toULongLong(), second);
    for (const auto &told : undelivered) {
        QCOMPARE(told.at(1).toBool(), false);
        QCOMPARE(told.at(2).toString(), QString("Not written: the daemon has not answered for 0.2 s"));
    }
    m_daemon->answersPings = true;
    QTRY_VERIFY(m_client->isConnected());
    QTest::qWait(5 * s_interval);
    QCOMPARE(m_daemon->said(), QStringList());
}

void TestClientStalls::anOrderForAnotherSchemaIsNotSent()
{
    QSignalSpy undelivered(m_client.get(), &VorbelClient::undelivered);
    m_daemon->answersPings = false;
    m_client->deliver({{"a", 1}});
    m_client->setSchema({{"a", QJsonObject{{"@mac", 5}, {"@cmd", 7}, {"@format", "C"}}}});
    m_daemon->answersPings = true;
    m_daemon->answerHeldPings();
    QTRY_COMPARE(undelivered.size(), 1);
    QCOMPARE(undelivered.at(0).at(1).toBool(), false);
    QCOMPARE(undelivered.at(0).at(2).toString(), QString("Not written: the schema is another by now"));
    QCOMPARE(m_daemon->said().size(), 1); // the schema
}

// The values that come meanwhile keep the connection.
void TestClientStalls::anOrderThatGrewOldIsNotSent()
{
    QSignalSpy undelivered(m_client.get(), &VorbelClient::undelivered);
    m_daemon->answersPings = false;
    m_client->deliver({{"a", 1}});
    for (int turn = 0; turn < 30; ++turn) {
        m_daemon->sayBytes(s_message);
        QTest::qWait(s_interval / 4);
    }
    QVERIFY(undelivered.isEmpty());
    m_daemon->answerHeldPings();
    QTRY_COMPARE(undelivered.size(), 1);
    QCOMPARE(undelivered.at(0).at(1).toBool(), false);
    QCOMPARE(undelivered.at(0).at(2).toString(), QString("Not written: no answer in time"));
    QVERIFY(m_disconnected->isEmpty());
    QCOMPARE(m_daemon->said(), QStringList());
}

void TestClientStalls::anOrderThatWasSentIsInDoubt()
{
    QSignalSpy undelivered(m_client.get(), &VorbelClient::undelivered);
    m_client->setInterval(100 * s_interval); // no order grows old, and no other question comes
    m_client->close();
    QTRY_VERIFY(!m_daemon->isConnected());
    m_daemon->frames.clear();
    m_client->open();
    QTRY_COMPARE(m_daemon->frames, QStringList{"ping 1"});
    m_daemon->answersPings = false;
    const quint64 number = m_client->deliver({{"a", 1}}).number;
    QTRY_COMPARE(m_daemon->frames.last(), QString("ping 2"));
    m_daemon->answerHeldPings();
    QTRY_COMPARE(m_daemon->said(), QStringList{"bytes 81a16101"});
    m_daemon->drop();
    QTRY_COMPARE(undelivered.size(), 1);
    QCOMPARE(undelivered.at(0).at(0).toULongLong(), number);
    QCOMPARE(undelivered.at(0).at(1).toBool(), true);
    QCOMPARE(undelivered.at(0).at(2).toString(),
             QString("Sent, but nothing says whether ws://%1 has handled it: the daemon ended the connection")
                 .arg(m_daemon->address()));
}

void TestClientStalls::ordersEndWithTheClient()
{
    QSignalSpy undelivered(m_client.get(), &VorbelClient::undelivered);
    QSignalSpy unconfirmed(m_client.get(), &VorbelClient::unconfirmed);
    m_daemon->answersPings = false;
    m_client->deliver({{"a", 1}});
    m_client->confirm();
    m_client->close();
    QCOMPARE(undelivered.size(), 1);
    QCOMPARE(undelivered.at(0).at(2).toString(), QString("Not written: the client is closed"));
    QCOMPARE(unconfirmed.size(), 1);
    QCOMPARE(unconfirmed.at(0).at(1).toString(), QString("the client is closed"));
    m_daemon->answerHeldPings();
    QTest::qWait(3 * s_interval);
    QCOMPARE(m_daemon->said().filter("bytes"), QStringList());
}

void TestClientStalls::nothingWaitsForTheConnectionToComeBack()
{
    m_daemon->drop();
    QTRY_COMPARE(m_disconnected->size(), 1);
    QVERIFY(!m_client->write({{"a", 1}}).isSent());
    QVERIFY(!m_client->deliver({{"a", 1}}).isSent());
    QTRY_VERIFY(m_client->isConnected());
    QTest::qWait(5 * s_interval);
    QCOMPARE(m_daemon->said(), QStringList());
}

QTEST_GUILESS_MAIN(TestClientStalls)
#include "tst_client_stalls.moc"
