// What VorbelClient makes of members for people: what readings mean, and fields that are written into the
// last ones. The daemon is a stand-in.
#include "standin.h"
#include "tests/unit/logcollector.h"
#include "vorbel/vorbelclient.h"
#include "vorbel/wire.h"

#include <QJsonArray>
#include <QSignalSpy>
#include <QtTest>

using namespace Vorbel;

namespace
{

QJsonObject s_leaf(int cmd, const QJsonObject &more)
{
    QJsonObject leaf = more;
    leaf.insert("@mac", 5);
    leaf.insert("@cmd", cmd);
    leaf.insert("@format", "C");
    return leaf;
}

const QJsonObject s_schema{
    {"mode", s_leaf(2, {{"bits", QJsonArray{4, 3}}})},
    {"state", s_leaf(2, {{"bits", QJsonArray{0, 2}}, {"labels", QJsonObject{{"0", "off"}, {"2", "fault"}}}})},
    {"flag", s_leaf(2, {{"bits", QJsonArray{7, 1}}, {"readonly", true}})},
    {"page", s_leaf(3, {{"scale", 10}})},
    {"two",
     s_leaf(3,
            {{"@skip", 1}, {"bits", QJsonArray{0, 4}}, {"when", QJsonObject{{"path", "page"}, {"is", 2}}}})},
    {"temperature",
     s_leaf(4, {{"offset", -40}, {"unit", "C"}, {"warn", QJsonArray{QJsonValue(), 50}}, {"max", 90}})},
    {"many", s_leaf(5, {{"@flushSize", 2}, {"bits", QJsonArray{0, 4}}})}};

QString s_codes(const WriteResult &result)
{
    QStringList codes;
    for (const Problem &problem : result.problems) {
        codes << problem.path + ' ' + problem.code;
    }
    return codes.join(", ");
}

} // namespace

class TestClientFields : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    // Happy
    void readingsAndWhatTheyMean();
    void theLastValueThatCounts();
    void membersOfALeaf();
    void aFieldGoesIntoTheLastReading();
    void aFieldOfAnArrayGoesIntoItsLastElement();
    void fieldsOfOneMessageGoOutTogether();
    void whatWasWrittenCountsUntilAReadingComes();
    void whatSelectsAValueGoesOutWithIt();
    void ordersAreMadeOfTheReadingsOfTheirTime();
    void ordersOfOneByte();

    // Rainy
    void readingsThatDoNotCount();
    void readingsBeforeTheDaemonHasTheSchema();
    void readingsAreForgotten_data();
    void readingsAreForgotten();
    void whatWasNotSentIsNotWritten();
    void uncheckedValuesAreSentAsTheyAre();
    void anOrderThatHasBecomeImpossible();

private:
    void settle();
    void say(const QVariantMap &values);
    QVariant lastSent() const;

    LogCollector m_log;
    std::unique_ptr<StandIn> m_daemon;
    std::unique_ptr<VorbelClient> m_client;
};

void TestClientFields::init()
{
    m_log.start();
    m_daemon = std::make_unique<StandIn>();
    m_client = std::make_unique<VorbelClient>(m_daemon->address());
    m_client->setPauses(20, 100);
    QVERIFY2(m_client->setSchema(s_schema), qPrintable(m_client->schemaError()));
    m_client->open();
    settle();
}

void TestClientFields::cleanup()
{
    m_client.reset();
    m_daemon.reset();
    QCOMPARE(m_log.finish(), QStringList());
}

// Returns when there is a connection and the daemon has handled everything.
void TestClientFields::settle()
{
    QTRY_VERIFY(m_client->isConnected());
    QSignalSpy confirmed(m_client.get(), &VorbelClient::confirmed);
    QVERIFY(m_client->confirm() != 0);
    QTRY_COMPARE(confirmed.size(), 1);
}

void TestClientFields::say(const QVariantMap &values)
{
    QSignalSpy received(m_client.get(), &VorbelClient::valuesReceived);
    m_daemon->sayBytes(encode(values).message);
    QTRY_COMPARE(received.size(), 1);
}

// What came last from the client, decoded.
QVariant TestClientFields::lastSent() const
{
    const QString last = m_daemon->said().last();
    return last.startsWith("bytes ") ? decode(QByteArray::fromHex(last.mid(6).toLatin1())).value
                                     : QVariant(last);
}

// Happy

