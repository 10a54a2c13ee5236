// What all clients agree on, held against this one and against the daemon's converter.
#include "conformancefile.h"
#include "msgpack/msgpack.h"
#include "notation.h"
#include "schema/schemaconverter.h"
#include "service/typedarrays.h"
#include "tests/unit/logcollector.h"
#include "vorbel/check.h"
#include "vorbel/digits.h"
#include "vorbel/lastreadings_p.h"
#include "vorbel/meaning.h"
#include "vorbel/paths.h"
#include "vorbel/plain_p.h"
#include "vorbel/wire.h"
#include "vorbel/writing.h"

#include <QDir>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QtTest>

using namespace Vorbel;

namespace
{

QJsonObject s_object(const QVariant &value)
{
    return QJsonObject::fromVariantMap(value.toMap());
}

QString s_hex(const QByteArray &bytes)
{
    return bytes.toHex(' ');
}

QStringList s_described(const QVector<Problem> &problems, bool withSeverity)
{
    QStringList texts;
    for (const Problem &problem : problems) {
        const QString severity = problem.isError() ? "error " : "warning ";
        texts << (withSeverity ? severity : QString()) + problem.path + ' ' + problem.code;
    }
    texts.sort();
    return texts;
}

QStringList s_expected(const QVariant &problems)
{
    QStringList texts;
    for (const QVariant &problem : problems.toList()) {
        texts << problem.toStringList().join(' ');
    }
    texts.sort();
    return texts;
}

QStringList s_framesOf(const QVariant &frames)
{
    QStringList texts;
    for (const QVariant &frame : frames.toList()) {
        texts << frame.toStringList().join(' ');
    }
    return texts;
}

QVariantMap s_case()
{
    QFETCH(QVariantMap, conformanceCase);
    return conformanceCase;
}

Message s_prepared(const QJsonObject &schema, const QVariantMap &conformanceCase)
{
    const QVariantMap readings = conformanceCase["readings"].toMap();
    return prepare(schema, Notation::valueOfCase(conformanceCase["values"]),
                   [&readings](const QString &path) { return readings.value(path); });
}

// A value without a difference between 1 and 1.0, but with one between both and true.
QString s_plainText(const QVariant &value)
{
    const QVariant plainValue = Notation::valueOfCase(value);
    if (plainValue.userType() != QMetaType::QVariantList) {
        return Notation::textOf(isNumber(plainValue) ? plainValue.toDouble() : plainValue);
    }
    QStringList texts;
    for (const QVariant &element : plainValue.toList()) {
        texts << s_plainText(element);
    }
    return texts.join(", ");
}

// What each file may hold, and its cases: whatever else stands there would not be run.
const QMap<QString, QMap<QString, QStringList>> s_known{
    {"paths", {{"paths", {"names", "path"}}, {"read", {"names", "path"}}, {"flat", {"values", "flat"}}}},
    {"schemas", {{"cases", {"name", "schema", "text", "clear", "nested", "beside", "problems"}}}},
    {"writes",
     {{"schema", {}},
      {"written", {"name", "values", "raw", "frames", "rounded", "missed"}},
      {"refused", {"name", "values", "problems"}}}},
    {"values", {{"messages", {"name", "message", "value", "undecodable", "schema", "frames", "shown"}}}},
    {"members",
     {{"schema", {}},
      {"readings", {"name", "leaf", "reading", "field", "value", "label", "level", "shown"}},
      {"counting", {"name", "schema", "values", "counts"}},
      {"written", {"name", "values", "readings", "raw", "frames", "rounded"}},
      {"refused", {"name", "values", "readings", "problems"}},
      {"following", {"name", "schema", "steps"}}}}};

} // namespace

