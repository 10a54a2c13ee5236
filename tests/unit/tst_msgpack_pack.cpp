// Encoding of variants: the bytes of every format at its boundaries, the dispatch by type, user types and the
// log lines of what can't be packed.
#include "msgpack/msgpack.h"
#include "msgpack/pack_p.h"
#include "tests/unit/allocationcounter.h"
#include "tests/unit/logcollector.h"

#include <QDate>
#include <QRandomGenerator>
#include <QtTest>

#include <chrono>
#include <future>
#include <limits>

using Bytes = QByteArray;

class TestMsgPackPack : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    // Happy
    void version();
    void scalars_data();
    void scalars();
    void nullVariantsOfAType_data();
    void nullVariantsOfAType();
    void stringHeaders_data();
    void stringHeaders();
    void rawStringHeaders_data();
    void rawStringHeaders();
    void byteArrayHeaders_data();
    void byteArrayHeaders();
    void listHeaders_data();
    void listHeaders();
    void stringListHeaders_data();
    void stringListHeaders();
    void mapHeaders_data();
    void mapHeaders();
    void nestedValues();
    void mapGoesOutInKeyOrder();
    void textIsEncodedAsQtEncodesIt_data();
    void textIsEncodedAsQtEncodesIt();
    void randomTexts();
    void compatibilityModeChangesOnlyTextAndBytes_data();
    void compatibilityModeChangesOnlyTextAndBytes();
    void compatibilityModeReachesNestedValues();
    void resultIsAllocatedOnce();

    // User types
    void payloadHeaders_data();
    void payloadHeaders();
    void nullPayloadIsAnEmptyOne();
    void extensionTypeIsSigned_data();
    void extensionTypeIsSigned();
    void packerRunsOncePerValueInOrder();
    void manyUserValues();
    void packerMayPack();
    void packerMaySwitchTheMode_data();
    void packerMaySwitchTheMode();
    void packerMayRegister();
    void packerRunsWithoutLock();
    void registryIsReadByManyAtOnce();
    void packerOfABuiltInIdIsFoundByTheId();
    void packerOfARowOfItsOwnIsNotAsked();

    // Rainy
    void typesWithoutAPacker_data();
    void typesWithoutAPacker();
    void unregisteredTypeHasNoNumber();
    void failingElementIsCountedButMissing();
    void failingMapValueLeavesItsKey();
    void failingValuesDoNotShiftPayloads();
    void secondPackerIsRefused();
    void nullPackerIsStoredAndFails();

private:
    LogCollector m_log;
};

struct Blob {
    Bytes payload;
};
Q_DECLARE_METATYPE(Blob)

template <int N>
struct Tagged {
    int value = 0;
};
using Numbered = Tagged<0>;
using Packing = Tagged<1>;
using Registering = Tagged<2>;
using Registered = Tagged<3>;
using Twice = Tagged<4>;
using Never = Tagged<5>;
using Hollow = Tagged<6>;
using Missing = Tagged<7>;
using Looking = Tagged<8>;
using Switching = Tagged<9>;
Q_DECLARE_METATYPE(Numbered)
Q_DECLARE_METATYPE(Packing)
Q_DECLARE_METATYPE(Registering)
Q_DECLARE_METATYPE(Registered)
Q_DECLARE_METATYPE(Twice)
Q_DECLARE_METATYPE(Never)
Q_DECLARE_METATYPE(Hollow)
Q_DECLARE_METATYPE(Missing)
Q_DECLARE_METATYPE(Looking)
Q_DECLARE_METATYPE(Switching)

// Compatibility mode for a scope.
class CompatibilityMode
{
public:
    CompatibilityMode() { MsgPack::setCompatibilityModeEnabled(true); }
    ~CompatibilityMode() { MsgPack::setCompatibilityModeEnabled(false); }
};

static QByteArray s_packBlob(const QVariant &value)
{
    return value.value<Blob>().payload;
}

static QVariant s_blob(const Bytes &payload)
{
    return QVariant::fromValue(Blob{payload});
}

static void s_registerBlob()
{
    static const bool registered = MsgPack::registerPacker(qMetaTypeId<Blob>(), 0x2A, &s_packBlob);
    QVERIFY(registered);
}

static QStringList s_cannotPack(int metatype)
{
    return {QStringLiteral("warning: MsgPack::pack can't pack type: %1").arg(metatype)};
}

static Bytes s_hex(const Bytes &hex)
{
    return Bytes::fromHex(hex);
}

void TestMsgPackPack::init()
{
    m_log.start();
}

void TestMsgPackPack::cleanup()
{
    QCOMPARE(m_log.finish(), QStringList());
}

void TestMsgPackPack::version()
{
    QCOMPARE(MsgPack::version(), QStringLiteral("0.1.0"));
}

