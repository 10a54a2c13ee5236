// The ready-made extension payloads of Qt value types, and their registration.
#include "msgpack/msgpack.h"
#include "msgpack/qt_types_p.h"
#include "tests/unit/logcollector.h"

#include <QColor>
#include <QDateTime>
#include <QPoint>
#include <QRect>
#include <QSize>
#include <QtTest>

#include <cstring>

using namespace MsgPackPrivate;
using Bytes = QByteArray;

Q_DECLARE_METATYPE(MsgPackPrivate::pack_user_f)
Q_DECLARE_METATYPE(MsgPackPrivate::unpack_user_f)

class TestMsgPackQtTypes : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    // Before anything is registered
    void nothingIsRegisteredAtFirst_data();
    void nothingIsRegisteredAtFirst();

    // Happy
    void payloads_data();
    void payloads();
    void payloadsThatComeBackDifferent_data();
    void payloadsThatComeBackDifferent();
    void everySecondOfTheDay();
    void everyDayOfSomeYears();
    void zonesAreNotCarried();
    void coloursOfOtherSpecsComeBackAsRgb();
    void numbersOfAnyFormat_data();
    void numbersOfAnyFormat();
    void registeredTypesTravel();

    // Rainy
    void unusableValuesAreOneZeroByte_data();
    void unusableValuesAreOneZeroByte();
    void oneByteIsTheDefault_data();
    void oneByteIsTheDefault();
    void payloadsOfOtherLengths_data();
    void payloadsOfOtherLengths();
    void fieldsThatAreNoTimeOrDate();
    void numbersThatDoNotFit_data();
    void numbersThatDoNotFit();
    void secondRegistrationIsTrueAllTheSame();
    void takenNumberIsTrueAllTheSame();
    void otherTypesAreRefused_data();
    void otherTypesAreRefused();

private:
    LogCollector m_log;
};

void TestMsgPackQtTypes::initTestCase()
{
    // Away from UTC, so that it can't pass for local time.
    qputenv("TZ", "VST-5:30");
    tzset();
}

void TestMsgPackQtTypes::init()
{
    m_log.start();
}

void TestMsgPackQtTypes::cleanup()
{
    QCOMPARE(m_log.finish(), QStringList());
}

// The seven types: routines, metatype and what a byte alone stands for.
struct Type {
    const char *name;
    pack_user_f pack;
    unpack_user_f unpack;
    QVariant missing;
};

static const QVector<Type> &s_types()
{
    static const QVector<Type> types{{"colour", &pack_qcolor, &unpack_qcolor, QColor()},
                                     {"time", &pack_qtime, &unpack_qtime, QTime()},
                                     {"date", &pack_qdate, &unpack_qdate, QDate()},
                                     {"date-time", &pack_qdatetime, &unpack_qdatetime, QDateTime()},
                                     {"point", &pack_qpoint, &unpack_qpoint, QPoint()},
                                     {"size", &pack_qsize, &unpack_qsize, QSize()},
                                     {"rectangle", &pack_qrect, &unpack_qrect, QRect()}};
    return types;
}

static const Type &s_type(const QVariant &value)
{
    for (const Type &type : s_types()) {
        if (type.missing.userType() == value.userType()) {
            return type;
        }
    }
    qFatal("no such type");
}

static bool s_areSame(const QVariant &a, const QVariant &b)
{
    return a.userType() == b.userType() && a == b;
}

void TestMsgPackQtTypes::nothingIsRegisteredAtFirst_data()
{
    QTest::addColumn<QVariant>("value");
    for (const Type &type : s_types()) {
        QTest::newRow(type.name) << type.missing;
    }
}

void TestMsgPackQtTypes::nothingIsRegisteredAtFirst()
{
    QFETCH(QVariant, value);
    QCOMPARE(int(MsgPack::msgpackType(value.userType())), -1);
    QCOMPARE(MsgPack::pack(value), Bytes());
    QCOMPARE(m_log.take(),
             QStringList{QStringLiteral("warning: MsgPack::pack can't pack type: %1").arg(value.userType())});
}

