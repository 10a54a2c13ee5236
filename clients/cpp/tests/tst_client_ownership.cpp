// Whose schema the daemon has, when several clients have one: who sent the last one owns it. A stand-in is
// the daemon.
#include "standin.h"
#include "tests/unit/logcollector.h"
#include "vorbel/vorbelclient.h"

#include <QSignalSpy>
#include <QtTest>

#include <functional>

using namespace Vorbel;

using Bytes = QByteArray;
using Told = QStringList;

namespace
{

constexpr int s_interval = 60; // milliseconds

const QJsonObject s_speed{{"@mac", 5}, {"@cmd", 2}, {"@format", "s"}};
const QJsonObject s_door{{"@mac", 5}, {"@cmd", 4}, {"@format", "C"}, {"@observe", true}};
const QJsonObject s_mine{{"mine", QJsonObject{{"speed", s_speed}, {"door", s_door}}}};
const char *const s_mineFrame = R"(text {"mine":{"door":{"@cmd":4,"@format":"C","@mac":5,"@observe":true},)"
                                R"("speed":{"@cmd":2,"@format":"s","@mac":5}}})";

const Bytes s_mySpeed = Bytes::fromHex("81a46d696e6581a5737065656401");
const Bytes s_myDoor = Bytes::fromHex("81a46d696e6581a4646f6f7201");
const Bytes s_theirs = Bytes::fromHex("81a674686569727301");

const char *const s_kept = "Kept: its values come";
const char *const s_resent = "Resent: none of its values came, and a restarted daemon has none";
const char *const s_replaced = "Replaced: a value comes that it does not have, theirs";
const char *const s_heard = "Heard: its values come again";

} // namespace

class TestClientOwnership : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    // Happy
    void aRestartedDaemonIsGivenTheSchemaAgain();
    void aDaemonThatWasOnlyOutOfReachKeepsIt();
    void aSchemaThatCameMeanwhileIsLeftAlone();
    void whoWasReplacedDoesNotSendAgain();
    void whoWasReplacedMaySetItAgain();
    void aSilenceMayMeanThatItWasCleared();
    void strangers_data();
    void strangers();

    // Rainy
    void nothingIsWrittenWhileItIsListened();
    void aSchemaThatIsSetWhileItIsListened();
    void valuesOfTheSchemaBeforeAreNoStrangers();
    void anUnconfirmedSchemaIsSentAgainAtOnce();
    void silencesThatMeanNothing_data();
    void silencesThatMeanNothing();
    void aSlotMaySetAnotherSchema();

private:
    void setAndConfirm();
    void comeBack(const std::function<void()> &atListening = [] {});
    void sayEachInterval(const Bytes &message, int times);
    int schemasSent() const { return m_daemon->said().count(s_mineFrame); }

    LogCollector m_log;
    std::unique_ptr<StandIn> m_daemon;
    std::unique_ptr<VorbelClient> m_client;
    Told m_told;
};

void TestClientOwnership::init()
{
    m_log.start();
    m_daemon = std::make_unique<StandIn>();
    m_client = std::make_unique<VorbelClient>(m_daemon->address());
    m_client->setPauses(20, 100);
    m_client->setInterval(s_interval);
    m_client->setSilentAfter(6 * s_interval);
    m_told.clear();
    connect(m_client.get(), &VorbelClient::schemaChanged, this,
            [this](VorbelClient::SchemaState state, const QString &reason) {
                m_told << QVariant::fromValue(state).toString() + ": " + reason;
            });
}

void TestClientOwnership::cleanup()
{
    m_client.reset();
    m_daemon.reset();
    QCOMPARE(m_log.finish(), QStringList());
}

void TestClientOwnership::setAndConfirm()
{
    QSignalSpy confirmed(m_client.get(), &VorbelClient::confirmed);
    QVERIFY(m_client->setSchema(s_mine));
    m_client->open();
    QTRY_VERIFY(m_client->isConnected());
    m_client->confirm();
    QTRY_COMPARE(confirmed.size(), 1);
    QCOMPARE(schemasSent(), 1);
}

// The connection is lost, and there is another one. `atListening` is called when that begins to listen, in
// which nothing has passed of the interval.
void TestClientOwnership::comeBack(const std::function<void()> &atListening)
{
    bool hasListened = false;
    const auto watching = connect(m_client.get(), &VorbelClient::stateChanged, this, [&] {
        if (m_client->state() == VorbelClient::Listening) {
            hasListened = true;
            atListening();
        }
    });
    m_daemon->drop();
    QTRY_VERIFY(hasListened);
    disconnect(watching);
}

void TestClientOwnership::sayEachInterval(const Bytes &message, int times)
{
    for (; times > 0; --times) {
        m_daemon->sayBytes(message);
        QTest::qWait(s_interval);
    }
}

// Happy

