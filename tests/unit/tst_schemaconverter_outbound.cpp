// Values to frames: the bytes of every format, how payloads are cut into frames, and every log line on the
// way.
#include "schema/schemaconverter.h"
#include "tests/unit/tst_schematools.h"

#include <QtTest>

#include <cmath>
#include <limits>

class TestSchemaConverterOutbound : public QObject
{
    Q_OBJECT

private slots:
    // Happy
    void emptyMapYieldsNoFrames();
    void wholeFrameOnTheWire();
    void toFrameConcatenatesTheFrames();
    void bytesOfEveryFormat_data();
    void bytesOfEveryFormat();
    void scaledValues_data();
    void scaledValues();
    void twoLeavesInOneFrame();
    void gapsAreZero();
    void laterLeavesOverwriteEarlierOnes_data();
    void laterLeavesOverwriteEarlierOnes();
    void nestedMembers();
    void framesAreOrderedByEndpoint();
    void payloadsAreCutIntoFragments_data();
    void payloadsAreCutIntoFragments();
    void shorterLastFragmentCarriesStaleBytes();
    void everyEndpointStartsFromAClearedFrame();
    void packedFormat_data();
    void packedFormat();
    void writingDoesNotDisturbTheReadings();
    void wholeLogOfOneConversion();
    void wholeLogOfAFragmentedConversion();
    void debugLinesOfPlacement_data();
    void debugLinesOfPlacement();

    // Rainy
    void valueThatIsNoMapThrows_data();
    void valueThatIsNoMapThrows();
    void nestedValueThatOnlyConvertsToAMapThrows();
    void unknownMembersAreSkipped();
    void withoutASchemaEveryMemberIsUnknown();
    void readOnlyLeavesAreSkipped_data();
    void readOnlyLeavesAreSkipped();
    void nilWritesNothing();
    void unknownFormatsWriteNothing_data();
    void unknownFormatsWriteNothing();
    void plainValueForABranch();
    void branchWithOptionsIsWrittenAtEndpointZero();
    void mapForALeafWalksItsMembers();
    void mapForALeafReachesItsChildren();
    void unscaledValuesWrap_data();
    void unscaledValuesWrap();
    void saturationIsLogged_data();
    void saturationIsLogged();
    void tooLongPayloadIsTrimmed();
    void trimmedEndpointDoesNotStopTheNext();
    void flagOfTheFirstLeafHolds_data();
    void flagOfTheFirstLeafHolds();
    void headerKeepsTheLowBits_data();
    void headerKeepsTheLowBits();
    void endpointsThatShareAHeaderStayApart();
    void offsetsOutOfRangeWriteNothing_data();
    void offsetsOutOfRangeWriteNothing();
    void largestOffset();
    void aThrowSendsNothing();
    void nonAsciiFormatWritesNothing();
    void payloadsOfOneMessageAreBounded();
    void offsetsAndPackedValuesShareTheBound();
    void packedValuesUpToTheBound();
    void linesOfOneKindAreBounded_data();
    void linesOfOneKindAreBounded();
    void eachKindOfLineIsBoundedForItself();
    void boundedLinesAfterAThrow();
    void hiddenDebugLinesAreNotCounted();
    void valuesThatFitCountForNoLine();
};

// A frame in words: "mac/cmd [dlc] data", the data in full, stale bytes included.
static QString s_words(const vek_frame_t &frame)
{
    const std::uint16_t header = vek_frame_header(frame);
    const QByteArray data(reinterpret_cast<const char *>(frame.data), sizeof frame.data);
    QString words = QString("%1/%2 [%3] %4")
                        .arg(vek_header_mac(header))
                        .arg(vek_header_cmd(header))
                        .arg(vek_header_dlc(header))
                        .arg(QString::fromLatin1(data.toHex()));
    if (vek_header_rtr(header) != 0) {
        words += " rtr";
    }
    if (!vek_frame_is_valid(&frame)) {
        words += " bad crc";
    }
    return words;
}

static QStringList s_words(const QList<vek_frame_t> &frames)
{
    QStringList words;
    for (const vek_frame_t &frame : frames) {
        words << s_words(frame);
    }
    return words;
}

// The frames in words for one leaf "x" (mac 1, cmd 2) with these further options and this value.
static QStringList s_framesOfLeaf(const QByteArray &options, const QVariant &value)
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@cmd": 2, )" + options + "}}"));
    return s_words(converter.toVEKFrames(QVariantMap{{"x", value}}));
}

static QStringList s_frames(const QByteArray &schema, const QVariant &value)
{
    SchemaConverter converter;
    converter.loadSchema(s_json(schema));
    return s_words(converter.toVEKFrames(value));
}

static const char s_trimmed[] =
    "warning: Cannot send more than 8 bytes of data through CAN without fragmentation. "
    "The frame was trimmed to 8 bytes.";

static QString s_readOnlyWarning(const QString &name)
{
    return "warning: Attribute \"" + name +
           "\" is readonly (because it is configured with one of the options: @asBool, @mask) "
           "and cannot be written to.";
}

static QString s_unknownWarning(const QString &name)
{
    return "warning: Key: \"" + name + "\" does not exist in the schema";
}

// ---- Happy ----

void TestSchemaConverterOutbound::emptyMapYieldsNoFrames()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@format": "C"}})"));
    LogScope log;
    QCOMPARE(converter.toFrame(QVariantMap()), QByteArray());
    QCOMPARE(log.lines(),
             (QStringList{"debug: Converting binary data into a frame QVariant(QVariantMap, QMap())",
                          "debug: Converting binary data into a frame QVariant(QVariantMap, QMap())",
                          "debug: Converted VEK frames: 0", "debug: Converted size: 0"}));
}

void TestSchemaConverterOutbound::wholeFrameOnTheWire()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 5, "@cmd": 3, "@format": "s"}})"));
    QCOMPARE(converter.toFrame(QVariantMap{{"x", 0x3412}}).toHex(), QByteArray("c510123400000000000096"));
}

void TestSchemaConverterOutbound::toFrameConcatenatesTheFrames()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"a": {"@mac": 1, "@cmd": 1, "@format": "C"},
                                    "b": {"@mac": 1, "@cmd": 2, "@format": "i", "@skip": 12, "@fragmentation": true}})"));
    const QVariantMap value{{"a", 7}, {"b", -1}};
    const QList<vek_frame_t> frames = converter.toVEKFrames(value);
    QCOMPARE(frames.size(), 3);
    QByteArray expected;
    for (const vek_frame_t &frame : frames) {
        expected.append(reinterpret_cast<const char *>(&frame), sizeof frame);
    }
    QCOMPARE(converter.toFrame(value), expected);
    QCOMPARE(expected.size(), 33);
}

void TestSchemaConverterOutbound::bytesOfEveryFormat_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("frame");

    const auto row = [](const char *name, const char *options, const QVariant &value, const char *frame) {
        QTest::newRow(name) << QByteArray(options) << value << QString("1/2 ") + frame;
    };
    row("C", R"("@format": "C")", 200, "[1] c800000000000000");
    row("c", R"("@format": "c")", 200, "[1] c800000000000000");
    row("c negative", R"("@format": "c")", -1, "[1] ff00000000000000");
    row("S low byte first", R"("@format": "S")", 0x1234, "[2] 3412000000000000");
    row("s", R"("@format": "s")", -2, "[2] feff000000000000");
    row("Q", R"("@format": "Q")", 65535, "[2] ffff000000000000");
    row("q", R"("@format": "q")", -32768, "[2] 0080000000000000");
    row("I", R"("@format": "I")", QVariant(0x81020304U), "[4] 0403028100000000");
    row("i", R"("@format": "i")", 0x01020304, "[4] 0403020100000000");
    row("i negative", R"("@format": "i")", -2, "[4] feffffff00000000");
    row("f", R"("@format": "f")", 1.0, "[4] 0000803f00000000");
    row("f from an integer", R"("@format": "f")", -2, "[4] 000000c000000000");
    row("f from a double rounds", R"("@format": "f")", 0.1, "[4] cdcccc3d00000000");
    row("f infinity", R"("@format": "f")", std::numeric_limits<double>::infinity(), "[4] 0000807f00000000");
    row("format by its first letter", R"("@format": "short")", 1, "[2] 0100000000000000");
    row("behind its offset", R"("@format": "C", "@skip": 7)", 5, "[8] 0000000000000005");
    row("two bytes behind their offset", R"("@format": "S", "@skip": 6)", 0x0102, "[8] 0000000000000201");
    row("zero is a value", R"("@format": "C")", 0, "[1] 0000000000000000");

    row("true", R"("@format": "C")", true, "[1] 0100000000000000");
    row("false for f", R"("@format": "f")", false, "[4] 0000000000000000");
    row("long long", R"("@format": "i")", QVariant(-5LL), "[4] fbffffff00000000");
    row("unsigned long long", R"("@format": "S")", QVariant(5ULL), "[2] 0500000000000000");
    row("double is rounded to the nearest", R"("@format": "s")", 2.5, "[2] 0300000000000000");
    row("negative double is rounded", R"("@format": "s")", -2.6, "[2] fdff000000000000");
    row("single-precision number is rounded", R"("@format": "C")", 3.5F, "[1] 0400000000000000");
    row("text that is a number", R"("@format": "s")", "300", "[2] 2c01000000000000");
    row("text that is a number for f", R"("@format": "f")", "2.5", "[4] 0000204000000000");
    row("byte array that is a number", R"("@format": "C")", QByteArray("7"), "[1] 0700000000000000");
    row("text that is no whole number is zero", R"("@format": "s")", "2.5", "[2] 0000000000000000");
    row("text that is no number is zero", R"("@format": "i")", "abc", "[4] 0000000000000000");
    row("empty text is zero", R"("@format": "C")", "", "[1] 0000000000000000");
    row("list is zero", R"("@format": "s")", QVariantList{7}, "[2] 0000000000000000");
    row("list for f is zero", R"("@format": "f")", QVariantList{7}, "[4] 0000000000000000");
    row("null number is zero", R"("@format": "s")", QVariant(QVariant::Int), "[2] 0000000000000000");
    row("factor one as a text scales nothing", R"("@format": "s", "@factor": "1")", 2.5,
        "[2] 0300000000000000");
    row("flushSize, observe and unknown options do not matter",
        R"("@format": "C", "@flushSize": 9, "@observe": true, "unit": "V")", 5, "[1] 0500000000000000");
    row("mask -1 is no mask", R"("@format": "C", "@mask": -1, "@asBool": false)", 5, "[1] 0500000000000000");
}

