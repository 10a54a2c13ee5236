// One schema leaf: its options, its predicates, and the decoding of payloads into readings.
#include "schema/schemadataattribute.h"
#include "tests/unit/tst_schematools.h"

#include <QtTest>

#include <cmath>
#include <limits>
#include <type_traits>

class TestSchemaDataAttribute : public QObject
{
    Q_OBJECT

private slots:
    // Happy: construction and predicates
    void isAPlainValue();
    void emptyMapGivesTheDefaults();
    void defaultConstructedIsReadOnlyAndNeverFull();
    void keepsItsPath();
    void formatIsTheFirstByte_data();
    void formatIsTheFirstByte();
    void nonAsciiFormatsDecodeNothing();
    void jsonOptionsAreThoseOfTheMap_data();
    void jsonOptionsAreThoseOfTheMap();
    void numbersOfTheOptions_data();
    void numbersOfTheOptions();
    void readOnly_data();
    void readOnly();
    void factors_data();
    void factors();
    void factorThatIsNotANumber();
    void copiesGoTheirOwnWay();

    // Happy: decoding
    void rawReadings_data();
    void rawReadings();
    void everyCombination_data();
    void everyCombination();
    void readsLittleEndianAtEverySkip_data();
    void readsLittleEndianAtEverySkip();
    void scaledReadings_data();
    void scaledReadings();
    void zeroFactorMakesEveryReadingInfiniteOrNotANumber();
    void singleValueIsFullAfterOneReading();
    void arrayFillsRefusesAndStartsAnew();
    void arrayOfBools_data();
    void arrayOfBools();
    void clearKeepsTheOptions();
    void observeReportsOnlyChanges();
    void observeSequences_data();
    void observeSequences();
    void observeComparesAcrossClear();

    // Rainy
    void definitionThatIsNoMapThrows_data();
    void definitionThatIsNoMapThrows();
    void keysAreCaseSensitive();
    void unknownKeysAndChildMapsAreIgnored();
    void observeIsOffWhileGathering();
    void negativeFlushSizeIsFullForEver();
    void unknownFormatsStoreNothing_data();
    void unknownFormatsStoreNothing();
    void shortPayloadCarriesNoReading_data();
    void shortPayloadCarriesNoReading();
    void hostileSkipCarriesNoReading_data();
    void hostileSkipCarriesNoReading();
    void shortPayloadLeavesGatheredReadings();
    void shortPayloadUnderObserveKeepsTheLastValue();
    void fullOnEntrySkipsTheObserveStep();
    void packedForgetsItsFragments();
    void packedEmptyPayloadThrows_data();
    void packedEmptyPayloadThrows();
    void packedThrowLeavesObserveAlone();
    void packedThatIsFullRefusesWithoutThrowing();
    void nothingIsLogged();

    // The room that arrays share
    void arraysTakeRoomForWhatTheyCanFill_data();
    void arraysTakeRoomForWhatTheyCanFill();
    void singleValuesTakeNoRoom();
    void readingsWithoutRoomAreDropped();
    void emptyArrayWithoutRoomStaysEmpty();
    void fullSizesThatFitAlwaysFit();
    void oneWarningForARoom();
};

static SchemaDataAttribute s_attribute(const QByteArray &options)
{
    return SchemaDataAttribute(QVariant(s_map(options)), {"x"});
}

// The same as the document walk makes it.
static SchemaDataAttribute s_fromPath(const QByteArray &options)
{
    return SchemaDataAttribute(SchemaPath(SchemaPath(), "x"), s_map(options));
}

static float s_bits(quint32 bits)
{
    float value;
    memcpy(&value, &bits, sizeof value);
    return value;
}

// Compares type and value; two NaN are the same reading here.
static bool s_sameReading(const QVariant &a, const QVariant &b)
{
    if (a.userType() != b.userType()) {
        return false;
    }
    if (a.userType() == QMetaType::Float && std::isnan(a.toFloat())) {
        return std::isnan(b.toFloat());
    }
    return a == b;
}

// ---- Happy: construction and predicates ----

void TestSchemaDataAttribute::isAPlainValue()
{
    using A = SchemaDataAttribute;
    QVERIFY(!std::is_polymorphic<A>::value);
    QVERIFY(std::is_default_constructible<A>::value);
    QVERIFY(std::is_copy_constructible<A>::value);
    QVERIFY(std::is_copy_assignable<A>::value);
    QVERIFY((std::is_constructible<A, const QVariant &, const QStringList &>::value));

    const A attribute = s_attribute("{}");
    QVERIFY((std::is_same<decltype(attribute.format()), char>::value));
    QVERIFY((std::is_same<decltype(attribute.flushSize()), int>::value));
    QVERIFY((std::is_same<decltype(attribute.skip()), int>::value));
    QVERIFY((std::is_same<decltype(attribute.count()), int>::value));
    QVERIFY((std::is_same<decltype(attribute.factor()), float>::value));
    QVERIFY((std::is_same<decltype(attribute.isEmpty()), bool>::value));
    QVERIFY((std::is_same<decltype(attribute.isFull()), bool>::value));
    QVERIFY((std::is_same<decltype(attribute.isReadyToFlush()), bool>::value));
    QVERIFY((std::is_same<decltype(attribute.isReadOnly()), bool>::value));
    QVERIFY((std::is_same<decltype(std::declval<A &>().insert(QByteArray())), bool>::value));
}

void TestSchemaDataAttribute::emptyMapGivesTheDefaults()
{
    SchemaDataAttribute attribute = SchemaDataAttribute(QVariantMap(), {});
    QCOMPARE(int(attribute.format()), 0);
    QCOMPARE(attribute.flushSize(), 0);
    QCOMPARE(attribute.skip(), 0);
    QCOMPARE(attribute.count(), 0);
    QCOMPARE(attribute.factor(), 1.0F);
    QCOMPARE(int(attribute.endpoint().mac), 0);
    QCOMPARE(int(attribute.endpoint().cmd), 0);
    QCOMPARE(attribute.endpoint().fragmentation, false);
    QCOMPARE(attribute.path(), QStringList());
    QVERIFY(!attribute.data().isValid());
    QVERIFY(attribute.isEmpty());
    QVERIFY(!attribute.isFull());
    QVERIFY(!attribute.isReadyToFlush());
    QVERIFY(!attribute.isReadOnly());
    QVERIFY(!attribute.insert(s_hex("0102030405060708")));
    QVERIFY(attribute.isEmpty());
}

void TestSchemaDataAttribute::defaultConstructedIsReadOnlyAndNeverFull()
{
    // Its mask is 0, not -1: it stands in containers and is never written to.
    const SchemaDataAttribute attribute;
    QVERIFY(attribute.isReadOnly());
    QVERIFY(!attribute.isFull());
    QVERIFY(!attribute.isReadyToFlush());
    QVERIFY(attribute.isEmpty());
    QCOMPARE(int(attribute.format()), 0);
    QCOMPARE(attribute.flushSize(), 0);
    QCOMPARE(attribute.skip(), 0);
    QCOMPARE(attribute.count(), 0);
    QCOMPARE(attribute.factor(), 1.0F);
    QCOMPARE(int(attribute.endpoint().mac), 0);
    QCOMPARE(int(attribute.endpoint().cmd), 0);
    QCOMPARE(attribute.endpoint().fragmentation, false);
    QCOMPARE(attribute.path(), QStringList());
    QVERIFY(!attribute.data().isValid());
}

void TestSchemaDataAttribute::keepsItsPath()
{
    const SchemaDataAttribute attribute(QVariant(QVariantMap()), {"motor", "", "speed"});
    QCOMPARE(attribute.path(), (QStringList{"motor", "", "speed"}));
}

