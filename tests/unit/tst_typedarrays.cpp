// The typed numeric arrays: extension payloads, texts, and the types that are none of them.
#include "msgpack/msgpack.h"
#include "service/typedarrays.h"
#include "tests/unit/allocationcounter.h"
#include "tests/unit/logcollector.h"

#include <QtTest>

#include <algorithm>
#include <limits>

using Bytes = QByteArray;

Q_DECLARE_METATYPE(QVector<signed char>)
Q_DECLARE_METATYPE(QVector<unsigned char>)
Q_DECLARE_METATYPE(QVector<char>)

struct Pair {
    short first;
    short second;

    QVector<short> toVector() const { return {first, second}; }
};
Q_DECLARE_METATYPE(Pair)

class TestTypedArrays : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    // Happy
    void typeNumbers();
    void orderOfRegistration();
    void payloads_data();
    void payloads();
    void texts_data();
    void texts();
    void travelInsideMaps();
    void longArrays_data();
    void longArrays();
    void packedPayloadOutlivesTheVector();
    void elementsAreCopiedOnce();
    void variantsThatConvertToAVector();

    // Rainy
    void variantsThatHoldNoVector();
    void otherVectorsAreNoTypedArrays_data();
    void otherVectorsAreNoTypedArrays();
    void nothingDecodesThem();
    void secondRegistrationChangesNothing();

private:
    LogCollector m_log;
};

void TestTypedArrays::initTestCase()
{
    LogCollector log;
    log.start();
    registerTypedArrays();
    QCOMPARE(log.take(), QStringList());
}

void TestTypedArrays::init()
{
    m_log.start();
}

void TestTypedArrays::cleanup()
{
    QCOMPARE(m_log.finish(), QStringList());
}

template <class T>
static QVariant s_array(std::initializer_list<T> elements)
{
    return QVariant::fromValue(QVector<T>(elements));
}

void TestTypedArrays::typeNumbers()
{
    QCOMPARE(int(MsgPack::msgpackType(qMetaTypeId<QVector<signed char>>())), 17);
    QCOMPARE(int(MsgPack::msgpackType(qMetaTypeId<QVector<unsigned char>>())), 18);
    QCOMPARE(int(MsgPack::msgpackType(qMetaTypeId<QVector<short>>())), 19);
    QCOMPARE(int(MsgPack::msgpackType(qMetaTypeId<QVector<unsigned short>>())), 20);
    QCOMPARE(int(MsgPack::msgpackType(qMetaTypeId<QVector<int>>())), 21);
    QCOMPARE(int(MsgPack::msgpackType(qMetaTypeId<QVector<unsigned int>>())), 22);
    QCOMPARE(int(MsgPack::msgpackType(qMetaTypeId<QVector<float>>())), 23);
}

// Qt gives its types ascending numbers as they come to be known: these tell in which order that was.
void TestTypedArrays::orderOfRegistration()
{
    const QVector<int> metatypes{qMetaTypeId<QVector<signed char>>(), qMetaTypeId<QVector<unsigned char>>(),
                                 qMetaTypeId<QVector<short>>(),       qMetaTypeId<QVector<unsigned short>>(),
                                 qMetaTypeId<QVector<int>>(),         qMetaTypeId<QVector<unsigned int>>(),
                                 qMetaTypeId<QVector<float>>()};
    QVERIFY(std::is_sorted(metatypes.cbegin(), metatypes.cend()));
    QVERIFY(metatypes.first() >= int(QMetaType::User));
}