void TestMsgPackPack::scalars_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QByteArray>("hex");

    QTest::newRow("invalid variant") << QVariant() << Bytes("c0");
    QTest::newRow("null pointer type") << QVariant::fromValue(nullptr) << Bytes("c0");
    QTest::newRow("false") << QVariant(false) << Bytes("c2");
    QTest::newRow("true") << QVariant(true) << Bytes("c3");

    const struct {
        int value;
        const char *hex;
    } ints[] = {
        {0, "00"},
        {1, "01"},
        {5, "05"},
        {127, "7f"},
        {128, "cc80"},
        {129, "cc81"},
        {254, "ccfe"},
        {255, "ccff"},
        {256, "cd0100"},
        {257, "cd0101"},
        {32767, "cd7fff"},
        {32768, "cd8000"},
        {65535, "cdffff"},
        {65536, "ce00010000"},
        {16777216, "ce01000000"},
        {2147483647, "ce7fffffff"},
        {-1, "ff"},
        {-2, "fe"},
        {-31, "e1"},
        {-32, "e0"},
        {-33, "d0df"},
        {-127, "d081"},
        {-128, "d080"},
        {-129, "d1ff7f"},
        {-255, "d1ff01"},
        {-256, "d1ff00"},
        {-257, "d1feff"},
        {-32767, "d18001"},
        {-32768, "d18000"},
        {-32769, "d2ffff7fff"},
        {-65535, "d2ffff0001"},
        {-65536, "d2ffff0000"},
        {-65537, "d2fffeffff"},
        {std::numeric_limits<int>::min(), "d280000000"},
    };
    for (const auto &row : ints) {
        QTest::addRow("int %d", row.value) << QVariant(row.value) << Bytes(row.hex);
    }

    const struct {
        quint32 value;
        const char *hex;
    } uints[] = {
        {0, "00"},
        {1, "01"},
        {127, "7f"},
        {128, "cc80"},
        {255, "ccff"},
        {256, "cd0100"},
        {65535, "cdffff"},
        {65536, "ce00010000"},
        {0x7fffffffU, "ce7fffffff"},
        {0x80000000U, "ce80000000"},
        {0xffffffffU, "ceffffffff"},
    };
    for (const auto &row : uints) {
        QTest::addRow("unsigned int %u", row.value) << QVariant(row.value) << Bytes(row.hex);
    }

    const struct {
        qint64 value;
        const char *hex;
    } longs[] = {
        {0, "00"},
        {127, "7f"},
        {128, "cc80"},
        {255, "ccff"},
        {256, "cd0100"},
        {65535, "cdffff"},
        {65536, "ce00010000"},
        {2147483647, "ce7fffffff"},
        {2147483648LL, "ce80000000"},
        {4294967295LL, "ceffffffff"},
        {4294967296LL, "d30000000100000000"},
        {4294967297LL, "d30000000100000001"},
        {std::numeric_limits<qint64>::max(), "d37fffffffffffffff"},
        {-1, "ff"},
        {-32, "e0"},
        {-33, "d0df"},
        {-128, "d080"},
        {-129, "d1ff7f"},
        {-32768, "d18000"},
        {-32769, "d2ffff7fff"},
        {-2147483647LL, "d280000001"},
        {-2147483648LL, "d280000000"},
        {-2147483649LL, "d3ffffffff7fffffff"},
        {-4294967296LL, "d3ffffffff00000000"},
        {std::numeric_limits<qint64>::min(), "d38000000000000000"},
    };
    for (const auto &row : longs) {
        QTest::addRow("long long %lld", row.value) << QVariant(row.value) << Bytes(row.hex);
    }

    const struct {
        quint64 value;
        const char *hex;
    } ulongs[] = {
        {0, "00"},
        {127, "7f"},
        {128, "cc80"},
        {255, "ccff"},
        {256, "cd0100"},
        {65535, "cdffff"},
        {65536, "ce00010000"},
        {4294967295ULL, "ceffffffff"},
        {4294967296ULL, "cf0000000100000000"},
        {9223372036854775807ULL, "cf7fffffffffffffff"},
        {9223372036854775808ULL, "cf8000000000000000"},
        {18446744073709551615ULL, "cfffffffffffffffff"},
    };
    for (const auto &row : ulongs) {
        QTest::addRow("unsigned long long %llu", row.value) << QVariant(row.value) << Bytes(row.hex);
    }

    const double infinity = std::numeric_limits<double>::infinity();
    QTest::newRow("float 0") << QVariant(0.0F) << Bytes("ca00000000");
    QTest::newRow("float minus 0") << QVariant(-0.0F) << Bytes("ca80000000");
    QTest::newRow("float 1") << QVariant(1.0F) << Bytes("ca3f800000");
    QTest::newRow("float minus 2.5") << QVariant(-2.5F) << Bytes("cac0200000");
    QTest::newRow("float denormal") << QVariant(std::numeric_limits<float>::denorm_min())
                                    << Bytes("ca00000001");
    QTest::newRow("float infinity") << QVariant(float(infinity)) << Bytes("ca7f800000");
    QTest::newRow("double 0") << QVariant(0.0) << Bytes("cb0000000000000000");
    QTest::newRow("double 1 is not narrowed") << QVariant(1.0) << Bytes("cb3ff0000000000000");
    QTest::newRow("double 5 is not an integer") << QVariant(5.0) << Bytes("cb4014000000000000");
    QTest::newRow("double 0.1") << QVariant(0.1) << Bytes("cb3fb999999999999a");
    QTest::newRow("double minus infinity") << QVariant(-infinity) << Bytes("cbfff0000000000000");
    QTest::newRow("double not a number")
        << QVariant(std::numeric_limits<double>::quiet_NaN()) << Bytes("cb7ff8000000000000");

    QTest::newRow("empty text") << QVariant(QString("")) << Bytes("a0");
    QTest::newRow("text") << QVariant(QStringLiteral("x")) << Bytes("a178");
    QTest::newRow("text with a zero") << QVariant(QString(QChar(0))) << Bytes("a100");
    QTest::newRow("bytes") << QVariant(s_hex("00ff80")) << Bytes("c40300ff80");
}