static QDateTime s_dateTime(int year, int month, int day, int hour, int minute, int second, int msec = 0)
{
    return QDateTime(QDate(year, month, day), QTime(hour, minute, second, msec));
}

void TestMsgPackQtTypes::payloads_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QByteArray>("hex");

    QTest::newRow("time") << QVariant(QTime(10, 20, 30)) << Bytes("a51e");
    QTest::newRow("time with milliseconds") << QVariant(QTime(10, 20, 30, 456)) << Bytes("a51e01c8");
    QTest::newRow("midnight") << QVariant(QTime(0, 0)) << Bytes("0000");
    QTest::newRow("1 millisecond") << QVariant(QTime(0, 0, 0, 1)) << Bytes("00000001");
    QTest::newRow("999 milliseconds") << QVariant(QTime(0, 0, 0, 999)) << Bytes("000003e7");
    QTest::newRow("1 second") << QVariant(QTime(0, 0, 1)) << Bytes("0001");
    QTest::newRow("59 seconds") << QVariant(QTime(0, 0, 59)) << Bytes("003b");
    QTest::newRow("1 minute") << QVariant(QTime(0, 1)) << Bytes("0040");
    QTest::newRow("3 minutes") << QVariant(QTime(0, 3)) << Bytes("00c0");
    QTest::newRow("4 minutes") << QVariant(QTime(0, 4)) << Bytes("0100");
    QTest::newRow("59 minutes") << QVariant(QTime(0, 59)) << Bytes("0ec0");
    QTest::newRow("1 hour") << QVariant(QTime(1, 0)) << Bytes("1000");
    QTest::newRow("last second that comes back") << QVariant(QTime(15, 59, 59)) << Bytes("fefb");

    QTest::newRow("date") << QVariant(QDate(2024, 3, 5)) << Bytes("07e835");
    QTest::newRow("date after the 15th") << QVariant(QDate(2024, 3, 21)) << Bytes("87e835");
    QTest::newRow("the 15th") << QVariant(QDate(2024, 3, 15)) << Bytes("07e83f");
    QTest::newRow("the 16th") << QVariant(QDate(2024, 3, 16)) << Bytes("87e830");
    QTest::newRow("the 31st") << QVariant(QDate(2024, 12, 31)) << Bytes("87e8cf");
    QTest::newRow("leap day") << QVariant(QDate(2024, 2, 29)) << Bytes("87e82d");
    QTest::newRow("first year") << QVariant(QDate(1, 1, 1)) << Bytes("000111");
    QTest::newRow("last year that comes back") << QVariant(QDate(32767, 12, 31)) << Bytes("ffffcf");

    QTest::newRow("date-time") << QVariant(s_dateTime(2024, 3, 5, 10, 20, 30)) << Bytes("07e835a51e");
    QTest::newRow("date-time with milliseconds")
        << QVariant(s_dateTime(2024, 3, 21, 10, 20, 30, 456)) << Bytes("87e835a51e01c8");
    QTest::newRow("date-time at midnight")
        << QVariant(s_dateTime(2024, 3, 5, 0, 0, 0)) << Bytes("07e8350000");

    QTest::newRow("point") << QVariant(QPoint(1, -1)) << Bytes("01ff");
    QTest::newRow("point on an axis") << QVariant(QPoint(0, 5)) << Bytes("0005");
    QTest::newRow("point on the other axis") << QVariant(QPoint(-33, 0)) << Bytes("d0df00");
    QTest::newRow("far point") << QVariant(QPoint(2147483647, -2147483647 - 1))
                               << Bytes("ce7fffffffd280000000");
    QTest::newRow("point of two widths") << QVariant(QPoint(256, 128)) << Bytes("cd0100cc80");

    QTest::newRow("empty size") << QVariant(QSize(0, 0)) << Bytes("0000");
    QTest::newRow("size") << QVariant(QSize(640, 480)) << Bytes("cd0280cd01e0");
    QTest::newRow("size without height") << QVariant(QSize(1, 0)) << Bytes("0100");

    QTest::newRow("rectangle of one point") << QVariant(QRect(0, 0, 1, 1)) << Bytes("00000000");
    QTest::newRow("rectangle") << QVariant(QRect(QPoint(1, 2), QPoint(300, 4))) << Bytes("0102cd012c04");
    QTest::newRow("rectangle left of the origin")
        << QVariant(QRect(QPoint(-10, -200), QPoint(-1, -33))) << Bytes("f6d1ff38ffd0df");

    QTest::newRow("opaque red") << QVariant(QColor(255, 0, 0)) << Bytes("ff0000ff");
    QTest::newRow("transparent") << QVariant(QColor(0, 0, 0, 0)) << Bytes("00000000");
    QTest::newRow("colour with alpha") << QVariant(QColor(1, 2, 3, 4)) << Bytes("01020304");
}

