// Binary messages to values and back; the typed arrays, and what is none of them.
#include "msgpack/msgpack.h"
#include "tests/unit/logcollector.h"
#include "vorbel/wire.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QPoint>
#include <QtTest>

#include <limits>

using namespace Vorbel;

using Bytes = QByteArray;

Q_DECLARE_METATYPE(QVector<signed char>)
Q_DECLARE_METATYPE(QVector<unsigned char>)

namespace
{

Bytes s_hex(const char *hex)
{
    return Bytes::fromHex(hex);
}

// Maps in maps, as deep as asked for, around the number 5.
Bytes s_nested(int depth)
{
    return s_hex("81a161").repeated(depth) + s_hex("05");
}

QVariant s_nestedValue(int depth)
{
    QVariant value = 5;
    for (; depth > 0; --depth) {
        value = QVariantMap{{"a", value}};
    }
    return value;
}

} // namespace

class TestClientWire : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void unknownBeforeTheFirstMessage();

    // Happy
    void values_data();
    void values();
    void arrays_data();
    void arrays();
    void elementsOfArrays_data();
    void elementsOfArrays();
    void sent_data();
    void sent();
    void asDeepAsAllowed();
    void asManyAsAllowed();

    // Rainy
    void undecodable_data();
    void undecodable();
    void cutAnywhere();
    void unsendable_data();
    void unsendable();
    void tooLongToBeSent();
    void nothingOfNoArray();

private:
    LogCollector m_log;
};

void TestClientWire::init()
{
    m_log.start();
}

// Whatever comes in, there is no line from the codec about it.
void TestClientWire::cleanup()
{
    QCOMPARE(m_log.finish(), QStringList());
}

// The codec alone, as the daemon uses it.
void TestClientWire::unknownBeforeTheFirstMessage()
{
    QCOMPARE(MsgPack::unpack(s_hex("d6140100 0102")), QVariant());
    QCOMPARE(m_log.take(), QStringList{"warning: MsgPack::unpack() unpacker for type 20 doesn't exist"});
    QVERIFY(decode(s_hex("05")).isDecoded());
    QCOMPARE(MsgPack::unpack(s_hex("d6140100 0102")).value<QVector<unsigned short>>(),
             (QVector<unsigned short>{1, 513}));
    QCOMPARE(MsgPack::unpack(s_hex("d514 01 00")).value<QVector<unsigned short>>(),
             QVector<unsigned short>{1});
    QCOMPARE(MsgPack::unpack(s_hex("c703 14 010203")), QVariant());
}

// Happy

void TestClientWire::values_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<QVariant>("value");

    QTest::newRow("nil") << s_hex("c0") << QVariant();
    QTest::newRow("false") << s_hex("c2") << QVariant(false);
    QTest::newRow("true") << s_hex("c3") << QVariant(true);
    QTest::newRow("small") << s_hex("7f") << QVariant(127U);
    QTest::newRow("small, negative") << s_hex("e0") << QVariant(-32);
    QTest::newRow("32 bits") << s_hex("ceffffffff") << QVariant(4294967295U);
    QTest::newRow("64 bits") << s_hex("cf0000000100000000") << QVariant(qulonglong(4294967296));
    QTest::newRow("float") << s_hex("ca3f800000") << QVariant(1.0F);
    QTest::newRow("double") << s_hex("cb3ff0000000000000") << QVariant(1.0);
    QTest::newRow("text") << s_hex("a3e282ac") << QVariant(QStringLiteral("€"));
    QTest::newRow("text of 8 bits") << s_hex("d90161") << QVariant("a");
    QTest::newRow("text of 16 bits") << s_hex("da000161") << QVariant("a");
    QTest::newRow("text of 32 bits") << s_hex("db0000000161") << QVariant("a");
    QTest::newRow("bytes of 8 bits") << s_hex("c4020001") << QVariant(s_hex("0001"));
    QTest::newRow("bytes of 16 bits") << s_hex("c500020001") << QVariant(s_hex("0001"));
    QTest::newRow("bytes of 32 bits") << s_hex("c6000000020001") << QVariant(s_hex("0001"));
    QTest::newRow("list") << s_hex("9205c3") << QVariant(QVariantList{5U, true});
    QTest::newRow("list of 16 bits") << s_hex("dc000105") << QVariant(QVariantList{5U});
    QTest::newRow("list of 32 bits") << s_hex("dd0000000105") << QVariant(QVariantList{5U});
    QTest::newRow("no map at all") << s_hex("80") << QVariant(QVariantMap());
    QTest::newRow("map of 16 bits") << s_hex("de0001a16105") << QVariant(QVariantMap{{"a", 5U}});
    QTest::newRow("map of 32 bits") << s_hex("df00000001a16105") << QVariant(QVariantMap{{"a", 5U}});
    QTest::newRow("nil in a map") << s_hex("81a161c0") << QVariant(QVariantMap{{"a", QVariant()}});
    QTest::newRow("empty name, empty map")
        << s_hex("82a080a16181a162ff")
        << QVariant(QVariantMap{{"", QVariantMap()}, {"a", QVariantMap{{"b", -1}}}});
}

