// The steps that formats share: keeping a reading, clamping a scaled value, placing a value in a payload,
// finding a value in nested maps.
#include "schema/gathering.h"
#include "schema/heldmap.h"
#include "schema/numericconversion.h"
#include "tests/unit/tst_schematools.h"

#include <QtTest>

#include <limits>
#include <type_traits>

struct Pair {
    short first;
    short second;

    QVector<short> toVector() const { return {first, second}; }
};
Q_DECLARE_METATYPE(Pair)

class TestSchemaHelpers : public QObject
{
    Q_OBJECT

private slots:
    // Happy
    void singleReadings();
    void gatheredReadings();
    void gatheredBools();
    void whatConvertsToAnArrayIsAppendedTo();
    void clampedToInt_data();
    void clampedToInt();
    void clampedToShort_data();
    void clampedToShort();
    void clampedToSignedChar_data();
    void clampedToSignedChar();
    void placesLittleEndianAndGrowsWithZeros();
    void findsWhatStandsAtAPath_data();
    void findsWhatStandsAtAPath();

    // Rainy
    void whateverIsNoArrayIsReplacedByOne_data();
    void whateverIsNoArrayIsReplacedByOne();
    void aSharedArrayIsNotChanged();
    void placingNeverShortens();
    void whatDoesNotConvertIsZero();
};

// ---- Happy ----

void TestSchemaHelpers::singleReadings()
{
    QVariant value("something else");
    const bool returnsUnsignedLong =
        std::is_same<decltype(appendOrSet_variant<float>(value, 1.0F, false, false)), unsigned long>::value;
    QVERIFY(returnsUnsignedLong);

    QCOMPARE(appendOrSet_variant<short>(value, short(-5), false, false), 1UL);
    QCOMPARE(value.userType(), int(QMetaType::Int));
    QCOMPARE(value.toInt(), -5);
    QCOMPARE(appendOrSet_variant<unsigned short>(value, static_cast<unsigned short>(65535), false, false),
             1UL);
    QCOMPARE(value.userType(), int(QMetaType::Int));
    QCOMPARE(value.toInt(), 65535);
    QCOMPARE(appendOrSet_variant<float>(value, 0.5F, false, false), 1UL);
    QCOMPARE(value.userType(), int(QMetaType::Float));
    QCOMPARE(value.toFloat(), 0.5F);

    QCOMPARE(appendOrSet_variant<float>(value, 0.5F, false, true), 1UL);
    QCOMPARE(value, QVariant(true));
    QCOMPARE(appendOrSet_variant<float>(value, -0.0F, false, true), 1UL);
    QCOMPARE(value, QVariant(false));
    QCOMPARE(appendOrSet_variant<short>(value, short(256), false, true), 1UL);
    QCOMPARE(value, QVariant(true));
}

void TestSchemaHelpers::gatheredReadings()
{
    QVariant value;
    QCOMPARE(appendOrSet_variant<short>(value, short(-1), true, false), 1UL);
    QCOMPARE(appendOrSet_variant<short>(value, short(2), true, false), 2UL);
    QVERIFY(s_holds<short>(value));
    QCOMPARE(s_elements(value), (QVector<double>{-1, 2}));

    value = QVariant();
    QCOMPARE(appendOrSet_variant<float>(value, 0.25F, true, false), 1UL);
    QVERIFY(s_holds<float>(value));
    QCOMPARE(s_elements(value), (QVector<double>{0.25}));
}

void TestSchemaHelpers::gatheredBools()
{
    QVariant value;
    QCOMPARE(appendOrSet_variant<float>(value, 0.0F, true, true), 1UL);
    QCOMPARE(appendOrSet_variant<float>(value, 3.5F, true, true), 2UL);
    QCOMPARE(appendOrSet_variant<float>(value, std::numeric_limits<float>::quiet_NaN(), true, true), 3UL);
    QVERIFY(s_holds<float>(value));
    QCOMPARE(s_elements(value), (QVector<double>{0, 1, 1}));
}

void TestSchemaHelpers::whatConvertsToAnArrayIsAppendedTo()
{
    QVERIFY(QMetaType::registerConverter(&Pair::toVector));
    QVariant value = QVariant::fromValue(Pair{5, -6});
    QCOMPARE(appendOrSet_variant<short>(value, short(7), true, false), 3UL);
    QVERIFY(s_holds<short>(value));
    QCOMPARE(s_elements(value), (QVector<double>{5, -6, 7}));
}

