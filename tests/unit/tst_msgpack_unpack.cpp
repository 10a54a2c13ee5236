// Decoding to variants: the type and value of every format at its boundaries, keys, the holders that are used
// again, extension types, and what input that runs short comes to.
#include "msgpack/msgpack.h"
#include "msgpack/unpack_p.h"
#include "tests/unit/logcollector.h"
#include "tests/unit/variantnotation.h"

#include <QDate>
#include <QRandomGenerator>
#include <QVector>
#include <QtTest>

#include <cstring>

using Bytes = QByteArray;

class TestMsgPackUnpack : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    // Happy
    void singleValues_data();
    void singleValues();
    void everyOneByteValue();
    void textHeaders_data();
    void textHeaders();
    void byteArrayHeaders_data();
    void byteArrayHeaders();
    void arrayHeaders_data();
    void arrayHeaders();
    void mapHeaders_data();
    void mapHeaders();
    void extensionHeaders_data();
    void extensionHeaders();
    void keysBecomeText_data();
    void keysBecomeText();
    void laterKeyReplacesEarlierOne();
    void mapKeepsKeysInOrder();
    void concatenatedValuesBecomeAList_data();
    void concatenatedValuesBecomeAList();
    void resultDoesNotAliasTheInput();
    void packedIntegersComeBackByFormat_data();
    void packedIntegersComeBackByFormat();

    // Extensions
    void unpackerGetsThePayload_data();
    void unpackerGetsThePayload();
    void unpackerMayPack();
    void unpackerRunsUnderTheReadLock();
    void whoeverHandlesAWarningFindsTheLockFree();
    void unpackersResultIsStored_data();
    void unpackersResultIsStored();

    // Rainy
    void unknownExtension_data();
    void unknownExtension();
    void everyUnknownExtensionType();
    void holderIsUsedAgain_data();
    void holderIsUsedAgain();
    void malformedText_data();
    void malformedText();
    void everyShortText();
    void randomTexts();
    void inputThatRunsShort_data();
    void inputThatRunsShort();
    void everyCutOfAVariedMessage();
    void everyCutOfConcatenatedValues();
    void payloadThatRunsShortReachesNoUnpacker();
    void secondUnpackerIsRefused();
    void nullUnpackerIsRefused();

private:
    LogCollector m_log;
};

static const qint8 s_recordingType = 0x2A;
static const qint8 s_nilType = 0x2B;
static const qint8 s_dateType = 0x2C;
static const qint8 s_packingType = 0x2D;
static QList<QByteArray> s_payloads;

static QVariant s_record(const QByteArray &payload)
{
    s_payloads << payload;
    return QStringLiteral("ext %1").arg(payload.size());
}

static void s_registerUnpackers()
{
    static const bool registered =
        MsgPack::registerUnpacker(s_recordingType, &s_record) &&
        MsgPack::registerUnpacker(s_nilType, [](const QByteArray &) { return QVariant(); }) &&
        MsgPack::registerUnpacker(s_dateType,
                                  [](const QByteArray &) { return QVariant(QDate(2024, 3, 5)); }) &&
        MsgPack::registerUnpacker(s_packingType,
                                  [](const QByteArray &payload) { return QVariant(MsgPack::pack(payload)); });
    QVERIFY(registered);
}

static Bytes s_hex(const char *hex)
{
    return Bytes::fromHex(hex);
}

static QString s_unpacked(const Bytes &bytes)
{
    return VariantNotation::notation(MsgPack::unpack(bytes));
}

static QString s_unknown(int type)
{
    return QStringLiteral("warning: MsgPack::unpack() unpacker for type %1 doesn't exist").arg(type);
}

void TestMsgPackUnpack::init()
{
    m_log.start();
    s_registerUnpackers();
    s_payloads.clear();
}

void TestMsgPackUnpack::cleanup()
{
    QCOMPARE(m_log.finish(), QStringList());
}

static void s_row(const char *hex, const char *expected)
{
    QTest::newRow(hex) << Bytes(hex) << QString::fromLatin1(expected);
}

static void s_columns()
{
    QTest::addColumn<QByteArray>("hex");
    QTest::addColumn<QString>("expected");
}

