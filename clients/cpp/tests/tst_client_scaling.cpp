// Scaled values on their way through the daemon's conversion: every raw number of 16 bits with every factor.
#include "msgpack/msgpack.h"
#include "schema/schemaconverter.h"
#include "vorbel/wire.h"
#include "vorbel/writing.h"

#include <QJsonDocument>
#include <QLoggingCategory>
#include <QtEndian>
#include <QtTest>

#include <cmath>
#include <cstring>
#include <random>

using namespace Vorbel;

namespace
{

const QVector<double> factors{1e-6,      3e-6,      1e-5,      1e-4, 0.001, 0.0054931640625,
                              0.0078125, 0.01,      0.05,      0.1,  0.3,   1.0 / 3,
                              0.7,       0.9999999, 1.0000001, 1.5,  2,     3,
                              7,         10,        12.5,      60,   100,   182.04,
                              360,       1000,      4096,      1e4,  1e5,   123456.789,
                              1e6,       -0.1,      -100};

// A leaf for each factor, in the order of their frames.
QJsonObject s_schema(const QString &format)
{
    QJsonObject schema;
    for (int at = 0; at < factors.size(); ++at) {
        schema.insert(
            QString("%1").arg(at, 2, 10, QChar('0')),
            QJsonObject{{"@mac", at}, {"@cmd", 1}, {"@format", format}, {"@factor", factors.at(at)}});
    }
    return schema;
}

// What stands for a raw number at each factor.
QVariantMap s_values(double raw)
{
    QVariantMap values;
    for (int at = 0; at < factors.size(); ++at) {
        values.insert(QString("%1").arg(at, 2, 10, QChar('0')), raw / factors.at(at));
    }
    return values;
}

// The daemon's conversion of values that were sent.
class Daemon
{
public:
    explicit Daemon(const QJsonObject &schema) { m_converter.loadSchema(QJsonDocument(schema)); }

    QList<vek_frame_t> frames(const QVariant &values)
    {
        return m_converter.toVEKFrames(MsgPack::unpack(encode(values).message));
    }

private:
    SchemaConverter m_converter;
};

double s_payload(const vek_frame_t &frame, const QString &format)
{
    if (format == "S") {
        return qFromLittleEndian<qint16>(frame.data);
    }
    if (format == "i") {
        return qFromLittleEndian<qint32>(frame.data);
    }
    return format == "f" ? double(qFromLittleEndian<float>(frame.data)) : double(qint8(frame.data[0]));
}

// The numbers of single precision around one, `count` on each side.
QVector<double> s_neighbours(double number, int count)
{
    QVector<double> numbers{number};
    auto below = static_cast<float>(number);
    float above = below;
    for (; count > 0; --count) {
        below = std::nextafter(below, -HUGE_VALF);
        above = std::nextafter(above, HUGE_VALF);
        numbers << double(below) << double(above);
    }
    return numbers;
}

} // namespace

class TestClientScaling : public QObject
{
    Q_OBJECT

private slots:
    // The daemon warns where the end of its range is reached from beyond.
    void initTestCase() { QLoggingCategory::setFilterRules("*=false"); }

    void everyRawNumberCanBeWrittenWithEveryFactor_data();
    void everyRawNumberCanBeWrittenWithEveryFactor();
    void largerOnesAsNearAsSinglePrecisionComes_data();
    void largerOnesAsNearAsSinglePrecisionComes();
    void theTwoDecimalsThatWereOneTooLow();
    void leavesAreScaledAsTheDaemonCompares();
};

void TestClientScaling::everyRawNumberCanBeWrittenWithEveryFactor_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<int>("bits");

    QTest::newRow("16 bits") << "S" << 16;
    QTest::newRow("8 bits") << "c" << 8;
}

void TestClientScaling::everyRawNumberCanBeWrittenWithEveryFactor()
{
    QFETCH(QString, format);
    QFETCH(int, bits);
    const QJsonObject schema = s_schema(format);
    Daemon daemon(schema);
    const int half = 1 << (bits - 1);
    for (int raw = -half; raw < half; ++raw) {
        const Message message = prepare(schema, s_values(raw));
        QVERIFY2(!message.isRefused(), qPrintable(errorText(message.problems)));
        QCOMPARE(message.written.size(), factors.size());
        for (const Written &number : message.written) {
            QVERIFY2(number.raw == raw && number.nearest == raw, qPrintable(number.path() + number.text()));
        }
        const QList<vek_frame_t> frames = daemon.frames(message.values);
        QCOMPARE(frames.size(), factors.size());
        for (const vek_frame_t &frame : frames) {
            if (s_payload(frame, format) != raw) {
                QCOMPARE(s_payload(frame, format), double(raw));
            }
        }
    }
}

void TestClientScaling::largerOnesAsNearAsSinglePrecisionComes_data()
{
    QTest::addColumn<QString>("format");

    QTest::newRow("32 bits") << "i";
    QTest::newRow("floats") << "f";
}

// What is told is what stands in the payload, and none of many neighbours would have come nearer.
void TestClientScaling::largerOnesAsNearAsSinglePrecisionComes()
{
    QFETCH(QString, format);
    const QJsonObject schema = s_schema(format);
    Daemon daemon(schema);
    std::mt19937 chance(1);
    for (int turn = 0; turn < 2000; ++turn) {
        const qint32 raw = qint32(chance()) >> (chance() % 24);
        const Message message = prepare(schema, s_values(raw));
        const QList<vek_frame_t> frames = daemon.frames(message.values);
        QCOMPARE(frames.size(), message.written.size());
        for (int at = 0; at < frames.size(); ++at) {
            const Written &number = message.written.at(at);
            const double told = format == "f" ? double(float(number.raw)) : number.raw;
            QCOMPARE(s_payload(frames.at(at), format), told);
            QVERIFY(std::abs(number.nearest - raw) <= 1);
            QVERIFY(std::abs(raw) >= 1 << 23 || number.raw == number.nearest);
            for (const double sent : s_neighbours(message.values.value(number.path()).toDouble(), 6)) {
                const double reached = rawWritten(number.leaf, sent);
                QVERIFY(std::abs(reached - number.nearest) >= std::abs(number.raw - number.nearest));
            }
        }
    }
}

// 0.00 to 9.99 at factor 100, as the values stand: the daemon makes 62 of them too small, the client none.
void TestClientScaling::theTwoDecimalsThatWereOneTooLow()
{
    const QJsonObject schema{
        {"a", QJsonObject{{"@mac", 1}, {"@cmd", 1}, {"@format", "s"}, {"@factor", 100}}}};
    Daemon daemon(schema);
    int wrongAsTheyAre = 0;
    for (int raw = 0; raw < 1000; ++raw) {
        const QVariantMap values{
            {"a", QString("%1.%2").arg(raw / 100).arg(raw % 100, 2, 10, QChar('0')).toDouble()}};
        wrongAsTheyAre += s_payload(daemon.frames(values).first(), "S") != raw;
        QCOMPARE(s_payload(daemon.frames(prepare(schema, values).values).first(), "S"), double(raw));
    }
    QCOMPARE(wrongAsTheyAre, 62);
}

void TestClientScaling::leavesAreScaledAsTheDaemonCompares()
{
    QVERIFY(!leafOf(QStringList(), QJsonObject{{"@factor", 1.00000001}}).isScaled());
    QVERIFY(leafOf(QStringList(), QJsonObject{{"@factor", 1.0000001}}).isScaled());
}

QTEST_APPLESS_MAIN(TestClientScaling)
#include "tst_client_scaling.moc"