static void s_clampColumns()
{
    QTest::addColumn<float>("value");
    QTest::addColumn<int>("expected");
    QTest::addColumn<QString>("warning"); // what follows "value:", empty for none
    QTest::newRow("zero") << 0.0F << 0 << "";
    QTest::newRow("truncated down") << 2.9F << 2 << "";
    QTest::newRow("truncated up") << -2.9F << -2 << "";
    QTest::newRow("not a number") << std::numeric_limits<float>::quiet_NaN() << 0 << "nan result: nan";
}

template <typename T>
static void s_checkClamped()
{
    QFETCH(float, value);
    QFETCH(int, expected);
    QFETCH(QString, warning);
    LogScope log;
    const QVariant result = convert_to_qvariant_numeric<T>(value);
    QCOMPARE(result.userType(), qMetaTypeId<T>());
    QCOMPARE(result.toInt(), expected);
    const QString line = "warning: Invalid numeric conversion. Number overflow, value: " + warning;
    QCOMPARE(log.lines(), warning.isEmpty() ? QStringList() : QStringList{line});
}

void TestSchemaHelpers::clampedToInt_data()
{
    s_clampColumns();
    const int largest = std::numeric_limits<int>::max();
    const int smallest = std::numeric_limits<int>::min();
    const float infinity = std::numeric_limits<float>::infinity();
    QTest::newRow("last float below two to the thirty-first") << 2147483520.0F << 2147483520 << "";
    QTest::newRow("two to the thirty-first") << 2147483648.0F << largest << "";
    QTest::newRow("next float above") << 2147483904.0F << largest << "2.14748e+09 result: 2.14748e+09";
    QTest::newRow("smallest") << -2147483648.0F << smallest << "";
    QTest::newRow("next float below") << -2147483904.0F << smallest << "-2.14748e+09 result: -2.14748e+09";
    QTest::newRow("infinity") << infinity << largest << "inf result: 2.14748e+09";
    QTest::newRow("minus infinity") << -infinity << smallest << "-inf result: -2.14748e+09";
}

void TestSchemaHelpers::clampedToInt()
{
    s_checkClamped<int>();
}

void TestSchemaHelpers::clampedToShort_data()
{
    s_clampColumns();
    QTest::newRow("largest") << 32767.0F << 32767 << "";
    QTest::newRow("above by a fraction") << 32767.5F << 32767 << "32767.5 result: 32767";
    QTest::newRow("smallest") << -32768.0F << -32768 << "";
    QTest::newRow("below by a fraction") << -32768.5F << -32768 << "-32768.5 result: -32768";
}

void TestSchemaHelpers::clampedToShort()
{
    s_checkClamped<short>();
}

void TestSchemaHelpers::clampedToSignedChar_data()
{
    s_clampColumns();
    QTest::newRow("largest") << 127.0F << 127 << "";
    QTest::newRow("above by a fraction") << 127.5F << 127 << "127.5 result: 127";
    QTest::newRow("smallest") << -128.0F << -128 << "";
    QTest::newRow("below") << -1e30F << -128 << "-1e+30 result: -128";
}

void TestSchemaHelpers::clampedToSignedChar()
{
    s_checkClamped<signed char>();
}

void TestSchemaHelpers::placesLittleEndianAndGrowsWithZeros()
{
    LogScope log;
    QByteArray payload;
    insertToByteArray<short>(payload, 3, 0x0102);
    QCOMPARE(payload.toHex(), QByteArray("0000000201"));
    insertToByteArray<int>(payload, 4, 0x03040506);
    QCOMPARE(payload.toHex(), QByteArray("0000000206050403"));
    insertToByteArray<char>(payload, 0, -1);
    QCOMPARE(payload.toHex(), QByteArray("ff00000206050403"));
    insertToByteArray<float>(payload, 8, 1.0);
    QCOMPARE(payload.toHex(), QByteArray("ff000002060504030000803f"));
    QCOMPARE(log.lines(),
             (QStringList{"debug: insertToByteArray:  QVariant(int, 258) , offset:  3 , dst:  0",
                          "debug: insertToByteArray:  QVariant(int, 50595078) , offset:  4 , dst:  5",
                          "debug: insertToByteArray:  QVariant(int, -1) , offset:  0 , dst:  8",
                          "debug: insertToByteArray:  QVariant(double, 1) , offset:  8 , dst:  8"}));
}