void TestMsgPackQtTypes::payloads()
{
    QFETCH(QVariant, value);
    QFETCH(QByteArray, hex);
    const Type &type = s_type(value);
    QCOMPARE(type.pack(value).toHex(), hex);
    QVERIFY(s_areSame(type.unpack(Bytes::fromHex(hex)), value));
}

void TestMsgPackQtTypes::payloadsThatComeBackDifferent_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QByteArray>("hex");
    QTest::addColumn<QVariant>("back");

    // Four bits of the hour are stored.
    QTest::newRow("16 o'clock") << QVariant(QTime(16, 0)) << Bytes("0000") << QVariant(QTime(0, 0));
    QTest::newRow("17 o'clock") << QVariant(QTime(17, 0)) << Bytes("1000") << QVariant(QTime(1, 0));
    QTest::newRow("half past 16") << QVariant(QTime(16, 30)) << Bytes("0780") << QVariant(QTime(0, 30));
    QTest::newRow("last millisecond of the day")
        << QVariant(QTime(23, 59, 59, 999)) << Bytes("7efb03e7") << QVariant(QTime(7, 59, 59, 999));
    QTest::newRow("date-time in the evening")
        << QVariant(s_dateTime(2024, 3, 5, 20, 20, 30)) << Bytes("07e835451e")
        << QVariant(s_dateTime(2024, 3, 5, 4, 20, 30));
    // Fifteen bits of the year are, and bit 15 of a larger or negative one passes for the day's.
    QTest::newRow("negative year") << QVariant(QDate(-1, 3, 5)) << Bytes("ffff35")
                                   << QVariant(QDate(32767, 3, 21));
    QTest::newRow("year 32768") << QVariant(QDate(32768, 3, 5)) << Bytes("800035") << QVariant(QDate());
    QTest::newRow("year 32769") << QVariant(QDate(32769, 3, 5)) << Bytes("800135")
                                << QVariant(QDate(1, 3, 21));
    QTest::newRow("year 65537") << QVariant(QDate(65537, 3, 5)) << Bytes("000135")
                                << QVariant(QDate(1, 3, 5));
}

void TestMsgPackQtTypes::payloadsThatComeBackDifferent()
{
    QFETCH(QVariant, value);
    QFETCH(QByteArray, hex);
    QFETCH(QVariant, back);
    const Type &type = s_type(value);
    QCOMPARE(type.pack(value).toHex(), hex);
    QVERIFY(s_areSame(type.unpack(Bytes::fromHex(hex)), back));
}

void TestMsgPackQtTypes::everySecondOfTheDay()
{
    for (int second = 0; second < 24 * 3600; ++second) {
        const QTime time = QTime(0, 0).addSecs(second);
        const QTime back = unpack_qtime(pack_qtime(time)).toTime();
        QCOMPARE(back, QTime(time.hour() % 16, time.minute(), time.second()));
    }
}

void TestMsgPackQtTypes::everyDayOfSomeYears()
{
    for (QDate date(2023, 12, 1); date < QDate(2025, 2, 1); date = date.addDays(1)) {
        QCOMPARE(unpack_qdate(pack_qdate(date)).toDate(), date);
    }
}