void TestSchemaConverterOutbound::bytesOfEveryFormat()
{
    QFETCH(QByteArray, options);
    QFETCH(QVariant, value);
    QFETCH(QString, frame);
    LogScope log;
    QCOMPARE(s_framesOfLeaf(options, value), QStringList{frame});
    QCOMPARE(log.lines("warning"), QStringList());
}

void TestSchemaConverterOutbound::scaledValues_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("frame");

    const auto row = [](const char *name, const char *options, const QVariant &value, const char *frame) {
        QTest::newRow(name) << QByteArray(options) << value << QString("1/2 ") + frame;
    };
    row("multiplied, not divided", R"("@format": "C", "@factor": 10)", 5, "[1] 3200000000000000");
    row("truncated toward zero", R"("@format": "C", "@factor": 0.1)", 29, "[1] 0200000000000000");
    row("negative truncated toward zero", R"("@format": "c", "@factor": 0.1)", -29, "[1] fe00000000000000");
    row("minus two point nine", R"("@format": "s", "@factor": 2)", -1.45, "[2] feff000000000000");
    row("largest signed byte", R"("@format": "C", "@factor": 2)", 63.5, "[1] 7f00000000000000");
    row("smallest signed byte", R"("@format": "C", "@factor": 2)", -64, "[1] 8000000000000000");
    row("largest short", R"("@format": "S", "@factor": 2)", 16383.5, "[2] ff7f000000000000");
    row("smallest short", R"("@format": "q", "@factor": 2)", -16384, "[2] 0080000000000000");
    row("Q is scaled as q", R"("@format": "Q", "@factor": -1)", 1, "[2] ffff000000000000");
    row("smallest int", R"("@format": "I", "@factor": 2)", -1073741824, "[4] 0000008000000000");
    row("two to the thirty-first saturates unnoticed", R"("@format": "i", "@factor": 2)", 1073741824,
        "[4] ffffff7f00000000");
    row("i in single precision", R"("@format": "i", "@factor": 0.5)", 33554434.0, "[4] 0000000100000000");
    row("i loses what single precision cannot hold", R"("@format": "i", "@factor": -1)", 16777217,
        "[4] 000000ff00000000");
    row("f goes through a whole number", R"("@format": "f", "@factor": 10)", 1.25, "[4] 0000404100000000");
    row("f negative goes through a whole number", R"("@format": "f", "@factor": 2)", -0.75,
        "[4] 000080bf00000000");
    row("f below one vanishes", R"("@format": "f", "@factor": 0.5)", 1, "[4] 0000000000000000");
    row("f in the int range saturates", R"("@format": "f", "@factor": 2)", 1073741824,
        "[4] 0000004f00000000");
    row("text is a number", R"("@format": "s", "@factor": 2)", "2.5", "[2] 0500000000000000");
    row("text that is none is zero", R"("@format": "s", "@factor": 2)", "abc", "[2] 0000000000000000");
    row("list is zero", R"("@format": "s", "@factor": 2)", QVariantList{1}, "[2] 0000000000000000");
    row("true", R"("@format": "s", "@factor": 2.9)", true, "[2] 0200000000000000");
    row("factor zero writes zero", R"("@format": "s", "@factor": 0)", 1000, "[2] 0000000000000000");
    row("factor text is zero", R"("@format": "s", "@factor": "ten")", 1000, "[2] 0000000000000000");
    row("product in single precision", R"("@format": "s", "@factor": 0.1)", 30, "[2] 0300000000000000");
    row("behind its offset", R"("@format": "C", "@factor": 2, "@skip": 3)", 2, "[4] 0000000400000000");
    row("minus zero", R"("@format": "s", "@factor": "-0.0")", 1000, "[2] 0000000000000000");
    row("minus zero as f has no sign left", R"("@format": "f", "@factor": "-0.0")", 5,
        "[4] 0000000000000000");
    row("denormal", R"("@format": "s", "@factor": 1e-38)", 2.5e38, "[2] 0200000000000000");
    row("denormal of a small value", R"("@format": "i", "@factor": 1e-40)", 5, "[4] 0000000000000000");
}

void TestSchemaConverterOutbound::scaledValues()
{
    bytesOfEveryFormat();
}

void TestSchemaConverterOutbound::twoLeavesInOneFrame()
{
    const QByteArray schema = R"({"a": {"@mac": 5, "@cmd": 2, "@format": "s"},
                                  "b": {"@mac": 5, "@cmd": 2, "@format": "s", "@skip": 2}})";
    QCOMPARE(s_frames(schema, QVariantMap{{"a", 0x0102}, {"b", 0x0304}}),
             QStringList{"5/2 [4] 0201040300000000"});
    QCOMPARE(s_frames(schema, QVariantMap{{"a", 0x0102}}), QStringList{"5/2 [2] 0201000000000000"});
    QCOMPARE(s_frames(schema, QVariantMap{{"b", 0x0304}}), QStringList{"5/2 [4] 0000040300000000"});
}

void TestSchemaConverterOutbound::gapsAreZero()
{
    const QByteArray schema = R"({"a": {"@mac": 1, "@format": "C", "@skip": 1},
                                  "b": {"@mac": 1, "@format": "C", "@skip": 20, "@fragmentation": true},
                                  "c": {"@mac": 1, "@format": "C", "@skip": 9}})";
    QStringList expected{"1/0 [8] 0000000000000000", "1/0 [8] 0000000000000000", "1/0 [5] 0000000005000000"};
    QCOMPARE(s_frames(R"({"b": {"@mac": 1, "@format": "C", "@skip": 20, "@fragmentation": true}})",
                      QVariantMap{{"b", 5}}),
             expected);
    // Trimmed: "a" came first, and it sets no flag.
    QCOMPARE(s_frames(schema, QVariantMap{{"a", 1}, {"b", 5}, {"c", 2}}),
             QStringList{"1/0 [8] 0001000000000000"});
}

void TestSchemaConverterOutbound::laterLeavesOverwriteEarlierOnes_data()
{
    QTest::addColumn<QByteArray>("a");
    QTest::addColumn<QByteArray>("b");
    QTest::addColumn<QString>("frame");

    QTest::newRow("inside") << QByteArray(R"("@format": "i")") << QByteArray(R"("@format": "C", "@skip": 1)")
                            << "1/0 [4] 1102111100000000";
    QTest::newRow("across the end") << QByteArray(R"("@format": "s")")
                                    << QByteArray(R"("@format": "s", "@skip": 1)")
                                    << "1/0 [3] 1102020000000000";
    QTest::newRow("a longer one over a shorter one")
        << QByteArray(R"("@format": "C", "@skip": 2)") << QByteArray(R"("@format": "i")")
        << "1/0 [4] 0202020200000000";
    QTest::newRow("a shorter one never shortens")
        << QByteArray(R"("@format": "C", "@skip": 5)") << QByteArray(R"("@format": "C")")
        << "1/0 [6] 0200000000110000";
}