void TestClientWire::values()
{
    QFETCH(QByteArray, message);
    QFETCH(QVariant, value);
    const Decoded decoded = decode(message);
    QCOMPARE(decoded.error, QString());
    QVERIFY(decoded.isDecoded());
    QCOMPARE(decoded.value, value);
    QCOMPARE(decoded.value.userType(), value.userType());
    QVERIFY(!isArray(decoded.value));
}

void TestClientWire::arrays_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<QVariant>("array");

    QTest::newRow("17") << s_hex("d511 7fff") << QVariant::fromValue(QVector<signed char>{127, -1});
    QTest::newRow("18") << s_hex("c70312 007fff") << QVariant::fromValue(QVector<unsigned char>{0, 127, 255});
    QTest::newRow("19") << s_hex("d613 ffff0200") << QVariant::fromValue(QVector<short>{-1, 2});
    QTest::newRow("20") << s_hex("d614 01000102") << QVariant::fromValue(QVector<unsigned short>{1, 513});
    QTest::newRow("21") << s_hex("d715 feffffff07000000") << QVariant::fromValue(QVector<int>{-2, 7});
    QTest::newRow("22") << s_hex("d616 ffffffff") << QVariant::fromValue(QVector<unsigned int>{4294967295});
    QTest::newRow("23") << s_hex("d717 0000803f000020c1")
                        << QVariant::fromValue(QVector<float>{1.0F, -10.0F});
    QTest::newRow("one element") << s_hex("d412 05") << QVariant::fromValue(QVector<unsigned char>{5});
    QTest::newRow("none, by a length of 8 bits") << s_hex("c70015") << QVariant::fromValue(QVector<int>());
    QTest::newRow("by a length of 16 bits")
        << s_hex("c8000214 0102") << QVariant::fromValue(QVector<unsigned short>{0x0201});
    QTest::newRow("by a length of 32 bits")
        << s_hex("c90000000214 0102") << QVariant::fromValue(QVector<unsigned short>{0x0201});
    QTest::newRow("16 bytes") << s_hex("d813") + s_hex("0500").repeated(8)
                              << QVariant::fromValue(QVector<short>(8, 5));
}

void TestClientWire::arrays()
{
    QFETCH(QByteArray, message);
    QFETCH(QVariant, array);
    const QVariant bare = decode(message).value;
    QCOMPARE(bare.userType(), array.userType());
    QVERIFY(isArray(bare));
    QCOMPARE(elements(bare), elements(array));
    const QVariantMap inMap = decode(s_hex("81a161") + message).value.toMap();
    QCOMPARE(inMap.keys(), QStringList{"a"});
    QCOMPARE(inMap.value("a").userType(), array.userType());
    QCOMPARE(elements(inMap.value("a")), elements(array));
}

void TestClientWire::elementsOfArrays_data()
{
    QTest::addColumn<QVariant>("array");
    QTest::addColumn<QVariantList>("numbers");

    QTest::newRow("signed char") << QVariant::fromValue(QVector<signed char>{-128, 127})
                                 << QVariantList{-128, 127};
    QTest::newRow("unsigned char") << QVariant::fromValue(QVector<unsigned char>{255}) << QVariantList{255};
    QTest::newRow("short") << QVariant::fromValue(QVector<short>{-32768, 2}) << QVariantList{-32768, 2};
    QTest::newRow("unsigned short") << QVariant::fromValue(QVector<unsigned short>{65535})
                                    << QVariantList{65535};
    QTest::newRow("int") << QVariant::fromValue(QVector<int>{-2}) << QVariantList{-2};
    QTest::newRow("unsigned int") << QVariant::fromValue(QVector<unsigned int>{4294967295})
                                  << QVariantList{4294967295U};
    QTest::newRow("float") << QVariant::fromValue(QVector<float>{0.5F}) << QVariantList{0.5F};
}

