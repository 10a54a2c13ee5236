// VorbelClient and the real daemon, in a network of its own.
#include "rundaemon.h"
#include "vorbel/vorbelclient.h"

#include <QJsonArray>
#include <QSignalSpy>
#include <QtTest>

using namespace Vorbel;

namespace
{

QJsonObject s_leaf(int cmd, const char *format, const QJsonObject &more = {})
{
    QJsonObject leaf = more;
    leaf.insert("@mac", 5);
    leaf.insert("@cmd", cmd);
    leaf.insert("@format", format);
    return leaf;
}

const QJsonObject s_schema{
    {"motor",
     QJsonObject{
         {"speed", s_leaf(2, "s")},
         {"volt", s_leaf(3, "s", {{"@factor", 100}})},
         {"wave", s_leaf(4, "S", {{"@flushSize", 3}})},
         {"mode", s_leaf(6, "C", {{"bits", QJsonArray{4, 3}}})},
         {"state", s_leaf(6, "C", {{"bits", QJsonArray{0, 2}}, {"labels", QJsonObject{{"2", "fault"}}}})}}}};

void s_setLink(const char *state)
{
    QCOMPARE(QProcess::execute("ip", {"link", "set", "lo", state}), 0);
}

} // namespace

class TestClientDaemon : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    // Happy
    void valuesFromTheBus();
    void valuesToTheBus();
    void fieldsOfTheBytesThatTheBusHas();
    void ordersToTheBus();
    void aRestartedDaemonIsFoundAgain();
    void anotherClient();
    void twoClientsGetTheSame();

    // Rainy
    void arraysThatNobodyCanDecode();
    void noOrderIsDeliveredWhenTheLinkIsBack();

private:
    void confirmed();

    std::unique_ptr<RunDaemon> m_daemon;
    std::unique_ptr<VorbelClient> m_client;
};

void TestClientDaemon::init()
{
    m_daemon = std::make_unique<RunDaemon>();
    QVERIFY(m_daemon->start());
    m_client = std::make_unique<VorbelClient>("127.0.0.1");
    m_client->setPauses(50, 500);
    QVERIFY(m_client->setSchema(s_schema));
    m_client->open();
    QTRY_VERIFY(m_client->isConnected());
    confirmed();
}

void TestClientDaemon::cleanup()
{
    m_client.reset();
    m_daemon.reset();
}

// Returns when the daemon has handled everything.
void TestClientDaemon::confirmed()
{
    QSignalSpy confirmed(m_client.get(), &VorbelClient::confirmed);
    QVERIFY(m_client->confirm() != 0);
    QTRY_COMPARE(confirmed.size(), 1);
}

// Happy

void TestClientDaemon::valuesFromTheBus()
{
    QSignalSpy values(m_client.get(), &VorbelClient::valuesReceived);
    QCOMPARE(m_client->deviceType(), QString("unknown"));
    m_daemon->bus.say(5, 2, "58 02");
    m_daemon->bus.say(5, 3, "35 00");
    for (const char *payload : {"01 00", "ff ff", "00 01"}) {
        m_daemon->bus.say(5, 4, payload);
    }
    QTRY_COMPARE(values.size(), 3);
    QCOMPARE(values.at(0).at(0).value<Values>().flat(), (QVariantMap{{"motor.speed", 600U}}));
    QCOMPARE(values.at(1).at(0).value<Values>().flat(), (QVariantMap{{"motor.volt", 0.53F}}));
    QCOMPARE(m_client->value("motor.wave").value<QVector<unsigned short>>(),
             (QVector<unsigned short>{1, 65535, 256}));
}

void TestClientDaemon::valuesToTheBus()
{
    QVERIFY(m_client->set("motor.volt", 0.53).isSent());
    QVERIFY(m_client->write({{"motor", QVariantMap{{"speed", -2}, {"volt", 0.57}}}}).isSent());
    confirmed();
    QCOMPARE(m_daemon->bus.heard(), (QStringList{"5 3 35 00", "5 2 fe ff", "5 3 39 00"}));
}

void TestClientDaemon::fieldsOfTheBytesThatTheBusHas()
{
    QCOMPARE(m_client->set("motor.mode", 5).problems.value(0).code, QString("no-reading"));
    m_daemon->bus.say(5, 6, "8b");
    QTRY_COMPARE(m_client->meant("motor.mode").value(), QVariant(0.0));
    QVERIFY(m_client->set("motor.mode", 5).isSent());
    QVERIFY(m_client->set("motor.state", "fault").isSent());
    confirmed();
    QCOMPARE(m_daemon->bus.heard(), (QStringList{"5 6 db", "5 6 da"}));
    m_daemon->bus.say(5, 6, "82");
    QTRY_COMPARE(m_client->meant("motor.state").shown(), QString("fault"));
    QVERIFY(m_client->write({{"motor", QVariantMap{{"mode", 2}, {"state", 1}}}}).isSent());
    confirmed();
    QCOMPARE(m_daemon->bus.heard().last(), QString("5 6 a1"));
}