void TestSchemaConverterOutbound::laterLeavesOverwriteEarlierOnes()
{
    QFETCH(QByteArray, a);
    QFETCH(QByteArray, b);
    QFETCH(QString, frame);
    // "b" is later by name, whatever the order on the wire.
    QCOMPARE(s_frames(R"({"b": {"@mac": 1, )" + b + R"(}, "a": {"@mac": 1, )" + a + "}}",
                      QVariantMap{{"b", 0x02020202}, {"a", 0x11111111}}),
             QStringList{frame});
}

void TestSchemaConverterOutbound::nestedMembers()
{
    const QByteArray schema = R"({"motor": {"left": {"speed": {"@mac": 1, "@format": "s"}},
                                            "right": {"speed": {"@mac": 2, "@format": "s"}}},
                                  "lamp": {"@mac": 3, "@format": "C"}})";
    QCOMPARE(
        s_frames(schema, s_map(R"({"motor": {"left": {"speed": 258}, "right": {"speed": 772}}, "lamp": 1})")),
        (QStringList{"1/0 [2] 0201000000000000", "2/0 [2] 0403000000000000", "3/0 [1] 0100000000000000"}));
    QCOMPARE(s_frames(schema, s_map(R"({"motor": {"right": {"speed": 772}}})")),
             QStringList{"2/0 [2] 0403000000000000"});
    QCOMPARE(s_frames(schema, s_map(R"({"motor": {}})")), QStringList());
}

void TestSchemaConverterOutbound::framesAreOrderedByEndpoint()
{
    const QByteArray schema = R"({"a": {"@mac": 9, "@cmd": 3, "@format": "C"},
                                  "b": {"@mac": 1, "@cmd": 3, "@format": "C"},
                                  "c": {"@mac": 60, "@cmd": 0, "@format": "C"},
                                  "d": {"@mac": 2, "@cmd": 32769, "@format": "C"},
                                  "e": {"@mac": 64, "@cmd": 0, "@format": "C"}})";
    QCOMPARE(s_frames(schema, QVariantMap{{"a", 1}, {"b", 2}, {"c", 3}, {"d", 4}, {"e", 5}}),
             (QStringList{"2/1 [1] 0400000000000000",    // cmd 0x8001 is negative
                          "60/0 [1] 0300000000000000",   // mac 60
                          "0/0 [1] 0500000000000000",    // mac 64 goes out as 0 but orders as 64
                          "1/3 [1] 0200000000000000",    //
                          "9/3 [1] 0100000000000000"})); //
}

void TestSchemaConverterOutbound::payloadsAreCutIntoFragments_data()
{
    QTest::addColumn<int>("skip");
    QTest::addColumn<QList<int>>("lengths");

    QTest::newRow("one byte") << 0 << QList<int>{1};
    QTest::newRow("seven bytes") << 6 << QList<int>{7};
    QTest::newRow("eight bytes") << 7 << QList<int>{8};
    QTest::newRow("nine bytes") << 8 << QList<int>{8, 1};
    QTest::newRow("fifteen bytes") << 14 << QList<int>{8, 7};
    QTest::newRow("sixteen bytes") << 15 << QList<int>{8, 8};
    QTest::newRow("seventeen bytes") << 16 << QList<int>{8, 8, 1};
    QTest::newRow("thirty-two bytes") << 31 << QList<int>{8, 8, 8, 8};
}

void TestSchemaConverterOutbound::payloadsAreCutIntoFragments()
{
    QFETCH(int, skip);
    QFETCH(QList<int>, lengths);
    SchemaConverter converter;
    converter.loadSchema(
        s_json(R"({"x": {"@mac": 1, "@cmd": 2, "@format": "C", "@fragmentation": true, "@skip": )" +
               QByteArray::number(skip) + "}}"));
    LogScope log;
    const QList<vek_frame_t> frames = converter.toVEKFrames(QVariantMap{{"x", 0xA5}});
    QCOMPARE(log.lines("warning"), QStringList());
    QList<int> actual;
    QByteArray payload;
    for (const vek_frame_t &frame : frames) {
        QVERIFY(vek_frame_is_valid(&frame));
        QCOMPARE(int(vek_header_can_id(vek_frame_header(frame))), 1 + 2 * 64);
        const int dlc = vek_header_dlc(vek_frame_header(frame));
        actual << dlc;
        payload.append(reinterpret_cast<const char *>(frame.data), dlc);
    }
    QCOMPARE(actual, lengths);
    QCOMPARE(payload, QByteArray(skip, '\0') + '\xA5');
}

void TestSchemaConverterOutbound::shorterLastFragmentCarriesStaleBytes()
{
    // The bytes behind dlc are the previous fragment's, and the checksum covers them.
    QCOMPARE(s_frames(R"({"a": {"@mac": 1, "@format": "i", "@fragmentation": true},
                          "b": {"@mac": 1, "@format": "i", "@skip": 4},
                          "c": {"@mac": 1, "@format": "s", "@skip": 8}})",
                      QVariantMap{{"a", 0x04030201}, {"b", 0x08070605}, {"c", 0x0A09}}),
             (QStringList{"1/0 [8] 0102030405060708", "1/0 [2] 090a030405060708"}));

    SchemaConverter converter;
    converter.loadSchema(
        s_json(R"({"x": {"@mac": 5, "@cmd": 3, "@format": "i", "@skip": 6, "@fragmentation": true}})"));
    QCOMPARE(s_words(converter.toVEKFrames(QVariantMap{{"x", 0x44332211}})),
             (QStringList{"5/3 [8] 0000000000001122", "5/3 [2] 3344000000001122"}));
}

void TestSchemaConverterOutbound::everyEndpointStartsFromAClearedFrame()
{
    QCOMPARE(s_frames(R"({"a": {"@mac": 1, "@format": "i", "@skip": 4}, "b": {"@mac": 2, "@format": "C"}})",
                      QVariantMap{{"a", -1}, {"b", 5}}),
             (QStringList{"1/0 [8] 00000000ffffffff", "2/0 [1] 0500000000000000"}));
}

void TestSchemaConverterOutbound::packedFormat_data()
{
    QTest::addColumn<QByteArray>("schema");
    QTest::addColumn<QVariantMap>("value");
    QTest::addColumn<QStringList>("frames");

    const auto row = [](const char *name, const char *schema, const QVariantMap &value,
                        const QStringList &frames) {
        QTest::newRow(name) << QByteArray(schema) << value << frames;
    };
    const char *const one = R"({"c": {"@mac": 1, "@format": "p", "@fragmentation": true}})";
    row("number: {c: 5}", one, {{"c", 5}}, {"1/0 [4] 81a1630500000000"});
    row("map: {c: {a: 1}}", one, {{"c", QVariantMap{{"a", 1}}}}, {"1/0 [7] 81a16381a1610100"});
    row("empty map", one, {{"c", QVariantMap()}}, {"1/0 [4] 81a1638000000000"});
    row("text", one, {{"c", "hi"}}, {"1/0 [6] 81a163a268690000"});
    row("list", one, {{"c", QVariantList{1, true}}}, {"1/0 [6] 81a1639201c30000"});
    row("byte array", one, {{"c", QByteArray("\x01")}}, {"1/0 [6] 81a163c401010000"});
    row("double", one, {{"c", 1.0}}, {"1/0 [8] 81a163cb3ff00000", "1/0 [4] 000000003ff00000"});
    row("name config", R"({"config": {"@mac": 1, "@format": "p", "@fragmentation": true}})",
        {{"config", QVariantMap{{"a", 1}}}}, {"1/0 [8] 81a6636f6e666967", "1/0 [4] 81a161016e666967"});
    row("the leaf's own name, not its path", R"({"o": {"c": {"@mac": 1, "@format": "p"}}})",
        {{"o", QVariantMap{{"c", 5}}}}, {"1/0 [4] 81a1630500000000"});
    row("skip and factor are ignored", R"({"c": {"@mac": 1, "@format": "p", "@skip": 5, "@factor": 10}})",
        {{"c", 5}}, {"1/0 [4] 81a1630500000000"});
    row("even a skip that no payload has", R"({"c": {"@mac": 1, "@format": "p", "@skip": -5}})", {{"c", 5}},
        {"1/0 [4] 81a1630500000000"});
    row("several append in the order of names",
        R"({"b": {"@mac": 1, "@format": "p"}, "a": {"@mac": 1, "@format": "p"}})", {{"b", 2}, {"a", 1}},
        {"1/0 [8] 81a1610181a16202"});
    row("behind what stands there already",
        R"({"a": {"@mac": 1, "@format": "C", "@skip": 2}, "b": {"@mac": 1, "@format": "p"}})",
        {{"a", 9}, {"b", 2}}, {"1/0 [7] 00000981a1620200"});
    row("a later leaf overwrites its bytes",
        R"({"a": {"@mac": 1, "@format": "p"}, "b": {"@mac": 1, "@format": "C", "@skip": 1}})",
        {{"a", 1}, {"b", 255}}, {"1/0 [4] 81ff610100000000"});
    row("nil writes nothing", one, {{"c", QVariant()}}, {});
}