class TestClientConformance : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void paths_data() { addConformanceRows("paths", "paths"); }
    void paths();
    void pathsWrittenOtherwise_data() { addConformanceRows("paths", "read"); }
    void pathsWrittenOtherwise();
    void flatValues_data() { addConformanceRows("paths", "flat"); }
    void flatValues();
    void schemas_data() { addConformanceRows("schemas", "cases"); }
    void schemas();
    void written_data() { addConformanceRows("writes", "written"); }
    void written();
    void refused_data() { addConformanceRows("writes", "refused"); }
    void refused();
    void readings_data() { addConformanceRows("members", "readings"); }
    void readings();
    void counting_data() { addConformanceRows("members", "counting"); }
    void counting();
    void writtenFields_data() { addConformanceRows("members", "written"); }
    void writtenFields();
    void refusedFields_data() { addConformanceRows("members", "refused"); }
    void refusedFields();
    void following_data() { addConformanceRows("members", "following"); }
    void following();
    void messages_data() { addConformanceRows("values", "messages"); }
    void messages();
    void messagesOfTheDaemon_data() { addConformanceRows("values", "messages"); }
    void messagesOfTheDaemon();
    void everyCodeIsDocumented();
    void everyCaseIsRun_data();
    void everyCaseIsRun();

private:
    void checkWritten(const QJsonObject &schema);

    QJsonObject m_writeSchema;
    QJsonObject m_memberSchema;
    LogCollector m_log;
};

void TestClientConformance::initTestCase()
{
    QLoggingCategory::setFilterRules("*.debug=false");
    registerTypedArrays();
    m_writeSchema = s_object(conformanceMember("writes", "schema"));
    m_memberSchema = s_object(conformanceMember("members", "schema"));
}

void TestClientConformance::init()
{
    m_log.start();
}

// The daemon does not warn, either, but where single precision reaches the end of the range only from beyond,
// and where it is the message that is undecodable.
void TestClientConformance::cleanup()
{
    const QString atTheEnd =
        "warning: Invalid numeric conversion. Number overflow, value: 32767 result: 32767";
    for (const QString &line : m_log.finish()) {
        QVERIFY2(line == atTheEnd || line.startsWith("warning: MsgPack::pack can't pack type:"),
                 qPrintable(line));
    }
}

void TestClientConformance::paths()
{
    const QVariantMap each = s_case();
    QCOMPARE(joinPath(each["names"].toStringList()), each["path"].toString());
    QCOMPARE(splitPath(each["path"].toString()), each["names"].toStringList());
}

void TestClientConformance::pathsWrittenOtherwise()
{
    const QVariantMap each = s_case();
    QCOMPARE(splitPath(each["path"].toString()), each["names"].toStringList());
}

void TestClientConformance::flatValues()
{
    const QVariantMap each = s_case();
    QCOMPARE(Notation::textOf(flatten(each["values"])), Notation::textOf(each["flat"]));
}

void TestClientConformance::schemas()
{
    const QVariantMap each = s_case();
    QVector<Problem> problems;
    if (each.contains("text")) {
        problems = checkText(each["text"].toString());
    } else {
        QJsonObject schema = s_object(each["schema"]);
        for (int nested = each["nested"].toInt(); nested > 0; --nested) {
            schema = QJsonObject{{"n", schema}};
        }
        const QJsonObject beside = s_object(each["beside"]);
        for (auto member = beside.begin(); member != beside.end(); ++member) {
            schema.insert(member.key(), member.value());
        }
        problems = check(schema, each["clear"].toBool());
    }
    QCOMPARE(s_described(problems, true), s_expected(each["problems"]));
}