void TestMsgPackPack::scalars()
{
    QFETCH(QVariant, value);
    QFETCH(QByteArray, hex);
    QCOMPARE(MsgPack::pack(value).toHex(), hex);
}

void TestMsgPackPack::nullVariantsOfAType_data()
{
    QTest::addColumn<int>("metatype");
    QTest::addColumn<QByteArray>("hex");

    QTest::newRow("bool") << int(QMetaType::Bool) << Bytes("c2");
    QTest::newRow("int") << int(QMetaType::Int) << Bytes("00");
    QTest::newRow("unsigned int") << int(QMetaType::UInt) << Bytes("00");
    QTest::newRow("long long") << int(QMetaType::LongLong) << Bytes("00");
    QTest::newRow("unsigned long long") << int(QMetaType::ULongLong) << Bytes("00");
    QTest::newRow("float") << int(QMetaType::Float) << Bytes("ca00000000");
    QTest::newRow("double") << int(QMetaType::Double) << Bytes("cb0000000000000000");
    QTest::newRow("text") << int(QMetaType::QString) << Bytes("a0");
    QTest::newRow("bytes") << int(QMetaType::QByteArray) << Bytes("c400");
    QTest::newRow("list") << int(QMetaType::QVariantList) << Bytes("90");
    QTest::newRow("string list") << int(QMetaType::QStringList) << Bytes("90");
    QTest::newRow("map") << int(QMetaType::QVariantMap) << Bytes("80");
}

void TestMsgPackPack::nullVariantsOfAType()
{
    QFETCH(int, metatype);
    QFETCH(QByteArray, hex);
    const QVariant value(static_cast<QVariant::Type>(metatype));
    QVERIFY(value.isNull());
    QVERIFY(value.isValid());
    QCOMPARE(MsgPack::pack(value).toHex(), hex);
}

void TestMsgPackPack::stringHeaders_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QByteArray>("normal");
    QTest::addColumn<QByteArray>("compatible");

    QTest::newRow("empty") << 0 << Bytes("a0") << Bytes("a0");
    QTest::newRow("1 byte") << 1 << Bytes("a1") << Bytes("a1");
    QTest::newRow("largest of one header byte") << 31 << Bytes("bf") << Bytes("bf");
    QTest::newRow("smallest of str 8") << 32 << Bytes("d920") << Bytes("da0020");
    QTest::newRow("127 bytes") << 127 << Bytes("d97f") << Bytes("da007f");
    QTest::newRow("128 bytes") << 128 << Bytes("d980") << Bytes("da0080");
    QTest::newRow("largest of str 8") << 255 << Bytes("d9ff") << Bytes("da00ff");
    QTest::newRow("smallest of str 16") << 256 << Bytes("da0100") << Bytes("da0100");
    QTest::newRow("largest of str 16") << 65535 << Bytes("daffff") << Bytes("daffff");
    QTest::newRow("smallest of str 32") << 65536 << Bytes("db00010000") << Bytes("db00010000");
}

// The header of the current row before the bytes, in both modes.
static void s_checkHeaders(const QVariant &value, const Bytes &body)
{
    QFETCH(QByteArray, normal);
    QFETCH(QByteArray, compatible);
    QVERIFY(MsgPack::pack(value) == Bytes::fromHex(normal) + body);
    const CompatibilityMode on;
    QVERIFY(MsgPack::pack(value) == Bytes::fromHex(compatible) + body);
}

void TestMsgPackPack::stringHeaders()
{
    QFETCH(int, size);
    s_checkHeaders(QString(size, QLatin1Char('x')), Bytes(size, 'x'));
}

void TestMsgPackPack::rawStringHeaders_data()
{
    stringHeaders_data();
}

// Any bytes go out as they are; the mode is the one that is told, else the process's.
void TestMsgPackPack::rawStringHeaders()
{
    QFETCH(int, size);
    QFETCH(QByteArray, normal);
    QFETCH(QByteArray, compatible);
    const Bytes text(size, '\xFF');
    const auto count = static_cast<quint32>(size);
    const auto packed = [&](auto... mode) {
        Bytes bytes(size + 16, '\x55');
        const auto first = reinterpret_cast<MsgPackPrivate::position_t>(bytes.data());
        const auto end = MsgPackPrivate::pack_string_raw(text.constData(), count, first, true, mode...);
        const Bytes behind = bytes.mid(static_cast<int>(end - first));
        bytes.truncate(static_cast<int>(end - first));
        const auto counted = MsgPackPrivate::pack_string_raw(text.constData(), count, 7, false, mode...);
        return counted == end - first + 7 && behind.count('\x55') == behind.size() ? bytes
                                                                                   : Bytes("wrong size");
    };
    QVERIFY(packed() == Bytes::fromHex(normal) + text);
    QVERIFY(packed(true) == Bytes::fromHex(compatible) + text);
    const CompatibilityMode on;
    QVERIFY(packed() == Bytes::fromHex(compatible) + text);
    QVERIFY(packed(false) == Bytes::fromHex(normal) + text);
}

