// What Home Assistant is told of a schema's leaves.
#include "gateway/homeassistant.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>
#include <QTest>

#include <limits>

using namespace Gateway;

namespace
{

const Topics s_topics("vorbel", "7");

QJsonObject s_object(const QByteArray &text)
{
    return QJsonDocument::fromJson(text).object();
}

// Of "a leaf": its members beside address and format, which are S unless the members say otherwise.
QJsonObject s_leaf(const QByteArray &members)
{
    QJsonObject leaf = s_object('{' + members + '}');
    leaf["@mac"] = 5;
    leaf["@cmd"] = leaf["@cmd"].toInt(2);
    leaf["@format"] = leaf["@format"].toString("S");
    return leaf;
}

Settings s_settings(const QStringList &patterns)
{
    Settings settings;
    settings.write.users = {{"ann", patterns}, {"bob", {"*"}}};
    settings.homeAssistant.user = "ann";
    return settings;
}

using Messages = QMap<QByteArray, QByteArray>;

Messages s_discovery(const QJsonObject &schema, const QStringList &patterns = {})
{
    return discoveryOf(Vorbel::Meanings(schema), s_topics, s_settings(patterns), "7", "press");
}

// Of a schema with one leaf, "x".
Messages s_messages(const QByteArray &members, const QStringList &patterns)
{
    return s_discovery({{"x", s_leaf(members)}}, patterns);
}

QByteArray s_topic(const QByteArray &component, const QByteArray &object = "x")
{
    return "homeassistant/" + component + "/vorbel--7/" + object + "/config";
}

// The message of that leaf as the component that it has to be; empty if it is another one.
QJsonObject s_shown(const QByteArray &component, const QByteArray &members)
{
    return s_object(s_messages(members, {}).value(s_topic(component)));
}

QJsonObject s_written(const QByteArray &component, const QByteArray &members)
{
    return s_object(s_messages(members, {"x"}).value(s_topic(component)));
}

// What all messages of "x" begin and end with.
QByteArray s_config(const QByteArray &first, const QByteArray &middle, const QByteArray &last)
{
    return R"({"availability_template":"{{ 'online' if value_json.online else 'offline' }}",)"
           R"("availability_topic":"vorbel/7/status",)" +
           first + R"("device":{"identifiers":["vorbel--7"],"name":"press 7"},)" + middle +
           R"("unique_id":"vorbel--7.x",)" + last + "}";
}

const QByteArray s_origin = R"("origin":{"name":"vorbel-gateway"},)";
const QByteArray s_command = R"("command_topic":"vorbel/7/set/ann/x",)";
const QByteArray s_state = R"("state_topic":"vorbel/7/now/x",)";

QJsonArray s_ends(const QJsonObject &number)
{
    return {number["min"], number["max"], number["step"]};
}

// The units of each device class.
const QMap<QString, QString> s_classes{
    {"apparent_power", "VA"},
    {"current", "A, mA"},
    {"distance", "mm, cm, m, km"},
    {"duration", "ms, s, min, h"},
    {"frequency", "Hz, kHz, MHz"},
    {"illuminance", "lx"},
    {"irradiance", "W/m²"},
    {"power", "W, kW"},
    {"pressure", "Pa, hPa, kPa, mbar, bar, psi"},
    {"reactive_power", "var"},
    {"signal_strength", "dBm"},
    {"speed", "m/s, km/h, mph"},
    {"temperature", "°C, °F"},
    {"voltage", "V, mV"},
    {"volume_flow_rate", "m³/h, L/min"},
    {"weight", "kg, lb"},
    {"energy", "Wh, kWh, MWh"},
};

QString s_document()
{
    QFile file(QFINDTESTDATA("../../docs/gateway.md"));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

} // namespace

class tst_Gateway_homeassistant : public QObject
{
    Q_OBJECT

private slots:
    void eachComponentIsExact_data();
    void eachComponentIsExact();

    void unitsSayWhatIsMeasured_data();
    void unitsSayWhatIsMeasured();
    void theDocumentHasTheDeviceClasses();
    void theDocumentHasAnExample();

    void flagsAreBits_data();
    void flagsAreBits();
    void labelsAreStates_data();
    void labelsAreStates();
    void labelsOfValues_data();
    void labelsOfValues();
    void arraysShowTheirLast();