void TestSchemaDataAttribute::formatIsTheFirstByte_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<int>("format");

    QTest::newRow("one letter") << QByteArray(R"({"@format": "s"})") << int('s');
    QTest::newRow("float selects f") << QByteArray(R"({"@format": "float"})") << int('f');
    QTest::newRow("int selects i") << QByteArray(R"({"@format": "int"})") << int('i');
    QTest::newRow("capital letter is kept") << QByteArray(R"({"@format": "Int"})") << int('I');
    QTest::newRow("empty text is no format") << QByteArray(R"({"@format": ""})") << 0;
    QTest::newRow("blank is a format of its own") << QByteArray(R"({"@format": " s"})") << int(' ');
    QTest::newRow("number gives its first digit") << QByteArray(R"({"@format": 52})") << int('5');
    QTest::newRow("true gives its first letter") << QByteArray(R"({"@format": true})") << int('t');
    QTest::newRow("false selects f") << QByteArray(R"({"@format": false})") << int('f');
    QTest::newRow("null is no format") << QByteArray(R"({"@format": null})") << 0;
    QTest::newRow("list is no format") << QByteArray(R"({"@format": ["s"]})") << 0;
    QTest::newRow("object is no format") << QByteArray(R"({"@format": {"s": 1}})") << 0;
    QTest::newRow("absent is no format") << QByteArray("{}") << 0;
    // The first byte of the text in UTF-8, not of its first character: that of the third would be "C".
    QTest::newRow("two bytes") << QByteArray("{\"@format\": \"\xc3\xa9\"}") << int(char(0xC3));
    QTest::newRow("three bytes") << QByteArray("{\"@format\": \"\xe6\x97\xa5s\"}") << int(char(0xE6));
    QTest::newRow("two bytes, the lower of them a letter")
        << QByteArray(R"({"@format": "\u0143"})") << int(char(0xC5));
    QTest::newRow("four bytes") << QByteArray(R"({"@format": "\ud83d\ude00"})") << int(char(0xF0));
}

void TestSchemaDataAttribute::formatIsTheFirstByte()
{
    QFETCH(QByteArray, options);
    QFETCH(int, format);
    QCOMPARE(int(s_attribute(options).format()), format);
    QCOMPARE(int(s_fromPath(options).format()), format);
}

void TestSchemaDataAttribute::nonAsciiFormatsDecodeNothing()
{
    for (const char *format : {"\\u0143", "\xc3\xa9", "\xe6\x97\xa5s", "\\u0073\\u0301"}) {
        SchemaDataAttribute attribute = s_attribute(QByteArray("{\"@format\": \"") + format + "\"}");
        const bool isShort = qstrcmp(format, "\\u0073\\u0301") == 0; // "s", and an accent behind it
        QCOMPARE(attribute.insert(s_hex("0102030405060708")), isShort);
    }
}

void TestSchemaDataAttribute::jsonOptionsAreThoseOfTheMap_data()
{
    QTest::addColumn<QByteArray>("value");
    for (const char *value :
         {"0",           "1",         "-1",   "2.5",   "70000",      "4294967295",   "1e300",
          "true",        "false",     "null", R"("")", R"("2")",     R"("x")",       R"("true")",
          R"("nan")",    R"("-0.0")", "[]",   "[2]",   R"(["s"])",   R"([[["2"]]])", "{}",
          R"({"2": 2})", "-0.0",      "0.5",  "1.5",   R"("\u0143")"}) {
        QTest::newRow(value) << QByteArray(value);
    }
}

void TestSchemaDataAttribute::jsonOptionsAreThoseOfTheMap()
{
    QFETCH(QByteArray, value);
    for (const char *name : {"@format", "@flushSize", "@skip", "@mac", "@cmd", "@fragmentation", "@asBool",
                             "@mask", "@observe", "@factor", "@other"}) {
        const QByteArray options = QByteArray("{\"") + name + "\": " + value + "}";
        const SchemaDataAttribute expected = s_attribute(options);
        const SchemaDataAttribute actual = s_fromPath(options);
        QCOMPARE(actual.format(), expected.format());
        QCOMPARE(actual.flushSize(), expected.flushSize());
        QCOMPARE(actual.skip(), expected.skip());
        QCOMPARE(actual.endpoint().order(), expected.endpoint().order());
        QCOMPARE(actual.endpoint().fragmentation, expected.endpoint().fragmentation);
        QCOMPARE(actual.isReadOnly(), expected.isReadOnly());
        QVERIFY(s_sameReading(actual.factor(), expected.factor()));
        QCOMPARE(std::signbit(actual.factor()), std::signbit(expected.factor()));
    }
    QCOMPARE(s_fromPath("{}").path(), QStringList{"x"});
    QVERIFY(!s_fromPath("{}").isReadOnly());
}

void TestSchemaDataAttribute::numbersOfTheOptions_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<int>("flushSize");
    QTest::addColumn<int>("skip");
    QTest::addColumn<int>("mac");
    QTest::addColumn<int>("cmd");
    QTest::addColumn<bool>("fragmentation");

    QTest::newRow("all given")
        << QByteArray(R"({"@flushSize": 4, "@skip": 2, "@mac": 5, "@cmd": 7, "@fragmentation": true})") << 4
        << 2 << 5 << 7 << true;
    QTest::newRow("texts that are numbers")
        << QByteArray(R"({"@flushSize": "4", "@skip": "-2", "@mac": "5", "@cmd": "7"})") << 4 << -2 << 5 << 7
        << false;
    QTest::newRow("texts that are none")
        << QByteArray(R"({"@flushSize": "a", "@skip": "", "@mac": "0x5", "@cmd": "1.5"})") << 0 << 0 << 0 << 0
        << false;
    QTest::newRow("doubles are rounded")
        << QByteArray(R"({"@flushSize": 2.4, "@skip": 2.5, "@mac": 5.6, "@cmd": 6.7})") << 2 << 3 << 6 << 7
        << false;
    QTest::newRow("bools are one and zero")
        << QByteArray(R"({"@flushSize": true, "@skip": false, "@mac": true, "@cmd": true})") << 1 << 0 << 1
        << 1 << false;
    QTest::newRow("nulls are zero")
        << QByteArray(R"({"@flushSize": null, "@skip": null, "@mac": null, "@cmd": null})") << 0 << 0 << 0
        << 0 << false;
    QTest::newRow("lists and objects are zero")
        << QByteArray(R"({"@flushSize": [4], "@skip": {"a": 1}, "@mac": [5], "@cmd": {}})") << 0 << 0 << 0
        << 0 << false;
    QTest::newRow("mac and cmd keep their low 16 bits")
        << QByteArray(R"({"@mac": 70000, "@cmd": 65536})") << 0 << 0 << 4464 << 0 << false;
    QTest::newRow("largest mac and cmd")
        << QByteArray(R"({"@mac": 65535, "@cmd": 65535})") << 0 << 0 << 65535 << 65535 << false;
    QTest::newRow("negative mac and cmd wrap")
        << QByteArray(R"({"@mac": -1, "@cmd": -65535})") << 0 << 0 << 65535 << 1 << false;
    QTest::newRow("bits above the header fields are kept")
        << QByteArray(R"({"@mac": 70, "@cmd": 33})") << 0 << 0 << 70 << 33 << false;
    QTest::newRow("negative flushSize and skip")
        << QByteArray(R"({"@flushSize": -3, "@skip": -1})") << -3 << -1 << 0 << 0 << false;
    QTest::newRow("extremes of flushSize and skip")
        << QByteArray(R"({"@flushSize": 2147483647, "@skip": -2147483648})") << 2147483647
        << std::numeric_limits<int>::min() << 0 << 0 << false;
    QTest::newRow("fragmentation from a number")
        << QByteArray(R"({"@fragmentation": 2})") << 0 << 0 << 0 << 0 << true;
    QTest::newRow("fragmentation from the text false")
        << QByteArray(R"({"@fragmentation": "false"})") << 0 << 0 << 0 << 0 << false;
    QTest::newRow("fragmentation from any other text")
        << QByteArray(R"({"@fragmentation": "no"})") << 0 << 0 << 0 << 0 << true;
}

void TestSchemaDataAttribute::numbersOfTheOptions()
{
    QFETCH(QByteArray, options);
    const SchemaDataAttribute attribute = s_attribute(options);
    QTEST(attribute.flushSize(), "flushSize");
    QTEST(attribute.skip(), "skip");
    QTEST(int(attribute.endpoint().mac), "mac");
    QTEST(int(attribute.endpoint().cmd), "cmd");
    QTEST(attribute.endpoint().fragmentation, "fragmentation");
}