void TestClientDaemon::ordersToTheBus()
{
    QSignalSpy delivered(m_client.get(), &VorbelClient::delivered);
    QVERIFY(m_client->deliver({{"motor", QVariantMap{{"speed", 1}}}}).isSent());
    QVERIFY(m_client->deliver({{"motor", QVariantMap{{"speed", 2}}}}).isSent());
    QTRY_COMPARE(delivered.size(), 2);
    QCOMPARE(m_daemon->bus.heard(), (QStringList{"5 2 01 00", "5 2 02 00"}));
}

void TestClientDaemon::aRestartedDaemonIsFoundAgain()
{
    QSignalSpy schema(m_client.get(), &VorbelClient::schemaChanged);
    m_daemon->stop();
    QTRY_VERIFY(!m_client->isConnected());
    QVERIFY(!m_client->set("motor.speed", 1).isSent());
    QVERIFY(m_daemon->start());
    QTRY_COMPARE(schema.size(), 1);
    QCOMPARE(schema.at(0).at(0).value<VorbelClient::SchemaState>(), VorbelClient::Resent);
    confirmed();
    m_daemon->bus.say(5, 2, "07 00");
    QTRY_COMPARE(m_client->value("motor.speed"), QVariant(7U));
    QVERIFY(m_client->set("motor.speed", 2).isSent());
    confirmed();
    QCOMPARE(m_daemon->bus.heard(), QStringList{"5 2 02 00"});
}

void TestClientDaemon::anotherClient()
{
    QSignalSpy hellos(m_client.get(), &VorbelClient::helloReceived);
    QSignalSpy schema(m_client.get(), &VorbelClient::schemaChanged);
    VorbelClient other("127.0.0.1");
    QVERIFY(other.setSchema({{"theirs", s_leaf(2, "s")}}));
    other.open();
    QTRY_VERIFY(other.isConnected());
    QTRY_COMPARE(hellos.size(), 1);
    QSignalSpy confirmed(&other, &VorbelClient::confirmed);
    other.confirm();
    QTRY_COMPARE(confirmed.size(), 1);
    m_daemon->bus.say(5, 2, "01 00");
    QTRY_COMPARE(schema.size(), 1);
    QCOMPARE(schema.at(0).at(0).value<VorbelClient::SchemaState>(), VorbelClient::Replaced);
    QVERIFY(!m_client->ownsSchema());
    QVERIFY(other.ownsSchema());
}

void TestClientDaemon::twoClientsGetTheSame()
{
    VorbelClient other("127.0.0.1");
    other.open();
    QTRY_VERIFY(other.isConnected());
    m_daemon->bus.say(5, 2, "01 00");
    QTRY_COMPARE(other.value("motor.speed"), QVariant(1U));
    QTRY_COMPARE(m_client->value("motor.speed"), QVariant(1U));
}

// Rainy

void TestClientDaemon::arraysThatNobodyCanDecode()
{
    QSignalSpy undecodable(m_client.get(), &VorbelClient::undecodable);
    const QJsonObject schema{{"a", s_leaf(2, "c", {{"@flushSize", 1}})}, {"b", s_leaf(3, "C")}};
    QVERIFY(!m_client->setSchema(schema));
    m_client->setChecking(false);
    QVERIFY(m_client->setSchema(schema));
    confirmed();
    m_daemon->bus.say(5, 2, "07");
    m_daemon->bus.say(5, 3, "05");
    QTRY_COMPARE(m_client->value("b"), QVariant(5U));
    QCOMPARE(undecodable.size(), 1);
    QCOMPARE(undecodable.at(0).at(0).toByteArray(), QByteArray::fromHex("81a161"));
    QVERIFY(m_client->ownsSchema());
}

void TestClientDaemon::noOrderIsDeliveredWhenTheLinkIsBack()
{
    QSignalSpy disconnected(m_client.get(), &VorbelClient::disconnected);
    m_client->setInterval(100); // from the next connection on
    m_client->close();
    m_client->open();
    QTRY_VERIFY(m_client->isConnected());
    QVERIFY(m_client->set("motor.speed", 1).isSent());
    confirmed();
    s_setLink("down");
    QVERIFY(m_client->set("motor.speed", 2).isSent()); // nothing has been noticed yet
    WriteResult result;
    QTRY_VERIFY(!(result = m_client->set("motor.speed", 3)).isSent());
    QCOMPARE(result.error, QString("Not written: ws://127.0.0.1:10443 has not answered for 0.2 s"));
    QTRY_COMPARE(disconnected.size(), 1);
    QCOMPARE(disconnected.at(0).at(0).toString(), QString("the daemon has not answered for 0.5 s"));
    QTest::qWait(1000); // so that the kernel tries to deliver before the daemon says anything
    s_setLink("up");
    QTRY_VERIFY_WITH_TIMEOUT(m_client->isConnected(), 20000);
    QVERIFY(m_client->set("motor.speed", 5).isSent());
    confirmed();
    QTest::qWait(3000); // the kernel has tried again by then, if it still does
    const QStringList heard = m_daemon->bus.heard();
    QCOMPARE(heard.first(), QString("5 2 01 00"));
    QVERIFY2(!heard.contains("5 2 02 00") && !heard.contains("5 2 03 00"), qPrintable(heard.join(", ")));
    QCOMPARE(heard.last(), QString("5 2 05 00"));
}

QTEST_GUILESS_MAIN(TestClientDaemon)
#include "tst_client_daemon.moc"