void TestMsgPackUnpack::singleValues_data()
{
    s_columns();
    QTest::newRow("empty input") << Bytes() << "[]";
    s_row("c0", "nil");
    s_row("c1", "nil");
    s_row("c2", "false");
    s_row("c3", "true");

    // Every unsigned format up to 32 bits is a UInt, every signed one an Int, whatever the value.
    s_row("05", "u5");
    s_row("cc00", "u0");
    s_row("cc05", "u5");
    s_row("cc7f", "u127");
    s_row("cc80", "u128");
    s_row("ccff", "u255");
    s_row("cd0000", "u0");
    s_row("cd00ff", "u255");
    s_row("cd0100", "u256");
    s_row("cd7fff", "u32767");
    s_row("cd8000", "u32768");
    s_row("cdffff", "u65535");
    s_row("ce00000000", "u0");
    s_row("ce0000ffff", "u65535");
    s_row("ce00010000", "u65536");
    s_row("ce7fffffff", "u2147483647");
    s_row("ce80000000", "u2147483648");
    s_row("ceffffffff", "u4294967295");
    s_row("ce01020304", "u16909060");
    s_row("cf0000000000000000", "ull0");
    s_row("cf0000000000000005", "ull5");
    s_row("cf00000000ffffffff", "ull4294967295");
    s_row("cf0000000100000000", "ull4294967296");
    s_row("cf0102030405060708", "ull72623859790382856");
    s_row("cf7fffffffffffffff", "ull9223372036854775807");
    s_row("cf8000000000000000", "ull9223372036854775808");
    s_row("cfffffffffffffffff", "ull18446744073709551615");

    s_row("ff", "i-1");
    s_row("d000", "i0");
    s_row("d005", "i5");
    s_row("d07f", "i127");
    s_row("d080", "i-128");
    s_row("d0ff", "i-1");
    s_row("d10000", "i0");
    s_row("d100ff", "i255");
    s_row("d17fff", "i32767");
    s_row("d18000", "i-32768");
    s_row("d1ff7f", "i-129");
    s_row("d1ffff", "i-1");
    s_row("d200000000", "i0");
    s_row("d20000ffff", "i65535");
    s_row("d27fffffff", "i2147483647");
    s_row("d280000000", "i-2147483648");
    s_row("d2ffff7fff", "i-32769");
    s_row("d2ffffffff", "i-1");
    s_row("d30000000000000000", "ll0");
    s_row("d30000000000000005", "ll5");
    s_row("d30102030405060708", "ll72623859790382856");
    s_row("d37fffffffffffffff", "ll9223372036854775807");
    s_row("d38000000000000000", "ll-9223372036854775808");
    s_row("d3ffffffff7fffffff", "ll-2147483649");
    s_row("d3ffffffffffffffff", "ll-1");

    s_row("ca00000000", "f00000000");
    s_row("ca80000000", "f80000000");
    s_row("ca3f800000", "f3f800000");
    s_row("cac0200000", "fc0200000");
    s_row("ca7f800000", "f7f800000");
    s_row("ca7fc00001", "f7fc00001");
    s_row("ca00000001", "f00000001");
    s_row("cb0000000000000000", "d0000000000000000");
    s_row("cb3ff0000000000000", "d3ff0000000000000");
    s_row("cb8000000000000000", "d8000000000000000");
    s_row("cbfff0000000000000", "dfff0000000000000");
    s_row("cb7ff8000000000001", "d7ff8000000000001");
    s_row("cb3fb999999999999a", "d3fb999999999999a");

    s_row("a0", "\"\"");
    s_row("a178", "\"x\"");
    s_row("a100", "\"\\u0000\"");
    s_row("a2c3a9", "\"\\u00e9\"");
    s_row("a4f09f9880", "\"\\ud83d\\ude00\"");
    s_row("d900", "\"\"");
    s_row("d90178", "\"x\"");
    s_row("da0000", "\"\"");
    s_row("da000178", "\"x\"");
    s_row("db00000000", "\"\"");
    s_row("db0000000178", "\"x\"");
    s_row("c400", "h''");
    s_row("c40200ff", "h'00ff'");
    s_row("c50000", "h''");
    s_row("c5000200ff", "h'00ff'");
    s_row("c600000000", "h''");
    s_row("c60000000200ff", "h'00ff'");

    s_row("90", "[]");
    s_row("9105", "[u5]");
    s_row("93c001a178", "[nil, u1, \"x\"]");
    s_row("dc0000", "[]");
    s_row("dc000205ff", "[u5, i-1]");
    s_row("dd00000000", "[]");
    s_row("dd0000000205ff", "[u5, i-1]");
    s_row("9190", "[[]]");
    s_row("9291019102", "[[u1], [u2]]");
    s_row("93c1c1c1", "[nil, nil, nil]");
    s_row("80", "{}");
    s_row("81a16105", "{\"a\": u5}");
    s_row("82a16105a162c0", "{\"a\": u5, \"b\": nil}");
    s_row("de0000", "{}");
    s_row("de0001a16105", "{\"a\": u5}");
    s_row("df00000000", "{}");
    s_row("df00000001a16105", "{\"a\": u5}");
    s_row("81a16181a162910a", "{\"a\": {\"b\": [u10]}}");
}

void TestMsgPackUnpack::singleValues()
{
    QFETCH(QByteArray, hex);
    QFETCH(QString, expected);
    QCOMPARE(s_unpacked(Bytes::fromHex(hex)), expected);
}

void TestMsgPackUnpack::everyOneByteValue()
{
    for (int byte = 0x00; byte <= 0x7f; ++byte) {
        QCOMPARE(s_unpacked(Bytes(1, static_cast<char>(byte))), QStringLiteral("u%1").arg(byte));
    }
    for (int byte = 0xe0; byte <= 0xff; ++byte) {
        QCOMPARE(s_unpacked(Bytes(1, static_cast<char>(byte))), QStringLiteral("i%1").arg(byte - 256));
    }
}

static void s_sizeColumns()
{
    QTest::addColumn<QByteArray>("header");
    QTest::addColumn<int>("size");
}

void TestMsgPackUnpack::textHeaders_data()
{
    s_sizeColumns();
    QTest::newRow("fixstr, largest") << Bytes("bf") << 31;
    QTest::newRow("str 8, 32") << Bytes("d920") << 32;
    QTest::newRow("str 8, 128") << Bytes("d980") << 128;
    QTest::newRow("str 8, largest") << Bytes("d9ff") << 255;
    QTest::newRow("str 16, shorter than need be") << Bytes("da001f") << 31;
    QTest::newRow("str 16, 256") << Bytes("da0100") << 256;
    QTest::newRow("str 16, 32768") << Bytes("da8000") << 32768;
    QTest::newRow("str 16, largest") << Bytes("daffff") << 65535;
    QTest::newRow("str 32, 65536") << Bytes("db00010000") << 65536;
}