void TestMsgPackPack::byteArrayHeaders_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QByteArray>("normal");
    QTest::addColumn<QByteArray>("compatible");

    QTest::newRow("empty") << 0 << Bytes("c400") << Bytes("d900");
    QTest::newRow("1 byte") << 1 << Bytes("c401") << Bytes("d901");
    // Short byte arrays take the 8-bit text header in compatibility mode, which texts of that mode avoid.
    QTest::newRow("31 bytes") << 31 << Bytes("c41f") << Bytes("d91f");
    QTest::newRow("32 bytes") << 32 << Bytes("c420") << Bytes("d920");
    QTest::newRow("largest of bin 8") << 255 << Bytes("c4ff") << Bytes("d9ff");
    QTest::newRow("smallest of bin 16") << 256 << Bytes("c50100") << Bytes("da0100");
    QTest::newRow("largest of bin 16") << 65535 << Bytes("c5ffff") << Bytes("daffff");
    QTest::newRow("smallest of bin 32") << 65536 << Bytes("c600010000") << Bytes("db00010000");
}

void TestMsgPackPack::byteArrayHeaders()
{
    QFETCH(int, size);
    s_checkHeaders(Bytes(size, '\xA5'), Bytes(size, '\xA5'));
}

static void s_countRows(const Bytes &fix0, const Bytes &fix15, const Bytes &short16, const Bytes &short65535,
                        const Bytes &long65536)
{
    QTest::addColumn<int>("count");
    QTest::addColumn<QByteArray>("header");

    QTest::newRow("empty") << 0 << fix0;
    QTest::newRow("largest of one header byte") << 15 << fix15;
    QTest::newRow("smallest 16-bit count") << 16 << short16;
    QTest::newRow("largest 16-bit count") << 65535 << short65535;
    QTest::newRow("smallest 32-bit count") << 65536 << long65536;
}

void TestMsgPackPack::listHeaders_data()
{
    s_countRows("90", "9f", "dc0010", "dcffff", "dd00010000");
}

void TestMsgPackPack::listHeaders()
{
    QFETCH(int, count);
    QFETCH(QByteArray, header);
    QVariantList list;
    Bytes body;
    for (int i = 0; i < count; ++i) {
        list << (i % 128);
        body += static_cast<char>(i % 128);
    }
    QVERIFY(MsgPack::pack(list) == s_hex(header) + body);
}

void TestMsgPackPack::stringListHeaders_data()
{
    s_countRows("90", "9f", "dc0010", "dcffff", "dd00010000");
}

void TestMsgPackPack::stringListHeaders()
{
    QFETCH(int, count);
    QFETCH(QByteArray, header);
    QStringList list;
    Bytes body;
    for (int i = 0; i < count; ++i) {
        list << QString(QLatin1Char(static_cast<char>('a' + i % 26)));
        body += '\xA1';
        body += static_cast<char>('a' + i % 26);
    }
    QVERIFY(MsgPack::pack(list) == s_hex(header) + body);
}

void TestMsgPackPack::mapHeaders_data()
{
    s_countRows("80", "8f", "de0010", "deffff", "df00010000");
}

void TestMsgPackPack::mapHeaders()
{
    QFETCH(int, count);
    QFETCH(QByteArray, header);
    QVariantMap map;
    Bytes body;
    for (int i = 0; i < count; ++i) {
        const QString key = QString::number(i).rightJustified(5, QLatin1Char('0'));
        map.insert(key, true);
        body += '\xA5' + key.toLatin1() + '\xC3';
    }
    QVERIFY(MsgPack::pack(map) == s_hex(header) + body);
}

void TestMsgPackPack::nestedValues()
{
    const QVariantMap inner{{"b", QVariantList{1, -1, QVariant()}}, {"a", QStringList{"x", ""}}};
    const QVariantList outer{inner, QVariantList(), QVariantMap(), s_hex("00"), 1.0F};
    QCOMPARE(MsgPack::pack(outer).toHex(), Bytes("95"
                                                 "82a16192a178a0a1629301ffc0"
                                                 "90"
                                                 "80"
                                                 "c40100"
                                                 "ca3f800000"));
}

void TestMsgPackPack::mapGoesOutInKeyOrder()
{
    QVariantMap map;
    map.insert("b", 2);
    map.insert("", 0);
    map.insert("aa", 4);
    map.insert("Z", 5);
    map.insert("a", 1);
    map.insert("c", 3);
    QCOMPARE(MsgPack::pack(map).toHex(), Bytes("86a000a15a05a16101a2616104a16202a16303"));
}