void TestMsgPackQtTypes::zonesAreNotCarried()
{
    const QDate date(2024, 3, 5);
    const QTime time(10, 20, 30);
    const QDateTime dateTimes[] = {QDateTime(date, time, Qt::UTC), QDateTime(date, time, Qt::LocalTime),
                                   QDateTime(date, time, Qt::OffsetFromUTC, 5 * 3600)};
    for (const QDateTime &dateTime : dateTimes) {
        QCOMPARE(pack_qdatetime(dateTime).toHex(), Bytes("07e835a51e"));
    }
    const QDateTime back = unpack_qdatetime(Bytes::fromHex("07e835a51e")).toDateTime();
    QCOMPARE(back.timeSpec(), Qt::LocalTime);
    QCOMPARE(back.offsetFromUtc(), 5 * 3600 + 1800);
    QCOMPARE(back.date(), date);
    QCOMPARE(back.time(), time);
}

void TestMsgPackQtTypes::coloursOfOtherSpecsComeBackAsRgb()
{
    const QColor hsv = QColor::fromHsv(120, 255, 255, 128);
    QCOMPARE(pack_qcolor(hsv).toHex(), Bytes("00ff0080"));
    QCOMPARE(pack_qcolor(QColor::fromCmyk(0, 255, 255, 0)).toHex(), Bytes("ff0000ff"));
    QCOMPARE(unpack_qcolor(pack_qcolor(hsv)).value<QColor>(), QColor(0, 255, 0, 128));
    // Components of 16 bits lose their low byte and get the high one in its place.
    const QColor deep = QColor::fromRgba64(0x1234, 0x5678, 0x9abc, 0xdef0);
    QCOMPARE(unpack_qcolor(pack_qcolor(deep)).value<QColor>(),
             QColor::fromRgba64(0x1212, 0x5656, 0x9a9a, 0xdede));
    // What converts to a colour is one.
    QCOMPARE(pack_qcolor(QStringLiteral("#0102ff")).toHex(), Bytes("0102ffff"));
    QCOMPARE(pack_qcolor(QStringLiteral("red")).toHex(), Bytes("ff0000ff"));
}

void TestMsgPackQtTypes::numbersOfAnyFormat_data()
{
    QTest::addColumn<QByteArray>("hex");
    QTest::addColumn<int>("x");
    QTest::addColumn<int>("y");

    QTest::newRow("positive fixint, negative fixint") << Bytes("7fe0") << 127 << -32;
    QTest::newRow("uint 8, int 8") << Bytes("cc05d0fb") << 5 << -5;
    QTest::newRow("uint 16, int 16") << Bytes("cd0005d1fffb") << 5 << -5;
    QTest::newRow("uint 32, int 32") << Bytes("ce00000005d2fffffffb") << 5 << -5;
    QTest::newRow("uint 64, int 64") << Bytes("cf0000000000000005d3fffffffffffffffb") << 5 << -5;
    QTest::newRow("largest of uint 32 and 64")
        << Bytes("ce7fffffffcf000000007fffffff") << 2147483647 << 2147483647;
    QTest::newRow("extremes of int 64")
        << Bytes("d3ffffffff80000000d3000000007fffffff") << (-2147483647 - 1) << 2147483647;
    QTest::newRow("positive in signed formats") << Bytes("d005d10005") << 5 << 5;
    QTest::newRow("bytes behind them") << Bytes("0102c0ff") << 1 << 2;
}

void TestMsgPackQtTypes::numbersOfAnyFormat()
{
    QFETCH(QByteArray, hex);
    QFETCH(int, x);
    QFETCH(int, y);
    const Bytes payload = Bytes::fromHex(hex);
    QVERIFY(s_areSame(unpack_qpoint(payload), QPoint(x, y)));
    QVERIFY(s_areSame(unpack_qsize(payload), QSize(x, y)));
    if (!hex.startsWith("0102")) {
        QVERIFY(s_areSame(unpack_qrect(payload + payload), QRect(QPoint(x, y), QPoint(x, y))));
    }
}