void TestClientOwnership::aRestartedDaemonIsGivenTheSchemaAgain()
{
    setAndConfirm();
    for (int turn = 1; turn <= 2; ++turn) {
        int sent = 0;
        comeBack([&] { sent = schemasSent(); });
        QCOMPARE(sent, turn);
        QTRY_COMPARE(schemasSent(), turn + 1);
        QTRY_COMPARE(m_client->state(), VorbelClient::Connected);
        QCOMPARE(m_told.size(), turn);
        QCOMPARE(m_told.last(), s_resent);
        QVERIFY(m_client->ownsSchema());
        QSignalSpy confirmed(m_client.get(), &VorbelClient::confirmed);
        m_client->confirm();
        QTRY_COMPARE(confirmed.size(), 1);
    }
}

void TestClientOwnership::aDaemonThatWasOnlyOutOfReachKeepsIt()
{
    setAndConfirm();
    comeBack([this] { m_daemon->sayBytes(s_mySpeed); });
    QTRY_COMPARE(m_client->state(), VorbelClient::Connected);
    QTest::qWait(3 * s_interval);
    QCOMPARE(m_told, Told{s_kept});
    QCOMPARE(schemasSent(), 1);
    QVERIFY(m_client->ownsSchema());
}

void TestClientOwnership::aSchemaThatCameMeanwhileIsLeftAlone()
{
    setAndConfirm();
    QSignalSpy owns(m_client.get(), &VorbelClient::ownsSchemaChanged);
    comeBack([this] { m_daemon->sayBytes(s_theirs); });
    QTRY_COMPARE(m_client->state(), VorbelClient::Connected);
    QTest::qWait(3 * s_interval);
    QCOMPARE(m_told, Told{s_replaced});
    QCOMPARE(schemasSent(), 1);
    QVERIFY(!m_client->ownsSchema());
    QCOMPARE(owns.size(), 1);
}

void TestClientOwnership::whoWasReplacedDoesNotSendAgain()
{
    setAndConfirm();
    m_daemon->sayBytes(s_theirs);
    m_daemon->sayBytes(s_theirs);
    QTRY_COMPARE(m_told, Told{s_replaced});
    QVERIFY(!m_client->ownsSchema());
    QSignalSpy hellos(m_client.get(), &VorbelClient::helloReceived);
    m_daemon->drop();
    QTRY_COMPARE(hellos.size(), 1);
    QCOMPARE(m_client->state(), VorbelClient::Connected);
    QTest::qWait(3 * s_interval);
    m_daemon->sayBytes(s_mySpeed);
    QTRY_COMPARE(m_client->value("mine.speed"), QVariant(1U));
    QCOMPARE(m_told, Told{s_replaced});
    QCOMPARE(schemasSent(), 1);
}

void TestClientOwnership::whoWasReplacedMaySetItAgain()
{
    setAndConfirm();
    m_daemon->sayBytes(s_theirs);
    QTRY_COMPARE(m_told, Told{s_replaced});
    QVERIFY(m_client->setSchema(s_mine));
    QVERIFY(m_client->ownsSchema());
    QTRY_COMPARE(schemasSent(), 2);
}

void TestClientOwnership::aSilenceMayMeanThatItWasCleared()
{
    setAndConfirm();
    sayEachInterval(s_mySpeed, 4);
    QTRY_COMPARE(m_told, Told{"Silent: none of its values has come for 0.36 s"});
    QVERIFY(!m_client->ownsSchema());
    m_daemon->sayBytes(s_mySpeed);
    QTRY_COMPARE(m_told.mid(1), Told{s_heard});
    QVERIFY(m_client->ownsSchema());
    sayEachInterval(s_mySpeed, 3);
    QTRY_COMPARE(m_told.size(), 3);
    m_daemon->sayBytes(s_theirs);
    QTRY_COMPARE(m_told.mid(3), Told{s_replaced});
    m_daemon->sayBytes(s_mySpeed);
    QTest::qWait(3 * s_interval);
    QCOMPARE(m_told.size(), 4);
    QVERIFY(!m_client->ownsSchema());
}

void TestClientOwnership::strangers_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<QString>("path");

    QTest::newRow("another name") << s_theirs << "theirs";
    QTest::newRow("another name in a group") << Bytes::fromHex("81a46d696e6581a3612e6201") << "mine.a\\.b";
    QTest::newRow("a value for a group") << Bytes::fromHex("81a46d696e6501") << "mine";
    QTest::newRow("a group for a value")
        << Bytes::fromHex("81a46d696e6581a5737065656481a17801") << "mine.speed.x";
    QTest::newRow("a value without a name") << Bytes::fromHex("05") << "one without a name";
    QTest::newRow("behind one of its own")
        << Bytes::fromHex("81a46d696e6582a5737065656401a17a01") << "mine.z";
}