void TestMsgPackPack::textIsEncodedAsQtEncodesIt_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("hex"); // the expected bytes where they are worth showing

    const QChar high(0xD83D);
    const QChar low(0xDE00);
    QTest::newRow("two bytes a letter") << QString(QChar(0xE9)) << Bytes("a2c3a9");
    QTest::newRow("three bytes a sign") << QString(QChar(0x20AC)) << Bytes("a3e282ac");
    QTest::newRow("surrogate pair") << (QString(high) + low) << Bytes("a4f09f9880");
    QTest::newRow("lone high surrogate") << QString(high) << Bytes("a13f");
    QTest::newRow("lone low surrogate") << QString(low) << Bytes("a13f");
    QTest::newRow("surrogates the wrong way round") << (QString(low) + high) << Bytes("a23f3f");
    QTest::newRow("lone surrogate inside") << ("a" + QString(high) + "b") << Bytes("a3613f62");
    QTest::newRow("byte order mark") << QString(QChar(0xFEFF)) << Bytes("a3efbbbf");
    QTest::newRow("not a character") << QString(QChar(0xFFFF)) << Bytes("a3efbfbf");
    // The header counts encoded bytes: 16 letters of two bytes each no longer fit one header byte.
    QTest::newRow("31 bytes of 16 letters")
        << (QString(15, QChar(0xE9)) + "x") << ("bf" + QString(15, QChar(0xE9)).toUtf8().toHex() + "78");
    QTest::newRow("32 bytes of 16 letters")
        << QString(16, QChar(0xE9)) << ("d920" + QString(16, QChar(0xE9)).toUtf8().toHex());
}

void TestMsgPackPack::textIsEncodedAsQtEncodesIt()
{
    QFETCH(QString, text);
    QFETCH(QByteArray, hex);
    QCOMPARE(MsgPack::pack(text).toHex(), hex);
    QVERIFY(MsgPack::pack(text).endsWith(text.toUtf8()));
    // The same rules for a text in a string list and for a key.
    QCOMPARE(MsgPack::pack(QStringList(text)).toHex(), "91" + hex);
    QCOMPARE(MsgPack::pack(QVariantMap{{text, QVariant()}}).toHex(), "81" + hex + "c0");
}

// Units at every boundary of UTF-8 and of the surrogates, in texts long enough for any shortcut that plain
// ones may be written by.
void TestMsgPackPack::randomTexts()
{
    const ushort units[] = {'a',    'b',    0x00,   0x7F,   0x80,   0xFF,   0x7FF,  0x800,  0xD7FF,
                            0xD800, 0xDBFF, 0xDC00, 0xDFFF, 0xE000, 0xFEFF, 0xFFFD, 0xFFFE, 0xFFFF};
    QRandomGenerator random(20240305);
    for (int round = 0; round < 50000; ++round) {
        QString text;
        for (int count = random.bounded(12); count >= 0; --count) {
            const QChar unit(units[random.bounded(int(std::size(units)))]);
            text += QString(random.bounded(8) == 0 ? 20 : 1, unit);
        }
        const Bytes utf8 = text.toUtf8();
        const auto size = static_cast<char>(utf8.size());
        const Bytes header = utf8.size() < 32    ? Bytes(1, static_cast<char>(0xA0 + size))
                             : utf8.size() < 256 ? Bytes("\xD9") + size
                                                 : Bytes("\xDA") + static_cast<char>(utf8.size() >> 8) + size;
        QVERIFY2(MsgPack::pack(text) == header + utf8, utf8.toHex().constData());
    }
}

void TestMsgPackPack::compatibilityModeChangesOnlyTextAndBytes_data()
{
    QTest::addColumn<QVariant>("value");

    s_registerBlob();
    QTest::newRow("nil") << QVariant();
    QTest::newRow("bool") << QVariant(true);
    QTest::newRow("int 128") << QVariant(128);
    QTest::newRow("int -33") << QVariant(-33);
    QTest::newRow("long long") << QVariant(qint64(1) << 40);
    QTest::newRow("unsigned long long") << QVariant(quint64(1) << 40);
    QTest::newRow("float") << QVariant(1.0F);
    QTest::newRow("double") << QVariant(1.0);
    QTest::newRow("short text") << QVariant(QString(31, QLatin1Char('x')));
    QTest::newRow("long text") << QVariant(QString(256, QLatin1Char('x')));
    QTest::newRow("list of 16") << QVariant(QVariantList(QVector<QVariant>(16).toList()));
    QTest::newRow("map") << QVariant(QVariantMap{{"a", 1}});
    QTest::newRow("extension of 0 bytes") << s_blob(Bytes());
    QTest::newRow("extension of 40 bytes") << s_blob(Bytes(40, 'x'));
    QTest::newRow("extension of 300 bytes") << s_blob(Bytes(300, 'x'));
}

void TestMsgPackPack::compatibilityModeChangesOnlyTextAndBytes()
{
    QFETCH(QVariant, value);
    const Bytes normal = MsgPack::pack(value);
    QVERIFY(!normal.isEmpty());
    const CompatibilityMode on;
    QCOMPARE(MsgPack::pack(value).toHex(), normal.toHex());
}

void TestMsgPackPack::compatibilityModeReachesNestedValues()
{
    const QString key(32, QLatin1Char('k'));
    const QVariant value = QVariantMap{{key, QVariantList{s_hex("01"), QStringList{key}}}};
    const Bytes keyHex = Bytes(32, 'k').toHex();
    {
        const CompatibilityMode on;
        QCOMPARE(MsgPack::pack(value).toHex(), "81da0020" + keyHex + "92d9010191da0020" + keyHex);
    }
    QCOMPARE(MsgPack::pack(value).toHex(), "81d920" + keyHex + "92c4010191d920" + keyHex);
}

void TestMsgPackPack::resultIsAllocatedOnce()
{
    const QVariant value(Bytes(1000000, 'x'));
    const AllocationCounter allocated;
    const Bytes packed = MsgPack::pack(value);
    QVERIFY2(allocated.bytes() < 1000000 + 4096, qPrintable(QString::number(allocated.bytes())));
    QCOMPARE(packed.size(), 1000005);
}