void TestSchemaDataAttribute::readOnly_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<bool>("expected");

    QTest::newRow("neither option") << QByteArray("{}") << false;
    QTest::newRow("mask -1 is all bits") << QByteArray(R"({"@mask": -1})") << false;
    QTest::newRow("mask -1 as text") << QByteArray(R"({"@mask": "-1"})") << false;
    QTest::newRow("mask 255") << QByteArray(R"({"@mask": 255})") << true;
    QTest::newRow("mask 0") << QByteArray(R"({"@mask": 0})") << true;
    QTest::newRow("mask null is mask 0") << QByteArray(R"({"@mask": null})") << true;
    QTest::newRow("mask that is no number is mask 0") << QByteArray(R"({"@mask": "all"})") << true;
    QTest::newRow("mask 4294967295 wraps to -1") << QByteArray(R"({"@mask": 4294967295})") << false;
    QTest::newRow("asBool") << QByteArray(R"({"@asBool": true})") << true;
    QTest::newRow("asBool false") << QByteArray(R"({"@asBool": false})") << false;
    QTest::newRow("asBool 1") << QByteArray(R"({"@asBool": 1})") << true;
    QTest::newRow("asBool text") << QByteArray(R"({"@asBool": "yes"})") << true;
    QTest::newRow("asBool text 0") << QByteArray(R"({"@asBool": "0"})") << false;
    QTest::newRow("asBool empty text") << QByteArray(R"({"@asBool": ""})") << false;
    QTest::newRow("both") << QByteArray(R"({"@asBool": true, "@mask": 1})") << true;
    QTest::newRow("asBool with mask -1") << QByteArray(R"({"@asBool": true, "@mask": -1})") << true;
}

void TestSchemaDataAttribute::readOnly()
{
    QFETCH(QByteArray, options);
    QTEST(s_attribute(options).isReadOnly(), "expected");
}

void TestSchemaDataAttribute::factors_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<float>("expected");

    QTest::newRow("absent") << QByteArray("{}") << 1.0F;
    QTest::newRow("one") << QByteArray(R"({"@factor": 1})") << 1.0F;
    QTest::newRow("a tenth, to single precision") << QByteArray(R"({"@factor": 0.1})") << 0.1F;
    QTest::newRow("negative") << QByteArray(R"({"@factor": -2.5})") << -2.5F;
    QTest::newRow("zero") << QByteArray(R"({"@factor": 0})") << 0.0F;
    QTest::newRow("text that is a number") << QByteArray(R"({"@factor": "2.5"})") << 2.5F;
    QTest::newRow("text that is none") << QByteArray(R"({"@factor": "ten"})") << 0.0F;
    QTest::newRow("null") << QByteArray(R"({"@factor": null})") << 0.0F;
    QTest::newRow("true") << QByteArray(R"({"@factor": true})") << 1.0F;
    QTest::newRow("list") << QByteArray(R"({"@factor": [2]})") << 0.0F;
    QTest::newRow("denormal") << QByteArray(R"({"@factor": 1e-40})") << s_bits(0x000116C2);
    QTest::newRow("denormal in a text") << QByteArray(R"({"@factor": "1e-40"})") << s_bits(0x000116C2);
    QTest::newRow("smallest denormal") << QByteArray(R"({"@factor": 1.4e-45})") << s_bits(1);
    QTest::newRow("too small for single precision") << QByteArray(R"({"@factor": 1e-46})") << 0.0F;
    QTest::newRow("minus zero in a text") << QByteArray(R"({"@factor": "-0.0"})") << -0.0F;
    QTest::newRow("minus zero is a whole number without sign") << QByteArray(R"({"@factor": -0.0})") << 0.0F;
    QTest::newRow("infinite") << QByteArray(R"({"@factor": "inf"})")
                              << std::numeric_limits<float>::infinity();
}

void TestSchemaDataAttribute::factors()
{
    QFETCH(QByteArray, options);
    QFETCH(float, expected);
    for (const float factor : {s_attribute(options).factor(), s_fromPath(options).factor()}) {
        QVERIFY(factor == expected); // exactly: QCOMPARE would round
        QCOMPARE(std::signbit(factor), std::signbit(expected));
    }
}

void TestSchemaDataAttribute::factorThatIsNotANumber()
{
    for (const char *text : {R"({"@factor": "nan"})", R"({"@factor": "NaN"})"}) {
        QVERIFY(std::isnan(s_attribute(text).factor()));
        QVERIFY(std::isnan(s_fromPath(text).factor()));
    }
}

void TestSchemaDataAttribute::copiesGoTheirOwnWay()
{
    SchemaDataAttribute first = s_attribute(R"({"@format": "C", "@flushSize": 2})");
    QVERIFY(first.insert(s_hex("01")));
    QList<SchemaDataAttribute> list{first, first};
    QVERIFY(list[0].insert(s_hex("02")));
    QCOMPARE(s_elements(first.data()), (QVector<double>{1}));
    QCOMPARE(s_elements(list.at(0).data()), (QVector<double>{1, 2}));
    QCOMPARE(s_elements(list.at(1).data()), (QVector<double>{1}));
    first.clear();
    QVERIFY(first.isEmpty());
    QVERIFY(!list.at(1).isEmpty());
}

// ---- Happy: decoding ----

void TestSchemaDataAttribute::rawReadings_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QVariant>("expected");

    const auto row = [](const char *name, const char *options, const char *payload, const QVariant &value) {
        QTest::newRow(name) << QByteArray(options) << s_hex(payload) << value;
    };
    row("C at 0", R"({"@format": "C"})", "00", 0);
    row("C at 127", R"({"@format": "C"})", "7f", 127);
    row("C at 128", R"({"@format": "C"})", "80", 128);
    row("C at 255", R"({"@format": "C"})", "ff", 255);
    row("c is unsigned too", R"({"@format": "c"})", "ff", 255);
    row("c at 128", R"({"@format": "c"})", "80", 128);
    row("S low byte first", R"({"@format": "S"})", "0102", 0x0201);
    row("S at 65535", R"({"@format": "S"})", "ffff", 65535);
    row("s low byte first", R"({"@format": "s"})", "0102", 0x0201);
    row("s largest", R"({"@format": "s"})", "ff7f", 32767);
    row("s smallest", R"({"@format": "s"})", "0080", -32768);
    row("s minus one", R"({"@format": "s"})", "ffff", -1);
    row("Q at 65535", R"({"@format": "Q"})", "ffff", 65535);
    row("q minus one", R"({"@format": "q"})", "ffff", -1);
    row("q smallest", R"({"@format": "q"})", "0080", -32768);
    row("I largest", R"({"@format": "I"})", "ffffffff", QVariant(4294967295U));
    row("I low byte first", R"({"@format": "I"})", "01020304", QVariant(0x04030201U));
    row("i minus one", R"({"@format": "i"})", "ffffffff", -1);
    row("i smallest", R"({"@format": "i"})", "00000080", std::numeric_limits<int>::min());
    row("i forty-two behind two bytes", R"({"@format": "i", "@skip": 2})", "00002a000000", 42);
    row("f one", R"({"@format": "f"})", "0000803f", 1.0F);
    row("f minus two and a half", R"({"@format": "float"})", "000020c0", -2.5F);
    row("f smallest denormal", R"({"@format": "f"})", "01000000", s_bits(1));
    row("f infinity", R"({"@format": "f"})", "0000807f", s_bits(0x7F800000));
    row("f not a number", R"({"@format": "f"})", "0000c07f", s_bits(0x7FC00000));

    // Masked first, then taken as signed; a mask never reaches "Q", "q" and "f".
    row("s masked to its low byte", R"({"@format": "s", "@mask": 255})", "ffff", 255);
    row("s masked to its sign bit", R"({"@format": "s", "@mask": 32768})", "ffff", -32768);
    row("q takes no mask", R"({"@format": "q", "@mask": 255})", "ffff", -1);
    row("Q takes no mask", R"({"@format": "Q", "@mask": 255})", "ffff", 65535);
    row("f takes no mask", R"({"@format": "f", "@mask": 0})", "0000803f", 1.0F);
    row("S masked", R"({"@format": "S", "@mask": 4080})", "ffff", 4080);
    row("C masked", R"({"@format": "C", "@mask": 15})", "a5", 5);
    row("c masked", R"({"@format": "c", "@mask": 240})", "a5", 0xA0);
    row("C mask bits above the byte", R"({"@format": "C", "@mask": 256})", "ff", 0);
    row("S mask bits above the two bytes", R"({"@format": "S", "@mask": 65536})", "ffff", 0);
    row("I masked to its sign bit", R"({"@format": "I", "@mask": -2147483648})", "ffffffff",
        QVariant(0x80000000U));
    row("i masked to its sign bit", R"({"@format": "i", "@mask": -2147483648})", "ffffffff",
        std::numeric_limits<int>::min());
    row("mask 0 leaves nothing", R"({"@format": "i", "@mask": 0})", "ffffffff", 0);

    row("bool of zero", R"({"@format": "C", "@asBool": true})", "00", false);
    row("bool of two", R"({"@format": "C", "@asBool": true})", "02", true);
    row("bool of a masked bit that is clear", R"({"@format": "C", "@asBool": true, "@mask": 4})", "fb",
        false);
    row("bool of a masked bit that is set", R"({"@format": "C", "@asBool": true, "@mask": 4})", "04", true);
    row("bool of s", R"({"@format": "s", "@asBool": true})", "0001", true);
    row("bool of I", R"({"@format": "I", "@asBool": true})", "00000001", true);
    row("bool of f minus zero", R"({"@format": "f", "@asBool": true})", "00000080", false);
    row("bool of f not a number", R"({"@format": "f", "@asBool": true})", "0000c07f", true);
    row("bool of f denormal", R"({"@format": "f", "@asBool": true})", "01000000", true);

    row("bytes behind the value are not looked at", R"({"@format": "C"})", "05ffffffffffffff", 5);
}