void TestSchemaConverterOutbound::packedFormat()
{
    QFETCH(QByteArray, schema);
    QFETCH(QVariantMap, value);
    QFETCH(QStringList, frames);
    LogScope log;
    QCOMPARE(s_frames(schema, value), frames);
    QCOMPARE(log.lines("warning"), QStringList());
}

void TestSchemaConverterOutbound::writingDoesNotDisturbTheReadings()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@format": "C", "@flushSize": 2}})"));
    converter.insertFrame(VEKEndpoint(1, 0, false), s_hex("01"));
    QCOMPARE(converter.toVEKFrames(QVariantMap{{"x", 9}}).size(), 1);
    QVERIFY(!converter.takeVariantToSend(false).isValid());
    converter.insertFrame(VEKEndpoint(1, 0, false), s_hex("02"));
    QCOMPARE(s_elements(converter.takeVariantToSend(false).toMap().value("x")), (QVector<double>{1, 2}));
}

void TestSchemaConverterOutbound::wholeLogOfOneConversion()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"a": {"@mac": 5, "@cmd": 2, "@format": "s"},
                                    "b": {"@mac": 5, "@cmd": 2, "@format": "C", "@skip": 2, "@factor": 2}})"));
    const QVariantMap value{{"a", 258U}, {"b", 2.5}, {"z", 1}};
    const QString debugForm =
        R"(QVariant(QVariantMap, QMap(("a", QVariant(uint, 258))("b", QVariant(double, 2.5)))"
        R"(("z", QVariant(int, 1)))))";
    const QStringList conversion{
        "debug: Converting binary data into a frame " + debugForm,
        "debug: insertToByteArray:  QVariant(uint, 258) , offset:  0 , dst:  0",
        "debug: insertToByteArray:  QVariant(signed char, 5) , offset:  2 , dst:  2",
        s_unknownWarning("z"),
        "debug: Preparing CAN frame MAC: 5 CMD: 2 RTR: 0 DLC: 3 toSend: 3",
        "debug: \"020105\"",
        "debug: Converted VEK frames: 1",
    };
    {
        LogScope log;
        QCOMPARE(converter.toVEKFrames(value).size(), 1);
        QCOMPARE(log.lines(), conversion);
    }
    LogScope log;
    QCOMPARE(converter.toFrame(value).size(), 11);
    QCOMPARE(log.lines(), QStringList{"debug: Converting binary data into a frame " + debugForm} +
                              conversion + QStringList{"debug: Converted size: 11"});
}

void TestSchemaConverterOutbound::wholeLogOfAFragmentedConversion()
{
    SchemaConverter converter;
    converter.loadSchema(
        s_json(R"({"a": {"@mac": 63, "@cmd": 31, "@format": "C", "@skip": 17, "@fragmentation": true},
                                    "b": {"@mac": 1, "@cmd": 0, "@format": "i", "@skip": 6},
                                    "r": {"@mac": 1, "@cmd": 1, "@format": "C", "@mask": 1}})"));
    LogScope log;
    QCOMPARE(converter.toFrame(QVariantMap{{"a", 171}, {"b", 0x04030201}, {"r", 1}}).size(), 44);
    const QString first =
        R"(debug: Converting binary data into a frame QVariant(QVariantMap, )"
        R"(QMap(("a", QVariant(int, 171))("b", QVariant(int, 67305985))("r", QVariant(int, 1)))))";
    QCOMPARE(log.lines(), (QStringList{
                              first,
                              first,
                              "debug: insertToByteArray:  QVariant(int, 171) , offset:  17 , dst:  0",
                              "debug: insertToByteArray:  QVariant(int, 67305985) , offset:  6 , dst:  0",
                              s_readOnlyWarning("r"),
                              "debug: Preparing CAN frame MAC: 1 CMD: 0 RTR: 0 DLC: 8 toSend: 10",
                              "debug: \"0000000000000102\"",
                              s_trimmed,
                              "debug: Preparing CAN frame MAC: 63 CMD: 31 RTR: 0 DLC: 8 toSend: 18",
                              "debug: \"0000000000000000\"",
                              "debug: Preparing CAN frame MAC: 63 CMD: 31 RTR: 0 DLC: 8 toSend: 10",
                              "debug: \"0000000000000000\"",
                              "debug: Preparing CAN frame MAC: 63 CMD: 31 RTR: 0 DLC: 2 toSend: 2",
                              "debug: \"00ab\"",
                              "debug: Converted VEK frames: 4",
                              "debug: Converted size: 44",
                          }));
}

void TestSchemaConverterOutbound::debugLinesOfPlacement_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("expected");

    const auto row = [](const char *name, const char *options, const QVariant &value, const char *expected) {
        QTest::newRow(name) << QByteArray(options) << value << QString(expected);
    };
    // Unscaled: the value as it came, before it is converted.
    row("unscaled", R"("@format": "C")", 300, "QVariant(int, 300) , offset:  0");
    row("unscaled text", R"("@format": "s")", "x", "QVariant(QString, \"x\") , offset:  0");
    row("unscaled double", R"("@format": "f", "@skip": 4)", 0.5, "QVariant(double, 0.5) , offset:  4");
    row("unscaled bool", R"("@format": "C")", true, "QVariant(bool, true) , offset:  0");
    row("unscaled list", R"("@format": "C")", QVariantList{1},
        "QVariant(QVariantList, (QVariant(int, 1))) , offset:  0");
    // Scaled: the clamped and truncated product, in the target's type; int for "f".
    row("scaled c", R"("@format": "c", "@factor": 2)", 2, "QVariant(signed char, 4) , offset:  0");
    row("scaled C", R"("@format": "C", "@factor": 2)", -2, "QVariant(signed char, -4) , offset:  0");
    row("scaled s", R"("@format": "s", "@factor": 2)", 2, "QVariant(short, 4) , offset:  0");
    row("scaled S", R"("@format": "S", "@factor": 2)", 2, "QVariant(short, 4) , offset:  0");
    row("scaled q", R"("@format": "q", "@factor": 2)", 2, "QVariant(short, 4) , offset:  0");
    row("scaled Q", R"("@format": "Q", "@factor": 2)", 2, "QVariant(short, 4) , offset:  0");
    row("scaled i", R"("@format": "i", "@factor": 2)", 2, "QVariant(int, 4) , offset:  0");
    row("scaled I", R"("@format": "I", "@factor": 2)", 2, "QVariant(int, 4) , offset:  0");
    row("scaled f", R"("@format": "f", "@factor": 2)", 2.2, "QVariant(int, 4) , offset:  0");
}

void TestSchemaConverterOutbound::debugLinesOfPlacement()
{
    QFETCH(QByteArray, options);
    QFETCH(QVariant, value);
    QFETCH(QString, expected);
    LogScope log;
    s_framesOfLeaf(options, value);
    QCOMPARE(log.lines().filter("insertToByteArray"),
             QStringList{"debug: insertToByteArray:  " + expected + " , dst:  0"});
}

// ---- Rainy ----

void TestSchemaConverterOutbound::valueThatIsNoMapThrows_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("debugForm");

    QTest::newRow("nothing") << QVariant() << "QVariant(Invalid)";
    QTest::newRow("number") << QVariant(5) << "QVariant(int, 5)";
    QTest::newRow("list of maps") << QVariant(QVariantList{QVariantMap()})
                                  << "QVariant(QVariantList, (QVariant(QVariantMap, QMap())))";
    QTest::newRow("empty list, as nothing unpacks")
        << QVariant(QVariantList()) << "QVariant(QVariantList, ())";
    QTest::newRow("text") << QVariant("x") << "QVariant(QString, \"x\")";
    QTest::newRow("hash") << QVariant(QVariantHash()) << "QVariant(QVariantHash, QHash())";
}

void TestSchemaConverterOutbound::valueThatIsNoMapThrows()
{
    QFETCH(QVariant, value);
    QFETCH(QString, debugForm);
    const QString line = "debug: Converting binary data into a frame " + debugForm;
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@format": "C"}})"));
    {
        LogScope log;
        COMPARE_THROWN(converter.toVEKFrames(value), "Bad type");
        QCOMPARE(log.lines(), QStringList{line});
    }
    LogScope log;
    COMPARE_THROWN(converter.toFrame(value), "Bad type");
    QCOMPARE(log.lines(), (QStringList{line, line}));
}

