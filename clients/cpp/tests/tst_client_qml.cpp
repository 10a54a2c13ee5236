// VorbelClient as a QML document uses it.
#include "standin.h"
#include "tests/unit/logcollector.h"
#include "vorbel/vorbelclient.h"
#include "vorbel/wire.h"

#include <QQmlComponent>
#include <QQmlEngine>
#include <QtTest>

using Bytes = QByteArray;

namespace
{

const char *const s_document = R"(
    import QtQml 2.15
    import Vorbel 1.0

    VorbelClient {
        id: client

        property var speed: latest && latest.motor ? latest.motor.speed : -1
        property var wave
        property var temperature: latest ? meant("motor.temperature") : null
        property string told
        property var flat: ({})
        property var events: []
        property var lastWrite

        function send(value) {
            lastWrite = set("motor.setpoint", value)
            return lastWrite.isSent
        }
        function sendBoth() { return write({motor: {setpoint: 0.5}, list: null}).error }
        function firstProblem() { return lastWrite.problems[0].code + " at " + lastWrite.problems[0].path }
        function firstWritten() { return lastWrite.written[0].raw + ": " + lastWrite.written[0].text() }
        function hot() {
            const limits = members("motor.temperature").warn
            return [members("motor.temperature").unit, limits.low === -Infinity, limits.high, temperature.level]
        }
        function labels() { return members("motor.state").labels }
        function sendLabel() { return set("motor.state", "fault").written[0].meant }
        function order() { return deliver({motor: {setpoint: 0.25}}).number }

        schema: ({motor: {speed: {"@mac": 5, "@cmd": 2, "@format": "s"},
                          setpoint: {"@mac": 5, "@cmd": 3, "@format": "s", "@factor": 100},
                          wave: {"@mac": 5, "@cmd": 4, "@format": "s", "@flushSize": 2},
                          state: {"@mac": 5, "@cmd": 5, "@format": "C", labels: {"0": "off", "2": "fault"}},
                          temperature: {"@mac": 5, "@cmd": 6, "@format": "C", offset: -40, unit: "C",
                                        warn: [null, 50]}}})
        active: true

        onValuesReceived: {
            flat = values.flat
            for (const path in values.meant)
                told += path + ": " + values.meant[path].shown + "; "
            if (values.nested.motor && values.nested.motor.wave !== undefined)
                wave = readable(values.nested.motor.wave)
        }
        onUndecodable: events = events.concat("undecodable: " + reason)
        onDelivered: events = events.concat("delivered: " + number)
        onSchemaChanged: events = events.concat("schema: " + (state === VorbelClient.Replaced ? "replaced" : state))
        onHelloReceived: events = events.concat("hello: " + deviceType)
    }
)";

} // namespace

class TestClientQml : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { qmlRegisterType<VorbelClient>("Vorbel", 1, 0, "VorbelClient"); }
    void init();
    void cleanup();

    void bindingsFollowTheValues();
    void valuesInAHandler();
    void whatReadingsMean();
    void labelsForWriting();
    void stateAndEvents();
    void writing();
    void badSchema();

private:
    QVariant call(const char *function);
    QVariant call(const char *function, const QVariant &argument);

    LogCollector m_log;
    QQmlEngine m_engine;
    std::unique_ptr<StandIn> m_daemon;
    std::unique_ptr<QObject> m_object;
    VorbelClient *m_client = nullptr;
};

void TestClientQml::init()
{
    m_log.start();
    m_daemon = std::make_unique<StandIn>();
    QQmlComponent component(&m_engine);
    component.setData(s_document, QUrl());
    m_object.reset(component.createWithInitialProperties({{"address", m_daemon->address()}}));
    QVERIFY2(m_object, qPrintable(component.errorString()));
    m_client = qobject_cast<VorbelClient *>(m_object.get());
    QTRY_VERIFY(m_object->property("connected").toBool());
    QTRY_COMPARE(m_daemon->said().size(), 1); // the schema
    QTRY_COMPARE(m_daemon->frames.filter("ping").size(), 2);
}

// Whatever a script does wrong is a line.
void TestClientQml::cleanup()
{
    m_object.reset();
    m_daemon.reset();
    QCOMPARE(m_log.finish(), QStringList());
}

QVariant TestClientQml::call(const char *function)
{
    QVariant result;
    QMetaObject::invokeMethod(m_object.get(), function, Q_RETURN_ARG(QVariant, result));
    return result;
}