void TestSchemaDataAttribute::rawReadings()
{
    QFETCH(QByteArray, options);
    QFETCH(QByteArray, payload);
    QFETCH(QVariant, expected);
    SchemaDataAttribute attribute = s_attribute(options);
    QVERIFY(attribute.insert(payload));
    QCOMPARE(attribute.count(), 1);
    QCOMPARE(attribute.data().userType(), expected.userType());
    QVERIFY2(s_sameReading(attribute.data(), expected), qPrintable(attribute.data().toString()));
}

// The payload AA 80 FF 34 C2 read behind its first byte, under each mask, as the rules of the formats say.
struct RawRow {
    char format;
    qint32 mask;
    double raw;
};
static const RawRow s_rawRows[] = {
    // No bits masked away.
    {'C', -1, 128},
    {'c', -1, 128},
    {'S', -1, 65408},
    {'s', -1, -128},
    {'Q', -1, 65408},
    {'q', -1, -128},
    {'I', -1, 3258253184.0},
    {'i', -1, -1036714112.0},
    {'f', -1, -45.24951171875},
    // The low byte.
    {'C', 255, 128},
    {'c', 255, 128},
    {'S', 255, 128},
    {'s', 255, 128},
    {'Q', 255, 65408},
    {'q', 255, -128},
    {'I', 255, 128},
    {'i', 255, 128},
    {'f', 255, -45.24951171875},
    // Seven bits of the second byte.
    {'C', 32512, 0},
    {'c', 32512, 0},
    {'S', 32512, 32512},
    {'s', 32512, 32512},
    {'Q', 32512, 65408},
    {'q', 32512, -128},
    {'I', 32512, 32512},
    {'i', 32512, 32512},
    {'f', 32512, -45.24951171875},
    // A negative mask: all bits from 15 up.
    {'C', -32768, 0},
    {'c', -32768, 0},
    {'S', -32768, 32768},
    {'s', -32768, -32768},
    {'Q', -32768, 65408},
    {'q', -32768, -128},
    {'I', -32768, 3258220544.0},
    {'i', -32768, -1036746752.0},
    {'f', -32768, -45.24951171875},
};

static QVariant s_expectedSingle(char format, double raw, float factor, bool asBool)
{
    const bool scaled = factor != 1.0F;
    const float product = float(raw) * (1.0F / factor);
    if (asBool) {
        return scaled ? product != 0.0F : raw != 0.0;
    }
    if (scaled) {
        return product;
    }
    switch (format) {
    case 'f':
        return float(raw);
    case 'I':
        return quint32(raw);
    default:
        return int(raw);
    }
}

static int s_containerOf(char format, float factor)
{
    if (factor != 1.0F) {
        return qMetaTypeId<QVector<float>>();
    }
    switch (format) {
    case 'C':
        return qMetaTypeId<QVector<unsigned char>>();
    case 'c':
        return qMetaTypeId<QVector<char>>();
    case 'S':
    case 'Q':
        return qMetaTypeId<QVector<unsigned short>>();
    case 's':
    case 'q':
        return qMetaTypeId<QVector<short>>();
    case 'I':
        return qMetaTypeId<QVector<unsigned int>>();
    case 'i':
        return qMetaTypeId<QVector<int>>();
    default:
        return qMetaTypeId<QVector<float>>();
    }
}

void TestSchemaDataAttribute::everyCombination_data()
{
    QTest::addColumn<char>("format");
    QTest::addColumn<int>("mask");
    QTest::addColumn<double>("raw");
    QTest::addColumn<float>("factor");
    QTest::addColumn<bool>("asBool");
    QTest::addColumn<bool>("append");

    for (const RawRow &row : s_rawRows) {
        for (const float factor : {1.0F, 10.0F, -0.25F, 3.0F}) {
            for (const bool asBool : {false, true}) {
                for (const bool append : {false, true}) {
                    QTest::addRow("%c mask %d factor %g%s%s", row.format, row.mask, double(factor),
                                  asBool ? " as bool" : "", append ? " gathered" : "")
                        << row.format << row.mask << row.raw << factor << asBool << append;
                }
            }
        }
    }
}

void TestSchemaDataAttribute::everyCombination()
{
    QFETCH(char, format);
    QFETCH(int, mask);
    QFETCH(double, raw);
    QFETCH(float, factor);
    QFETCH(bool, asBool);
    QFETCH(bool, append);

    QVariantMap options{{"@format", QString(QChar(format))}, {"@skip", 1}, {"@factor", factor}};
    options["@asBool"] = asBool;
    options["@mask"] = mask;
    options["@flushSize"] = append ? 2 : 0;
    SchemaDataAttribute attribute(QVariant(options), {"x"});
    const QVariant reading = s_expectedSingle(format, raw, factor, asBool);

    QVERIFY(attribute.insert(s_hex("aa80ff34c2")));
    QCOMPARE(attribute.count(), 1);
    if (!append) {
        QCOMPARE(attribute.data().userType(), reading.userType());
        QCOMPARE(attribute.data(), reading);
        QVERIFY(attribute.isFull());
        return;
    }
    QVERIFY(!attribute.isFull());
    QVERIFY(attribute.insert(s_hex("aa00000000")));
    QCOMPARE(attribute.count(), 2);
    QCOMPARE(attribute.data().userType(), s_containerOf(format, factor));
    const QVector<double> elements = s_elements(attribute.data());
    QCOMPARE(elements.size(), 2);
    QCOMPARE(elements.at(0), asBool ? double(reading.toBool()) : reading.toDouble());
    QCOMPARE(elements.at(1), 0.0);
}

void TestSchemaDataAttribute::readsLittleEndianAtEverySkip_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<int>("width");
    QTest::newRow("one byte") << "C" << 1;
    QTest::newRow("two bytes") << "S" << 2;
    QTest::newRow("four bytes") << "I" << 4;
}

void TestSchemaDataAttribute::readsLittleEndianAtEverySkip()
{
    QFETCH(QString, format);
    QFETCH(int, width);
    const QByteArray payload = s_hex("0123456789abcdef");
    for (int skip = 0; skip + width <= payload.size(); ++skip) {
        SchemaDataAttribute attribute(QVariantMap{{"@format", format}, {"@skip", skip}}, {"x"});
        unsigned expected = 0;
        for (int at = width; at-- > 0;) {
            expected = expected << 8 | static_cast<unsigned char>(payload.at(skip + at));
        }
        QVERIFY(attribute.insert(payload));
        QCOMPARE(attribute.data().toUInt(), expected);
    }
}