void TestClientOwnership::strangers()
{
    QFETCH(QByteArray, message);
    QFETCH(QString, path);
    setAndConfirm();
    m_daemon->sayBytes(message);
    QTRY_COMPARE(m_told, Told{"Replaced: a value comes that it does not have, " + path});
}

// Rainy

void TestClientOwnership::nothingIsWrittenWhileItIsListened()
{
    setAndConfirm();
    QString error;
    comeBack([&] { error = m_client->set("mine.speed", 1).error; });
    QCOMPARE(error, QString("Not written: ws://%1 is back, but whether it has the schema is not known yet")
                        .arg(m_daemon->address()));
    QTRY_COMPARE(m_client->state(), VorbelClient::Connected);
    QVERIFY(m_client->set("mine.speed", 2).isSent());
    QTRY_COMPARE(m_daemon->said(),
                 (QStringList{s_mineFrame, s_mineFrame, "bytes " + s_mySpeed.toHex().chopped(2) + "02"}));
}

void TestClientOwnership::aSchemaThatIsSetWhileItIsListened()
{
    setAndConfirm();
    bool isTaken = false;
    comeBack([&] { isTaken = m_client->setSchema({{"x", s_speed}}); });
    QVERIFY(isTaken);
    QCOMPARE(m_client->state(), VorbelClient::Connected);
    QTest::qWait(3 * s_interval);
    QCOMPARE(m_told, Told());
    QCOMPARE(schemasSent(), 1);
    QCOMPARE(m_daemon->said().size(), 2);
}

void TestClientOwnership::valuesOfTheSchemaBeforeAreNoStrangers()
{
    m_daemon->answersPings = false;
    m_client->open();
    QTRY_VERIFY(m_client->isConnected());
    m_client->setSchema(s_mine);
    QTRY_COMPARE(m_daemon->frames.mid(0, 3), (QStringList{"ping 1", s_mineFrame, "ping 2"}));
    m_daemon->sayPong("1");
    m_daemon->sayBytes(s_theirs);
    m_daemon->answerHeldPings();
    m_daemon->answersPings = true;
    m_daemon->sayBytes(s_mySpeed);
    QTRY_COMPARE(m_client->value("mine.speed"), QVariant(1U));
    QCOMPARE(m_told, Told());
    QVERIFY(m_client->ownsSchema());
}

void TestClientOwnership::anUnconfirmedSchemaIsSentAgainAtOnce()
{
    m_client->open();
    QTRY_VERIFY(m_client->isConnected());
    m_daemon->answersPings = false;
    m_client->setSchema(s_mine);
    QTRY_COMPARE(schemasSent(), 1);
    m_daemon->answersPings = true;
    m_daemon->drop();
    QTRY_COMPARE(schemasSent(), 2);
    QCOMPARE(m_client->state(), VorbelClient::Connected);
    QCOMPARE(m_told, Told());
}

void TestClientOwnership::silencesThatMeanNothing_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<int>("times");
    QTest::addColumn<int>("between"); // intervals
    QTest::addColumn<int>("silentAfter");

    QTest::newRow("nothing came before") << Bytes() << 0 << 1 << 6 * s_interval;
    QTest::newRow("one value is no rhythm") << s_mySpeed << 1 << 1 << 6 * s_interval;
    QTest::newRow("a value that waits for a change") << s_myDoor << 4 << 1 << 6 * s_interval;
    QTest::newRow("silences do not count") << s_mySpeed << 4 << 1 << 0;
    QTest::newRow("as long ones came before") << s_mySpeed << 3 << 7 << 9 * s_interval;
    QTest::newRow("a longer silence is meant") << s_mySpeed << 4 << 1 << 60 * s_interval;
}

void TestClientOwnership::silencesThatMeanNothing()
{
    QFETCH(QByteArray, message);
    QFETCH(int, times);
    QFETCH(int, between);
    QFETCH(int, silentAfter);
    m_client->setSilentAfter(silentAfter);
    setAndConfirm();
    for (; times > 0; --times) {
        m_daemon->sayBytes(message);
        QTest::qWait(between * s_interval);
    }
    QTest::qWait(7 * s_interval);
    QCOMPARE(m_told, Told());
    QVERIFY(m_client->ownsSchema());
}

void TestClientOwnership::aSlotMaySetAnotherSchema()
{
    setAndConfirm();
    QSignalSpy values(m_client.get(), &VorbelClient::valuesReceived);
    connect(m_client.get(), &VorbelClient::schemaChanged, this, [this] {
        m_client->setSchema({{"x", s_speed}});
    });
    m_daemon->sayBytes(s_theirs);
    QTRY_COMPARE(m_daemon->said().size(), 2);
    QCOMPARE(m_told, Told{s_replaced});
    QVERIFY(m_client->ownsSchema());
    QCOMPARE(values.size(), 1);
}

QTEST_GUILESS_MAIN(TestClientOwnership)
#include "tst_client_ownership.moc"