void TestClientWire::elementsOfArrays()
{
    QFETCH(QVariant, array);
    QFETCH(QVariantList, numbers);
    QVERIFY(isArray(array));
    QCOMPARE(elements(array), numbers);
}

void TestClientWire::sent_data()
{
    QTest::addColumn<QVariant>("values");
    QTest::addColumn<QByteArray>("message");

    QTest::newRow("map") << QVariant(QVariantMap{{"b", 1200}, {"a", QVariantMap{{"c", 1.5F}}}})
                         << s_hex("82a16181a163ca3fc00000a162cd04b0");
    QTest::newRow("hash") << QVariant(QVariantHash{{"a", 1}}) << s_hex("81a16101");
    QTest::newRow("JSON") << QVariant(QJsonObject{{"a", QJsonArray{1, true, "x"}}, {"b", QJsonValue()}})
                          << s_hex("82a1619301c3a178a162c0");
    QTest::newRow("a JSON value") << QVariant::fromValue(QJsonValue(5)) << s_hex("05");
    QTest::newRow("null") << QVariant::fromValue(nullptr) << s_hex("c0");
    QTest::newRow("nil") << QVariant() << s_hex("c0");
    QTest::newRow("texts") << QVariant(QStringList{"a"}) << s_hex("91a161");
    QTest::newRow("bytes") << QVariant(s_hex("0001")) << s_hex("c4020001");
    QTest::newRow("char") << QVariant::fromValue(char(-1)) << s_hex("ff");
    QTest::newRow("unsigned char") << QVariant::fromValue(static_cast<unsigned char>(255)) << s_hex("ccff");
    QTest::newRow("short") << QVariant::fromValue(short(-2)) << s_hex("fe");
    QTest::newRow("unsigned short") << QVariant::fromValue(static_cast<unsigned short>(65535))
                                    << s_hex("cdffff");
    QTest::newRow("long") << QVariant::fromValue(-1L) << s_hex("ff");
    QTest::newRow("unsigned long") << QVariant::fromValue(std::numeric_limits<unsigned long>::max())
                                   << s_hex("cfffffffffffffffff");
}

void TestClientWire::sent()
{
    QFETCH(QVariant, values);
    QFETCH(QByteArray, message);
    const Encoded encoded = encode(values);
    QCOMPARE(encoded.error, QString());
    QVERIFY(encoded.isEncoded());
    QCOMPARE(encoded.message.toHex(), message.toHex());
}

void TestClientWire::asDeepAsAllowed()
{
    QCOMPARE(decode(s_nested(nestingLimit)).value, s_nestedValue(nestingLimit));
    QCOMPARE(encode(s_nestedValue(nestingLimit)).message, s_nested(nestingLimit));
}

void TestClientWire::asManyAsAllowed()
{
    const Bytes zeros(valuesMax - 1, '\0');
    QCOMPARE(decode(s_hex("dd000f423f") + zeros).value.toList().size(), valuesMax - 1);
}

// Rainy