void TestClientConformance::checkWritten(const QJsonObject &schema)
{
    const QVariantMap each = s_case();
    const Message message = s_prepared(schema, each);
    QCOMPARE(errorText(message.problems), QString());
    QVariantMap raw;
    QVariantMap missed;
    QStringList rounded;
    for (const Written &number : message.written) {
        raw.insert(number.path(), number.raw);
        if (number.isRounded()) {
            rounded << number.path();
        }
        if (number.raw != number.nearest) {
            missed.insert(number.path(), number.nearest);
        }
    }
    QCOMPARE(raw, each["raw"].toMap());
    QCOMPARE(missed, each["missed"].toMap());
    QCOMPARE(rounded, each["rounded"].toStringList());

    SchemaConverter daemon;
    daemon.loadSchema(QJsonDocument(schema));
    QStringList frames;
    for (const vek_frame_t &frame : daemon.toVEKFrames(MsgPack::unpack(encode(message.values).message))) {
        const auto header = vek_frame_header(frame);
        const QByteArray payload(reinterpret_cast<const char *>(frame.data), vek_header_dlc(header));
        frames << QString("%1 %2 %3")
                      .arg(vek_header_mac(header))
                      .arg(vek_header_cmd(header))
                      .arg(s_hex(payload));
    }
    QCOMPARE(frames, s_framesOf(each["frames"]));
}

void TestClientConformance::written()
{
    checkWritten(m_writeSchema);
}

void TestClientConformance::refused()
{
    const QVariantMap each = s_case();
    QCOMPARE(s_described(s_prepared(m_writeSchema, each).problems, false), s_expected(each["problems"]));
}

void TestClientConformance::readings()
{
    const QVariantMap each = s_case();
    QJsonObject node = s_object(each["leaf"]);
    node.insert("@mac", 1);
    node.insert("@cmd", 1);
    const Meanings meanings(node); // a leaf by itself
    const QVariant reading = Notation::valueOfCase(each["reading"]);
    const Meant meant = meanings.of("", reading);
    if (each.contains("field")) {
        const auto field = fieldOf(*meanings.leaf(""), reading);
        QCOMPARE(s_plainText(field ? QVariant(*field) : reading), s_plainText(each["field"]));
        QCOMPARE(meant.shown(), each["shown"].toString());
    }
    QCOMPARE(s_plainText(meant.value()), s_plainText(each["value"]));
    QCOMPARE(meant.label(), each["label"].toString());
    QCOMPARE(meant.level(), each["level"].toString());
    QCOMPARE(meant.unit(), node.value("unit").toString());
    QCOMPARE(Notation::textOf(meant.reading()), Notation::textOf(reading));
}

void TestClientConformance::counting()
{
    const QVariantMap each = s_case();
    QStringList counts = each["counts"].toStringList();
    counts.sort();
    QCOMPARE(QStringList(Meanings(s_object(each["schema"])).flat(each["values"]).keys()), counts);
}

void TestClientConformance::writtenFields()
{
    checkWritten(m_memberSchema);
}

void TestClientConformance::refusedFields()
{
    const QVariantMap each = s_case();
    QCOMPARE(s_described(s_prepared(m_memberSchema, each).problems, false), s_expected(each["problems"]));
}

void TestClientConformance::following()
{
    const QVariantMap each = s_case();
    const QJsonObject schema = s_object(each["schema"]);
    LastReadings last(std::make_shared<const Meanings>(schema),
                      [](const Leaf &leaf) { return leaf.isPart(); });
    for (const QVariant &one : each["steps"].toList()) {
        const QVariantMap step = one.toMap();
        if (step.contains("reads")) {
            last.heard(Notation::valueOfCase(step["reads"]));
            continue;
        }
        const Message message = prepare(schema, Notation::valueOfCase(step["writes"]),
                                        [&last](const QString &path) { return last.at(path); });
        QCOMPARE(s_described(message.problems, false), s_expected(step["refused"]));
        if (step.contains("refused")) {
            continue;
        }
        QVariantMap raw;
        for (const Written &written : message.written) {
            raw.insert(written.path(), written.raw);
        }
        QCOMPARE(raw, step["raw"].toMap());
        last.wrote(message.written);
    }
}