void TestTypedArrays::payloads_data()
{
    QTest::addColumn<QVariant>("array");
    QTest::addColumn<QByteArray>("hex");

    QTest::newRow("signed char, empty") << s_array<signed char>({}) << Bytes("c70011");
    QTest::newRow("signed char") << s_array<signed char>({-128, -1, 127}) << Bytes("c7031180ff7f");
    QTest::newRow("unsigned char, empty") << s_array<unsigned char>({}) << Bytes("c70012");
    QTest::newRow("unsigned char, one") << s_array<unsigned char>({255}) << Bytes("d412ff");
    QTest::newRow("unsigned char") << s_array<unsigned char>({0, 1, 128, 255}) << Bytes("d612000180ff");
    QTest::newRow("short, empty") << s_array<short>({}) << Bytes("c70013");
    QTest::newRow("short") << s_array<short>({-2, 0x1234, -32768}) << Bytes("c70613feff34120080");
    QTest::newRow("unsigned short, empty") << s_array<unsigned short>({}) << Bytes("c70014");
    QTest::newRow("unsigned short") << s_array<unsigned short>({1, 513}) << Bytes("d61401000102");
    QTest::newRow("unsigned short, largest") << s_array<unsigned short>({65535}) << Bytes("d514ffff");
    QTest::newRow("int, empty") << s_array<int>({}) << Bytes("c70015");
    QTest::newRow("int") << s_array<int>({-2, 0x12345678}) << Bytes("d715feffffff78563412");
    QTest::newRow("int, smallest") << s_array<int>({std::numeric_limits<int>::min()})
                                   << Bytes("d61500000080");
    QTest::newRow("unsigned int, empty") << s_array<unsigned int>({}) << Bytes("c70016");
    QTest::newRow("unsigned int") << s_array<unsigned int>({1, 0xfffefdfc}) << Bytes("d71601000000fcfdfeff");
    QTest::newRow("float, empty") << s_array<float>({}) << Bytes("c70017");
    QTest::newRow("float") << s_array<float>({1.0F}) << Bytes("d6170000803f");
    QTest::newRow("four floats") << s_array<float>(
                                        {0.0F, -0.0F, -2.5F, std::numeric_limits<float>::infinity()})
                                 << Bytes("d8170000000000000080000020c00000807f");
    QTest::newRow("five floats") << s_array<float>({1, 1, 1, 1, 1})
                                 << Bytes("c714170000803f0000803f0000803f0000803f0000803f");
}

void TestTypedArrays::payloads()
{
    QFETCH(QVariant, array);
    QFETCH(QByteArray, hex);
    QCOMPARE(MsgPack::pack(array).toHex(), hex);
}

void TestTypedArrays::texts_data()
{
    QTest::addColumn<QVariant>("array");
    QTest::addColumn<QString>("text");

    // The separator stands behind each element, the last one too.
    QTest::newRow("empty") << s_array<int>({}) << "";
    QTest::newRow("one") << s_array<int>({7}) << "7, ";
    QTest::newRow("three") << s_array<int>({1, 2, 3}) << "1, 2, 3, ";
    QTest::newRow("signed char") << s_array<signed char>({-1, 0, 127, -128}) << "-1, 0, 127, -128, ";
    QTest::newRow("signed char that is a letter") << s_array<signed char>({65}) << "65, ";
    QTest::newRow("unsigned char") << s_array<unsigned char>({0, 65, 255}) << "0, 65, 255, ";
    QTest::newRow("short") << s_array<short>({-1, 2}) << "-1, 2, ";
    QTest::newRow("short, extremes") << s_array<short>({-32768, 32767}) << "-32768, 32767, ";
    QTest::newRow("unsigned short") << s_array<unsigned short>({0, 65535}) << "0, 65535, ";
    QTest::newRow("int, extremes") << s_array<int>({-2147483647 - 1, 2147483647})
                                   << "-2147483648, 2147483647, ";
    QTest::newRow("unsigned int") << s_array<unsigned int>({0, 4294967295U}) << "0, 4294967295, ";
    QTest::newRow("float, whole") << s_array<float>({20.0F}) << "20, ";
    QTest::newRow("float, six digits") << s_array<float>({1234567.0F}) << "1.23457e+06, ";
    QTest::newRow("float, last without exponent") << s_array<float>({999999.0F}) << "999999, ";
    QTest::newRow("float, small") << s_array<float>({0.0001F, 0.00001F}) << "0.0001, 1e-05, ";
    QTest::newRow("float, tenth") << s_array<float>({0.1F, -1.5F}) << "0.1, -1.5, ";
    QTest::newRow("float, none") << s_array<float>({std::numeric_limits<float>::infinity(),
                                                    -std::numeric_limits<float>::infinity(),
                                                    std::numeric_limits<float>::quiet_NaN()})
                                 << "inf, -inf, nan, ";
}

void TestTypedArrays::texts()
{
    QFETCH(QVariant, array);
    QFETCH(QString, text);
    QVERIFY(array.canConvert<QString>());
    QCOMPARE(array.toString(), text);
    QVERIFY(array.convert(QMetaType::QString));
    QCOMPARE(array, QVariant(text));
}

void TestTypedArrays::travelInsideMaps()
{
    const QVariantMap map{{"b", s_array<unsigned short>({1})}, {"a", s_array<float>({1.0F})}, {"c", 5}};
    QCOMPARE(MsgPack::pack(map).toHex(), Bytes("83a161d6170000803fa162d5140100a16305"));
}

void TestTypedArrays::longArrays_data()
{
    QTest::addColumn<int>("count");
    QTest::addColumn<QByteArray>("header");

    QTest::newRow("63 floats") << 63 << Bytes("c7fc17");
    QTest::newRow("64 floats") << 64 << Bytes("c8010017");
    QTest::newRow("1000 floats") << 1000 << Bytes("c80fa017");
    QTest::newRow("16383 floats") << 16383 << Bytes("c8fffc17");
    QTest::newRow("16384 floats") << 16384 << Bytes("c90001000017");
}