void TestMsgPackQtTypes::unusableValuesAreOneZeroByte_data()
{
    QTest::addColumn<MsgPackPrivate::pack_user_f>("packer");
    QTest::addColumn<QVariant>("value");

    for (const Type &type : s_types()) {
        QTest::addRow("default %s", type.name) << type.pack << type.missing;
        QTest::addRow("null %s", type.name) << type.pack << QVariant(type.missing.userType(), nullptr);
        QTest::addRow("no variant for a %s", type.name) << type.pack << QVariant();
        QTest::addRow("text for a %s", type.name) << type.pack << QVariant("neither");
        QTest::addRow("list for a %s", type.name) << type.pack << QVariant(QVariantList{1, 2});
    }
    QTest::newRow("25 o'clock") << &pack_qtime << QVariant(QTime(25, 0));
    QTest::newRow("30th of February") << &pack_qdate << QVariant(QDate(2024, 2, 30));
    QTest::newRow("year 0") << &pack_qdate << QVariant(QDate(0, 1, 1));
    QTest::newRow("date-time without date") << &pack_qdatetime << QVariant(QDateTime(QDate(), QTime(1, 2)));
    QTest::newRow("origin") << &pack_qpoint << QVariant(QPoint(0, 0));
    QTest::newRow("negative width") << &pack_qsize << QVariant(QSize(-1, 5));
    QTest::newRow("negative height") << &pack_qsize << QVariant(QSize(5, -1));
    QTest::newRow("very negative size") << &pack_qsize << QVariant(QSize(-70000, -70000));
    QTest::newRow("left of its left") << &pack_qrect << QVariant(QRect(QPoint(1, 0), QPoint(0, 5)));
    QTest::newRow("above its top") << &pack_qrect << QVariant(QRect(QPoint(0, 1), QPoint(5, 0)));
    QTest::newRow("without width") << &pack_qrect << QVariant(QRect(3, 3, 0, 4));
    QTest::newRow("name that is no colour") << &pack_qcolor << QVariant(QColor("no colour at all"));
}

void TestMsgPackQtTypes::unusableValuesAreOneZeroByte()
{
    QFETCH(MsgPackPrivate::pack_user_f, packer);
    QFETCH(QVariant, value);
    QCOMPARE(packer(value).toHex(), Bytes("00"));
    // Qt has its say about texts that name no colour.
    for (const QString &line : m_log.take()) {
        QVERIFY2(line.startsWith("warning: QColor::"), qPrintable(line));
    }
}

void TestMsgPackQtTypes::oneByteIsTheDefault_data()
{
    QTest::addColumn<QVariant>("missing");
    for (const Type &type : s_types()) {
        QTest::newRow(type.name) << type.missing;
    }
}

void TestMsgPackQtTypes::oneByteIsTheDefault()
{
    QFETCH(QVariant, missing);
    for (int byte = 0; byte < 256; ++byte) {
        QVERIFY(s_areSame(s_type(missing).unpack(Bytes(1, static_cast<char>(byte))), missing));
    }
    QVERIFY(!unpack_qcolor("\x05").value<QColor>().isValid());
    QVERIFY(unpack_qtime("\x05").toTime().isNull());
    QVERIFY(unpack_qdate("\x05").toDate().isNull());
    QVERIFY(!unpack_qdatetime("\x05").toDateTime().isValid());
    QCOMPARE(unpack_qpoint("\x05").toPoint(), QPoint(0, 0));
    QCOMPARE(unpack_qsize("\x05").toSize(), QSize(-1, -1));
    QCOMPARE(unpack_qrect("\x05").toRect(), QRect(QPoint(0, 0), QPoint(-1, -1)));
}