QVariant TestClientQml::call(const char *function, const QVariant &argument)
{
    QVariant result;
    QMetaObject::invokeMethod(m_object.get(), function, Q_RETURN_ARG(QVariant, result),
                              Q_ARG(QVariant, argument));
    return result;
}

void TestClientQml::bindingsFollowTheValues()
{
    QCOMPARE(m_object->property("speed").toInt(), -1);
    m_daemon->sayBytes(Bytes::fromHex("81a56d6f746f7281a57370656564cd0258"));
    QTRY_COMPARE(m_object->property("speed").toInt(), 600);
    m_daemon->sayBytes(Bytes::fromHex("81a56d6f746f7281a5737065656407"));
    QTRY_COMPARE(m_object->property("speed").toInt(), 7);
}

void TestClientQml::valuesInAHandler()
{
    m_daemon->sayBytes(Bytes::fromHex("81a56d6f746f7281a477617665d613ffff0200"));
    QTRY_COMPARE(m_object->property("wave").toList(), (QVariantList{-1, 2}));
    m_daemon->sayBytes(Bytes::fromHex("81a56d6f746f7281a573706565640a"));
    QTRY_COMPARE(m_object->property("flat").toMap(), (QVariantMap{{"motor.speed", 10U}}));
}

void TestClientQml::whatReadingsMean()
{
    m_daemon->sayBytes(
        Vorbel::encode(QVariantMap{{"motor", QVariantMap{{"temperature", 95}, {"state", 2}}}}).message);
    QTRY_COMPARE(m_object->property("temperature").value<Vorbel::Meant>().shown(), QString("55 C"));
    QCOMPARE(m_object->property("told").toString(), QString("motor.state: fault; motor.temperature: 55 C; "));
    QCOMPARE(call("hot").toList(), (QVariantList{"C", true, 50, "warn"}));
    m_daemon->sayBytes(Vorbel::encode(QVariantMap{{"motor", QVariantMap{{"temperature", 60}}}}).message);
    QTRY_COMPARE(m_object->property("temperature").value<Vorbel::Meant>().value(), QVariant(20.0));
}

void TestClientQml::labelsForWriting()
{
    QCOMPARE(call("labels").toStringList(), (QStringList{"off", "fault"}));
    QCOMPARE(call("sendLabel"), QVariant(2));
    QTRY_COMPARE(m_daemon->said().last(), QString("bytes 81a56d6f746f7281a5737461746502"));
}

void TestClientQml::stateAndEvents()
{
    m_daemon->sayBytes(Bytes::fromHex("81a161"));
    m_daemon->sayBytes(Bytes::fromHex("81a674686569727301"));
    QTRY_COMPARE(m_object->property("events").toStringList(),
                 (QStringList{"hello: unknown", "undecodable: it ends within a value", "schema: replaced"}));
    QCOMPARE(m_object->property("ownsSchema").toBool(), false);
    m_object->setProperty("active", false);
    QCOMPARE(m_object->property("state").toInt(), int(VorbelClient::Closed));
}

void TestClientQml::writing()
{
    QCOMPARE(call("send", 0.53), QVariant(true));
    QCOMPARE(call("firstWritten"), QVariant("53: raw 53"));
    QCOMPARE(call("send", 400), QVariant(false));
    QCOMPARE(call("firstProblem"), QVariant("out-of-range at motor.setpoint"));
    QVERIFY(m_object->property("lastWrite")
                .value<Vorbel::WriteResult>()
                .error.contains("outside of -32768 to 32767"));
    QCOMPARE(call("sendBoth"), QVariant("Not written: list: does not exist in the schema"));
    QTRY_COMPARE(m_daemon->said().size(), 2);
    QCOMPARE(m_daemon->said().at(1), QString("bytes 81a56d6f746f7281a8736574706f696e74ca3f07ae15"));
    const int number = call("order").toInt();
    QTRY_COMPARE(m_object->property("events").toStringList().last(), QString("delivered: %1").arg(number));
}

void TestClientQml::badSchema()
{
    const QJsonObject before = m_client->schema();
    m_object->setProperty("schema", QJsonObject{{"a", QJsonObject{{"@mac", 99}}}});
    QVERIFY(m_object->property("schemaError").toString().startsWith("a: \"@mac\" is 99"));
    QCOMPARE(m_client->schema(), before);
}

QTEST_GUILESS_MAIN(TestClientQml)
#include "tst_client_qml.moc"