void TestSchemaConverterOutbound::nestedValueThatOnlyConvertsToAMapThrows()
{
    SchemaConverter converter;
    converter.loadSchema(
        s_json(R"({"branch": {"x": {"@mac": 1, "@format": "C"}}, "leaf": {"@mac": 1, "@format": "C"},
                                    "masked": {"@mac": 1, "@format": "C", "@mask": 1},
                                    "packed": {"@mac": 1, "@format": "p"}})"));
    const QVariant object = QJsonObject{{"x", 1}};
    QVERIFY(object.canConvert<QVariantMap>());
    COMPARE_THROWN(converter.toVEKFrames(QVariantMap{{"branch", object}}), "Bad type");
    COMPARE_THROWN(converter.toVEKFrames(QVariantMap{{"leaf", object}}), "Bad type");
    COMPARE_THROWN(converter.toVEKFrames(QVariantMap{{"masked", object}}), "Bad type");
    COMPARE_THROWN(converter.toFrame(QVariantMap{{"branch", QVariantMap{{"x", object}}}}), "Bad type");
    COMPARE_THROWN(converter.toFrame(object), "Bad type");
    COMPARE_THROWN(converter.toVEKFrames(QVariantMap{{"missing", object}}), ""); // reported, never looked at
}

void TestSchemaConverterOutbound::unknownMembersAreSkipped()
{
    SchemaConverter converter;
    converter.loadSchema(
        s_json(R"({"branch": {"x": {"@mac": 1, "@format": "C"}, "note": "text"}, "list": [1]})"));
    LogScope log;
    const QVariantMap value = s_map(
        R"({"branch": {"x": 5, "y": 6, "note": 7}, "list": 8, "": 9, "Branch": {"x": 1}, "a \"b\"": {}})");
    QCOMPARE(s_words(converter.toVEKFrames(value)), QStringList{"1/0 [1] 0500000000000000"});
    QCOMPARE(log.lines("warning"),
             (QStringList{s_unknownWarning(""), s_unknownWarning("Branch"), s_unknownWarning("a \\\"b\\\""),
                          s_unknownWarning("note"), s_unknownWarning("y"), s_unknownWarning("list")}));
}

void TestSchemaConverterOutbound::withoutASchemaEveryMemberIsUnknown()
{
    SchemaConverter converter;
    LogScope log;
    QCOMPARE(converter.toVEKFrames(s_map(R"({"a": 1, "b": {"c": 2}})")).size(), 0);
    QCOMPARE(log.lines("warning"), (QStringList{s_unknownWarning("a"), s_unknownWarning("b")}));
}

void TestSchemaConverterOutbound::readOnlyLeavesAreSkipped_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<QVariant>("value");

    QTest::newRow("asBool") << QByteArray(R"("@format": "C", "@asBool": true)") << QVariant(1);
    QTest::newRow("mask") << QByteArray(R"("@format": "C", "@mask": 255)") << QVariant(1);
    QTest::newRow("mask 0") << QByteArray(R"("@format": "s", "@mask": 0)") << QVariant(1);
    QTest::newRow("packed with asBool") << QByteArray(R"("@format": "p", "@asBool": true)") << QVariant(1);
    QTest::newRow("packed map with mask")
        << QByteArray(R"("@format": "p", "@mask": 1)") << QVariant(QVariantMap{{"a", 1}});
    QTest::newRow("nil: read-only is tested first")
        << QByteArray(R"("@format": "C", "@mask": 1)") << QVariant();
    QTest::newRow("unknown format") << QByteArray(R"("@format": "x", "@mask": 1)") << QVariant(1);
    QTest::newRow("offset out of range")
        << QByteArray(R"("@format": "C", "@mask": 1, "@skip": -1)") << QVariant(1);
}

void TestSchemaConverterOutbound::readOnlyLeavesAreSkipped()
{
    QFETCH(QByteArray, options);
    QFETCH(QVariant, value);
    LogScope log;
    QCOMPARE(s_framesOfLeaf(options, value), QStringList());
    QCOMPARE(log.lines("warning"), QStringList{s_readOnlyWarning("x")});
    QCOMPARE(log.lines().filter("insertToByteArray"), QStringList());
}

void TestSchemaConverterOutbound::nilWritesNothing()
{
    for (const char *format : {"C", "c", "S", "s", "Q", "q", "I", "i", "f", "p"}) {
        for (const char *factor : {"1", "2"}) {
            LogScope log;
            QCOMPARE(s_framesOfLeaf(QByteArray(R"("@format": ")") + format + R"(", "@factor": )" + factor,
                                    QVariant()),
                     QStringList());
            QCOMPARE(log.lines(),
                     (QStringList{"debug: Converting binary data into a frame QVariant(QVariantMap, "
                                  "QMap((\"x\", QVariant(Invalid))))",
                                  "debug: Converted VEK frames: 0"}));
        }
    }
}

void TestSchemaConverterOutbound::unknownFormatsWriteNothing_data()
{
    QTest::addColumn<QByteArray>("format");
    for (const char *format : {"F", "P", "x", "b", "d", "5", "", " f"}) {
        QTest::newRow(format) << QByteArray(format);
    }
}

void TestSchemaConverterOutbound::unknownFormatsWriteNothing()
{
    QFETCH(QByteArray, format);
    for (const char *more : {"", R"(, "@factor": 2)", R"(, "@skip": -1)", R"(, "@skip": 70000)"}) {
        LogScope log;
        QCOMPARE(s_framesOfLeaf(R"("@format": ")" + format + "\"" + more, 1), QStringList());
        QCOMPARE(log.lines().size(), 2);
        QCOMPARE(log.lines().last(), QString("debug: Converted VEK frames: 0"));
    }
}

void TestSchemaConverterOutbound::plainValueForABranch()
{
    LogScope log;
    QCOMPARE(s_frames(R"({"motor": {"speed": {"@mac": 1, "@format": "C"}}})", QVariantMap{{"motor", 5}}),
             QStringList());
    QCOMPARE(log.lines(), (QStringList{"debug: Converting binary data into a frame QVariant(QVariantMap, "
                                       "QMap((\"motor\", QVariant(int, 5))))",
                                       "debug: Converted VEK frames: 0"}));
    // The empty entry is that of endpoint (0, 0), and it brings its flag: none.
    QCOMPARE(
        s_frames(R"({"a": {"b": {}}, "z": {"@mac": 0, "@format": "C", "@skip": 8, "@fragmentation": true}})",
                 QVariantMap{{"a", 5}, {"z", 1}}),
        QStringList{"0/0 [8] 0000000000000000"});
}

void TestSchemaConverterOutbound::branchWithOptionsIsWrittenAtEndpointZero()
{
    QCOMPARE(s_frames(R"({"a": {"@cmd": 3, "@format": "C"}})", QVariantMap{{"a", 5}}),
             QStringList{"0/3 [1] 0500000000000000"});
}

void TestSchemaConverterOutbound::mapForALeafWalksItsMembers()
{
    SchemaConverter converter;
    converter.loadSchema(
        s_json(R"({"x": {"@mac": 1, "@format": "C"}, "masked": {"@mac": 1, "@format": "C", "@mask": 1}})"));
    LogScope log;
    QCOMPARE(converter.toVEKFrames(s_map(R"({"x": {"a": 1, "@mac": 2}, "masked": {"b": 1}})")).size(), 0);
    QCOMPARE(log.lines("warning"),
             (QStringList{s_unknownWarning("b"), s_unknownWarning("@mac"), s_unknownWarning("a")}));
}

void TestSchemaConverterOutbound::mapForALeafReachesItsChildren()
{
    const QByteArray schema = R"({"x": {"@mac": 1, "@format": "C", "y": {"@mac": 2, "@format": "C"}}})";
    LogScope log;
    QCOMPARE(s_frames(schema, s_map(R"({"x": {"y": 5}})")), QStringList{"2/0 [1] 0500000000000000"});
    QCOMPARE(s_frames(schema, s_map(R"({"x": 6})")), QStringList{"1/0 [1] 0600000000000000"});
    // A packed leaf takes the map as its value instead.
    QCOMPARE(s_frames(R"({"x": {"@mac": 1, "@format": "p", "y": {"@mac": 2, "@format": "C"}}})",
                      s_map(R"({"x": {"y": 5}})")),
             QStringList{"1/0 [7] 81a17881a1790500"});
    QCOMPARE(log.lines("warning"), QStringList());
}