void TestMsgPackUnpack::textHeaders()
{
    QFETCH(QByteArray, header);
    QFETCH(int, size);
    const QVariant value = MsgPack::unpack(Bytes::fromHex(header) + Bytes(size, 'x'));
    QCOMPARE(value.userType(), int(QMetaType::QString));
    QVERIFY(value.toString() == QString(size, QLatin1Char('x')));
}

void TestMsgPackUnpack::byteArrayHeaders_data()
{
    s_sizeColumns();
    QTest::newRow("bin 8, 128") << Bytes("c480") << 128;
    QTest::newRow("bin 8, largest") << Bytes("c4ff") << 255;
    QTest::newRow("bin 16, shorter than need be") << Bytes("c500ff") << 255;
    QTest::newRow("bin 16, 256") << Bytes("c50100") << 256;
    QTest::newRow("bin 16, largest") << Bytes("c5ffff") << 65535;
    QTest::newRow("bin 32, 65536") << Bytes("c600010000") << 65536;
}

void TestMsgPackUnpack::byteArrayHeaders()
{
    QFETCH(QByteArray, header);
    QFETCH(int, size);
    const QVariant value = MsgPack::unpack(Bytes::fromHex(header) + Bytes(size, '\xA5'));
    QCOMPARE(value.userType(), int(QMetaType::QByteArray));
    QVERIFY(value.toByteArray() == Bytes(size, '\xA5'));
}

void TestMsgPackUnpack::arrayHeaders_data()
{
    s_sizeColumns();
    QTest::newRow("fixarray, largest") << Bytes("9f") << 15;
    QTest::newRow("array 16, 16") << Bytes("dc0010") << 16;
    QTest::newRow("array 16, 256") << Bytes("dc0100") << 256;
    QTest::newRow("array 16, largest") << Bytes("dcffff") << 65535;
    QTest::newRow("array 32, 65536") << Bytes("dd00010000") << 65536;
}

void TestMsgPackUnpack::arrayHeaders()
{
    QFETCH(QByteArray, header);
    QFETCH(int, size);
    const QVariant value = MsgPack::unpack(Bytes::fromHex(header) + Bytes(size - 1, '\x07') + '\xff');
    QCOMPARE(value.userType(), int(QMetaType::QVariantList));
    const QVariantList list = value.toList();
    QCOMPARE(list.size(), size);
    QCOMPARE(list.first(), QVariant(7U));
    QCOMPARE(list.last(), QVariant(-1));
}

void TestMsgPackUnpack::mapHeaders_data()
{
    s_sizeColumns();
    QTest::newRow("fixmap, largest") << Bytes("8f") << 15;
    QTest::newRow("map 16, 16") << Bytes("de0010") << 16;
    QTest::newRow("map 16, largest") << Bytes("deffff") << 65535;
    QTest::newRow("map 32, 65536") << Bytes("df00010000") << 65536;
}

void TestMsgPackUnpack::mapHeaders()
{
    QFETCH(QByteArray, header);
    QFETCH(int, size);
    Bytes bytes = Bytes::fromHex(header);
    for (int i = 0; i < size; ++i) {
        bytes += '\xCE' + Bytes::fromHex(Bytes::number(i, 16).rightJustified(8, '0')) + '\xC3';
    }
    const QVariant value = MsgPack::unpack(bytes);
    QCOMPARE(value.userType(), int(QMetaType::QVariantMap));
    const QVariantMap map = value.toMap();
    QCOMPARE(map.size(), size);
    QVERIFY(map.contains(QStringLiteral("0")));
    QVERIFY(map.contains(QString::number(size - 1)));
}

void TestMsgPackUnpack::extensionHeaders_data()
{
    s_sizeColumns();
    QTest::newRow("fixext 1") << Bytes("d42a") << 1;
    QTest::newRow("fixext 2") << Bytes("d52a") << 2;
    QTest::newRow("fixext 4") << Bytes("d62a") << 4;
    QTest::newRow("fixext 8") << Bytes("d72a") << 8;
    QTest::newRow("fixext 16") << Bytes("d82a") << 16;
    QTest::newRow("ext 8, empty") << Bytes("c7002a") << 0;
    QTest::newRow("ext 8, 1") << Bytes("c7012a") << 1;
    QTest::newRow("ext 8, 3") << Bytes("c7032a") << 3;
    QTest::newRow("ext 8, largest") << Bytes("c7ff2a") << 255;
    QTest::newRow("ext 16, empty") << Bytes("c800002a") << 0;
    QTest::newRow("ext 16, 256") << Bytes("c801002a") << 256;
    QTest::newRow("ext 16, largest") << Bytes("c8ffff2a") << 65535;
    QTest::newRow("ext 32, empty") << Bytes("c9000000002a") << 0;
    QTest::newRow("ext 32, 65536") << Bytes("c9000100002a") << 65536;
}

void TestMsgPackUnpack::extensionHeaders()
{
    QFETCH(QByteArray, header);
    QFETCH(int, size);
    const Bytes payload(size, '\x5A');
    // The value behind the extension shows where the decoder went on.
    QCOMPARE(s_unpacked("\x92" + Bytes::fromHex(header) + payload + '\x05'),
             QStringLiteral("[\"ext %1\", u5]").arg(size));
    QCOMPARE(s_payloads, QList<QByteArray>{payload});
}