void TestMsgPackQtTypes::payloadsOfOtherLengths_data()
{
    QTest::addColumn<QVariant>("expected");
    QTest::addColumn<QByteArray>("hex");

    for (const Type &type : s_types()) {
        QTest::addRow("empty %s", type.name) << type.missing << Bytes();
    }
    QTest::newRow("time of 3 bytes") << QVariant(QTime(10, 20, 30)) << Bytes("a51e01");
    QTest::newRow("time of 5 bytes") << QVariant(QTime(10, 20, 30)) << Bytes("a51e01c800");
    QTest::newRow("date of 2 bytes") << QVariant(QDate()) << Bytes("07e8");
    QTest::newRow("date of 4 bytes") << QVariant(QDate(2024, 3, 5)) << Bytes("07e835ff");
    QTest::newRow("date-time of 2 bytes") << QVariant(QDateTime()) << Bytes("07e8");
    QTest::newRow("date-time of 3 bytes") << QVariant(QDateTime()) << Bytes("07e835");
    QTest::newRow("date-time of 4 bytes") << QVariant(QDateTime()) << Bytes("07e835a5");
    QTest::newRow("date-time of 6 bytes")
        << QVariant(s_dateTime(2024, 3, 5, 10, 20, 30)) << Bytes("07e835a51e01");
    QTest::newRow("date-time of 8 bytes")
        << QVariant(s_dateTime(2024, 3, 5, 10, 20, 30)) << Bytes("07e835a51e01c800");
    QTest::newRow("colour of 2 bytes") << QVariant(QColor()) << Bytes("0102");
    QTest::newRow("colour of 3 bytes") << QVariant(QColor()) << Bytes("010203");
    QTest::newRow("colour of 5 bytes") << QVariant(QColor(1, 2, 3, 4)) << Bytes("0102030405");
}

// Copies into a block of exactly the payload's size, so that a sanitizer sees the first byte read beyond it.
static QVariant s_unpackExactly(unpack_user_f unpacker, const Bytes &payload)
{
    const QScopedArrayPointer<char> block(new char[size_t(payload.size())]);
    std::memcpy(block.data(), payload.constData(), size_t(payload.size()));
    return unpacker(Bytes::fromRawData(block.data(), payload.size()));
}

void TestMsgPackQtTypes::payloadsOfOtherLengths()
{
    QFETCH(QVariant, expected);
    QFETCH(QByteArray, hex);
    QVERIFY(s_areSame(s_unpackExactly(s_type(expected).unpack, Bytes::fromHex(hex)), expected));
}

void TestMsgPackQtTypes::fieldsThatAreNoTimeOrDate()
{
    QVERIFY(s_areSame(unpack_qtime(Bytes::fromHex("0f00")), QTime()));     // minute 60
    QVERIFY(s_areSame(unpack_qtime(Bytes::fromHex("003c")), QTime()));     // second 60
    QVERIFY(s_areSame(unpack_qtime(Bytes::fromHex("000003e8")), QTime())); // millisecond 1000
    QVERIFY(s_areSame(unpack_qtime(Bytes::fromHex("0000ffff")), QTime()));
    QVERIFY(s_areSame(unpack_qdate(Bytes::fromHex("07e800")), QDate())); // month 0, day 0
    QVERIFY(s_areSame(unpack_qdate(Bytes::fromHex("07e8d1")), QDate())); // month 13
    QVERIFY(s_areSame(unpack_qdate(Bytes::fromHex("87e82e")), QDate())); // 30th of February
    QVERIFY(s_areSame(unpack_qdate(Bytes::fromHex("000011")), QDate())); // year 0
    QVERIFY(!unpack_qdatetime(Bytes::fromHex("07e8d10000")).toDateTime().isValid());
}