void TestMsgPackPack::payloadHeaders_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QByteArray>("header");

    QTest::newRow("empty") << 0 << Bytes("c7002a");
    QTest::newRow("fixext 1") << 1 << Bytes("d42a");
    QTest::newRow("fixext 2") << 2 << Bytes("d52a");
    QTest::newRow("3 bytes") << 3 << Bytes("c7032a");
    QTest::newRow("fixext 4") << 4 << Bytes("d62a");
    QTest::newRow("5 bytes") << 5 << Bytes("c7052a");
    QTest::newRow("7 bytes") << 7 << Bytes("c7072a");
    QTest::newRow("fixext 8") << 8 << Bytes("d72a");
    QTest::newRow("9 bytes") << 9 << Bytes("c7092a");
    QTest::newRow("15 bytes") << 15 << Bytes("c70f2a");
    QTest::newRow("fixext 16") << 16 << Bytes("d82a");
    QTest::newRow("17 bytes") << 17 << Bytes("c7112a");
    QTest::newRow("32 bytes") << 32 << Bytes("c7202a");
    QTest::newRow("largest of ext 8") << 255 << Bytes("c7ff2a");
    QTest::newRow("smallest of ext 16") << 256 << Bytes("c801002a");
    QTest::newRow("largest of ext 16") << 65535 << Bytes("c8ffff2a");
    QTest::newRow("smallest of ext 32") << 65536 << Bytes("c9000100002a");
}

void TestMsgPackPack::payloadHeaders()
{
    QFETCH(int, size);
    QFETCH(QByteArray, header);
    s_registerBlob();
    const Bytes payload(size, '\x5A');
    QVERIFY(MsgPack::pack(s_blob(payload)) == s_hex(header) + payload);
}

void TestMsgPackPack::nullPayloadIsAnEmptyOne()
{
    s_registerBlob();
    QCOMPARE(MsgPack::pack(s_blob(Bytes())).toHex(), Bytes("c7002a"));
    QCOMPARE(MsgPack::pack(QVariantList{s_blob(Bytes()), s_blob("a")}).toHex(), Bytes("92c7002ad42a61"));
}

void TestMsgPackPack::extensionTypeIsSigned_data()
{
    QTest::addColumn<int>("number");
    QTest::addColumn<QByteArray>("hex");

    QTest::newRow("0") << 0 << Bytes("d400");
    QTest::newRow("127") << 127 << Bytes("d47f");
    QTest::newRow("-1") << -1 << Bytes("d4ff");
    QTest::newRow("-128") << -128 << Bytes("d480");
}

void TestMsgPackPack::extensionTypeIsSigned()
{
    QFETCH(int, number);
    QFETCH(QByteArray, hex);
    // Any id may be registered; these belong to Qt types without a packer of their own.
    static const QHash<int, int> ids{
        {0, QMetaType::UShort}, {127, QMetaType::ULong}, {-1, QMetaType::UChar}, {-128, QMetaType::SChar}};
    const int metatype = ids.value(number);
    QVERIFY(MsgPack::registerPacker(metatype, qint8(number), [](const QVariant &) { return Bytes("!"); }));
    QCOMPARE(int(MsgPack::msgpackType(metatype)), number);
    QCOMPARE(MsgPack::pack(QVariant(metatype, nullptr)).toHex(), hex + "21");
}

void TestMsgPackPack::packerRunsOncePerValueInOrder()
{
    static int calls = 0;
    QVERIFY(MsgPack::registerPacker(qMetaTypeId<Numbered>(), 3, [](const QVariant &value) {
        ++calls;
        return Bytes::number(value.value<Numbered>().value) + char('a' + calls - 1);
    }));
    const auto numbered = [](int value) {
        return QVariant::fromValue(Numbered{value});
    };

    const QVariantMap map{{"z", numbered(4)}, {"y", numbered(3)}};
    const QVariantList list{numbered(1), QVariantList{numbered(2), 9}, map, numbered(5)};
    QCOMPARE(MsgPack::pack(list).toHex(), Bytes("94"
                                                "d5033161"
                                                "92d503326209"
                                                "82a179d5033363a17ad5033464"
                                                "d5033565"));
    QCOMPARE(calls, 5);
    // Nothing is carried over into the next call.
    QCOMPARE(MsgPack::pack(numbered(7)).toHex(), Bytes("d5033766"));
    QCOMPARE(calls, 6);
}

void TestMsgPackPack::manyUserValues()
{
    s_registerBlob();
    QVariantList blobs;
    Bytes expected = s_hex("dc03e8");
    for (int i = 1000; i < 2000; ++i) {
        const Bytes payload = Bytes::number(i);
        blobs << s_blob(payload);
        expected += "\xD6\x2A" + payload;
    }
    QVERIFY(MsgPack::pack(blobs) == expected);
}

void TestMsgPackPack::packerMayPack()
{
    s_registerBlob();
    QVERIFY(MsgPack::registerPacker(qMetaTypeId<Packing>(), 4, [](const QVariant &value) {
        return MsgPack::pack(QVariantList{value.value<Packing>().value, s_blob("b")});
    }));
    const QVariantList list{s_blob("a"), QVariant::fromValue(Packing{1}), s_blob("c")};
    QCOMPARE(MsgPack::pack(list).toHex(), Bytes("93d42a61c7050492"
                                                "01d42a62"
                                                "d42a63"));
}