void TestMsgPackUnpack::keysBecomeText_data()
{
    QTest::addColumn<QByteArray>("key");
    QTest::addColumn<QString>("expected");

    QTest::newRow("text") << Bytes("a178") << "x";
    QTest::newRow("empty text") << Bytes("a0") << "";
    QTest::newRow("text of str 32") << Bytes("db0000000178") << "x";
    QTest::newRow("positive fixint") << Bytes("01") << "1";
    QTest::newRow("negative fixint") << Bytes("ff") << "-1";
    QTest::newRow("uint 8") << Bytes("ccff") << "255";
    QTest::newRow("uint 32") << Bytes("ceffffffff") << "4294967295";
    QTest::newRow("uint 64") << Bytes("cfffffffffffffffff") << "18446744073709551615";
    QTest::newRow("int 8") << Bytes("d080") << "-128";
    QTest::newRow("int 32") << Bytes("d280000000") << "-2147483648";
    QTest::newRow("int 64") << Bytes("d38000000000000000") << "-9223372036854775808";
    QTest::newRow("float 32") << Bytes("ca3fc00000") << "1.5";
    QTest::newRow("float 32, tenth") << Bytes("ca3dcccccd") << QVariant(0.1F).toString();
    QTest::newRow("float 64") << Bytes("cb3ff8000000000000") << "1.5";
    QTest::newRow("float 64, tenth") << Bytes("cb3fb999999999999a") << QVariant(0.1).toString();
    QTest::newRow("false") << Bytes("c2") << "false";
    QTest::newRow("true") << Bytes("c3") << "true";
    QTest::newRow("bytes") << Bytes("c402c3a9") << QString(QChar(0xE9));
    QTest::newRow("nil") << Bytes("c0") << "";
    QTest::newRow("never used") << Bytes("c1") << "";
    QTest::newRow("array") << Bytes("9101") << "";
    QTest::newRow("array of one text") << Bytes("91a178") << "";
    QTest::newRow("map") << Bytes("81a178a179") << "";
    QTest::newRow("extension with a text") << Bytes("c7032c000000") << "2024-03-05";
    QTest::newRow("extension decoded to nil") << Bytes("d42b00") << "";
}

void TestMsgPackUnpack::keysBecomeText()
{
    QFETCH(QByteArray, key);
    QFETCH(QString, expected);
    QCOMPARE(s_unpacked(s_hex("81") + Bytes::fromHex(key) + s_hex("a176")),
             "{" + VariantNotation::text(expected) + ": \"v\"}");
}

void TestMsgPackUnpack::laterKeyReplacesEarlierOne()
{
    QCOMPARE(s_unpacked(s_hex("82a16101a16102")), QStringLiteral("{\"a\": u2}"));
    QCOMPARE(s_unpacked(s_hex("83a131010102cc0103")), QStringLiteral("{\"1\": u3}"));
    QCOMPARE(s_unpacked(s_hex("83c001a002900a")), QStringLiteral("{\"\": u10}"));
    QCOMPARE(s_unpacked(s_hex("82a161a178a161c0")), QStringLiteral("{\"a\": nil}"));
}

void TestMsgPackUnpack::mapKeepsKeysInOrder()
{
    QCOMPARE(s_unpacked(s_hex("85a16303a1620290000a05a15ac3")),
             QStringLiteral("{\"\": u0, \"10\": u5, \"Z\": true, \"b\": u2, \"c\": u3}"));
}

void TestMsgPackUnpack::concatenatedValuesBecomeAList_data()
{
    s_columns();
    s_row("0102", "[u1, u2]");
    s_row("c0c0", "[nil, nil]");
    s_row("9090", "[[], []]");
    s_row("920102c3", "[[u1, u2], true]");
    s_row("05c1", "[u5, nil]");
    s_row("81a16101a17805", "[{\"a\": u1}, \"x\", u5]");
    s_row("01d42a0002", "[u1, \"ext 1\", u2]");
}

void TestMsgPackUnpack::concatenatedValuesBecomeAList()
{
    QFETCH(QByteArray, hex);
    QFETCH(QString, expected);
    QCOMPARE(s_unpacked(Bytes::fromHex(hex)), expected);
}

void TestMsgPackUnpack::resultDoesNotAliasTheInput()
{
    char buffer[] = "\x93\xA1x\xC4\x01y\xD4\x2Az";
    const QVariant value = MsgPack::unpack(Bytes::fromRawData(buffer, int(sizeof buffer) - 1));
    std::memset(buffer, 0, sizeof buffer);
    QCOMPARE(VariantNotation::notation(value), QStringLiteral("[\"x\", h'79', \"ext 1\"]"));
    QCOMPARE(s_payloads, QList<QByteArray>{"z"});
}

void TestMsgPackUnpack::packedIntegersComeBackByFormat_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("expected");

    QTest::newRow("positive int") << QVariant(5) << "u5";
    QTest::newRow("negative int") << QVariant(-5) << "i-5";
    QTest::newRow("large int") << QVariant(2147483647) << "u2147483647";
    QTest::newRow("small long long") << QVariant(qint64(5)) << "u5";
    QTest::newRow("negative long long") << QVariant(qint64(-5)) << "i-5";
    QTest::newRow("large long long") << QVariant(qint64(4294967296)) << "ll4294967296";
    QTest::newRow("small unsigned long long") << QVariant(quint64(5)) << "u5";
    QTest::newRow("large unsigned long long") << QVariant(quint64(4294967296)) << "ull4294967296";
}

void TestMsgPackUnpack::packedIntegersComeBackByFormat()
{
    QFETCH(QVariant, value);
    QFETCH(QString, expected);
    QCOMPARE(s_unpacked(MsgPack::pack(value)), expected);
}