void TestTypedArrays::longArrays()
{
    QFETCH(int, count);
    QFETCH(QByteArray, header);
    const QVariant array = QVariant::fromValue(QVector<float>(count, 1.0F));
    QVERIFY(MsgPack::pack(array) == Bytes::fromHex(header) + Bytes::fromHex("0000803f").repeated(count));
}

void TestTypedArrays::packedPayloadOutlivesTheVector()
{
    Bytes packed;
    {
        QVector<short> elements{1, 2, 3};
        packed = MsgPack::pack(QVariant::fromValue(elements));
        elements.fill(-1);
    }
    QCOMPARE(packed.toHex(), Bytes("c70613010002000300"));
}

void TestTypedArrays::elementsAreCopiedOnce()
{
    const QVariant array = QVariant::fromValue(QVector<float>(100000, 1.0F));
    const AllocationCounter allocated;
    const Bytes packed = MsgPack::pack(array);
    QVERIFY2(allocated.bytes() < 400000 + 4096, qPrintable(QString::number(allocated.bytes())));
    QCOMPARE(packed.size(), 6 + 400000);
}

// The vector that is made for it ends before its payload is looked at.
void TestTypedArrays::variantsThatConvertToAVector()
{
    QVERIFY(QMetaType::registerConverter(&Pair::toVector));
    const Bytes payload = TypedArrays::pack<short>(QVariant::fromValue(Pair{1, 513}));
    QCOMPARE(payload.toHex(), Bytes("01000102"));
}

void TestTypedArrays::variantsThatHoldNoVector()
{
    QCOMPARE(TypedArrays::pack<int>(QVariant()), Bytes());
    QCOMPARE(TypedArrays::pack<int>(QVariant(5)), Bytes());
    QCOMPARE(TypedArrays::pack<int>(QVariant("1, 2, ")), Bytes());
    QCOMPARE(TypedArrays::pack<short>(s_array<int>({1, 2})), Bytes());
    // A null variant of the type is an empty vector.
    QCOMPARE(MsgPack::pack(QVariant(qMetaTypeId<QVector<int>>(), nullptr)).toHex(), Bytes("c70015"));
}

void TestTypedArrays::otherVectorsAreNoTypedArrays_data()
{
    QTest::addColumn<QVariant>("vector");
    QTest::newRow("char") << s_array<char>({'a', 'b'});
    QTest::newRow("double") << s_array<double>({1.0});
    QTest::newRow("long long") << s_array<qint64>({1});
    QTest::newRow("list of int") << QVariant::fromValue(QList<int>{1});
}

void TestTypedArrays::otherVectorsAreNoTypedArrays()
{
    QFETCH(QVariant, vector);
    const int metatype = vector.userType();
    QCOMPARE(int(MsgPack::msgpackType(metatype)), -1);
    QVERIFY(!QMetaType::hasRegisteredConverterFunction(metatype, QMetaType::QString));
    QVERIFY(!vector.canConvert<QString>());
    QCOMPARE(vector.toString(), QString());
    QCOMPARE(MsgPack::pack(vector), Bytes());
    QCOMPARE(m_log.take(),
             QStringList{QStringLiteral("warning: MsgPack::pack can't pack type: %1").arg(metatype)});
}

void TestTypedArrays::nothingDecodesThem()
{
    const QVariant arrays[] = {s_array<signed char>({1}), s_array<unsigned char>({1}),
                               s_array<short>({1}),       s_array<unsigned short>({1}),
                               s_array<int>({1}),         s_array<unsigned int>({1}),
                               s_array<float>({1.0F})};
    int type = 17;
    for (const QVariant &array : arrays) {
        QVERIFY(!MsgPack::unpack(MsgPack::pack(array)).isValid());
        QCOMPARE(
            m_log.take(),
            QStringList{
                QStringLiteral("warning: MsgPack::unpack() unpacker for type %1 doesn't exist").arg(type)});
        ++type;
    }
}

void TestTypedArrays::secondRegistrationChangesNothing()
{
    const int metatype = qMetaTypeId<QVector<float>>();
    QVERIFY(!MsgPack::registerPacker(metatype, 99, [](const QVariant &) { return Bytes("other"); }));
    QCOMPARE(
        m_log.take(),
        QStringList{QStringLiteral("warning: MsgPack::packer for qtype %1 already exist").arg(metatype)});
    QCOMPARE(MsgPack::pack(s_array<float>({1.0F})).toHex(), Bytes("d6170000803f"));
}

QTEST_APPLESS_MAIN(TestTypedArrays)
#include "tst_typedarrays.moc"