    void numbersHaveEnds_data();
    void numbersHaveEnds();
    void numbersWithoutEndsAreOnlyShown();

    void onlyWhatTheUserMayWriteIsWritten_data();
    void onlyWhatTheUserMayWriteIsWritten();
    void aSelectorIsWrittenToo();
    void withoutUserNothingIsWritten();

    void whatIsNeverReadIsLeftOut_data();
    void whatIsNeverReadIsLeftOut();
    void names_data();
    void names();
    void aBareLeafIsShown();
    void thePrefixesAreThoseOfTheSettings();
    void aDeviceWithoutTypeHasItsId();

    void noTwoLeavesAreTheSame();
    void hostileNamesAreText();
    void hostileLabelsAreLiterals();
};

void tst_Gateway_homeassistant::eachComponentIsExact_data()
{
    QTest::addColumn<QByteArray>("component");
    QTest::addColumn<QByteArray>("members");
    QTest::addColumn<QStringList>("patterns");
    QTest::addColumn<QByteArray>("config");
    const QStringList nothing;
    const QStringList it{"x"};
    QTest::newRow("sensor")
        << QByteArray("sensor")
        << QByteArray(R"("@factor": 100, "title": "Current", "unit": "A", "decimals": 2, "max": 6)")
        << nothing
        << s_config("",
                    R"("device_class":"current","name":"Current",)" + s_origin +
                        R"("state_class":"measurement",)" + s_state + R"("suggested_display_precision":2,)",
                    R"("unit_of_measurement":"A","value_template":"{{ value_json }}")");
    QTest::newRow("bare sensor") << QByteArray("sensor") << QByteArray("") << nothing
                                 << s_config("", R"("name":"x",)" + s_origin + s_state,
                                             R"("value_template":"{{ value_json }}")");
    QTest::newRow("binary sensor") << QByteArray("binary_sensor") << QByteArray(R"("@asBool": true)") << it
                                   << s_config("",
                                               R"("name":"x",)" + s_origin +
                                                   R"("payload_off":"0","payload_on":"1",)" + s_state,
                                               R"("value_template":"{{ 1 if value_json else 0 }}")");
    QTest::newRow("number")
        << QByteArray("number")
        << QByteArray(
               R"("title": "Set point", "unit": "bar", "min": -5, "max": 6.5, "decimals": 1, "scale": 0.01,
                          "offset": -10)")
        << it
        << s_config(s_command,
                    R"("device_class":"pressure","max":6.5,"min":-5,"name":"Set point",)" + s_origin +
                        s_state + R"("step":0.1,)",
                    R"("unit_of_measurement":"bar","value_template":"{{ value_json }}")");
    QTest::newRow("switch") << QByteArray("switch") << QByteArray(R"("bits": [3, 1])") << it
                            << s_config(s_command,
                                        R"("name":"x",)" + s_origin +
                                            R"("payload_off":"0","payload_on":"1",)" + s_state,
                                        R"("value_template":"{{ 1 if value_json else 0 }}")");
    QTest::newRow("select")
        << QByteArray("select") << QByteArray(R"("labels": {"2": "run", "-1": "fault", "0": "stop"})") << it
        << s_config(R"("command_template":"{{ value | tojson }}",)" + s_command,
                    R"("name":"x","options":["fault","stop","run"],)" + s_origin + s_state,
                    R"("value_template":"{{ {-1:\"fault\",0:\"stop\",2:\"run\"}.get(value_json) }}")");
    QTest::newRow("labelled sensor")
        << QByteArray("sensor") << QByteArray(R"("labels": {"0": "stop", "2": "run"}, "decimals": 1)")
        << nothing
        << s_config("", R"("name":"x",)" + s_origin + s_state,
                    R"("value_template":"{{ {0:\"stop\",2:\"run\"}.get(value_json, value_json) }}")");
}

void tst_Gateway_homeassistant::eachComponentIsExact()
{
    QFETCH(QByteArray, component);
    QFETCH(QByteArray, members);
    QFETCH(QStringList, patterns);
    QFETCH(QByteArray, config);
    const Messages messages = s_messages(members, patterns);
    QCOMPARE(messages.keys(), QList<QByteArray>{s_topic(component)});
    QCOMPARE(messages.first(), config);
}

void tst_Gateway_homeassistant::unitsSayWhatIsMeasured_data()
{
    QTest::addColumn<QString>("unit");
    QTest::addColumn<QString>("deviceClass");
    for (auto each = s_classes.cbegin(); each != s_classes.cend(); ++each) {
        for (const QString &unit : each->split(", ")) {
            QTest::newRow(qPrintable(unit)) << unit << each.key();
        }
    }
    for (const QString &unit : QString("K % g C rpm ° dB ppm L m³ S a v MV Km").split(' ')) {
        QTest::newRow(qPrintable(unit)) << unit << "";
    }
    QTest::newRow("two units") << "A mA"
                               << "";
}

void tst_Gateway_homeassistant::unitsSayWhatIsMeasured()
{
    QFETCH(QString, unit);
    QFETCH(QString, deviceClass);
    const QByteArray members = "\"unit\": \"" + unit.toUtf8() + '"';
    const QJsonObject sensor = s_shown("sensor", members);
    QCOMPARE(sensor["unit_of_measurement"].toString(), unit);
    QCOMPARE(sensor["device_class"].toString(), deviceClass);
    QCOMPARE(sensor.contains("device_class"), !deviceClass.isEmpty());
    QCOMPARE(sensor["state_class"].toString(), deviceClass == "energy" ? "" : "measurement");
    const QJsonObject number = s_written("number", members);
    QCOMPARE(number["unit_of_measurement"].toString(), unit);
    QCOMPARE(number["device_class"].toString(), deviceClass);
    QVERIFY(!number.contains("state_class"));
}

// Of each row of its table, one class or several, and as many lists of units.
void tst_Gateway_homeassistant::theDocumentHasTheDeviceClasses()
{
    const QString table =
        s_document().section("| device class | units |\n| --- | --- |\n", 1).section("\n\n", 0, 0);
    QMap<QString, QString> documented;
    for (const QString &row : table.split('\n')) {
        const QStringList classes = row.section('|', 1, 1).trimmed().split(", ");
        const QStringList units = row.section('|', 2, 2).trimmed().split("; ");
        QCOMPARE(classes.size() == 1 || classes.size() == units.size(), true);
        for (int each = 0; each < classes.size(); ++each) {
            documented[classes[each]] = units[each];
        }
    }
    QCOMPARE(documented, s_classes);
}

void tst_Gateway_homeassistant::theDocumentHasAnExample()
{
    Settings settings;
    settings.write.users = {{"home", {"motor.setpoint"}}};
    settings.homeAssistant.user = "home";
    const QJsonObject leaf =
        s_leaf(R"("@format": "s", "title": "Set point", "unit": "rpm", "min": -6000, "max": 6000)");
    const Vorbel::Meanings meanings({{"motor", QJsonObject{{"setpoint", leaf}}}});
    const Messages messages = discoveryOf(meanings, s_topics, settings, "7", "press");
    QVERIFY(
        s_document().contains('`' + messages.firstKey() + "`:\n\n```json\n" + messages.first() + "\n```\n"));
}

void tst_Gateway_homeassistant::flagsAreBits_data()
{
    QTest::addColumn<QByteArray>("members");
    QTest::addColumn<QByteArray>("shown");
    QTest::addColumn<QByteArray>("written");
    const QByteArray sensor = "sensor";
    const QByteArray binary = "binary_sensor";
    QTest::newRow("truth") << QByteArray(R"("@asBool": true)") << binary << binary;
    QTest::newRow("masked truth") << QByteArray(R"("@asBool": true, "@mask": 2)") << binary << binary;
    QTest::newRow("off and on") << QByteArray(R"("@asBool": true, "labels": {"0": "Off", "1": "ON"})")
                                << binary << binary;
    QTest::newRow("only on") << QByteArray(R"("bits": [0, 1], "labels": {"1": "on"})") << binary
                             << QByteArray("switch");
    QTest::newRow("on and off") << QByteArray(R"("bits": [0, 1], "labels": {"0": "on", "1": "off"})")
                                << sensor << QByteArray("select");
    QTest::newRow("words") << QByteArray(R"("@asBool": true, "labels": {"0": "closed", "1": "open"})")
                           << sensor << sensor;
    QTest::newRow("words of a bit") << QByteArray(R"("bits": [0, 1], "labels": {"0": "auto", "1": "hand"})")
                                    << sensor << QByteArray("select");
    QTest::newRow("byte that is off or on")
        << QByteArray(R"("@format": "C", "labels": {"0": "off", "1": "on"})") << binary
        << QByteArray("switch");
    QTest::newRow("byte that is off, on or more")
        << QByteArray(R"("@format": "C", "labels": {"0": "off", "1": "on", "2": "on again"})") << sensor
        << QByteArray("select");
    QTest::newRow("byte that is off, on or On")
        << QByteArray(R"("@format": "C", "labels": {"0": "off", "1": "on", "2": "On"})") << sensor
        << QByteArray("select");
    QTest::newRow("byte that is off or more")
        << QByteArray(R"("@format": "C", "labels": {"0": "off", "2": "on"})") << sensor
        << QByteArray("select");
    QTest::newRow("byte that is on or more")
        << QByteArray(R"("@format": "C", "labels": {"1": "on", "2": "on"})") << sensor
        << QByteArray("number");
    QTest::newRow("scaled truth") << QByteArray(R"("@asBool": true, "scale": 5)") << sensor << sensor;
    QTest::newRow("bit") << QByteArray(R"("bits": [15, 1])") << binary << QByteArray("switch");
    QTest::newRow("read-only bit") << QByteArray(R"("bits": [15, 1], "readonly": true)") << binary << binary;
    QTest::newRow("scaled bit") << QByteArray(R"("bits": [0, 1], "offset": 1)") << sensor
                                << QByteArray("number");
    QTest::newRow("bit with a sign") << QByteArray(R"("bits": [0, 1], "signed": true)") << sensor
                                     << QByteArray("number");
    QTest::newRow("two bits") << QByteArray(R"("bits": [0, 2])") << sensor << QByteArray("number");
    QTest::newRow("masked bit") << QByteArray(R"("@mask": 1)") << sensor << sensor;
    QTest::newRow("bounds of a bit") << QByteArray(R"("min": 0, "max": 1)") << sensor << QByteArray("number");
}

void tst_Gateway_homeassistant::flagsAreBits()
{
    QFETCH(QByteArray, members);
    QFETCH(QByteArray, shown);
    QFETCH(QByteArray, written);
    QCOMPARE(s_messages(members, {}).keys(), QList<QByteArray>{s_topic(shown)});
    QCOMPARE(s_messages(members, {"*"}).keys(), QList<QByteArray>{s_topic(written)});
}

void tst_Gateway_homeassistant::labelsAreStates_data()
{
    QTest::addColumn<QString>("label");
    QTest::addColumn<bool>("isState");
    QTest::newRow("word") << "run" << true;
    QTest::newRow("words") << "not yet" << true;
    QTest::newRow("beyond the first plane") << QString::fromUtf8("😀") << true;
    QTest::newRow("255") << QString(255, 'a') << true;
    QTest::newRow("256") << QString(256, 'a') << false;
    QTest::newRow("empty") << "" << false;
    QTest::newRow("white space before") << " run" << false;
    QTest::newRow("white space behind") << "run " << false;
    QTest::newRow("two lines") << "a\nb" << false;
    QTest::newRow("control character") << QString("a\x1c") << false;
    QTest::newRow("half a character") << QString(QChar(0xd83d)) << false;
    QTest::newRow("of two fields") << "other" << false;
}

void tst_Gateway_homeassistant::labelsAreStates()
{
    QFETCH(QString, label);
    QFETCH(bool, isState);
    QJsonObject leaf = s_leaf("");
    leaf["labels"] = QJsonObject{{"0", "other"}, {"1", label}};
    const QByteArray written = isState ? "select" : "number";
    QCOMPARE(s_discovery({{"x", leaf}}, {"x"}).keys(), QList<QByteArray>{s_topic(written)});
    const QJsonObject sensor = s_object(s_discovery({{"x", leaf}}).value(s_topic("sensor")));
    QCOMPARE(sensor["value_template"] == "{{ value_json }}", !isState);
    leaf["unit"] = "V";
    QCOMPARE(s_discovery({{"x", leaf}}, {"x"}).keys(), QList<QByteArray>{s_topic("number")});
}

void tst_Gateway_homeassistant::labelsOfValues_data()
{
    QTest::addColumn<QByteArray>("members");
    QTest::addColumn<QString>("valueTemplate");
    QTest::newRow("scaled") << QByteArray(R"("scale": 0.5, "offset": -1)")
                            << R"({{ {-1:"a",-0.5:"b",32766.5:"c"}.get(value_json, value_json) }})";
    QTest::newRow("ten digits") << QByteArray(R"("scale": 0.1, "offset": 0.2)")
                                << R"({{ {0.2:"a",0.3:"b",6553.7:"c"}.get(value_json, value_json) }})";
    QTest::newRow("large") << QByteArray(R"("@format": "I", "scale": 1000000)")
                           << R"({{ {0:"a",1000000:"b",6.5535e+10:"c"}.get(value_json, value_json) }})";
    QTest::newRow("truth") << QByteArray(R"("@asBool": true)")
                           << R"({{ {0:"a",1:"b",65535:"c"}.get(value_json, value_json) }})";
    QTest::newRow("array") << QByteArray(R"("@flushSize": 4)")
                           << R"({{ {0:"a",1:"b",65535:"c"}.get(value_json[-1], value_json[-1]) }})";
}

void tst_Gateway_homeassistant::labelsOfValues()
{
    QFETCH(QByteArray, members);
    QFETCH(QString, valueTemplate);
    const QByteArray labels = R"(, "labels": {"0": "a", "1": "b", "65535": "c"})";
    QCOMPARE(s_shown("sensor", members + labels)["value_template"].toString(), valueTemplate);
}

void tst_Gateway_homeassistant::arraysShowTheirLast()
{
    const auto valueTemplate = [](const QJsonObject &config) {
        return config["value_template"].toString();
    };
    QCOMPARE(valueTemplate(s_shown("sensor", R"("@flushSize": 1, "unit": "V")")), "{{ value_json[-1] }}");
    QCOMPARE(valueTemplate(s_written("number", R"("@flushSize": 2)")), "{{ value_json[-1] }}");
    QCOMPARE(valueTemplate(s_shown("binary_sensor", R"("@flushSize": 2, "@asBool": true)")),
             "{{ 1 if value_json[-1] else 0 }}");
    QCOMPARE(valueTemplate(s_written("switch", R"("@flushSize": 2, "bits": [0, 1])")),
             "{{ 1 if value_json[-1] else 0 }}");
    QCOMPARE(valueTemplate(s_written("select", R"("@flushSize": 2, "labels": {"0": "a"})")),
             R"({{ {0:"a"}.get(value_json[-1]) }})");
}

void tst_Gateway_homeassistant::numbersHaveEnds_data()
{
    constexpr auto largest = double(std::numeric_limits<float>::max());
    QTest::addColumn<QByteArray>("members");
    QTest::addColumn<QJsonArray>("ends");
    const auto row = [](const char *name, const QByteArray &members, const QJsonArray &ends) {
        QTest::newRow(name) << members << ends;
    };
    row("C", R"("@format": "C")", {0, 255, 1});
    row("c", R"("@format": "c")", {0, 255, 1});
    row("S", R"("@format": "S")", {0, 65535, 1});
    row("s", R"("@format": "s")", {-32768, 32767, 1});
    row("Q", R"("@format": "Q")", {0, 65535, 1});
    row("q", R"("@format": "q")", {-32768, 32767, 1});
    row("I", R"("@format": "I")", {0, 4294967295.0, 1});
    row("i", R"("@format": "i")", {-2147483648.0, 2147483647, 1});
    row("f", R"("@format": "f")", {-largest, largest, 0.001});
    row("factor", R"("@format": "s", "@factor": 100)", {-327.68, 327.67, 0.01});
    row("factor without sign", R"("@format": "S", "@factor": 100)", {0, 327.67, 0.01});
    row("factor below 0", R"("@format": "S", "@factor": -2)", {-16383.5, 0, 0.5});
    row("factor of f", R"("@format": "f", "@factor": 8)", {-268435456, 268435455.875, 0.125});
    row("fine factor", R"("@format": "S", "@factor": 10000)", {0, 3.2767, 0.001});
    row("bits", R"("bits": [4, 3])", {0, 7, 1});
    row("bits with sign", R"("bits": [4, 3], "signed": true)", {-4, 3, 1});
    row("swapped", R"("@format": "s", "swapped": true)", {0, 65535, 1});
    row("float", R"("@format": "I", "float": true)", {-largest, largest, 0.001});
    row("scale", R"("@format": "C", "scale": 0.5, "offset": -40)", {-40, 87.5, 0.5});
    row("scale below 0", R"("@format": "C", "scale": -2)", {-510, 0, 2});
    row("scale and factor", R"("@format": "S", "@factor": 2, "scale": 10)", {0, 163835, 5});
    row("min", R"("min": 100)", {100, 65535, 1});
    row("max", R"("max": 100)", {0, 100, 1});
    row("bounds beyond", R"("min": -1, "max": 100000)", {0, 65535, 1});
    row("decimals of f", R"("@format": "f", "decimals": 2)", {-largest, largest, 0.01});
    row("no decimals", R"("@format": "f", "decimals": 0)", {-largest, largest, 1});
    row("many decimals", R"("@format": "f", "decimals": 9)", {-largest, largest, 0.001});
    row("decimals nobody can write", R"("decimals": 2)", {0, 65535, 1});
    row("fewer decimals", R"("@factor": 100, "decimals": 1)", {0, 327.67, 0.1});
}

void tst_Gateway_homeassistant::numbersHaveEnds()
{
    QFETCH(QByteArray, members);
    QFETCH(QJsonArray, ends);
    QCOMPARE(s_ends(s_written("number", members)), ends);
}

void tst_Gateway_homeassistant::numbersWithoutEndsAreOnlyShown()
{
    for (const QByteArray members :
         {R"("min": 5, "max": 5)", R"("min": 70000)", R"("@format": "f", "scale": 1e300, "min": 0)",
          R"("@format": "f", "scale": 1e300, "max": 0)"}) {
        const QJsonObject sensor = s_written("sensor", members);
        QVERIFY2(!sensor.isEmpty(), members);
        QVERIFY(!sensor.contains("command_topic"));
    }
}

void tst_Gateway_homeassistant::onlyWhatTheUserMayWriteIsWritten_data()
{
    QTest::addColumn<QByteArray>("members");
    QTest::addColumn<QStringList>("patterns");
    QTest::addColumn<bool>("isWritten");
    QTest::newRow("by name") << QByteArray() << QStringList("a.x") << true;
    QTest::newRow("by pattern") << QByteArray() << QStringList{"b", "a.*"} << true;
    QTest::newRow("another") << QByteArray() << QStringList("x") << false;
    QTest::newRow("none") << QByteArray() << QStringList() << false;
    QTest::newRow("read-only") << QByteArray(R"("readonly": true)") << QStringList("*") << false;
    QTest::newRow("masked") << QByteArray(R"("@mask": 255)") << QStringList("*") << false;
}

void tst_Gateway_homeassistant::onlyWhatTheUserMayWriteIsWritten()
{
    QFETCH(QByteArray, members);
    QFETCH(QStringList, patterns);
    QFETCH(bool, isWritten);
    for (const QByteArray kind : {"", R"("labels": {"0": "a", "1": "b"})", R"("bits": [0, 1])"}) {
        const QByteArray both = members + (members.isEmpty() || kind.isEmpty() ? "" : ",") + kind;
        const Messages messages = s_discovery({{"a", QJsonObject{{"x", s_leaf(both)}}}}, patterns);
        const QJsonObject config = s_object(messages.first());
        QCOMPARE(config["command_topic"].toString(), isWritten ? "vorbel/7/set/ann/a/x" : "");
        QCOMPARE(messages.firstKey().contains("sensor/"), !isWritten);
    }
}

void tst_Gateway_homeassistant::aSelectorIsWrittenToo()
{
    QJsonObject schema{{"page", s_leaf(R"("@format": "C")")},
                       {"x", s_leaf(R"("when": {"path": "page", "is": 2})")}};
    QVERIFY(s_discovery(schema, {"x", "page"}).contains(s_topic("number")));
    QVERIFY(s_discovery(schema, {"x"}).contains(s_topic("sensor")));
    QVERIFY(s_discovery(schema, {"page"}).contains(s_topic("sensor")));
    schema["page"] = s_leaf(R"("@format": "C", "readonly": true)");
    QVERIFY(s_discovery(schema, {"*"}).contains(s_topic("sensor")));
}

void tst_Gateway_homeassistant::withoutUserNothingIsWritten()
{
    Settings settings = s_settings({"*"});
    settings.homeAssistant.user.clear();
    const Vorbel::Meanings meanings({{"x", s_leaf("")}});
    QCOMPARE(discoveryOf(meanings, s_topics, settings, "7", "press"),
             discoveryOf(meanings, s_topics, s_settings({}), "7", "press"));
}

void tst_Gateway_homeassistant::whatIsNeverReadIsLeftOut_data()
{
    QTest::addColumn<QByteArray>("members");
    QTest::newRow("packed") << QByteArray(R"("@format": "p")");
    QTest::newRow("unknown format") << QByteArray(R"("@format": "z")");
    QTest::newRow("endless array") << QByteArray(R"("@flushSize": -1)");
}

void tst_Gateway_homeassistant::whatIsNeverReadIsLeftOut()
{
    QFETCH(QByteArray, members);
    QCOMPARE(s_messages(members, {"*"}), Messages());
    QCOMPARE(s_discovery({{"x", s_leaf(members)}, {"y", s_leaf("")}}).size(), 1);
}

void tst_Gateway_homeassistant::names_data()
{
    QTest::addColumn<QStringList>("path");
    QTest::addColumn<QByteArray>("object");
    QTest::addColumn<QString>("stateTopic");
    QTest::newRow("plain") << QStringList{"motor", "set_point2"} << QByteArray("motor--set_point2")
                           << "vorbel/7/now/motor/set_point2";
    QTest::newRow("dash") << QStringList{"a-b"} << QByteArray("a-2Db") << "vorbel/7/now/a-b";
    QTest::newRow("dot") << QStringList{"a.b"} << QByteArray("a-2Eb") << "vorbel/7/now/a%2Eb";
    QTest::newRow("wildcards") << QStringList{"+", "#"} << QByteArray("-2B---23") << "vorbel/7/now/%2B/%23";
    QTest::newRow("beyond ASCII") << QStringList{QString::fromUtf8("Öl")} << QByteArray("-C3-96l")
                                  << QString::fromUtf8("vorbel/7/now/Öl");
    QTest::newRow("empty") << QStringList{""} << QByteArray("-") << "vorbel/7/now/";
    QTest::newRow("empty group") << QStringList{"", "a"} << QByteArray("--a") << "vorbel/7/now//a";
}

void tst_Gateway_homeassistant::names()
{
    QFETCH(QStringList, path);
    QFETCH(QByteArray, object);
    QFETCH(QString, stateTopic);
    QJsonObject schema = s_leaf("");
    for (auto name = path.crbegin(); name != path.crend(); ++name) {
        schema = {{*name, schema}};
    }
    const Messages messages = s_discovery(schema, {"*"});
    QCOMPARE(messages.keys(), QList<QByteArray>{s_topic("number", object)});
    const QJsonObject config = s_object(messages.first());
    QCOMPARE(config["unique_id"].toString(), QString("vorbel--7." + object));
    QCOMPARE(config["state_topic"].toString(), stateTopic);
    QCOMPARE(config["command_topic"].toString(), stateTopic.replace("/now/", "/set/ann/"));
}

void tst_Gateway_homeassistant::aBareLeafIsShown()
{
    const Messages messages = s_discovery(s_leaf(""), {"*"});
    QCOMPARE(messages.keys(), QList<QByteArray>{s_topic("sensor", "-")});
    const QJsonObject config = s_object(messages.first());
    QCOMPARE(config["name"].toString(), "value");
    QCOMPARE(config["state_topic"].toString(), "vorbel/7/now");
}

void tst_Gateway_homeassistant::thePrefixesAreThoseOfTheSettings()
{
    const Topics topics("plant/vorbel", "press 7");
    Settings settings;
    settings.homeAssistant.prefix = "home/ha";
    const Messages messages =
        discoveryOf(Vorbel::Meanings({{"x", s_leaf("")}}), topics, settings, "press 7", "press");
    QCOMPARE(messages.firstKey(), QByteArray("home/ha/sensor/plant--vorbel--press-25207/x/config"));
    const QJsonObject config = s_object(messages.first());
    QCOMPARE(config["availability_topic"].toString(), "plant/vorbel/press%207/status");
    QCOMPARE(config["device"].toObject()["name"].toString(), "press press 7");
}

void tst_Gateway_homeassistant::aDeviceWithoutTypeHasItsId()
{
    const auto messages = discoveryOf(Vorbel::Meanings({{"x", s_leaf("")}}), s_topics, Settings(), "7", "");
    QCOMPARE(s_object(messages.first())["device"].toObject()["name"].toString(), "7");
}

void tst_Gateway_homeassistant::noTwoLeavesAreTheSame()
{
    const QStringList names{"a",  "A",    "a b",  "a-b", "a--b", "a_b", "a.b",  "a/b", "a%2Fb", "a-2Db",
                            "-",  "--",   "-2D",  "2D",  "_",    "a-",  "-a",   "b",   "a\\b",  "a\\.b",
                            "ab", "a\tb", "a\nb", "a--", "--b",  "é",   "\xc3", "E9",  "-E9",   "value"};
    QJsonObject group;
    for (const QString &name : names) {
        group[name] = s_leaf("");
    }
    QJsonObject schema = group;
    for (const QString &name : names) {
        QJsonObject both = group;
        both["@mac"] = 5;
        both["@format"] = "S";
        schema[name] = both; // a leaf that holds leaves
    }
    const Messages messages = s_discovery(schema);
    QCOMPARE(messages.size(), names.size() * (names.size() + 1));
    QSet<QString> ids;
    for (auto message = messages.cbegin(); message != messages.cend(); ++message) {
        ids << s_object(message.value())["unique_id"].toString();
        const QByteArray object = message.key().split('/').at(3);
        const bool isTaken = QRegularExpression("^[a-zA-Z0-9_-]+$").match(object).hasMatch();
        QVERIFY2(isTaken, object);
    }
    QCOMPARE(ids.size(), messages.size());
}

void tst_Gateway_homeassistant::hostileNamesAreText()
{
    const QString hostile = QString::fromUtf8("\"}}{{ 1 / 0 }}{% x %}'\n\\ ~é");
    QJsonObject leaf = s_leaf(R"("@flushSize": 0)");
    leaf["title"] = hostile;
    leaf["unit"] = hostile;
    QJsonObject schema{{hostile, leaf}};
    for (int level = 1; level < 31; ++level) {
        schema = {{hostile, schema}};
    }
    const Messages messages = s_discovery(schema, {"*"});
    const QJsonObject config = s_object(messages.first());
    QCOMPARE(config["name"].toString(), hostile);
    QCOMPARE(config["unit_of_measurement"].toString(), hostile);
    QCOMPARE(config["value_template"].toString(), "{{ value_json }}");
    QCOMPARE(config["state_topic"].toString().count('/'), 2 + 31);
}

void tst_Gateway_homeassistant::hostileLabelsAreLiterals()
{
    QJsonObject leaf = s_leaf("");
    const QString hostile = QString::fromUtf8(R"(a"}}{{ 1 / 0 }}{% x %}{#'\é)");
    leaf["labels"] = QJsonObject{{"0", hostile}};
    const QJsonObject config = s_object(s_discovery({{"x", leaf}}, {"x"}).value(s_topic("select")));
    QCOMPARE(config["options"].toArray(), QJsonArray{hostile});
    QCOMPARE(config["value_template"].toString(),
             QString::fromUtf8(R"({{ {0:"a\"}}{{ 1 / 0 }}{% x %}{#'\\é"}.get(value_json) }})"));
    QCOMPARE(config["command_template"].toString(), "{{ value | tojson }}");
}

QTEST_APPLESS_MAIN(tst_Gateway_homeassistant)
#include "tst_gateway_homeassistant.moc"