void TestMsgPackUnpack::unpackerGetsThePayload_data()
{
    QTest::addColumn<QByteArray>("hex");
    QTest::addColumn<QList<QByteArray>>("payloads");
    QTest::addColumn<QString>("expected");

    using Payloads = QList<QByteArray>;
    QTest::newRow("top level") << Bytes("d52a0102") << Payloads{s_hex("0102")} << "\"ext 2\"";
    QTest::newRow("in an array") << Bytes("92d42a01d52a0203") << Payloads{s_hex("01"), s_hex("0203")}
                                 << "[\"ext 1\", \"ext 2\"]";
    QTest::newRow("key and value") << Bytes("81d42a01d52a0203") << Payloads{s_hex("01"), s_hex("0203")}
                                   << "{\"ext 1\": \"ext 2\"}";
    // What looks like MessagePack inside a payload is the unpacker's affair.
    QTest::newRow("looks like an array") << Bytes("d52a9201") << Payloads{s_hex("9201")} << "\"ext 2\"";
}

void TestMsgPackUnpack::unpackerGetsThePayload()
{
    QFETCH(QByteArray, hex);
    QFETCH(QList<QByteArray>, payloads);
    QFETCH(QString, expected);
    QCOMPARE(s_unpacked(Bytes::fromHex(hex)), expected);
    QCOMPARE(s_payloads, payloads);
}

void TestMsgPackUnpack::unpackerMayPack()
{
    QCOMPARE(s_unpacked(s_hex("91d52d0102")), QStringLiteral("[h'c4020102']"));
}

// Whoever registers waits for it; whoever unpacks on another thread does not.
void TestMsgPackUnpack::unpackerRunsUnderTheReadLock()
{
    QVERIFY(MsgPack::registerUnpacker(-9, [](const QByteArray &) {
        QReadWriteLock &lock = MsgPackPrivate::unpackers_lock;
        const bool canWrite = lock.tryLockForWrite();
        const bool canRead = !canWrite && lock.tryLockForRead();
        if (canWrite || canRead) {
            lock.unlock();
        }
        return QVariant(canWrite ? "free" : canRead ? "held for reading" : "held for writing");
    }));
    QCOMPARE(s_unpacked(s_hex("d4f700")), QStringLiteral("\"held for reading\""));
    QVERIFY(MsgPackPrivate::unpackers_lock.tryLockForWrite());
    MsgPackPrivate::unpackers_lock.unlock();
}

void TestMsgPackUnpack::whoeverHandlesAWarningFindsTheLockFree()
{
    static int free = 0;
    const QtMessageHandler previous =
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {
            if (MsgPackPrivate::unpackers_lock.tryLockForWrite()) {
                ++free;
                MsgPackPrivate::unpackers_lock.unlock();
            }
        });
    MsgPack::unpack(Bytes::fromHex("d46000"));
    MsgPack::registerUnpacker(s_recordingType, [](const QByteArray &) { return QVariant(); });
    qInstallMessageHandler(previous);
    QCOMPARE(free, 2);
}

void TestMsgPackUnpack::unpackersResultIsStored_data()
{
    s_columns();
    // An unpacker that answers nil has answered: this is not the unknown type, which leaves the holder alone.
    s_row("9205d42b00", "[u5, nil]");
    s_row("93a178d42b0005", "[\"x\", nil, u5]");
    s_row("82a16105a162d42b00", "{\"a\": u5, \"b\": nil}");
    s_row("d42b00", "nil");
    s_row("d42c00", "<QDate>");
}

void TestMsgPackUnpack::unpackersResultIsStored()
{
    QFETCH(QByteArray, hex);
    QFETCH(QString, expected);
    QCOMPARE(s_unpacked(Bytes::fromHex(hex)), expected);
}

void TestMsgPackUnpack::unknownExtension_data()
{
    QTest::addColumn<QByteArray>("hex");
    QTest::addColumn<int>("type");

    QTest::newRow("fixext 1") << Bytes("d41100") << 17;
    QTest::newRow("fixext 2") << Bytes("d5110000") << 17;
    QTest::newRow("fixext 4") << Bytes("d61100000000") << 17;
    QTest::newRow("fixext 8") << Bytes("d7110000000000000000") << 17;
    QTest::newRow("fixext 16") << Bytes("d81100000000000000000000000000000000") << 17;
    QTest::newRow("ext 8, empty") << Bytes("c70011") << 17;
    QTest::newRow("ext 8") << Bytes("c70311000000") << 17;
    QTest::newRow("ext 16") << Bytes("c8000311000000") << 17;
    QTest::newRow("ext 32") << Bytes("c90000000311000000") << 17;
    QTest::newRow("negative type") << Bytes("d4ff00") << -1;
    QTest::newRow("lowest type") << Bytes("d48000") << -128;
    QTest::newRow("highest type") << Bytes("d47f00") << 127;
    QTest::newRow("type 0") << Bytes("d40000") << 0;
}

void TestMsgPackUnpack::unknownExtension()
{
    QFETCH(QByteArray, hex);
    QFETCH(int, type);
    const Bytes bytes = Bytes::fromHex(hex);
    QCOMPARE(s_unpacked(bytes), QStringLiteral("nil"));
    QCOMPARE(m_log.take(), QStringList{s_unknown(type)});
    // Skipped to its last byte.
    QCOMPARE(s_unpacked(s_hex("93c3") + bytes + s_hex("05")), QStringLiteral("[true, true, u5]"));
    QCOMPARE(m_log.take(), QStringList{s_unknown(type)});
}