void TestSchemaDataAttribute::scaledReadings_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QVariant>("expected");

    const auto row = [](const char *name, const char *options, const char *payload, const QVariant &value) {
        QTest::newRow(name) << QByteArray(options) << s_hex(payload) << value;
    };
    // The reading is multiplied by the single-precision reciprocal of the factor, not divided by it.
    row("C 200 by ten", R"({"@format": "C", "@factor": 10})", "c8", 200.0F * (1.0F / 10.0F));
    row("C 9 by ten is not the nearest to 0.9", R"({"@format": "C", "@factor": 10})", "09",
        s_bits(0x3F666667));
    row("c is unsigned", R"({"@format": "c", "@factor": 2})", "ff", 127.5F);
    row("S is unsigned", R"({"@format": "S", "@factor": 2})", "ffff", 32767.5F);
    row("Q is unsigned", R"({"@format": "Q", "@factor": 2})", "ffff", 32767.5F);
    row("s is signed", R"({"@format": "s", "@factor": 2})", "ffff", -0.5F);
    row("q is signed", R"({"@format": "q", "@factor": 2})", "ffff", -0.5F);
    row("I is unsigned", R"({"@format": "I", "@factor": 2})", "ffffffff", 2147483648.0F);
    row("i is signed", R"({"@format": "i", "@factor": 2})", "ffffffff", -0.5F);
    row("f", R"({"@format": "f", "@factor": 4})", "000020c0", -0.625F);
    row("i loses what single precision cannot hold", R"({"@format": "i", "@factor": 0.5})", "01000001",
        33554432.0F);
    row("negative factor", R"({"@format": "C", "@factor": -0.5})", "03", -6.0F);
    row("mask comes before the factor", R"({"@format": "s", "@mask": 255, "@factor": 2})", "ffff", 127.5F);
    row("bool of the product", R"({"@format": "C", "@factor": 10, "@asBool": true})", "01", true);
    row("bool of a zero product", R"({"@format": "C", "@factor": 10, "@asBool": true})", "00", false);
    row("bool of a product that underflows", R"({"@format": "f", "@factor": 2, "@asBool": true})", "01000000",
        false);
    row("factor one as a text stays unscaled", R"({"@format": "C", "@factor": "1"})", "05", 5);
    row("factor just above one scales", R"({"@format": "C", "@factor": 1.0000001192092896})", "01",
        1.0F / s_bits(0x3F800001));
    row("factor just below one scales", R"({"@format": "C", "@factor": 0.9999999403953552})", "01",
        1.0F / s_bits(0x3F7FFFFF));
    row("factor beyond single precision scales to zero", R"({"@format": "C", "@factor": 1e300})", "01", 0.0F);

    // Of numbers that are none, have only a sign, or hardly any digits.
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float infinity = std::numeric_limits<float>::infinity();
    row("not a number", R"({"@format": "C", "@factor": "nan"})", "05", nan);
    row("not a number, of zero", R"({"@format": "f", "@factor": "nan"})", "00000000", nan);
    row("bool of what is not a number", R"({"@format": "C", "@factor": "nan", "@asBool": true})", "00", true);
    row("minus zero", R"({"@format": "C", "@factor": "-0.0"})", "05", -infinity);
    row("minus zero, of a negative", R"({"@format": "q", "@factor": "-0.0"})", "ffff", infinity);
    row("minus zero, of zero", R"({"@format": "S", "@factor": "-0.0"})", "0000", nan);
    row("denormal whose reciprocal is infinite", R"({"@format": "C", "@factor": 1e-40})", "05", infinity);
    row("negative denormal", R"({"@format": "C", "@factor": -1e-40})", "05", -infinity);
    row("smallest denormal, of zero", R"({"@format": "i", "@factor": 1.4e-45})", "00000000", nan);
    row("denormal that has a reciprocal", R"({"@format": "C", "@factor": 4e-39})", "01", s_bits(0x7F3C1441));
    row("factor whose reciprocal is denormal", R"({"@format": "C", "@factor": 3e38})", "02",
        s_bits(0x004897F4));
    row("denormal reading", R"({"@format": "f", "@factor": 0.5})", "01000000", s_bits(2));
    row("denormal product", R"({"@format": "f", "@factor": 4})", "00008000", s_bits(0x00200000));
}

void TestSchemaDataAttribute::scaledReadings()
{
    rawReadings();
}

void TestSchemaDataAttribute::zeroFactorMakesEveryReadingInfiniteOrNotANumber()
{
    for (const char *factor : {"0", "\"ten\"", "null"}) {
        for (const char *format : {"c", "C", "s", "S", "q", "Q", "i", "I"}) {
            const QByteArray options =
                QByteArray(R"({"@format": ")") + format + R"(", "@factor": )" + factor + "}";
            SchemaDataAttribute positive = s_attribute(options);
            QVERIFY(positive.insert(s_hex("01000000")));
            QCOMPARE(positive.data().userType(), int(QMetaType::Float));
            QCOMPARE(positive.data().toFloat(), std::numeric_limits<float>::infinity());

            SchemaDataAttribute zero = s_attribute(options);
            QVERIFY(zero.insert(s_hex("00000000")));
            QVERIFY(std::isnan(zero.data().toFloat()));
        }
    }
    SchemaDataAttribute negative = s_attribute(R"({"@format": "i", "@factor": 0})");
    QVERIFY(negative.insert(s_hex("ffffffff")));
    QCOMPARE(negative.data().toFloat(), -std::numeric_limits<float>::infinity());

    SchemaDataAttribute asBool = s_attribute(R"({"@format": "C", "@factor": 0, "@asBool": true})");
    QVERIFY(asBool.insert(s_hex("00")));
    QCOMPARE(asBool.data(), QVariant(true)); // not a number is not equal to zero
}

void TestSchemaDataAttribute::singleValueIsFullAfterOneReading()
{
    SchemaDataAttribute attribute = s_attribute(R"({"@format": "i", "@skip": 2})");
    QVERIFY(!attribute.isFull());
    QVERIFY(attribute.insert(s_hex("00002a000000")));
    QCOMPARE(attribute.data(), QVariant(42));
    QCOMPARE(attribute.count(), 1);
    QVERIFY(attribute.isFull());
    QVERIFY(attribute.isReadyToFlush());
    QVERIFY(!attribute.isEmpty());

    QVERIFY(!attribute.insert(s_hex("00002b000000")));
    QCOMPARE(attribute.data(), QVariant(42));
    QCOMPARE(attribute.count(), 1);

    attribute.clear();
    QVERIFY(attribute.isEmpty());
    QCOMPARE(attribute.count(), 0);
    QVERIFY(!attribute.isFull());
    QVERIFY(attribute.insert(s_hex("00002b000000")));
    QCOMPARE(attribute.data(), QVariant(43));
}

void TestSchemaDataAttribute::arrayFillsRefusesAndStartsAnew()
{
    SchemaDataAttribute attribute = s_attribute(R"({"@format": "S", "@flushSize": 3})");
    QVERIFY(attribute.insert(s_hex("0100")));
    QVERIFY(attribute.insert(s_hex("0200")));
    QVERIFY(!attribute.isFull());
    QVERIFY(!attribute.isReadyToFlush());
    QVERIFY(attribute.insert(s_hex("ffff")));
    QVERIFY(attribute.isFull());
    QVERIFY(attribute.isReadyToFlush());
    QCOMPARE(attribute.count(), 3);
    QVERIFY(s_holds<unsigned short>(attribute.data()));
    const QVariant taken = attribute.data();

    QVERIFY(!attribute.insert(s_hex("0400")));
    QCOMPARE(s_elements(attribute.data()), (QVector<double>{1, 2, 65535}));
    QCOMPARE(attribute.count(), 3);

    attribute.clear();
    QVERIFY(attribute.insert(s_hex("0500")));
    QCOMPARE(s_elements(attribute.data()), (QVector<double>{5}));
    QCOMPARE(attribute.count(), 1);
    QCOMPARE(s_elements(taken), (QVector<double>{1, 2, 65535}));
}

void TestSchemaDataAttribute::arrayOfBools_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<int>("container");

    const auto row = [](const char *name, const char *more, int container) {
        QTest::newRow(name) << QByteArray(R"({"@flushSize": 3, "@asBool": true, )") + more + "}" << container;
    };
    row("C", R"("@format": "C")", qMetaTypeId<QVector<unsigned char>>());
    row("c", R"("@format": "c")", qMetaTypeId<QVector<char>>());
    row("S", R"("@format": "S")", qMetaTypeId<QVector<unsigned short>>());
    row("s", R"("@format": "s")", qMetaTypeId<QVector<short>>());
    row("Q", R"("@format": "Q")", qMetaTypeId<QVector<unsigned short>>());
    row("q", R"("@format": "q")", qMetaTypeId<QVector<short>>());
    row("I", R"("@format": "I")", qMetaTypeId<QVector<unsigned int>>());
    row("i", R"("@format": "i")", qMetaTypeId<QVector<int>>());
    row("f", R"("@format": "f")", qMetaTypeId<QVector<float>>());
    row("scaled", R"("@format": "I", "@factor": 8)", qMetaTypeId<QVector<float>>());
}