// ---- Rainy ----

void TestSchemaHelpers::findsWhatStandsAtAPath_data()
{
    QTest::addColumn<QStringList>("path");
    QTest::addColumn<QVariantList>("found"); // none or one

    const QVariantMap inner{{"b", 2}, {"c", QVariant()}};
    QTest::newRow("a value") << QStringList{"x"} << QVariantList{1};
    QTest::newRow("a map") << QStringList{"a"} << QVariantList{inner};
    QTest::newRow("a value in a map") << QStringList{"a", "b"} << QVariantList{2};
    QTest::newRow("nil") << QStringList{"a", "c"} << QVariantList{QVariant()};
    QTest::newRow("empty name") << QStringList{""} << QVariantList{3};
    QTest::newRow("empty path") << QStringList() << QVariantList();
    QTest::newRow("missing") << QStringList{"y"} << QVariantList();
    QTest::newRow("missing in a map") << QStringList{"a", "x"} << QVariantList();
    QTest::newRow("behind a value") << QStringList{"x", "x"} << QVariantList();
    QTest::newRow("behind nil") << QStringList{"a", "c", "b"} << QVariantList();
    QTest::newRow("behind what converts to a map") << QStringList{"h", "b"} << QVariantList();
}

void TestSchemaHelpers::findsWhatStandsAtAPath()
{
    QFETCH(QStringList, path);
    QFETCH(QVariantList, found);
    const QVariantMap inner{{"b", 2}, {"c", QVariant()}};
    const QVariantMap map{{"a", inner}, {"x", 1}, {"", 3}, {"h", QVariantHash{{"b", 4}}}};
    const QVariant *value = heldAt(map, path);
    QCOMPARE(value ? QVariantList{*value} : QVariantList(), found);
}

void TestSchemaHelpers::whateverIsNoArrayIsReplacedByOne_data()
{
    QTest::addColumn<QVariant>("before");
    QTest::newRow("nothing") << QVariant();
    QTest::newRow("number") << QVariant(5);
    QTest::newRow("text") << QVariant("5");
    QTest::newRow("byte array") << QVariant(QByteArray("\x01\x00", 2));
    QTest::newRow("array of another type") << QVariant::fromValue(QVector<float>{1, 2});
}

void TestSchemaHelpers::whateverIsNoArrayIsReplacedByOne()
{
    QFETCH(QVariant, before);
    QCOMPARE(appendOrSet_variant<unsigned short>(before, static_cast<unsigned short>(7), true, false), 1UL);
    QVERIFY(s_holds<unsigned short>(before));
    QCOMPARE(s_elements(before), (QVector<double>{7}));
}

void TestSchemaHelpers::aSharedArrayIsNotChanged()
{
    QVariant value;
    appendOrSet_variant<short>(value, short(1), true, false);
    const QVariant taken = value;
    const auto vector = value.value<QVector<short>>();
    appendOrSet_variant<short>(value, short(2), true, false);
    QCOMPARE(s_elements(taken), (QVector<double>{1}));
    QCOMPARE(vector, QVector<short>{1});
    QCOMPARE(s_elements(value), (QVector<double>{1, 2}));
}

void TestSchemaHelpers::placingNeverShortens()
{
    QByteArray payload = s_hex("0102030405");
    const QByteArray before = payload;
    insertToByteArray<short>(payload, 1, 0);
    QCOMPARE(payload.toHex(), QByteArray("0100000405"));
    QCOMPARE(before.toHex(), QByteArray("0102030405"));
}

void TestSchemaHelpers::whatDoesNotConvertIsZero()
{
    for (const QVariant &value :
         {QVariant("abc"), QVariant(QVariantList{1}), QVariant(QVariant::Int), QVariant()}) {
        QByteArray payload = s_hex("ffffff");
        insertToByteArray<short>(payload, 0, value);
        QCOMPARE(payload.toHex(), QByteArray("0000ff"));
    }
}

QTEST_APPLESS_MAIN(TestSchemaHelpers)
#include "tst_schemahelpers.moc"