void TestMsgPackUnpack::everyUnknownExtensionType()
{
    for (int byte = 0; byte < 256; ++byte) {
        if ((byte >= s_recordingType && byte <= s_packingType) || byte == 0xF7) {
            continue; // these have an unpacker
        }
        const int type = byte < 128 ? byte : byte - 256;
        QCOMPARE(s_unpacked(s_hex("d4") + static_cast<char>(byte) + '\0'), QStringLiteral("nil"));
        QCOMPARE(m_log.take(), QStringList{s_unknown(type)});
    }
}

void TestMsgPackUnpack::holderIsUsedAgain_data()
{
    QTest::addColumn<QByteArray>("hex");
    QTest::addColumn<int>("unknown"); // how many extensions of the unknown type 17 are met
    QTest::addColumn<QString>("expected");

    QTest::newRow("second element repeats the first") << Bytes("9205d41100") << 1 << "[u5, u5]";
    QTest::newRow("first element is nil") << Bytes("92d4110005") << 1 << "[nil, u5]";
    QTest::newRow("only element is nil") << Bytes("91d41100") << 1 << "[nil]";
    QTest::newRow("run of them") << Bytes("9405d41100d41100d41100") << 3 << "[u5, u5, u5, u5]";
    QTest::newRow("after nil") << Bytes("9305c0d41100") << 1 << "[u5, nil, nil]";
    QTest::newRow("after the never used byte") << Bytes("9305c1d41100") << 1 << "[u5, nil, nil]";
    QTest::newRow("after an array") << Bytes("929105d41100") << 1 << "[[u5], [u5]]";
    QTest::newRow("after a map") << Bytes("9281a16105d41100") << 1 << "[{\"a\": u5}, {\"a\": u5}]";
    QTest::newRow("inner array has its own holder") << Bytes("920591d41100") << 1 << "[u5, [nil]]";
    QTest::newRow("outer holder is the inner array, not its element")
        << Bytes("93910507d41100") << 1 << "[[u5], u7, u7]";
    QTest::newRow("array 16") << Bytes("dc000205d41100") << 1 << "[u5, u5]";
    QTest::newRow("array 32") << Bytes("dd0000000205d41100") << 1 << "[u5, u5]";
    QTest::newRow("top level") << Bytes("05d41100") << 1 << "[u5, u5]";
    QTest::newRow("top level, first") << Bytes("d4110005") << 1 << "[nil, u5]";
    QTest::newRow("known extension after it") << Bytes("9305d41100d42a00") << 1 << "[u5, u5, \"ext 1\"]";
    QTest::newRow("map value repeats the one before")
        << Bytes("82a16105a162d41100") << 1 << "{\"a\": u5, \"b\": u5}";
    QTest::newRow("first map value is nil") << Bytes("82a161d41100a16205") << 1 << "{\"a\": nil, \"b\": u5}";
    QTest::newRow("map values repeat in wire order, not in key order")
        << Bytes("83a16305a161d41100a16206") << 1 << "{\"a\": u5, \"b\": u6, \"c\": u5}";
    QTest::newRow("map value is not that of the last key")
        << Bytes("83a16205a16106a163d41100") << 1 << "{\"a\": u6, \"b\": u5, \"c\": u6}";
    QTest::newRow("map value is not that of the key itself")
        << Bytes("83a16105a16207a161d41100") << 1 << "{\"a\": u7, \"b\": u7}";
    QTest::newRow("map value of the same key again") << Bytes("82a16105a161d41100") << 1 << "{\"a\": u5}";
    QTest::newRow("key repeats the one before and replaces its value")
        << Bytes("82a16105d4110006") << 1 << "{\"a\": u6}";
    QTest::newRow("first key is empty") << Bytes("81d4110005") << 1 << "{\"\": u5}";
    QTest::newRow("key and value both repeat") << Bytes("82a16105d41100d41100") << 2 << "{\"a\": u5}";
    QTest::newRow("map value holder is not the key's") << Bytes("81a161d41100") << 1 << "{\"a\": nil}";
    QTest::newRow("map 16") << Bytes("de0002a16105a162d41100") << 1 << "{\"a\": u5, \"b\": u5}";
    QTest::newRow("map 32") << Bytes("df00000002a16105a162d41100") << 1 << "{\"a\": u5, \"b\": u5}";
}

void TestMsgPackUnpack::holderIsUsedAgain()
{
    QFETCH(QByteArray, hex);
    QFETCH(int, unknown);
    QFETCH(QString, expected);
    QCOMPARE(s_unpacked(Bytes::fromHex(hex)), expected);
    QStringList lines;
    for (int i = 0; i < unknown; ++i) {
        lines << s_unknown(17);
    }
    QCOMPARE(m_log.take(), lines);
}

void TestMsgPackUnpack::malformedText_data()
{
    QTest::addColumn<QByteArray>("hex");

    QTest::newRow("lone continuation byte") << Bytes("80");
    QTest::newRow("byte that never occurs") << Bytes("ff");
    QTest::newRow("cut two-byte letter") << Bytes("c3");
    QTest::newRow("cut three-byte sign") << Bytes("e282");
    QTest::newRow("cut four-byte sign") << Bytes("f09f98");
    QTest::newRow("cut in the middle") << Bytes("61e28262");
    QTest::newRow("overlong slash") << Bytes("c0af");
    QTest::newRow("overlong zero") << Bytes("c080");
    QTest::newRow("encoded high surrogate") << Bytes("eda0bd");
    QTest::newRow("encoded surrogate pair") << Bytes("eda0bdedb880");
    QTest::newRow("beyond the last code point") << Bytes("f4908080");
    QTest::newRow("five-byte form") << Bytes("f888808080");
    QTest::newRow("byte order mark") << Bytes("efbbbf61");
    QTest::newRow("byte order mark alone") << Bytes("efbbbf");
    QTest::newRow("not a character") << Bytes("efbfbf");
    QTest::newRow("zero inside") << Bytes("610062");
}