void TestSchemaConverterOutbound::unscaledValuesWrap_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("frame");

    const auto row = [](const char *name, const char *format, const QVariant &value, const char *frame) {
        QTest::newRow(name) << R"("@format": ")" + QByteArray(format) + "\"" << value
                            << QString("1/2 ") + frame;
    };
    row("s 40000", "s", 40000, "[2] 409c000000000000");
    row("s 40000.0", "s", 40000.0, "[2] 409c000000000000");
    row("S 65536", "S", 65536, "[2] 0000000000000000");
    row("q -32769", "q", -32769, "[2] ff7f000000000000");
    row("C 256", "C", 256, "[1] 0000000000000000");
    row("c 300", "c", 300, "[1] 2c00000000000000");
    row("C -129", "C", -129, "[1] 7f00000000000000");
    row("i unsigned", "i", QVariant(4294967295U), "[4] ffffffff00000000");
    row("I negative", "I", -1, "[4] ffffffff00000000");
    row("i long long", "i", QVariant(0x1122334455LL), "[4] 5544332200000000");
    row("C unsigned long long", "C", QVariant(0xFFFFFFFFFFFFFF80ULL), "[1] 8000000000000000");
    row("i text", "i", "4294967297", "[4] 0100000000000000");
    row("s double beyond 32 bits", "s", 4294967297.0, "[2] 0100000000000000");
}

void TestSchemaConverterOutbound::unscaledValuesWrap()
{
    bytesOfEveryFormat();
}

void TestSchemaConverterOutbound::saturationIsLogged_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("numbers");
    QTest::addColumn<QString>("placed");
    QTest::addColumn<QString>("frame");

    const auto row = [](const char *name, const char *options, const QVariant &value, const char *numbers,
                        const char *placed, const char *frame) {
        QTest::newRow(name) << QByteArray(options) << value << QString(numbers) << QString(placed)
                            << QString("1/2 ") + frame;
    };
    const double infinity = std::numeric_limits<double>::infinity();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    row("s above", R"("@format": "s", "@factor": 1000)", 40.0, "40000 result: 32767",
        "QVariant(short, 32767)", "[2] ff7f000000000000");
    row("S above, though unsigned", R"("@format": "S", "@factor": 2)", 16384, "32768 result: 32767",
        "QVariant(short, 32767)", "[2] ff7f000000000000");
    row("q below", R"("@format": "q", "@factor": 2)", -16385, "-32770 result: -32768",
        "QVariant(short, -32768)", "[2] 0080000000000000");
    row("s above by a fraction", R"("@format": "s", "@factor": 0.5)", 65535, "32767.5 result: 32767",
        "QVariant(short, 32767)", "[2] ff7f000000000000");
    row("C above", R"("@format": "C", "@factor": 2)", 64, "128 result: 127", "QVariant(signed char, 127)",
        "[1] 7f00000000000000");
    row("c below", R"("@format": "c", "@factor": 2)", -64.5, "-129 result: -128",
        "QVariant(signed char, -128)", "[1] 8000000000000000");
    row("c above by a fraction", R"("@format": "c", "@factor": 0.5)", 254.5, "127.25 result: 127",
        "QVariant(signed char, 127)", "[1] 7f00000000000000");
    row("i above", R"("@format": "i", "@factor": 2)", 3e9, "6e+09 result: 2.14748e+09",
        "QVariant(int, 2147483647)", "[4] ffffff7f00000000");
    row("I below", R"("@format": "I", "@factor": 2)", -3e9, "-6e+09 result: -2.14748e+09",
        "QVariant(int, -2147483648)", "[4] 0000008000000000");
    row("f above", R"("@format": "f", "@factor": 2)", 3e9, "6e+09 result: 2.14748e+09",
        "QVariant(int, 2147483647)", "[4] 0000004f00000000");
    row("f below", R"("@format": "f", "@factor": 2)", -3e9, "-6e+09 result: -2.14748e+09",
        "QVariant(int, -2147483648)", "[4] 000000cf00000000");
    row("infinity", R"("@format": "s", "@factor": 2)", infinity, "inf result: 32767",
        "QVariant(short, 32767)", "[2] ff7f000000000000");
    row("minus infinity", R"("@format": "i", "@factor": 2)", -infinity, "-inf result: -2.14748e+09",
        "QVariant(int, -2147483648)", "[4] 0000008000000000");
    row("double beyond single precision", R"("@format": "C", "@factor": 2)", 1e300, "inf result: 127",
        "QVariant(signed char, 127)", "[1] 7f00000000000000");
    row("product beyond single precision", R"("@format": "C", "@factor": 1e38)", -100, "-inf result: -128",
        "QVariant(signed char, -128)", "[1] 8000000000000000");
    row("not a number for c", R"("@format": "c", "@factor": 2)", nan, "nan result: nan",
        "QVariant(signed char, 0)", "[1] 0000000000000000");
    row("not a number for s", R"("@format": "s", "@factor": 2)", nan, "nan result: nan", "QVariant(short, 0)",
        "[2] 0000000000000000");
    row("not a number for i", R"("@format": "i", "@factor": 2)", nan, "nan result: nan", "QVariant(int, 0)",
        "[4] 0000000000000000");
    row("not a number for f", R"("@format": "f", "@factor": 2)", nan, "nan result: nan", "QVariant(int, 0)",
        "[4] 0000000000000000");
    row("infinity times zero", R"("@format": "s", "@factor": 0)", infinity, "nan result: nan",
        "QVariant(short, 0)", "[2] 0000000000000000");
    row("infinity times minus zero", R"("@format": "s", "@factor": "-0.0")", infinity, "nan result: nan",
        "QVariant(short, 0)", "[2] 0000000000000000");
    row("infinity times a denormal", R"("@format": "s", "@factor": -1e-40)", infinity, "-inf result: -32768",
        "QVariant(short, -32768)", "[2] 0080000000000000");
    row("factor not a number", R"("@format": "C", "@factor": "nan")", 1, "nan result: nan",
        "QVariant(signed char, 0)", "[1] 0000000000000000");
    row("factor not a number, of zero for f", R"("@format": "f", "@factor": "nan")", 0, "nan result: nan",
        "QVariant(int, 0)", "[4] 0000000000000000");
}

void TestSchemaConverterOutbound::saturationIsLogged()
{
    QFETCH(QByteArray, options);
    QFETCH(QVariant, value);
    QFETCH(QString, numbers);
    QFETCH(QString, placed);
    QFETCH(QString, frame);
    LogScope log;
    QCOMPARE(s_framesOfLeaf(options, value), QStringList{frame});
    QCOMPARE(log.lines().mid(1, 2),
             (QStringList{"warning: Invalid numeric conversion. Number overflow, value: " + numbers,
                          "debug: insertToByteArray:  " + placed + " , offset:  0 , dst:  0"}));
    QCOMPARE(log.lines("warning").size(), 1);
}

void TestSchemaConverterOutbound::tooLongPayloadIsTrimmed()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@format": "i", "@skip": 6}})"));
    LogScope log;
    QCOMPARE(s_words(converter.toVEKFrames(QVariantMap{{"x", 0x04030201}})),
             QStringList{"1/0 [8] 0000000000000102"});
    QCOMPARE(log.lines().mid(2),
             (QStringList{"debug: Preparing CAN frame MAC: 1 CMD: 0 RTR: 0 DLC: 8 toSend: 10",
                          "debug: \"0000000000000102\"", s_trimmed, "debug: Converted VEK frames: 1"}));
}

void TestSchemaConverterOutbound::trimmedEndpointDoesNotStopTheNext()
{
    LogScope log;
    QCOMPARE(
        s_frames(
            R"({"a": {"@mac": 1, "@format": "C", "@skip": 8}, "b": {"@mac": 2, "@format": "C", "@skip": 30},
                          "c": {"@mac": 3, "@format": "C"}})",
            QVariantMap{{"a", 1}, {"b", 2}, {"c", 3}}),
        (QStringList{"1/0 [8] 0000000000000000", "2/0 [8] 0000000000000000", "3/0 [1] 0300000000000000"}));
    QCOMPARE(log.lines("warning"), (QStringList{s_trimmed, s_trimmed}));
}