void TestClientFields::readingsAndWhatTheyMean()
{
    QSignalSpy received(m_client.get(), &VorbelClient::valuesReceived);
    say({{"state", 0x8e}, {"temperature", 95}, {"page", 1}, {"two", 5}, {"stranger", 0.1F}});
    const Values values = received.at(0).at(0).value<Values>();
    const auto meant = values.meant();
    QCOMPARE(meant.keys(), (QList<QString>{"page", "state", "stranger", "temperature"}));
    QCOMPARE(meant["state"].reading(), QVariant(0x8eU));
    QCOMPARE(meant["state"].label(), QString("fault"));
    QCOMPARE(meant["temperature"].value(), QVariant(55.0));
    QCOMPARE(meant["temperature"].shown(), QString("55 C"));
    QCOMPARE(meant["temperature"].level(), QString("warn"));
    QCOMPARE(meant["stranger"].shown(), QString("0.1"));
    QCOMPARE(values.meantMap()["temperature"].value<Meant>().shown(), QString("55 C"));
    QCOMPARE(values.meantMap().size(), 4);
    QCOMPARE((Values{QVariantMap{{"temperature", 95U}}, 0, nullptr}.meant()["temperature"].shown()),
             QString("95"));
}

void TestClientFields::theLastValueThatCounts()
{
    QVERIFY(!m_client->meant("two").reading().isValid());
    say({{"page", 2}, {"two", 0x35}, {"temperature", 60}});
    say({{"page", 1}, {"two", 0x47}});
    QCOMPARE(m_client->value("two"), QVariant(0x47U));
    QCOMPARE(m_client->meant("two").value(), QVariant(5.0));
    QCOMPARE(m_client->meant("page").shown(), QString("10"));
    QCOMPARE(m_client->meant("temperature").shown(), QString("20 C"));
    m_daemon->drop();
    QTRY_VERIFY(!m_client->isConnected());
    settle();
    QCOMPARE(m_client->meant("two").value(), QVariant(5.0));
    QVERIFY(m_client->setSchema(s_schema));
    QVERIFY(!m_client->meant("two").reading().isValid());
}

void TestClientFields::membersOfALeaf()
{
    QCOMPARE(m_client->members("temperature").unit, QString("C"));
    QCOMPARE(m_client->members("temperature").bounds.high, 90.0);
    QCOMPARE(m_client->members("nowhere").unit, QString());
    QCOMPARE(m_client->meanings()->leaf("temperature")->cmd, 4);
    QCOMPARE(m_client->meanings()->leaves().size(), s_schema.size());
    QVERIFY(VorbelClient().meanings()->leaves().isEmpty());
}

void TestClientFields::aFieldGoesIntoTheLastReading()
{
    QCOMPARE(s_codes(m_client->set("mode", 5)), QString("mode no-reading"));
    say({{"mode", 0x8b}, {"state", 0x8b}});
    const WriteResult result = m_client->set("mode", 5);
    QVERIFY2(result.isSent(), qPrintable(result.error));
    QCOMPARE(result.written.at(0).raw, double(0xdb));
    QTRY_COMPARE(lastSent(), QVariant(QVariantMap{{"mode", 0xdbU}}));
}

void TestClientFields::aFieldOfAnArrayGoesIntoItsLastElement()
{
    QSignalSpy received(m_client.get(), &VorbelClient::valuesReceived);
    m_daemon->sayBytes(QByteArray::fromHex("81a46d616e79d5121526")); // 0x15, 0x26
    QTRY_COMPARE(received.size(), 1);
    QVERIFY(m_client->set("many", 15).isSent());
    QTRY_COMPARE(lastSent(), QVariant(QVariantMap{{"many", 0x2fU}}));
}

void TestClientFields::fieldsOfOneMessageGoOutTogether()
{
    say({{"mode", 0x88}, {"state", 0x88}});
    QVERIFY(m_client->write({{"mode", 2}, {"state", "fault"}}).isSent());
    QTRY_COMPARE(lastSent(), QVariant(QVariantMap{{"mode", 0xaaU}, {"state", 0xaaU}}));
}

void TestClientFields::whatWasWrittenCountsUntilAReadingComes()
{
    say({{"mode", 0x8a}, {"state", 0x8a}});
    QVERIFY(m_client->set("mode", 5).isSent());
    QVERIFY(m_client->set("state", 0).isSent());
    QTRY_COMPARE(lastSent(), QVariant(QVariantMap{{"state", 0xd8U}}));
    say({{"mode", 0x81}, {"state", 0x81}});
    QVERIFY(m_client->set("mode", 1).isSent());
    QTRY_COMPARE(lastSent(), QVariant(QVariantMap{{"mode", 0x91U}}));
}

void TestClientFields::whatSelectsAValueGoesOutWithIt()
{
    say({{"page", 2}, {"two", 0x35}});
    QVERIFY(m_client->set("two", 7).isSent());
    QTRY_COMPARE(lastSent(), QVariant(QVariantMap{{"page", 2U}, {"two", 0x37U}}));
    QCOMPARE(s_codes(m_client->write({{"two", 7}})), QString("two not-selected"));
}