void TestMsgPackUnpack::malformedText()
{
    QFETCH(QByteArray, hex);
    const Bytes text = Bytes::fromHex(hex);
    const QString expected = VariantNotation::text(QString::fromUtf8(text.constData(), text.size()));
    const char size = static_cast<char>(text.size());
    QCOMPARE(s_unpacked(Bytes(1, static_cast<char>(0xA0 + size)) + text), expected);
    QCOMPARE(s_unpacked(s_hex("d9") + size + text), expected);
    QCOMPARE(s_unpacked(s_hex("da00") + size + text), expected);
    QCOMPARE(s_unpacked(s_hex("db000000") + size + text), expected);
    // Not one byte of the next value is taken for the rest of the text.
    QCOMPARE(s_unpacked(Bytes(1, static_cast<char>(0xA0 + size)) + text + s_hex("c480") + Bytes(128, '\xBF')),
             "[" + expected + ", h'" + QString::fromLatin1(Bytes(128, '\xBF').toHex()) + "']");
}

// Compares the text of the bytes with what Qt makes of them.
static void s_checkText(const Bytes &utf8)
{
    const auto size = static_cast<quint16>(utf8.size());
    const Bytes header{"\xDA" + Bytes(1, static_cast<char>(size >> 8)) + static_cast<char>(size & 0xFF)};
    const QString text = MsgPack::unpack(header + utf8).toString();
    const QString expected = QString::fromUtf8(utf8.constData(), utf8.size());
    QVERIFY2(text == expected, utf8.toHex().constData());
}

void TestMsgPackUnpack::everyShortText()
{
    for (int first = 0; first < 256; ++first) {
        s_checkText(Bytes(1, static_cast<char>(first)));
        for (int second = 0; second < 256; ++second) {
            s_checkText(Bytes(1, static_cast<char>(first)) + static_cast<char>(second));
        }
    }
}

// Pieces that make, miss and break every form of UTF-8, in texts long enough for any shortcut that plain ones
// may be read by.
void TestMsgPackUnpack::randomTexts()
{
    const QVector<Bytes> pieces{"a",
                                "\x7F",
                                "abcdefgh",
                                "0123456789abcdef",
                                "\x80",
                                "\xBF",
                                "\xC0",
                                "\xC1",
                                "\xC2",
                                "\xDF",
                                "\xE0",
                                "\xE1",
                                "\xED",
                                "\xEF",
                                "\xF0",
                                "\xF1",
                                "\xF4",
                                "\xF5",
                                "\xF8",
                                "\xFE",
                                "\xFF",
                                "\x8F",
                                "\x90",
                                "\x9F",
                                "\xA0",
                                "\xC2\x80",
                                "\xDF\xBF",
                                "\xE0\xA0\x80",
                                "\xE2\x82\xAC",
                                "\xED\x9F\xBF",
                                "\xED\xA0\x80",
                                "\xEE\x80\x80",
                                "\xEF\xBB\xBF",
                                "\xEF\xBF\xBF",
                                "\xF0\x90\x80\x80",
                                "\xF4\x8F\xBF\xBF",
                                "\xF4\x90\x80\x80",
                                Bytes(1, '\0')};
    QRandomGenerator random(20240305);
    for (int round = 0; round < 50000; ++round) {
        Bytes utf8;
        for (int count = random.bounded(12); count >= 0; --count) {
            utf8 += pieces.at(random.bounded(pieces.size()));
        }
        s_checkText(utf8);
    }
}

void TestMsgPackUnpack::inputThatRunsShort_data()
{
    QTest::addColumn<QByteArray>("hex");

    const char *const rows[] = {
        "cc",
        "cd",
        "cd01",
        "ce010203",
        "cf01020304050607",
        "d0",
        "d1ff",
        "d2ffffff",
        "d3ffffffffffffff",
        "ca3f8000",
        "ca",
        "cb3ff00000000000",
        "cb",
        "a1",
        "a278",
        "bf",
        "d9",
        "d901",
        "d905616263",
        "da",
        "da00",
        "da0001",
        "db",
        "db000000",
        "db00000001",
        "db00000002ff",
        "c4",
        "c401",
        "c5",
        "c500",
        "c50001",
        "c6",
        "c6000000",
        "c600000001",
        "91",
        "9201",
        "929101",
        "91919191",
        "dc",
        "dc00",
        "dc0001",
        "dd",
        "dd000000",
        "dd00000001",
        "dd0000000201",
        "81",
        "81a161",
        "8101",
        "82a16101",
        "82a16101a162",
        "de",
        "de00",
        "de0001",
        "df",
        "df000000",
        "df00000001",
        "0105cc",
        "0102a1",
        "80c2df00",
        "9081",
    };
    for (const char *row : rows) {
        QTest::newRow(row) << Bytes(row);
    }
}

void TestMsgPackUnpack::inputThatRunsShort()
{
    QFETCH(QByteArray, hex);
    QCOMPARE(s_unpacked(Bytes::fromHex(hex)), QStringLiteral("nil"));
}

// A copy in a block of exactly its size, so that a sanitizer sees the first byte read beyond it.
static QVariant s_unpackExactly(const Bytes &bytes)
{
    const QScopedArrayPointer<char> block(new char[size_t(bytes.size())]);
    std::memcpy(block.data(), bytes.constData(), size_t(bytes.size()));
    return MsgPack::unpack(Bytes::fromRawData(block.data(), bytes.size()));
}