// Whether an endpoint may fragment is up to the first of its leaves that the value's walk reaches, even if
// that leaf writes nothing.
void TestSchemaConverterOutbound::flagOfTheFirstLeafHolds_data()
{
    QTest::addColumn<QByteArray>("first");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<bool>("fragmented");

    QTest::newRow("writable without the flag") << QByteArray(R"("@format": "C")") << QVariant(1) << false;
    QTest::newRow("writable with the flag")
        << QByteArray(R"("@format": "C", "@fragmentation": true)") << QVariant(1) << true;
    QTest::newRow("read-only with the flag")
        << QByteArray(R"("@format": "C", "@mask": 1, "@fragmentation": true)") << QVariant(1) << true;
    QTest::newRow("read-only without the flag")
        << QByteArray(R"("@format": "C", "@mask": 1)") << QVariant(1) << false;
    QTest::newRow("nil with the flag")
        << QByteArray(R"("@format": "C", "@fragmentation": true)") << QVariant() << true;
    QTest::newRow("nil without the flag") << QByteArray(R"("@format": "C")") << QVariant() << false;
    QTest::newRow("unknown format with the flag")
        << QByteArray(R"("@format": "x", "@fragmentation": true)") << QVariant(1) << true;
    QTest::newRow("offset out of range with the flag")
        << QByteArray(R"("@format": "C", "@skip": -1, "@fragmentation": true)") << QVariant(1) << true;
    QTest::newRow("a map makes no entry")
        << QByteArray(R"("@format": "C", "@fragmentation": true)") << QVariant(QVariantMap()) << false;
}

void TestSchemaConverterOutbound::flagOfTheFirstLeafHolds()
{
    QFETCH(QByteArray, first);
    QFETCH(QVariant, value);
    QFETCH(bool, fragmented);
    for (const char *lastFlag : {"true", "false"}) {
        const bool decidedByLast = value.userType() == QMetaType::QVariantMap; // "a" made no entry
        const bool expected = decidedByLast ? QByteArray(lastFlag) == "true" : fragmented;
        const QStringList frames =
            s_frames(R"({"a": {"@mac": 1, )" + first + R"(}, "b": {"@mac": 1, "@format": "C", "@skip": 8, )" +
                         R"("@fragmentation": )" + lastFlag + "}}",
                     QVariantMap{{"a", value}, {"b", 5}});
        QCOMPARE(frames.size(), expected ? 2 : 1);
    }
}

void TestSchemaConverterOutbound::headerKeepsTheLowBits_data()
{
    QTest::addColumn<int>("mac");
    QTest::addColumn<int>("cmd");
    QTest::addColumn<QString>("address");

    QTest::newRow("mac 65") << 65 << 0 << "1/0";
    QTest::newRow("mac 70 cmd 35") << 70 << 35 << "6/3";
    QTest::newRow("all bits set") << 65535 << 65535 << "63/31";
    QTest::newRow("mac 70000 keeps 16 bits first") << 70000 << 0 << "48/0"; // 4464 & 63
}

void TestSchemaConverterOutbound::headerKeepsTheLowBits()
{
    QFETCH(int, mac);
    QFETCH(int, cmd);
    QFETCH(QString, address);
    SchemaConverter converter;
    converter.loadSchema(QJsonDocument::fromVariant(
        QVariantMap{{"x", QVariantMap{{"@mac", mac}, {"@cmd", cmd}, {"@format", "C"}}}}));
    LogScope log;
    QCOMPARE(s_words(converter.toVEKFrames(QVariantMap{{"x", 5}})),
             QStringList{address + " [1] 0500000000000000"});
    const QStringList parts = address.split('/');
    QCOMPARE(log.lines().at(2), QString("debug: Preparing CAN frame MAC: %1 CMD: %2 RTR: 0 DLC: 1 toSend: 1")
                                    .arg(parts[0], parts[1]));
}

void TestSchemaConverterOutbound::endpointsThatShareAHeaderStayApart()
{
    QCOMPARE(s_frames(R"({"a": {"@mac": 65, "@format": "C"}, "b": {"@mac": 1, "@format": "C", "@skip": 1}})",
                      QVariantMap{{"a", 5}, {"b", 6}}),
             (QStringList{"1/0 [2] 0006000000000000", "1/0 [1] 0500000000000000"}));
}

void TestSchemaConverterOutbound::offsetsOutOfRangeWriteNothing_data()
{
    QTest::addColumn<int>("skip");
    QTest::newRow("minus one") << -1;
    QTest::newRow("minus four") << -4;
    QTest::newRow("smallest") << std::numeric_limits<int>::min();
    QTest::newRow("65536") << 65536;
    QTest::newRow("largest less width") << std::numeric_limits<int>::max() - 4;
    QTest::newRow("largest") << std::numeric_limits<int>::max();
}

void TestSchemaConverterOutbound::offsetsOutOfRangeWriteNothing()
{
    QFETCH(int, skip);
    for (const char *format : {"C", "c", "S", "s", "Q", "q", "I", "i", "f"}) {
        for (const double factor : {1.0, 2.0}) {
            SchemaConverter converter;
            converter.loadSchema(QJsonDocument::fromVariant(QVariantMap{
                {"far away",
                 QVariantMap{{"@mac", 1}, {"@format", format}, {"@skip", skip}, {"@factor", factor}}},
                {"near", QVariantMap{{"@mac", 1}, {"@format", "C"}}}}));
            LogScope log;
            QCOMPARE(converter.toVEKFrames(QVariantMap{{"far away", 5}}).size(), 0);
            QCOMPARE(log.lines("warning").size(), 1);
            QVERIFY2(log.lines("warning").first().contains("\"far away\""),
                     qPrintable(log.lines("warning").first()));
            // Nothing of it shows in the payload that other leaves share.
            QCOMPARE(s_words(converter.toVEKFrames(QVariantMap{{"far away", 5}, {"near", 6}})),
                     QStringList{"1/0 [1] 0600000000000000"});
            QCOMPARE(log.lines("warning").size(), 2);
        }
    }
}

void TestSchemaConverterOutbound::largestOffset()
{
    for (const char *format : {"C", "s", "i", "f"}) {
        SchemaConverter converter;
        converter.loadSchema(
            s_json(R"({"x": {"@mac": 1, "@skip": 65535, "@fragmentation": true, "@format": ")" +
                   QByteArray(format) + "\"}}"));
        LogScope log;
        const QList<vek_frame_t> frames = converter.toVEKFrames(QVariantMap{{"x", 1}});
        QCOMPARE(log.lines("warning"), QStringList());
        QCOMPARE(frames.size(), *format == 'C' ? 8192 : 8193); // 65,536 bytes, or a few more
        QCOMPARE(int(vek_header_dlc(vek_frame_header(frames.first()))), 8);
        const vek_frame_t &carrier = frames.at(8191);
        QCOMPARE(int(carrier.data[7]), *format == 'f' ? 0 : 1);
    }
}

void TestSchemaConverterOutbound::aThrowSendsNothing()
{
    // Nothing of a conversion that threw shows in the next.
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"a": {"@mac": 1, "@format": "i"}, "b": {"@mac": 1, "@format": "C"}})"));
    COMPARE_THROWN(converter.toVEKFrames(QVariantMap{{"a", -1}, {"b", QJsonObject()}}), "Bad type");
    QCOMPARE(s_words(converter.toVEKFrames(QVariantMap{{"b", 5}})), QStringList{"1/0 [1] 0500000000000000"});
}

void TestSchemaConverterOutbound::nonAsciiFormatWritesNothing()
{
    LogScope log;
    // The low byte of U+0143 is "C"; its first byte in UTF-8 is no format.
    QCOMPARE(s_framesOfLeaf(R"("@format": "\u0143")", 5), QStringList());
    QCOMPARE(log.lines("warning"), QStringList());
}

static QString s_tooLargeWarning(const QString &name)
{
    return "warning: Attribute \"" + name +
           "\" makes the payloads of one message too large and cannot be written to.";
}

// The sum of what may be added to the payloads of one message.
static constexpr int ROOM = 4 * 1024 * 1024;

void TestSchemaConverterOutbound::payloadsOfOneMessageAreBounded()
{
    // 65 leaves that claim 64 KiB each; the last finds no room, and the one behind it what is left.
    QVariantMap document{
        {"z", QVariantMap{{"@mac", 200}, {"@format", "C"}}},
        {"again", QVariantMap{{"@mac", 100}, {"@format", "C"}, {"@skip", 65534}}},
    };
    QVariantMap value{{"z", 7}, {"again", 1}};
    for (int i = 0; i < 65; ++i) {
        const QString name = QString("n%1").arg(i, 2, 10, QLatin1Char('0'));
        document.insert(name, QVariantMap{{"@mac", 100 + i}, {"@format", "C"}, {"@skip", 65534}});
        value.insert(name, 1);
    }
    SchemaConverter converter;
    converter.loadSchema(QJsonDocument::fromVariant(document));
    LogScope log;
    const QList<vek_frame_t> frames = converter.toVEKFrames(value);
    QCOMPARE(frames.size(), 65); // of n00 to n63, and of z
    QCOMPARE(s_words(frames.last()), QString("8/0 [1] 0700000000000000"));
    QCOMPARE(log.lines("warning").filter("too large"), QStringList{s_tooLargeWarning("n64")});
}