void TestMsgPackQtTypes::numbersThatDoNotFit_data()
{
    QTest::addColumn<QByteArray>("number");

    QTest::newRow("missing") << Bytes();
    QTest::newRow("uint 8 cut short") << Bytes("cc");
    QTest::newRow("uint 16 cut short") << Bytes("cd01");
    QTest::newRow("uint 32 cut short") << Bytes("ce010203");
    QTest::newRow("uint 64 cut short") << Bytes("cf00000000000000");
    QTest::newRow("int 8 cut short") << Bytes("d0");
    QTest::newRow("int 16 cut short") << Bytes("d1ff");
    QTest::newRow("int 32 cut short") << Bytes("d2ffffff");
    QTest::newRow("int 64 cut short") << Bytes("d3ffffffffffffff");
    QTest::newRow("uint 32 above the range") << Bytes("ce80000000");
    QTest::newRow("largest uint 32") << Bytes("ceffffffff");
    QTest::newRow("uint 64 above the range") << Bytes("cf0000000080000000");
    QTest::newRow("uint 64 above 32 bits") << Bytes("cf0000000100000000");
    QTest::newRow("largest uint 64") << Bytes("cfffffffffffffffff");
    QTest::newRow("int 64 above the range") << Bytes("d30000000080000000");
    QTest::newRow("int 64 below the range") << Bytes("d3ffffffff7fffffff");
    QTest::newRow("smallest int 64") << Bytes("d38000000000000000");
    QTest::newRow("nil") << Bytes("c0");
    QTest::newRow("float") << Bytes("ca3f800000");
    QTest::newRow("text") << Bytes("a131");
    QTest::newRow("array") << Bytes("9101");
}

void TestMsgPackQtTypes::numbersThatDoNotFit()
{
    QFETCH(QByteArray, number);
    const Bytes bad = Bytes::fromHex(number);
    const Bytes good("\xCC\x01");
    QVERIFY(s_areSame(s_unpackExactly(&unpack_qpoint, good + bad), QPoint()));
    QVERIFY(s_areSame(s_unpackExactly(&unpack_qsize, good + bad), QSize()));
    QVERIFY(s_areSame(s_unpackExactly(&unpack_qrect, good + good + good + bad), QRect()));
    if (number.size() > 2) {
        QVERIFY(s_areSame(s_unpackExactly(&unpack_qpoint, bad), QPoint()));
        QVERIFY(s_areSame(s_unpackExactly(&unpack_qsize, bad), QSize()));
        QVERIFY(s_areSame(s_unpackExactly(&unpack_qrect, good + bad), QRect()));
    }
}

void TestMsgPackQtTypes::registeredTypesTravel()
{
    const struct {
        QMetaType::Type metatype;
        quint8 number;
    } rows[] = {{QMetaType::QDate, 14},  {QMetaType::QTime, 15},  {QMetaType::QDateTime, 16},
                {QMetaType::QRect, 127}, {QMetaType::QSize, 128}, {QMetaType::QPoint, 255},
                {QMetaType::QColor, 67}};
    for (const auto &row : rows) {
        QVERIFY(MsgPack::registerType(row.metatype, row.number));
        QCOMPARE(MsgPack::msgpackType(row.metatype), static_cast<qint8>(row.number));
    }
    QCOMPARE(MsgPack::pack(QDate(2024, 3, 5)).toHex(), Bytes("c7030e07e835"));
    QCOMPARE(MsgPack::pack(QTime(10, 20, 30)).toHex(), Bytes("d50fa51e"));
    QCOMPARE(MsgPack::pack(QTime(10, 20, 30, 456)).toHex(), Bytes("d60fa51e01c8"));
    QCOMPARE(MsgPack::pack(s_dateTime(2024, 3, 5, 10, 20, 30)).toHex(), Bytes("c7051007e835a51e"));
    QCOMPARE(MsgPack::pack(QRect(0, 0, 1, 1)).toHex(), Bytes("d67f00000000"));
    QCOMPARE(MsgPack::pack(QSize(1, 2)).toHex(), Bytes("d5800102"));
    QCOMPARE(MsgPack::pack(QPoint(1, -1)).toHex(), Bytes("d5ff01ff"));
    QCOMPARE(MsgPack::pack(QPoint()).toHex(), Bytes("d4ff00"));
    QCOMPARE(MsgPack::pack(QColor(255, 0, 0)).toHex(), Bytes("d643ff0000ff"));
    // A null variant of the type goes by its type.
    QCOMPARE(MsgPack::pack(QVariant(QMetaType::QTime, nullptr)).toHex(), Bytes("d40f00"));

    const QVariantList list{QDate(2024, 3, 5),
                            QTime(1, 2, 3, 4),
                            s_dateTime(2024, 3, 5, 1, 2, 3),
                            QRect(-1, -2, 30, 40),
                            QSize(70000, 5),
                            QPoint(-5, 5),
                            QColor(1, 2, 3, 4),
                            QDate(),
                            QTime(),
                            QDateTime(),
                            QRect(),
                            QSize(),
                            QPoint(),
                            QColor()};
    const QVariantList back = MsgPack::unpack(MsgPack::pack(list)).toList();
    QCOMPARE(back.size(), list.size());
    for (int i = 0; i < list.size(); ++i) {
        QVERIFY2(s_areSame(back.at(i), list.at(i)), list.at(i).typeName());
    }
}