// Every format there is but the two widest counts, each with every part that it can run short in.
static Bytes s_variedMessage()
{
    return s_hex("dc0010"
                 "05"
                 "e0"
                 "c0"
                 "c3"
                 "ccff"
                 "cdffff"
                 "ceffffffff"
                 "cfffffffffffffffff"
                 "93d080d18000d280000000"
                 "d38000000000000000"
                 "92ca3f800000cb3ff0000000000000"
                 "83a161c0d902626291a0da000163db0000000178"
                 "93c40101c5000102c60000000103"
                 "95d42a01d62a01020304c7032a010203c800012a01c9000000012a01"
                 "dd00000001de000101df00000001c2dc0000"
                 "81a16bd82a000102030405060708090a0b0c0d0e0f");
}

void TestMsgPackUnpack::everyCutOfAVariedMessage()
{
    const Bytes whole = s_variedMessage();
    QCOMPARE(VariantNotation::notation(s_unpackExactly(whole)),
             QStringLiteral("[u5, i-32, nil, true, u255, u65535, u4294967295, ull18446744073709551615, "
                            "[i-128, i-32768, i-2147483648], ll-9223372036854775808, "
                            "[f3f800000, d3ff0000000000000], "
                            "{\"a\": nil, \"bb\": [\"\"], \"c\": \"x\"}, [h'01', h'02', h'03'], "
                            "[\"ext 1\", \"ext 4\", \"ext 3\", \"ext 1\", \"ext 1\"], "
                            "[{\"1\": {\"false\": []}}], {\"k\": \"ext 16\"}]"));
    const QSet<QByteArray> payloads(s_payloads.cbegin(), s_payloads.cend());
    for (int size = 1; size < whole.size(); ++size) {
        QVERIFY2(!s_unpackExactly(whole.left(size)).isValid(), qPrintable(QString::number(size)));
    }
    for (const QByteArray &payload : qAsConst(s_payloads)) {
        QVERIFY2(payloads.contains(payload), "an unpacker was called with a payload cut short");
    }
}

void TestMsgPackUnpack::everyCutOfConcatenatedValues()
{
    const Bytes whole = s_hex("05a27879cd010090c40101");
    const QHash<int, QString> atABoundary{{1, "u5"},
                                          {4, "[u5, \"xy\"]"},
                                          {7, "[u5, \"xy\", u256]"},
                                          {8, "[u5, \"xy\", u256, []]"},
                                          {11, "[u5, \"xy\", u256, [], h'01']"}};
    for (int size = 1; size <= whole.size(); ++size) {
        QCOMPARE(VariantNotation::notation(s_unpackExactly(whole.left(size))),
                 atABoundary.value(size, QStringLiteral("nil")));
    }
}

void TestMsgPackUnpack::payloadThatRunsShortReachesNoUnpacker()
{
    const char *const rows[] = {"d42a",     "d4",           "d52a01",     "d62a010203",  "d72a01020304050607",
                                "d82a01",   "c7",           "c701",       "c7012a",      "c7052a01020304",
                                "c8",       "c80001",       "c800012a",   "c9",          "c900000001",
                                "c9000000", "c9000000012a", "c7ff2a0102", "92d42a01d42a"};
    for (const char *row : rows) {
        s_payloads.clear();
        QCOMPARE(VariantNotation::notation(s_unpackExactly(s_hex(row))), QStringLiteral("nil"));
        QVERIFY2(s_payloads.isEmpty() || s_payloads == QList<QByteArray>{s_hex("01")}, row);
    }
}

void TestMsgPackUnpack::secondUnpackerIsRefused()
{
    QVERIFY(MsgPack::registerUnpacker(-7, [](const QByteArray &) { return QVariant("first"); }));
    QVERIFY(!MsgPack::registerUnpacker(-7, [](const QByteArray &) { return QVariant("second"); }));
    QCOMPARE(m_log.take(), QStringList{"warning: MsgPack::unpacker for type -7 already exists"});
    QVERIFY(!MsgPack::registerUnpacker(s_recordingType, [](const QByteArray &) { return QVariant(); }));
    QCOMPARE(m_log.take(), QStringList{"warning: MsgPack::unpacker for type 42 already exists"});
    QCOMPARE(s_unpacked(s_hex("d4f900")), QStringLiteral("\"first\""));
}

void TestMsgPackUnpack::nullUnpackerIsRefused()
{
    QVERIFY(!MsgPack::registerUnpacker(-8, nullptr));
    QCOMPARE(m_log.take(), QStringList{"warning: MsgPack::unpacker for type -8 is invalid"});
    QCOMPARE(s_unpacked(s_hex("d4f800")), QStringLiteral("nil"));
    QCOMPARE(m_log.take(), QStringList{s_unknown(-8)});
    // Nothing was stored: the number is still free. For a number that is taken, null is still what is wrong.
    QVERIFY(MsgPack::registerUnpacker(-8, [](const QByteArray &) { return QVariant("now"); }));
    QVERIFY(!MsgPack::registerUnpacker(-8, nullptr));
    QCOMPARE(m_log.take(), QStringList{"warning: MsgPack::unpacker for type -8 is invalid"});
    QCOMPARE(s_unpacked(s_hex("d4f800")), QStringLiteral("\"now\""));
}

QTEST_APPLESS_MAIN(TestMsgPackUnpack)
#include "tst_msgpack_unpack.moc"