void TestMsgPackPack::packerMaySwitchTheMode_data()
{
    QTest::addColumn<bool>("before");
    QTest::newRow("on") << false;
    QTest::newRow("off") << true;
}

// The whole of a value goes out in the mode that it was begun in.
void TestMsgPackPack::packerMaySwitchTheMode()
{
    QFETCH(bool, before);
    static bool after;
    after = !before;
    static const bool registered = MsgPack::registerPacker(qMetaTypeId<Switching>(), 9, [](const QVariant &) {
        MsgPack::setCompatibilityModeEnabled(after);
        return MsgPack::pack(s_hex("05"));
    });
    QVERIFY(registered);
    const QString text(32, QLatin1Char('x'));
    const QVariantList values{text, s_hex("01"), QStringList{text}, QVariantMap{{text, text}}};
    const QVariant list = QVariantList{values, QVariant::fromValue(Switching()), values};
    const auto expected = [](bool compatible) {
        const Bytes textHex = (compatible ? "da0020" : "d920") + Bytes(32, 'x').toHex();
        return "94" + textHex + (compatible ? "d90101" : "c40101") + "91" + textHex + "81" + textHex +
               textHex;
    };
    MsgPack::setCompatibilityModeEnabled(before);
    const Bytes packed = MsgPack::pack(list);
    const Bytes packedAfter = MsgPack::pack(values);
    MsgPack::setCompatibilityModeEnabled(false);
    const Bytes inner = after ? "c70309d90105" : "c70309c40105";
    QCOMPARE(packed.toHex(), "93" + expected(before) + inner + expected(before));
    QCOMPARE(packedAfter.toHex(), expected(after));
}

void TestMsgPackPack::packerMayRegister()
{
    QVERIFY(MsgPack::registerPacker(qMetaTypeId<Registering>(), 5, [](const QVariant &) {
        const bool added = MsgPack::registerPacker(qMetaTypeId<Registered>(), 6,
                                                   [](const QVariant &) { return Bytes("r"); });
        return Bytes(added ? "+" : "-");
    }));
    QCOMPARE(int(MsgPack::msgpackType(qMetaTypeId<Registered>())), -1);
    QCOMPARE(MsgPack::pack(QVariant::fromValue(Registering())).toHex(), Bytes("d4052b"));
    QCOMPARE(int(MsgPack::msgpackType(qMetaTypeId<Registered>())), 6);
    QCOMPARE(MsgPack::pack(QVariant::fromValue(Registered())).toHex(), Bytes("d40672"));
}

void TestMsgPackPack::packerRunsWithoutLock()
{
    QVERIFY(MsgPack::registerPacker(qMetaTypeId<Looking>(), 9, [](const QVariant &) {
        const bool isFree = MsgPackPrivate::packers_lock.tryLockForWrite();
        if (isFree) {
            MsgPackPrivate::packers_lock.unlock();
        }
        return Bytes(isFree ? "free" : "held");
    }));
    QCOMPARE(MsgPack::pack(QVariant::fromValue(Looking())), Bytes("\xD6\x09"
                                                                  "free"));
}

void TestMsgPackPack::registryIsReadByManyAtOnce()
{
    s_registerBlob();
    MsgPackPrivate::packers_lock.lockForRead();
    auto packing = std::async(std::launch::async, []() { return MsgPack::pack(s_blob("a")); });
    const bool waited = packing.wait_for(std::chrono::seconds(5)) == std::future_status::timeout;
    MsgPackPrivate::packers_lock.unlock();
    QVERIFY(!waited);
    QCOMPARE(packing.get().toHex(), Bytes("d42a61"));
}

void TestMsgPackPack::packerOfABuiltInIdIsFoundByTheId()
{
    QCOMPARE(MsgPack::pack(QVariant(QMetaType::QUrl, nullptr)), Bytes());
    QCOMPARE(m_log.take(), s_cannotPack(QMetaType::QUrl));
    QVERIFY(MsgPack::registerPacker(QMetaType::QUrl, 7,
                                    [](const QVariant &value) { return value.toString().toUtf8(); }));
    QCOMPARE(MsgPack::pack(QUrl("a:b")).toHex(), Bytes("c70307613a62"));
}

void TestMsgPackPack::packerOfARowOfItsOwnIsNotAsked()
{
    QVERIFY(MsgPack::registerPacker(QMetaType::Int, 8, [](const QVariant &) { return Bytes("no"); }));
    QCOMPARE(int(MsgPack::msgpackType(QMetaType::Int)), 8);
    QCOMPARE(MsgPack::pack(1).toHex(), Bytes("01"));
}

void TestMsgPackPack::typesWithoutAPacker_data()
{
    QTest::addColumn<int>("metatype");

    QTest::newRow("character") << 7;
    QTest::newRow("date") << 14;
    QTest::newRow("time") << 15;
    QTest::newRow("date-time") << 16;
    QTest::newRow("rectangle") << 19;
    QTest::newRow("size") << 21;
    QTest::newRow("point") << 25;
    QTest::newRow("hash") << 28;
    QTest::newRow("void pointer") << 31;
    QTest::newRow("long") << 32;
    QTest::newRow("short") << 33;
    QTest::newRow("char") << 34;
    QTest::newRow("object pointer") << 39;
    QTest::newRow("variant") << 41;
    QTest::newRow("json value") << 45;
    QTest::newRow("own type") << qMetaTypeId<Missing>();
}