void TestSchemaDataAttribute::arrayOfBools()
{
    QFETCH(QByteArray, options);
    SchemaDataAttribute attribute = s_attribute(options);
    QVERIFY(attribute.insert(s_hex("00000000")));
    QVERIFY(attribute.insert(s_hex("60606040"))); // 3.5 and a bit; not zero in any format
    QVERIFY(attribute.insert(s_hex("00000000")));
    QTEST(attribute.data().userType(), "container");
    QCOMPARE(s_elements(attribute.data()), (QVector<double>{0, 1, 0}));
}

void TestSchemaDataAttribute::clearKeepsTheOptions()
{
    const QByteArray options = R"({"@format": "C", "@flushSize": 1, "@skip": 1, "@factor": 2, "@mask": 15,
        "@mac": 5, "@cmd": 7, "@fragmentation": true})";
    SchemaDataAttribute attribute = s_attribute(options);
    QVERIFY(attribute.insert(s_hex("00ff")));
    attribute.clear();
    QCOMPARE(attribute.format(), 'C');
    QCOMPARE(attribute.flushSize(), 1);
    QCOMPARE(attribute.skip(), 1);
    QCOMPARE(attribute.factor(), 2.0F);
    QVERIFY(attribute.isReadOnly());
    QCOMPARE(int(attribute.endpoint().mac), 5);
    QCOMPARE(int(attribute.endpoint().cmd), 7);
    QCOMPARE(attribute.endpoint().fragmentation, true);
    QCOMPARE(attribute.path(), QStringList{"x"});
}

void TestSchemaDataAttribute::observeReportsOnlyChanges()
{
    SchemaDataAttribute attribute = s_attribute(R"({"@format": "C", "@observe": true})");
    QVERIFY(attribute.insert(s_hex("05")));
    QVERIFY(attribute.isReadyToFlush());
    QCOMPARE(attribute.data(), QVariant(5));
    attribute.clear();

    QVERIFY(!attribute.insert(s_hex("05")));
    QCOMPARE(attribute.count(), 0);
    QVERIFY(attribute.isEmpty());
    QVERIFY(!attribute.isFull());
    QVERIFY(!attribute.isReadyToFlush());

    QVERIFY(attribute.insert(s_hex("06")));
    QVERIFY(attribute.isReadyToFlush());
    QCOMPARE(attribute.data(), QVariant(6));
    QCOMPARE(attribute.count(), 1);
}

void TestSchemaDataAttribute::observeSequences_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<QStringList>("payloads");
    QTest::addColumn<QList<bool>>("reported");

    const auto row = [](const char *name, const char *more, const QStringList &payloads,
                        const QList<bool> &reported) {
        QTest::newRow(name) << QByteArray(R"({"@observe": true, )") + more + "}" << payloads << reported;
    };
    row("a first zero is a change from nothing", R"("@format": "C")", {"00", "00", "01", "00"},
        {true, false, true, true});
    row("a first false is a change from nothing", R"("@format": "C", "@asBool": true)",
        {"00", "00", "01", "02", "00"}, {true, false, true, false, true});
    row("only masked bits count", R"("@format": "C", "@mask": 1)", {"01", "03", "ff", "fe", "00"},
        {true, false, false, true, false});
    row("scaled", R"("@format": "s", "@factor": 10)", {"0a00", "0a00", "0b00"}, {true, false, true});
    row("I across its sign bit", R"("@format": "I")", {"ffffffff", "ffffffff", "ffffff7f"},
        {true, false, true});
    row("f one unit in the last place apart", R"("@format": "f")", {"0000803f", "0100803f", "0100803f"},
        {true, true, false});
    row("f minus zero equals zero", R"("@format": "f")", {"00000000", "00000080", "00000000"},
        {true, false, false});
    row("f not a number never equals itself", R"("@format": "f")", {"0000c07f", "0000c07f", "0000c07f"},
        {true, true, true});
    row("f infinity equals itself", R"("@format": "f")", {"0000807f", "0000807f", "000080ff"},
        {true, false, true});
    row("a short payload reports nothing", R"("@format": "S")", {"0500", "05", "0500", "", "0600"},
        {true, false, false, false, true});
    row("a short payload first", R"("@format": "S")", {"05", "", "0500"}, {false, false, true});
}

void TestSchemaDataAttribute::observeSequences()
{
    QFETCH(QByteArray, options);
    QFETCH(QStringList, payloads);
    QFETCH(QList<bool>, reported);
    SchemaDataAttribute attribute = s_attribute(options);
    for (int at = 0; at < payloads.size(); ++at) {
        const bool inserted = attribute.insert(QByteArray::fromHex(payloads.at(at).toLatin1()));
        QCOMPARE(inserted, reported.at(at));
        QCOMPARE(attribute.isReadyToFlush(), reported.at(at));
        QCOMPARE(attribute.isEmpty(), !reported.at(at));
        attribute.clear();
    }
}

void TestSchemaDataAttribute::observeComparesAcrossClear()
{
    SchemaDataAttribute attribute = s_attribute(R"({"@format": "s", "@observe": true})");
    QVERIFY(attribute.insert(s_hex("0700")));
    attribute.clear();
    attribute.clear();
    QVERIFY(attribute.isEmpty());
    QCOMPARE(attribute.count(), 0);
    QVERIFY(!attribute.insert(s_hex("0700")));
}

// ---- Rainy ----

void TestSchemaDataAttribute::definitionThatIsNoMapThrows_data()
{
    QTest::addColumn<QVariant>("definition");

    QTest::newRow("nothing") << QVariant();
    QTest::newRow("number") << QVariant(5);
    QTest::newRow("text") << QVariant("{}");
    QTest::newRow("list") << QVariant(QVariantList{QVariantMap()});
    QTest::newRow("hash") << QVariant(QVariantHash{{"@mac", 1}});
    QTest::newRow("JSON object, though it converts") << QVariant(QJsonObject{{"@mac", 1}});
}

void TestSchemaDataAttribute::definitionThatIsNoMapThrows()
{
    QFETCH(QVariant, definition);
    COMPARE_THROWN(SchemaDataAttribute(definition, QStringList("x")), "Bad type");
}

void TestSchemaDataAttribute::keysAreCaseSensitive()
{
    const SchemaDataAttribute attribute = s_attribute(
        R"({"@Format": "s", "@flushsize": 4, "@SKIP": 2, "@Mac": 5, "mac": 5, "@CMD": 6, "@asbool": true,
            "@Mask": 1, "@Factor": 3, "@Fragmentation": true})");
    QCOMPARE(int(attribute.format()), 0);
    QCOMPARE(attribute.flushSize(), 0);
    QCOMPARE(attribute.skip(), 0);
    QCOMPARE(int(attribute.endpoint().mac), 0);
    QCOMPARE(int(attribute.endpoint().cmd), 0);
    QCOMPARE(attribute.endpoint().fragmentation, false);
    QVERIFY(!attribute.isReadOnly());
    QCOMPARE(attribute.factor(), 1.0F);
}

void TestSchemaDataAttribute::unknownKeysAndChildMapsAreIgnored()
{
    SchemaDataAttribute attribute = s_attribute(
        R"({"@format": "C", "@unknown": 1, "unit": "rpm", "child": {"@format": "s", "@mac": 9, "@skip": 1}})");
    QCOMPARE(attribute.format(), 'C');
    QCOMPARE(int(attribute.endpoint().mac), 0);
    QVERIFY(attribute.insert(s_hex("07")));
    QCOMPARE(attribute.data(), QVariant(7));
}

void TestSchemaDataAttribute::observeIsOffWhileGathering()
{
    SchemaDataAttribute attribute = s_attribute(R"({"@format": "C", "@observe": true, "@flushSize": 4})");
    for (int i = 0; i < 4; ++i) {
        QVERIFY(attribute.insert(s_hex("05")));
    }
    QVERIFY(attribute.isReadyToFlush());
    QCOMPARE(s_elements(attribute.data()), (QVector<double>{5, 5, 5, 5}));
    attribute.clear();
    for (int i = 0; i < 4; ++i) {
        QVERIFY(attribute.insert(s_hex("05")));
    }
    QVERIFY(attribute.isReadyToFlush());
}