void TestClientConformance::messages()
{
    const QVariantMap each = s_case();
    const Decoded decoded = decode(QByteArray::fromHex(each["message"].toByteArray()));
    QCOMPARE(decoded.isDecoded(), !each["undecodable"].toBool());
    if (!decoded.isDecoded()) {
        return;
    }
    QCOMPARE(Notation::textOf(decoded.value), Notation::textOfCase(each["value"]));
    const QVariantMap flat = flatten(decoded.value);
    const QVariantMap shown = each["shown"].toMap();
    for (auto reading = shown.cbegin(); reading != shown.cend(); ++reading) {
        const Leaf leaf = leaves(s_object(each["schema"])).value(reading.key());
        QCOMPARE(shownNumber(justified(flat.value(reading.key()).toDouble(), leaf)),
                 reading.value().toString());
    }
}

void TestClientConformance::messagesOfTheDaemon()
{
    const QVariantMap each = s_case();
    if (!each.contains("schema")) {
        return;
    }
    SchemaConverter daemon;
    daemon.loadSchema(QJsonDocument(s_object(each["schema"])));
    QStringList sent;
    connect(&daemon, &SchemaConverter::variantToSend, this,
            [&] { sent << s_hex(MsgPack::pack(daemon.takeVariantToSend(false))); });
    for (const QVariant &frame : each["frames"].toList()) {
        const QVariantList parts = frame.toList();
        VEKEndpoint endpoint;
        endpoint.mac = parts[0].value<decltype(endpoint.mac)>();
        endpoint.cmd = parts[1].value<decltype(endpoint.cmd)>();
        daemon.insertFrame(endpoint, QByteArray::fromHex(parts[2].toByteArray()));
    }
    QCOMPARE(sent, QStringList(each["message"].toString()));
}

void TestClientConformance::everyCodeIsDocumented()
{
    QStringList codes;
    for (const QVariant &each : conformanceMember("schemas", "cases").toList()) {
        for (const QVariant &problem : each.toMap().value("problems").toList()) {
            codes << problem.toList().last().toString() + ' ' + problem.toList().first().toString();
        }
    }
    const QVariantList refusals =
        conformanceMember("writes", "refused").toList() + conformanceMember("members", "refused").toList();
    for (const QVariant &each : refusals) {
        for (const QVariant &problem : each.toMap().value("problems").toList()) {
            const QString code = problem.toList().last().toString();
            if (codes.filter(code + ' ').isEmpty()) { // some are told of schemas as well
                codes << code + " refusal";
            }
        }
    }
    codes.removeDuplicates();
    QFile page(VORBEL_CONFORMANCE "/../../docs/protocol.md");
    QVERIFY(page.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(page.readAll());
    for (const QString &code : qAsConst(codes)) {
        QVERIFY2(text.contains("\n| `" + code.section(' ', 0, 0) + "` | " + code.section(' ', 1) + " |"),
                 qPrintable(code));
    }
}

void TestClientConformance::everyCaseIsRun_data()
{
    QTest::addColumn<QString>("file");
    QStringList files = QDir(VORBEL_CONFORMANCE).entryList({"*.json"});
    files.removeOne("buses.json"); // which is for those that import descriptions of buses
    for (const QString &file : qAsConst(files)) {
        QTest::newRow(qPrintable(file)) << file.section('.', 0, 0);
    }
}

void TestClientConformance::everyCaseIsRun()
{
    QFETCH(QString, file);
    const auto known = s_known.value(file);
    const QVariantMap held = conformanceFile(file);
    QCOMPARE(held.keys(), known.keys());
    for (auto list = held.cbegin(); list != held.cend(); ++list) {
        for (const QVariant &each : list.value().toList()) {
            for (const QString &name : each.toMap().keys()) {
                QVERIFY2(known.value(list.key()).contains(name), qPrintable(list.key() + ": " + name));
            }
        }
    }
}

QTEST_APPLESS_MAIN(TestClientConformance)
#include "tst_client_conformance.moc"