void TestMsgPackQtTypes::secondRegistrationIsTrueAllTheSame()
{
    MsgPack::registerType(QMetaType::QColor, 67);
    m_log.take();
    QVERIFY(MsgPack::registerType(QMetaType::QColor, 67));
    QCOMPARE(m_log.take(), (QStringList{"warning: MsgPack::packer for qtype 67 already exist",
                                        "warning: MsgPack::unpacker for type 67 already exists"}));
    // Another number: the packer keeps its own, the unpacker of the new one is added.
    QVERIFY(MsgPack::registerType(QMetaType::QColor, 68));
    QCOMPARE(m_log.take(), QStringList{"warning: MsgPack::packer for qtype 67 already exist"});
    QCOMPARE(int(MsgPack::msgpackType(QMetaType::QColor)), 67);
    QCOMPARE(MsgPack::unpack(Bytes::fromHex("d644ff0000ff")).value<QColor>(), QColor(255, 0, 0));
    QCOMPARE(MsgPack::unpack(Bytes::fromHex("d643ff0000ff")).value<QColor>(), QColor(255, 0, 0));
}

void TestMsgPackQtTypes::takenNumberIsTrueAllTheSame()
{
    MsgPack::registerUnpacker(-100, [](const QByteArray &) { return QVariant("mine"); });
    MsgPack::registerType(QMetaType::QDate, 14);
    m_log.take();
    QVERIFY(MsgPack::registerType(QMetaType::QDate, quint8(256 - 100)));
    QCOMPARE(m_log.take(), (QStringList{"warning: MsgPack::packer for qtype 14 already exist",
                                        "warning: MsgPack::unpacker for type -100 already exists"}));
    QCOMPARE(MsgPack::unpack(Bytes::fromHex("c7039c07e835")), QVariant("mine"));
}

void TestMsgPackQtTypes::otherTypesAreRefused_data()
{
    QTest::addColumn<int>("metatype");
    QTest::newRow("hash") << int(QMetaType::QVariantHash);
    QTest::newRow("int") << int(QMetaType::Int);
    QTest::newRow("floating point") << int(QMetaType::QPointF);
    QTest::newRow("none") << int(QMetaType::UnknownType);
    QTest::newRow("font") << int(QMetaType::QFont);
}

void TestMsgPackQtTypes::otherTypesAreRefused()
{
    QFETCH(int, metatype);
    QVERIFY(!MsgPack::registerType(static_cast<QMetaType::Type>(metatype), 99));
    QCOMPARE(
        m_log.take(),
        (QStringList{QStringLiteral("warning: latrafli was built without metatype %1 support.").arg(metatype),
                     QStringLiteral("warning: Use MsgPack::registerPacker() and "
                                    "MsgPack::registerUnpacker() to register metatype %1 manually.")
                         .arg(metatype)}));
    QCOMPARE(int(MsgPack::msgpackType(metatype)), -1);
    QVERIFY(!MsgPack::unpack(Bytes::fromHex("d46300")).isValid());
    QCOMPARE(m_log.take(), QStringList{"warning: MsgPack::unpack() unpacker for type 99 doesn't exist"});
}

QTEST_APPLESS_MAIN(TestMsgPackQtTypes)
#include "tst_msgpack_qttypes.moc"