void TestSchemaDataAttribute::negativeFlushSizeIsFullForEver()
{
    for (const char *options :
         {R"({"@format": "C", "@flushSize": -1})", R"({"@format": "C", "@flushSize": -2147483648})",
          R"({"@format": "C", "@flushSize": -1, "@observe": true})"}) {
        SchemaDataAttribute attribute = s_attribute(options);
        QVERIFY(attribute.isFull());
        QVERIFY(attribute.isReadyToFlush());
        QVERIFY(attribute.isEmpty());
        QVERIFY(!attribute.insert(s_hex("05")));
        QVERIFY(attribute.isEmpty());
        QCOMPARE(attribute.count(), 0);
        attribute.clear();
        QVERIFY(attribute.isFull());
        QVERIFY(attribute.isReadyToFlush());
    }
}

void TestSchemaDataAttribute::unknownFormatsStoreNothing_data()
{
    QTest::addColumn<QString>("format");
    for (const char *format : {"x", "F", "P", "b", "B", "d", "h", "l", "1", " ", ""}) {
        QTest::newRow(format) << QString(format);
    }
}

void TestSchemaDataAttribute::unknownFormatsStoreNothing()
{
    QFETCH(QString, format);
    for (const int flushSize : {0, 1, 5}) {
        for (const bool observe : {false, true}) {
            for (const double factor : {1.0, 2.0}) {
                SchemaDataAttribute attribute(QVariantMap{{"@format", format},
                                                          {"@flushSize", flushSize},
                                                          {"@observe", observe},
                                                          {"@factor", factor}},
                                              {"x"});
                QVERIFY(!attribute.insert(s_hex("0102030405060708")));
                QVERIFY(!attribute.insert(QByteArray()));
                QVERIFY(attribute.isEmpty());
                QCOMPARE(attribute.count(), 0);
                QVERIFY(!attribute.isReadyToFlush());
            }
        }
    }
}

void TestSchemaDataAttribute::shortPayloadCarriesNoReading_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("flushSize");
    QTest::addColumn<double>("factor");

    const QList<QPair<QString, int>> formats{{"C", 1}, {"c", 1}, {"S", 2}, {"s", 2}, {"Q", 2},
                                             {"q", 2}, {"I", 4}, {"i", 4}, {"f", 4}};
    for (const auto &format : formats) {
        for (const int flushSize : {0, 2}) {
            for (const double factor : {1.0, 10.0}) {
                QTest::addRow("%s%s%s", qPrintable(format.first), flushSize ? " gathered" : "",
                              factor > 1.0 ? " scaled" : "")
                    << format.first << format.second << flushSize << factor;
            }
        }
    }
}

void TestSchemaDataAttribute::shortPayloadCarriesNoReading()
{
    QFETCH(QString, format);
    QFETCH(int, width);
    QFETCH(int, flushSize);
    QFETCH(double, factor);
    for (int skip = 0; skip <= 9; ++skip) {
        for (int length = 0; length <= 14; ++length) {
            SchemaDataAttribute attribute(
                QVariantMap{
                    {"@format", format}, {"@skip", skip}, {"@flushSize", flushSize}, {"@factor", factor}},
                {"x"});
            // An exact allocation, so that a sanitizer sees a read one byte too far.
            const std::vector<char> bytes(size_t(length), '\x01');
            const bool fits = length >= skip + width;
            QCOMPARE(attribute.insert(QByteArray::fromRawData(bytes.data(), length)), fits);
            QCOMPARE(attribute.count(), fits ? 1 : 0);
            QCOMPARE(attribute.isEmpty(), !fits);
        }
    }
}

void TestSchemaDataAttribute::hostileSkipCarriesNoReading_data()
{
    QTest::addColumn<int>("skip");
    QTest::newRow("minus one") << -1;
    QTest::newRow("minus four") << -4;
    QTest::newRow("minus eight") << -8;
    QTest::newRow("smallest") << std::numeric_limits<int>::min();
    QTest::newRow("largest") << std::numeric_limits<int>::max();
    QTest::newRow("largest less one") << std::numeric_limits<int>::max() - 1;
    QTest::newRow("largest less four") << std::numeric_limits<int>::max() - 4;
    QTest::newRow("one past the payload") << 8;
}

void TestSchemaDataAttribute::hostileSkipCarriesNoReading()
{
    QFETCH(int, skip);
    for (const char *format : {"C", "c", "S", "s", "Q", "q", "I", "i", "f"}) {
        for (const int flushSize : {0, 1}) {
            SchemaDataAttribute attribute(
                QVariantMap{{"@format", format}, {"@skip", skip}, {"@flushSize", flushSize}}, {"x"});
            QCOMPARE(attribute.skip(), skip);
            QVERIFY(!attribute.insert(s_hex("0102030405060708")));
            QVERIFY(!attribute.insert(QByteArray()));
            QVERIFY(attribute.isEmpty());
            QCOMPARE(attribute.count(), 0);
        }
    }
}

void TestSchemaDataAttribute::shortPayloadLeavesGatheredReadings()
{
    SchemaDataAttribute attribute = s_attribute(R"({"@format": "S", "@flushSize": 3})");
    QVERIFY(attribute.insert(s_hex("0100")));
    QVERIFY(attribute.insert(s_hex("01"))); // one reading is held from before
    QCOMPARE(attribute.count(), 1);
    QVERIFY(attribute.insert(s_hex("0200")));
    QCOMPARE(s_elements(attribute.data()), (QVector<double>{1, 2}));
}

void TestSchemaDataAttribute::shortPayloadUnderObserveKeepsTheLastValue()
{
    SchemaDataAttribute attribute = s_attribute(R"({"@format": "S", "@observe": true})");
    QVERIFY(attribute.insert(s_hex("0500")));
    attribute.clear();
    QVERIFY(!attribute.insert(s_hex("05")));
    QVERIFY(attribute.isEmpty());
    QVERIFY(!attribute.isReadyToFlush());
    QVERIFY(!attribute.insert(s_hex("0500"))); // still compared with 5, not with nothing
}

void TestSchemaDataAttribute::fullOnEntrySkipsTheObserveStep()
{
    SchemaDataAttribute attribute = s_attribute(R"({"@format": "C", "@observe": true})");
    QVERIFY(attribute.insert(s_hex("05")));
    // Were the observe step run, the value would be found unchanged and cleared.
    QVERIFY(!attribute.insert(s_hex("05")));
    QVERIFY(attribute.isReadyToFlush());
    QCOMPARE(attribute.data(), QVariant(5));
    // Nor does the refused reading become the one to compare with.
    QVERIFY(!attribute.insert(s_hex("06")));
    attribute.clear();
    QVERIFY(!attribute.insert(s_hex("05")));
    QVERIFY(attribute.insert(s_hex("06")));
}

void TestSchemaDataAttribute::packedForgetsItsFragments()
{
    for (const char *options :
         {R"({"@format": "p"})", R"({"@format": "p", "@flushSize": 3})", R"({"@format": "p", "@factor": 2})",
          R"({"@format": "p", "@skip": 99})", R"({"@format": "p", "@observe": true})",
          R"({"@format": "packed", "@asBool": true, "@mask": 0})"}) {
        SchemaDataAttribute attribute = s_attribute(options);
        // {"x": 1}, in one piece and in two.
        for (const char *fragment : {"81a17801", "81a1", "7801"}) {
            QVERIFY(!attribute.insert(s_hex(fragment)));
            QVERIFY(attribute.isEmpty());
            QCOMPARE(attribute.count(), 0);
            QVERIFY(!attribute.isReadyToFlush());
        }
        COMPARE_THROWN(attribute.insert(QByteArray()), "Bad type");
        QVERIFY(attribute.isEmpty());
        QCOMPARE(attribute.count(), 0);
    }
}

void TestSchemaDataAttribute::packedEmptyPayloadThrows_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::newRow("single") << QByteArray(R"({"@format": "p"})");
    QTest::newRow("gathered") << QByteArray(R"({"@format": "p", "@flushSize": 3})");
    QTest::newRow("observed") << QByteArray(R"({"@format": "p", "@observe": true})");
    QTest::newRow("negative skip") << QByteArray(R"({"@format": "p", "@skip": -1})");
}

void TestSchemaDataAttribute::packedEmptyPayloadThrows()
{
    QFETCH(QByteArray, options);
    SchemaDataAttribute attribute = s_attribute(options);
    for (int i = 0; i < 2; ++i) {
        COMPARE_THROWN(attribute.insert(QByteArray()), "Bad type");
        QVERIFY(attribute.isEmpty());
        QCOMPARE(attribute.count(), 0);
        QVERIFY(!attribute.isFull());
    }
    const SchemaDataAttribute rootLeaf(s_map(options), QStringList());
    SchemaDataAttribute copy = rootLeaf;
    COMPARE_THROWN(copy.insert(QByteArray()), "Bad type"); // thrown before the path is looked at
}