void TestSchemaConverterOutbound::offsetsAndPackedValuesShareTheBound()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"a": {"@mac": 1, "@format": "p", "@fragmentation": true},
                                    "b": {"@mac": 2, "@format": "C", "@skip": 65535},
                                    "c": {"@mac": 1, "@format": "p"},
                                    "d": {"@mac": 3, "@format": "C"}})"));
    LogScope log;
    const int length = ROOM - 65535; // with its header too long for b to fit beside it
    const QVariantMap value{
        {"a", QByteArray(length, 'x')}, {"b", 1}, {"c", QByteArray(length, 'y')}, {"d", 5}};
    const QList<vek_frame_t> frames = converter.toVEKFrames(value);
    QCOMPARE(log.lines("warning"), (QStringList{s_tooLargeWarning("b"), s_tooLargeWarning("c")}));
    QCOMPARE(frames.size(), (1 + 2 + 5 + length + 7) / 8 + 1);
    QCOMPARE(s_words(frames.last()), QString("3/0 [1] 0500000000000000"));

    // The next message has the whole room again.
    converter.toVEKFrames(QVariantMap{{"b", 1}, {"c", QByteArray(length - 10, 'y')}});
    QCOMPARE(log.lines("warning").filter("too large").size(), 2);
}

void TestSchemaConverterOutbound::packedValuesUpToTheBound()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"a": {"@mac": 1, "@format": "p", "@fragmentation": true}})"));
    const int header = 1 + 2 + 5; // of the map, of the name, of the bytes
    for (const int excess : {0, 1}) {
        LogScope log;
        const int frames =
            converter.toVEKFrames(QVariantMap{{"a", QByteArray(ROOM - header + excess, 'x')}}).size();
        QCOMPARE(frames, excess == 0 ? ROOM / 8 : 0);
        QCOMPARE(log.lines("warning"), excess == 0 ? QStringList() : QStringList{s_tooLargeWarning("a")});
    }
}

struct Kind {
    QByteArray options; // of each leaf; empty: it is not in the schema
    QVariant value;
    QString line;  // with %1 for the name
    QString label; // as it stands in the line about the others
};
Q_DECLARE_METATYPE(Kind)

void TestSchemaConverterOutbound::linesOfOneKindAreBounded_data()
{
    QTest::addColumn<Kind>("kind");
    const auto row = [](const char *name, const Kind &kind) {
        QTest::newRow(name) << kind;
    };
    row("unknown keys", {"", 1, s_unknownWarning("%1"), "Key: ... does not exist in the schema"});
    row("read only",
        {R"("@format": "C", "@mask": 1)", 1, s_readOnlyWarning("%1"), "Attribute ... is readonly"});
    row("outside", {R"("@format": "C", "@skip": -1)", 1,
                    "warning: Attribute \"%1\" is outside of the payload (because of its option: @skip) and "
                    "cannot be written to.",
                    "Attribute ... is outside of the payload"});
    row("too large", {R"("@format": "C")", 1, s_tooLargeWarning("%1"),
                      "Attribute ... makes the payloads of one message too large"});
    row("overflow", {R"("@format": "C", "@factor": 2)", 64,
                     "warning: Invalid numeric conversion. Number overflow, value: 128 result: 127",
                     "Invalid numeric conversion. Number overflow"});
    row("trimmed",
        {R"("@format": "C", "@skip": 8)", 5, s_trimmed, "Cannot send more than 8 bytes of data through CAN"});
}

// A schema of `count` leaves with these options, each at an endpoint of its own, and a value for all; besides
// a leaf "a" for packed values.
static QJsonDocument s_leaves(int count, const QByteArray &options, QVariantMap *values,
                              const QVariant &value)
{
    QByteArray document = R"({"a": {"@mac": 65535, "@format": "p", "@fragmentation": true})";
    for (int i = 0; i < count; ++i) {
        const QByteArray name = "n" + QByteArray::number(10000 + i);
        if (!options.isEmpty()) {
            document += ",\"" + name + "\":{\"@mac\":" + QByteArray::number(i) + "," + options + "}";
        }
        values->insert(name, value);
    }
    return s_json(document + "}");
}

static QString s_more(int count, const QString &kind)
{
    return QString("And %1 more lines of this kind from the same message: %2").arg(count).arg(kind);
}

void TestSchemaConverterOutbound::linesOfOneKindAreBounded()
{
    QFETCH(Kind, kind);
    for (const int count : {1000, 1001, 1500}) {
        QVariantMap values;
        SchemaConverter converter;
        converter.loadSchema(s_leaves(count, kind.options, &values, kind.value));
        if (kind.line == s_tooLargeWarning("%1")) {
            values.insert("a", QByteArray(ROOM - 8, 'x')); // takes all the room
        }
        QStringList expected;
        for (int i = 0; i < 1000; ++i) {
            expected << QString(kind.line).replace("%1", "n" + QString::number(10000 + i));
        }
        if (count > 1000) {
            expected << "warning: " + s_more(count - 1000, kind.label);
        }
        LogScope log;
        converter.toFrame(values);
        QCOMPARE(log.lines("warning"), expected);
    }
}

void TestSchemaConverterOutbound::eachKindOfLineIsBoundedForItself()
{
    // Of each leaf a placement, a frame of two lines and a warning.
    QVariantMap values;
    SchemaConverter converter;
    converter.loadSchema(s_leaves(1003, R"("@format": "C", "@skip": 8)", &values, 5));
    for (int i = 0; i < 1002; ++i) {
        values.insert("unknown" + QString::number(i), 1);
    }
    LogScope log;
    const QByteArray records = converter.toFrame(values);
    QCOMPARE(records.size(), 1003 * VEK_FRAME_SIZE);
    QCOMPARE(log.lines().filter("debug: insertToByteArray").size(), 1000);
    QCOMPARE(log.lines().filter("debug: Preparing CAN frame").size(), 1000);
    QCOMPARE(log.lines().filter("debug: \"0000000000000000\"").size(), 1000);
    QCOMPARE(log.lines().filter(s_trimmed).size(), 1000);
    QCOMPARE(log.lines().filter("warning: Key: \"unknown").size(), 1000);
    const QStringList more = log.lines().filter("And ");
    QCOMPARE(more.size(), 4);
    QVERIFY(more.contains("debug: " + s_more(3, "insertToByteArray")));
    QVERIFY(more.contains("debug: " + s_more(3, "Preparing CAN frame ..., with its bytes")));
    QVERIFY(more.contains("warning: " + s_more(3, "Cannot send more than 8 bytes of data through CAN")));
    QVERIFY(more.contains("warning: " + s_more(2, "Key: ... does not exist in the schema")));
    QCOMPARE(log.lines().size(), 5 * 1000 + 4 + 4); // and those about the whole message
    QCOMPARE(log.lines().last(), QString("debug: Converted size: %1").arg(records.size()));

    // The next message counts from the beginning.
    const int before = log.lines().size();
    converter.toFrame(QVariantMap{{"unknown", 1}, {"n10000", 5}});
    QCOMPARE(log.lines().mid(before).filter("warning").size(), 2);
}

void TestSchemaConverterOutbound::boundedLinesAfterAThrow()
{
    QVariantMap values;
    SchemaConverter converter;
    converter.loadSchema(s_leaves(1, R"("@format": "C")", &values, QJsonObject()));
    for (int i = 0; i < 1500; ++i) {
        values.insert("b" + QString::number(i), 1);
    }
    LogScope log;
    COMPARE_THROWN(converter.toVEKFrames(values), "Bad type");
    QCOMPARE(log.lines("warning").size(), 1001);
    QCOMPARE(log.lines().last(), "warning: " + s_more(500, "Key: ... does not exist in the schema"));
}

void TestSchemaConverterOutbound::hiddenDebugLinesAreNotCounted()
{
    QVariantMap values;
    SchemaConverter converter;
    converter.loadSchema(s_leaves(1500, R"("@format": "C")", &values, 5));
    QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
    LogScope log;
    converter.toFrame(values);
    QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, true);
    QCOMPARE(log.lines(), QStringList());
}

void TestSchemaConverterOutbound::valuesThatFitCountForNoLine()
{
    QVariantMap values;
    SchemaConverter converter;
    converter.loadSchema(s_leaves(1500, R"("@format": "C", "@factor": 2)", &values, 1));
    LogScope log;
    converter.toFrame(values);
    QCOMPARE(log.lines("warning"), QStringList());
}

QTEST_APPLESS_MAIN(TestSchemaConverterOutbound)
#include "tst_schemaconverter_outbound.moc"