void TestClientFields::ordersAreMadeOfTheReadingsOfTheirTime()
{
    QSignalSpy delivered(m_client.get(), &VorbelClient::delivered);
    say({{"mode", 0x8a}, {"state", 0x8a}});
    m_daemon->answersPings = false;
    QVERIFY(m_client->deliver({{"mode", 5}}).isSent());
    say({{"mode", 0x81}, {"state", 0x81}});
    m_daemon->answersPings = true;
    m_daemon->answerHeldPings();
    QTRY_COMPARE(delivered.size(), 1);
    QCOMPARE(lastSent(), QVariant(QVariantMap{{"mode", 0xd1U}}));
}

void TestClientFields::ordersOfOneByte()
{
    QSignalSpy delivered(m_client.get(), &VorbelClient::delivered);
    say({{"mode", 0x8a}, {"state", 0x8a}});
    QVERIFY(m_client->deliver({{"mode", 5}}).isSent());
    QVERIFY(m_client->deliver({{"state", 0}}).isSent());
    QTRY_COMPARE(delivered.size(), 2);
    QCOMPARE(lastSent(), QVariant(QVariantMap{{"state", 0xd8U}}));
}

// Rainy

void TestClientFields::readingsThatDoNotCount()
{
    say({{"page", 1}, {"two", 0x35}});
    QCOMPARE(s_codes(m_client->set("two", 7)), QString("two no-reading"));
}

void TestClientFields::readingsBeforeTheDaemonHasTheSchema()
{
    m_daemon->answersPings = false;
    QVERIFY(m_client->setSchema(s_schema));
    say({{"mode", 0x8a}});
    QCOMPARE(s_codes(m_client->set("mode", 5)), QString("mode no-reading"));
    m_daemon->answersPings = true;
    m_daemon->answerHeldPings();
    settle();
    QCOMPARE(s_codes(m_client->set("mode", 5)), QString("mode no-reading"));
    say({{"mode", 0x8a}});
    QVERIFY(m_client->set("mode", 5).isSent());
}

void TestClientFields::readingsAreForgotten_data()
{
    QTest::addColumn<QString>("happening");

    for (const char *happening : {"a lost connection", "another schema", "a schema of another client",
                                  "another address", "an end and a beginning"}) {
        QTest::newRow(happening) << happening;
    }
}

void TestClientFields::readingsAreForgotten()
{
    QFETCH(QString, happening);
    say({{"mode", 0x8a}});
    const StandIn other;
    if (happening == "a lost connection") {
        m_daemon->drop();
        QTRY_VERIFY(!m_client->isConnected());
    } else if (happening == "another schema") {
        QVERIFY(m_client->setSchema(s_schema));
    } else if (happening == "a schema of another client") {
        say({{"stranger", 1}, {"mode", 0x8a}});
        say({{"mode", 0x8a}});
        QVERIFY(!m_client->ownsSchema());
    } else if (happening == "another address") {
        m_client->setAddress(other.address());
    } else {
        m_client->close();
        m_client->open();
    }
    QTRY_VERIFY(m_client->isConnected());
    QCOMPARE(s_codes(m_client->set("mode", 5)), QString("mode no-reading"));
}

void TestClientFields::whatWasNotSentIsNotWritten()
{
    say({{"mode", 0x8a}, {"state", 0x8a}});
    QCOMPARE(s_codes(m_client->write({{"mode", 5}, {"state", 9}})), QString("state out-of-range"));
    QCOMPARE(s_codes(m_client->write({{"flag", 1}})), QString("flag read-only"));
    QVERIFY(m_client->set("state", 0).isSent());
    QTRY_COMPARE(lastSent(), QVariant(QVariantMap{{"state", 0x88U}}));
}

void TestClientFields::uncheckedValuesAreSentAsTheyAre()
{
    m_client->setChecking(false);
    QVERIFY(m_client->set("two", 7).isSent());
    QTRY_COMPARE(lastSent(), QVariant(QVariantMap{{"two", 7U}}));
}

void TestClientFields::anOrderThatHasBecomeImpossible()
{
    QSignalSpy undelivered(m_client.get(), &VorbelClient::undelivered);
    say({{"mode", 0x8a}});
    QVERIFY(m_client->deliver({{"mode", 5}}).isSent());
    say({{"theirs", 1}}); // another client has replaced the schema, and the reading may be of that one
    QTRY_COMPARE(undelivered.size(), 1);
    QCOMPARE(undelivered.at(0).at(1).toBool(), false);
    QVERIFY(
        undelivered.at(0).at(2).toString().startsWith("Not written: mode: shares its bytes with other bits"));
    QVERIFY(lastSent().toString().startsWith("text {"));
}

QTEST_GUILESS_MAIN(TestClientFields)
#include "tst_client_fields.moc"