void TestClientWire::undecodable_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<QString>("error");

    const QString cut = "it ends within a value";
    QTest::newRow("nothing") << Bytes() << "it is empty";
    QTest::newRow("never used") << s_hex("c1") << "a byte that begins no value";
    QTest::newRow("never used, within") << s_hex("81a161c1") << "a byte that begins no value";
    QTest::newRow("two values") << s_hex("0102") << "more than one value";
    QTest::newRow("a map, and more") << s_hex("81a1610105") << "more than one value";
    QTest::newRow("a name without a value") << s_hex("81a161") << cut;
    QTest::newRow("names that count as values") << s_hex("82a161a16205") << "a name that is no text";
    QTest::newRow("a name without a value, and a group")
        << s_hex("82a161a16281a16305") << "a name that is no text";
    QTest::newRow("a number for a name") << s_hex("810505") << "a name that is no text";
    QTest::newRow("nil for a name") << s_hex("81c005") << "a name that is no text";
    QTest::newRow("an extension for a name") << s_hex("81d4120505") << "a name that is no text";
    QTest::newRow("an array that ends within 16 bits")
        << s_hex("c70313010203") << "an array that ends within an element";
    QTest::newRow("an array that ends within a float")
        << s_hex("81a161c70617000000000000") << "an array that ends within an element";
    QTest::newRow("an array of one byte of 32 bits")
        << s_hex("d41505") << "an array that ends within an element";
    QTest::newRow("an extension before the arrays")
        << s_hex("d41005") << "an extension of the unknown type 16";
    QTest::newRow("an extension behind the arrays")
        << s_hex("d41805") << "an extension of the unknown type 24";
    QTest::newRow("a negative extension") << s_hex("9205d4ff05") << "an extension of the unknown type -1";
    QTest::newRow("an array longer than the message") << s_hex("c90000000812000000") << cut;
    QTest::newRow("the longest array") << s_hex("c9fffffffe1200") << cut;
    QTest::newRow("an extension without a type") << s_hex("c701") << cut;
    QTest::newRow("the longest text") << s_hex("dbffffffff61") << cut;
    QTest::newRow("the longest bytes") << s_hex("c6ffffffff61") << cut;
    QTest::newRow("the largest list") << s_hex("ddffffffff05") << cut;
    QTest::newRow("the largest map") << s_hex("dfffffffffa16105") << cut;
    QTest::newRow("too deep") << s_nested(nestingLimit + 1) << "nested more than 500 deep";
    QTest::newRow("much too deep") << Bytes(4 << 20, '\x91') << "nested more than 500 deep";
    QTest::newRow("too many") << s_hex("dd000f4240") + Bytes(valuesMax, '\0') << "more than 1000000 values";
}

void TestClientWire::undecodable()
{
    QFETCH(QByteArray, message);
    QFETCH(QString, error);
    const Decoded decoded = decode(message);
    QCOMPARE(decoded.error, error);
    QVERIFY(!decoded.isDecoded());
    QCOMPARE(decoded.value, QVariant());
}

// Each byte that is missing makes a message undecodable. Its copy ends where it ends, for tools that watch
// the heap.
void TestClientWire::cutAnywhere()
{
    const Bytes whole =
        s_hex("8ca161ccc8a162cd0258a163ce00010000a164cf0000000100000000a165ca3f800000a166cb3ff0000000000000"
              "a167d90162a168da000162a169c4020001a16ad613ffff0200a16bdc000105a16cdd00000001de0001a16105");
    QVERIFY(decode(whole).isDecoded());
    for (int size = 1; size < whole.size(); ++size) {
        QCOMPARE(decode(Bytes(whole.constData(), size)).error, QString("it ends within a value"));
    }
}

void TestClientWire::unsendable_data()
{
    QTest::addColumn<QVariant>("values");
    QTest::addColumn<QString>("error");

    QTest::newRow("a point") << QVariant(QPoint(1, 2)) << "a QPoint cannot be sent";
    QTest::newRow("an array") << QVariant::fromValue(QVector<int>{1}) << "a QVector<int> cannot be sent";
    QTest::newRow("in a list in a map")
        << QVariant(QVariantMap{{"a", QVariantList{5, QPoint()}}, {"b", 5}}) << "a QPoint cannot be sent";
    QTest::newRow("too deep") << s_nestedValue(nestingLimit + 1)
                              << "values nested more than 500 deep cannot be sent";
}

void TestClientWire::unsendable()
{
    QFETCH(QVariant, values);
    QFETCH(QString, error);
    const Encoded encoded = encode(values);
    QCOMPARE(encoded.error, error);
    QVERIFY(!encoded.isEncoded());
    QCOMPARE(encoded.message, Bytes());
}

void TestClientWire::tooLongToBeSent()
{
    const int header = 5;
    QCOMPARE(encode(Bytes(sentBytesMax - header, 'x')).message.size(), sentBytesMax);
    QCOMPARE(encode(Bytes(sentBytesMax - header + 1, 'x')).error,
             QString("the daemon takes no message of more than 4 MiB, this has 4194305 bytes"));
}

void TestClientWire::nothingOfNoArray()
{
    QCOMPARE(elements(QVariantList{1, 2}), QVariantList());
    QCOMPARE(elements(QVariant()), QVariantList());
    QCOMPARE(elements(QVariant::fromValue(QVector<double>{1.0})), QVariantList());
}

QTEST_APPLESS_MAIN(TestClientWire)
#include "tst_client_wire.moc"