void TestMsgPackPack::typesWithoutAPacker()
{
    QFETCH(int, metatype);
    const QVariant value(metatype, nullptr);
    QCOMPARE(value.userType(), metatype);
    QCOMPARE(MsgPack::pack(value), Bytes());
    QCOMPARE(m_log.take(), s_cannotPack(metatype));
    QCOMPARE(int(MsgPack::msgpackType(metatype)), -1);
}

void TestMsgPackPack::unregisteredTypeHasNoNumber()
{
    QCOMPARE(int(MsgPack::msgpackType(0)), -1);
    QCOMPARE(int(MsgPack::msgpackType(-5)), -1);
    QCOMPARE(int(MsgPack::msgpackType(qMetaTypeId<Missing>())), -1);
    QCOMPARE(int(MsgPack::msgpackType(std::numeric_limits<int>::max())), -1);
}

void TestMsgPackPack::failingElementIsCountedButMissing()
{
    const QVariant missing = QVariant::fromValue(Missing());
    const int id = qMetaTypeId<Missing>();
    QCOMPARE(MsgPack::pack(QVariantList{1, missing, 2}).toHex(), Bytes("930102"));
    QCOMPARE(m_log.take(), s_cannotPack(id));
    QCOMPARE(MsgPack::pack(QVariantList{missing}).toHex(), Bytes("91"));
    QCOMPARE(m_log.take(), s_cannotPack(id));
    QCOMPARE(MsgPack::pack(QVariantList{QVariantList{missing}, 1}).toHex(), Bytes("929101"));
    QCOMPARE(m_log.take(), s_cannotPack(id));
    const QVariantList two{missing, 1, QVariant(QMetaType::QVariantHash, nullptr)};
    QCOMPARE(MsgPack::pack(two).toHex(), Bytes("9301"));
    QCOMPARE(m_log.take(), s_cannotPack(id) + s_cannotPack(QMetaType::QVariantHash));
}

void TestMsgPackPack::failingMapValueLeavesItsKey()
{
    const QVariantMap map{{"a", 1}, {"b", QVariant::fromValue(Missing())}, {"c", 3}};
    QCOMPARE(MsgPack::pack(map).toHex(), Bytes("83a16101a162a16303"));
    QCOMPARE(m_log.take(), s_cannotPack(qMetaTypeId<Missing>()));
}

void TestMsgPackPack::failingValuesDoNotShiftPayloads()
{
    s_registerBlob();
    const QVariant missing = QVariant::fromValue(Missing());
    const QVariantList list{missing,    s_blob("a"), missing, s_blob("bb"), QVariantMap{{"k", missing}},
                            s_blob("c")};
    QCOMPARE(MsgPack::pack(list).toHex(), Bytes("96d42a61d52a626281a16bd42a63"));
    const QStringList line = s_cannotPack(qMetaTypeId<Missing>());
    QCOMPARE(m_log.take(), line + line + line);
}

void TestMsgPackPack::secondPackerIsRefused()
{
    const int id = qMetaTypeId<Twice>();
    QVERIFY(MsgPack::registerPacker(id, 10, [](const QVariant &) { return Bytes("1"); }));
    QVERIFY(!MsgPack::registerPacker(id, 11, [](const QVariant &) { return Bytes("2"); }));
    QCOMPARE(m_log.take(),
             QStringList{QStringLiteral("warning: MsgPack::packer for qtype %1 already exist").arg(id)});
    QCOMPARE(int(MsgPack::msgpackType(id)), 10);
    QCOMPARE(MsgPack::pack(QVariant::fromValue(Twice())).toHex(), Bytes("d40a31"));
    // A null packer is a second registration like any other.
    QVERIFY(!MsgPack::registerPacker(id, 12, nullptr));
    QCOMPARE(m_log.take(),
             QStringList{QStringLiteral("warning: MsgPack::packer for qtype %1 already exist").arg(id)});
}

void TestMsgPackPack::nullPackerIsStoredAndFails()
{
    const int id = qMetaTypeId<Hollow>();
    QVERIFY(MsgPack::registerPacker(id, 12, nullptr));
    QCOMPARE(int(MsgPack::msgpackType(id)), 12);
    const QVariant hollow = QVariant::fromValue(Hollow());
    QCOMPARE(MsgPack::pack(hollow), Bytes());
    QCOMPARE(m_log.take(), s_cannotPack(id));
    QCOMPARE(MsgPack::pack(QVariantList{1, hollow}).toHex(), Bytes("9201"));
    QCOMPARE(m_log.take(), s_cannotPack(id));
    QVERIFY(!MsgPack::registerPacker(id, 12, [](const QVariant &) { return Bytes("2"); }));
    QCOMPARE(m_log.take(),
             QStringList{QStringLiteral("warning: MsgPack::packer for qtype %1 already exist").arg(id)});
}

QTEST_APPLESS_MAIN(TestMsgPackPack)
#include "tst_msgpack_pack.moc"