void TestSchemaDataAttribute::packedThrowLeavesObserveAlone()
{
    SchemaDataAttribute attribute = s_attribute(R"({"@format": "p", "@observe": true})");
    COMPARE_THROWN(attribute.insert(QByteArray()), "Bad type");
    QVERIFY(!attribute.isReadyToFlush());
    QVERIFY(!attribute.insert(s_hex("80")));
    QVERIFY(!attribute.isReadyToFlush());
}

void TestSchemaDataAttribute::packedThatIsFullRefusesWithoutThrowing()
{
    SchemaDataAttribute attribute = s_attribute(R"({"@format": "p", "@flushSize": -1})");
    QVERIFY(!attribute.insert(QByteArray()));
    QVERIFY(!attribute.insert(s_hex("80")));
}

void TestSchemaDataAttribute::nothingIsLogged()
{
    LogScope log;
    SchemaDataAttribute attribute = s_attribute(
        R"({"@format": "s", "@flushSize": "x", "@skip": [], "@mac": "y", "@factor": "z", "@mask": {}})");
    attribute.insert(s_hex("0100"));
    attribute.insert(s_hex("01"));
    attribute.clear();
    SchemaDataAttribute packed = s_attribute(R"({"@format": "p"})");
    COMPARE_THROWN(packed.insert(QByteArray()), "Bad type");
    SchemaDataAttribute unknown = s_attribute(R"({"@format": "x", "@skip": -1})");
    unknown.insert(s_hex("01"));
    QCOMPARE(log.lines(), QStringList());
}

// ---- The room that arrays share ----

void TestSchemaDataAttribute::arraysTakeRoomForWhatTheyCanFill_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<int>("width");
    for (const char *format : {"C", "c"}) {
        QTest::newRow(format) << QByteArray(R"("@format": ")") + format + '"' << 1;
    }
    for (const char *format : {"S", "s", "Q", "q"}) {
        QTest::newRow(format) << QByteArray(R"("@format": ")") + format + '"' << 2;
    }
    for (const char *format : {"I", "i", "f"}) {
        QTest::newRow(format) << QByteArray(R"("@format": ")") + format + '"' << 4;
    }
    QTest::newRow("scaled C") << QByteArray(R"("@format": "C", "@factor": 2)") << 4;
    QTest::newRow("f as bool") << QByteArray(R"("@format": "f", "@asBool": true)") << 4;
}

void TestSchemaDataAttribute::arraysTakeRoomForWhatTheyCanFill()
{
    QFETCH(QByteArray, options);
    QFETCH(int, width);
    for (const int flushSize : {1, 3, 5, 16, 17, 100}) {
        SchemaDataAttribute attribute =
            s_attribute("{" + options + R"(, "@flushSize": )" + QByteArray::number(flushSize) + "}");
        GatheringRoom room(1000);
        for (int round = 0; round < 2; ++round) {
            for (int i = 1; i <= flushSize; ++i) {
                QVERIFY(attribute.insert(s_hex("01020304"), &room));
                QCOMPARE(attribute.count(), i);
                const qint64 taken = 1000 - room.left();
                QVERIFY(taken >= i * width);
                QVERIFY(taken <= qMax(16, 2 * i * width));
            }
            QVERIFY(attribute.isFull());
            QCOMPARE(room.left(), 1000 - flushSize * width);
            QVERIFY(!attribute.insert(s_hex("01020304"), &room));
            QCOMPARE(room.left(), 1000 - flushSize * width);
            attribute.clear(&room);
            QCOMPARE(room.left(), 1000);
            attribute.clear(&room);
            QCOMPARE(room.left(), 1000);
        }
    }
}

void TestSchemaDataAttribute::singleValuesTakeNoRoom()
{
    GatheringRoom room(0);
    LogScope log;
    for (const char *options : {R"({"@format": "I"})", R"({"@format": "f", "@factor": 2})",
                                R"({"@format": "C", "@observe": true})"}) {
        SchemaDataAttribute attribute = s_attribute(options);
        QVERIFY(attribute.insert(s_hex("01020304"), &room));
        attribute.clear(&room);
    }
    QCOMPARE(room.left(), 0);
    QCOMPARE(log.lines(), QStringList());
}

void TestSchemaDataAttribute::readingsWithoutRoomAreDropped()
{
    GatheringRoom room(55); // of 16 and 32 for these two, 7 remain
    LogScope log;
    SchemaDataAttribute other = s_attribute(R"({"@format": "C", "@flushSize": 16})");
    QVERIFY(other.insert(s_hex("01"), &room));
    SchemaDataAttribute attribute = s_attribute(R"({"@format": "I", "@flushSize": 10})");
    QVector<double> expected;
    for (int i = 1; i <= 12; ++i) {
        QVERIFY(attribute.insert(QByteArray(1, char(i)) + QByteArray(3, '\0'), &room));
        if (i <= 8) {
            expected << i;
        }
        QCOMPARE(s_elements(attribute.data()), expected);
    }
    QVERIFY(!attribute.isReadyToFlush());
    QCOMPARE(log.lines().size(), 1);

    other.clear(&room);
    for (int i = 13; i <= 15; ++i) {
        attribute.insert(QByteArray(1, char(i)) + QByteArray(3, '\0'), &room);
    }
    QCOMPARE(s_elements(attribute.data()), (QVector<double>{1, 2, 3, 4, 5, 6, 7, 8, 13, 14}));
    QVERIFY(attribute.isReadyToFlush());
    QCOMPARE(log.lines().size(), 1);
}

void TestSchemaDataAttribute::emptyArrayWithoutRoomStaysEmpty()
{
    GatheringRoom room(15);
    LogScope log;
    SchemaDataAttribute attribute = s_attribute(R"({"@format": "S", "@flushSize": 100})");
    QVERIFY(!attribute.insert(s_hex("0102"), &room));
    QVERIFY(attribute.isEmpty());
    QVERIFY(!attribute.data().isValid());
    QCOMPARE(attribute.count(), 0);
    QCOMPARE(room.left(), 15);
    QCOMPARE(log.lines().size(), 1);
    room.giveBack(1);
    QVERIFY(attribute.insert(s_hex("0102"), &room));
    QCOMPARE(room.left(), 0);
}

void TestSchemaDataAttribute::fullSizesThatFitAlwaysFit()
{
    // Arrays that fill in turns, none of which may be in the way of the others.
    GatheringRoom room(100 * 4 + 37 * 2 + 9);
    LogScope log;
    QList<SchemaDataAttribute> attributes = {s_attribute(R"({"@format": "i", "@flushSize": 100})"),
                                             s_attribute(R"({"@format": "s", "@flushSize": 37})"),
                                             s_attribute(R"({"@format": "C", "@flushSize": 9})")};
    for (int i = 0; i < 100; ++i) {
        for (SchemaDataAttribute &attribute : attributes) {
            attribute.insert(s_hex("01020304"), &room);
        }
    }
    for (const SchemaDataAttribute &attribute : qAsConst(attributes)) {
        QVERIFY(attribute.isFull());
        QCOMPARE(s_elements(attribute.data()).size(), attribute.flushSize());
    }
    QCOMPARE(room.left(), 0);
    QCOMPARE(log.lines(), QStringList());
}

void TestSchemaDataAttribute::oneWarningForARoom()
{
    const QString warning =
        "warning: Attribute (\"motor\", \"\") drops readings: the arrays of the schema may "
        "take 64 MiB together.";
    for (int i = 0; i < 2; ++i) {
        GatheringRoom room(0);
        LogScope log;
        const QVariant options = s_map(R"({"@format": "C", "@flushSize": 2})");
        SchemaDataAttribute first(options, {"motor", ""});
        SchemaDataAttribute second(options, {"lamp"});
        for (SchemaDataAttribute *attribute : {&first, &first, &second}) {
            attribute->insert(s_hex("01"), &room);
        }
        QCOMPARE(log.lines(), QStringList{warning});
    }
}

QTEST_APPLESS_MAIN(TestSchemaDataAttribute)
#include "tst_schemadataattribute.moc"
