// Frames to values: who gets the bytes, when the signal fires, and how the value map is built.
#include "msgpack/msgpack.h"
#include "schema/schemaconverter.h"
#include "service/typedarrays.h"
#include "tests/unit/tst_schematools.h"

#include <QSignalSpy>
#include <QtTest>

class TestSchemaConverterInbound : public QObject
{
    Q_OBJECT

private slots:
    // Happy
    void statusSaysWhetherTheEndpointIsKnown();
    void signalOncePerFrame();
    void handlerRunsInsideInsertFrame();
    void everyAttributeGetsTheWholePayload();
    void takeBuildsNestedMaps();
    void takeCollectsAllEndpoints();
    void takenValuesKeepTheirTypes();
    void arrayIsReadyWhenFull();
    void forceTakesPartlyFilledValues();
    void rootLeafIsTheResultItself();
    void observeSignalsOnlyChanges();
    void fragmentedEndpointsAreFoundWithoutTheFlag();

    // Rainy
    void unknownEndpointChangesNothing();
    void fullAttributesGetNothingUntilTaken();
    void oneFullAttributeDoesNotStopTheOthers();
    void takeWithNothingReadyClearsNothing();
    void takeTwiceGivesNothingTheSecondTime();
    void forceAfterTakeLeavesTheRest();
    void collisionsBetweenEndpoints_data();
    void collisionsBetweenEndpoints();
    void collisionWithOneSideNotReady();
    void negativeCommandsComeFirst();
    void rootLeafAmongOthers();
    void shortPayloads();
    void negativeFlushSizeNeverSignals();
    void packedThrowsOnAnEmptyPayload();
    void packedThrowLeavesWaitingValues();
    void charArraysCannotBePacked();
    void handlerMayLoadAnotherSchema();
    void handlerMayInsertFrames();
    void handlerMayInsertFramesAfterTaking();
    void handlerThatThrowsLeavesTheValues();
    void nothingOnThisPathLogs();
    void millionsOfReadingsArriveWhole();
    void whatArraysGatherIsBounded();
};

static VEKEndpoint s_at(quint16 mac, quint16 cmd)
{
    return VEKEndpoint(mac, cmd, false);
}

static QVariant s_path(QVariant value, const QStringList &path)
{
    for (const QString &name : path) {
        value = value.toMap().value(name);
    }
    return value;
}

static QByteArray s_text(const QVariant &value)
{
    return QJsonDocument::fromVariant(value).toJson(QJsonDocument::Compact);
}

// ---- Happy ----

void TestSchemaConverterInbound::statusSaysWhetherTheEndpointIsKnown()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@cmd": 2, "@format": "C"}})"));
    QCOMPARE(converter.insertFrame(s_at(1, 2), s_hex("05")), 1);
    QCOMPARE(converter.insertFrame(s_at(1, 2), s_hex("05")), 1); // ignored, but known
    QCOMPARE(converter.insertFrame(s_at(1, 2), QByteArray()), 1);
    QCOMPARE(converter.insertFrame(s_at(2, 1), s_hex("05")), 2);
    QCOMPARE(converter.insertFrame(s_at(0, 2), s_hex("05")), 2);
    QCOMPARE(converter.insertFrame(s_at(1, 0), s_hex("05")), 2);
}

void TestSchemaConverterInbound::signalOncePerFrame()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"a": {"@mac": 1, "@format": "C"}, "b": {"@mac": 1, "@format": "S"},
                                    "c": {"@mac": 1, "@format": "C", "@flushSize": 2}})"));
    QSignalSpy spy(&converter, &SchemaConverter::variantToSend);
    converter.insertFrame(s_at(1, 0), s_hex("0102"));
    QCOMPARE(spy.count(), 1); // for two leaves of three copies each
    converter.insertFrame(s_at(1, 0), s_hex("0102"));
    QCOMPARE(spy.count(), 2); // for c alone; a and b are full and not looked at
    converter.insertFrame(s_at(1, 0), s_hex("0102"));
    QCOMPARE(spy.count(), 2);
}

void TestSchemaConverterInbound::handlerRunsInsideInsertFrame()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@format": "C"}})"));
    QVariantList taken;
    QObject::connect(&converter, &SchemaConverter::variantToSend,
                     [&] { taken << converter.takeVariantToSend(false); });
    for (const char *payload : {"05", "05", "06"}) {
        const int before = taken.size();
        QCOMPARE(converter.insertFrame(s_at(1, 0), s_hex(payload)), 1);
        QCOMPARE(taken.size(), before + 1);
    }
    QCOMPARE(s_text(taken), QByteArray(R"([{"x":5},{"x":5},{"x":6}])"));
    QVERIFY(!converter.takeVariantToSend(true).isValid());
}

void TestSchemaConverterInbound::everyAttributeGetsTheWholePayload()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"whole": {"@mac": 1, "@format": "I"},
                                    "low":   {"@mac": 1, "@format": "S"},
                                    "high":  {"@mac": 1, "@format": "S", "@skip": 2},
                                    "bit":   {"@mac": 1, "@format": "C", "@skip": 3, "@mask": 128, "@asBool": true}})"));
    converter.insertFrame(s_at(1, 0), s_hex("01020384"));
    const QVariantMap taken = converter.takeVariantToSend(false).toMap();
    QCOMPARE(taken.value("whole"), QVariant(0x84030201U));
    QCOMPARE(taken.value("low"), QVariant(0x0201));
    QCOMPARE(taken.value("high"), QVariant(0x8403));
    QCOMPARE(taken.value("bit"), QVariant(true));
}

void TestSchemaConverterInbound::takeBuildsNestedMaps()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(
        R"({"a": {"b": {"c": {"@mac": 1, "@format": "C"}, "d": {"@mac": 1, "@format": "C", "@skip": 1}},
                                          "e": {"@mac": 1, "@format": "C", "@skip": 2}},
                                    "f": {"g": {"@mac": 2, "@format": "C"}}})"));
    converter.insertFrame(s_at(1, 0), s_hex("010203"));
    const QVariant taken = converter.takeVariantToSend(false);
    QCOMPARE(taken.userType(), int(QMetaType::QVariantMap));
    QCOMPARE(taken.toMap().value("a").userType(), int(QMetaType::QVariantMap));
    // No empty map stands for the leaf that had nothing.
    QCOMPARE(s_text(taken), QByteArray(R"({"a":{"b":{"c":1,"d":2},"e":3}})"));
}

void TestSchemaConverterInbound::takeCollectsAllEndpoints()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"a": {"@mac": 1, "@cmd": 1, "@format": "C"},
                                    "b": {"@mac": 2, "@cmd": 1, "@format": "C"},
                                    "c": {"@mac": 3, "@cmd": 9, "@format": "C"}})"));
    converter.insertFrame(s_at(3, 9), s_hex("03"));
    converter.insertFrame(s_at(1, 1), s_hex("01"));
    QCOMPARE(s_text(converter.takeVariantToSend(false)), QByteArray(R"({"a":1,"c":3})"));
}

void TestSchemaConverterInbound::takenValuesKeepTheirTypes()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(
        R"({"int": {"@mac": 1, "@format": "s"}, "uint": {"@mac": 1, "@format": "I"},
            "bool": {"@mac": 1, "@format": "C", "@asBool": true}, "float": {"@mac": 1, "@format": "f"},
            "scaled": {"@mac": 1, "@format": "C", "@factor": 2},
            "chars": {"@mac": 1, "@format": "c", "@flushSize": 1},
            "uchars": {"@mac": 1, "@format": "C", "@flushSize": 1},
            "shorts": {"@mac": 1, "@format": "q", "@flushSize": 1},
            "ushorts": {"@mac": 1, "@format": "Q", "@flushSize": 1},
            "ints": {"@mac": 1, "@format": "i", "@flushSize": 1},
            "uints": {"@mac": 1, "@format": "I", "@flushSize": 1},
            "floats": {"@mac": 1, "@format": "s", "@flushSize": 1, "@factor": 4}})"));
    converter.insertFrame(s_at(1, 0), s_hex("ffffffff"));
    const QVariantMap taken = converter.takeVariantToSend(false).toMap();
    QCOMPARE(taken.size(), 12);
    QCOMPARE(taken.value("int").userType(), int(QMetaType::Int));
    QCOMPARE(taken.value("uint").userType(), int(QMetaType::UInt));
    QCOMPARE(taken.value("bool").userType(), int(QMetaType::Bool));
    QCOMPARE(taken.value("float").userType(), int(QMetaType::Float));
    QCOMPARE(taken.value("scaled").userType(), int(QMetaType::Float));
    QVERIFY(s_holds<char>(taken.value("chars")));
    QVERIFY(s_holds<unsigned char>(taken.value("uchars")));
    QVERIFY(s_holds<short>(taken.value("shorts")));
    QVERIFY(s_holds<unsigned short>(taken.value("ushorts")));
    QVERIFY(s_holds<int>(taken.value("ints")));
    QVERIFY(s_holds<unsigned int>(taken.value("uints")));
    QVERIFY(s_holds<float>(taken.value("floats")));
    QCOMPARE(s_elements(taken.value("chars")), (QVector<double>{255}));
    QCOMPARE(s_elements(taken.value("shorts")), (QVector<double>{-1}));
    QCOMPARE(s_elements(taken.value("uints")), (QVector<double>{4294967295.0}));
    QCOMPARE(s_elements(taken.value("floats")), (QVector<double>{-0.25}));
}

void TestSchemaConverterInbound::arrayIsReadyWhenFull()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@format": "s", "@flushSize": 3}})"));
    QSignalSpy spy(&converter, &SchemaConverter::variantToSend);
    converter.insertFrame(s_at(1, 0), s_hex("0100"));
    converter.insertFrame(s_at(1, 0), s_hex("0200"));
    QCOMPARE(spy.count(), 0);
    QVERIFY(!converter.takeVariantToSend(false).isValid());
    converter.insertFrame(s_at(1, 0), s_hex("0300"));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(s_elements(s_path(converter.takeVariantToSend(false), {"x"})), (QVector<double>{1, 2, 3}));
    converter.insertFrame(s_at(1, 0), s_hex("0400"));
    QCOMPARE(s_elements(s_path(converter.takeVariantToSend(true), {"x"})), (QVector<double>{4}));
}

void TestSchemaConverterInbound::forceTakesPartlyFilledValues()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"full":  {"@mac": 1, "@format": "C"},
                                    "part":  {"@mac": 1, "@format": "S", "@flushSize": 3},
                                    "other": {"@mac": 2, "@format": "C", "@flushSize": 2},
                                    "empty": {"@mac": 3, "@format": "C"}})"));
    converter.insertFrame(s_at(1, 0), s_hex("0100"));
    converter.insertFrame(s_at(2, 0), s_hex("09"));
    const QVariantMap taken = converter.takeVariantToSend(true).toMap();
    QCOMPARE(taken.keys(), (QStringList{"full", "other", "part"}));
    QCOMPARE(s_elements(taken.value("part")), (QVector<double>{1}));
    QCOMPARE(s_elements(taken.value("other")), (QVector<double>{9}));
    QVERIFY(!converter.takeVariantToSend(true).isValid());
    // The array starts anew: three more readings to fill it.
    converter.insertFrame(s_at(1, 0), s_hex("0200"));
    QCOMPARE(converter.takeVariantToSend(false).toMap().keys(), QStringList{"full"});
}

void TestSchemaConverterInbound::rootLeafIsTheResultItself()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"@mac": 1, "@format": "S", "@flushSize": 2})"));
    converter.insertFrame(s_at(1, 0), s_hex("0100"));
    converter.insertFrame(s_at(1, 0), s_hex("0200"));
    const QVariant taken = converter.takeVariantToSend(false);
    QVERIFY(s_holds<unsigned short>(taken));
    QCOMPARE(s_elements(taken), (QVector<double>{1, 2}));
}

void TestSchemaConverterInbound::observeSignalsOnlyChanges()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@format": "C", "@observe": true}})"));
    QVariantList taken;
    QObject::connect(&converter, &SchemaConverter::variantToSend,
                     [&] { taken << converter.takeVariantToSend(false); });
    for (const char *payload : {"05", "05", "06", "", "06", "05"}) {
        QCOMPARE(converter.insertFrame(s_at(1, 0), s_hex(payload)), 1);
    }
    QCOMPARE(s_text(taken), QByteArray(R"([{"x":5},{"x":6},{"x":5}])"));
}

void TestSchemaConverterInbound::fragmentedEndpointsAreFoundWithoutTheFlag()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@format": "C", "@fragmentation": true}})"));
    QCOMPARE(converter.insertFrame(VEKEndpoint(1, 0, false), s_hex("05")), 1);
    converter.takeVariantToSend(false);
    QCOMPARE(converter.insertFrame(VEKEndpoint(1, 0, true), s_hex("05")), 1);
    QVERIFY(converter.takeVariantToSend(false).isValid());
}

// ---- Rainy ----

void TestSchemaConverterInbound::unknownEndpointChangesNothing()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@format": "C", "@flushSize": 2}})"));
    QSignalSpy spy(&converter, &SchemaConverter::variantToSend);
    converter.insertFrame(s_at(1, 0), s_hex("05"));
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(converter.insertFrame(s_at(1, 1), s_hex("06")), 2);
    }
    QCOMPARE(spy.count(), 0);
    QCOMPARE(s_elements(s_path(converter.takeVariantToSend(true), {"x"})), (QVector<double>{5}));
}

void TestSchemaConverterInbound::fullAttributesGetNothingUntilTaken()
{
    SchemaConverter converter;
    converter.loadSchema(
        s_json(R"({"x": {"@mac": 1, "@format": "C"}, "y": {"@mac": 1, "@format": "C", "@flushSize": 1}})"));
    converter.insertFrame(s_at(1, 0), s_hex("05"));
    QSignalSpy spy(&converter, &SchemaConverter::variantToSend);
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(converter.insertFrame(s_at(1, 0), s_hex("06")), 1);
    }
    QCOMPARE(spy.count(), 0);
    const QVariant taken = converter.takeVariantToSend(false);
    QCOMPARE(s_path(taken, {"x"}), QVariant(5));
    QCOMPARE(s_elements(s_path(taken, {"y"})), (QVector<double>{5}));
    converter.insertFrame(s_at(1, 0), s_hex("07"));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(s_path(converter.takeVariantToSend(false), {"x"}), QVariant(7));
}

void TestSchemaConverterInbound::oneFullAttributeDoesNotStopTheOthers()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"a": {"@mac": 1, "@format": "C"},
                                    "b": {"@mac": 1, "@format": "C", "@flushSize": 3}})"));
    QSignalSpy spy(&converter, &SchemaConverter::variantToSend);
    for (const char *payload : {"01", "02", "03"}) {
        converter.insertFrame(s_at(1, 0), s_hex(payload));
    }
    QCOMPARE(spy.count(), 2); // the first frame for a, the third for b
    const QVariant taken = converter.takeVariantToSend(false);
    QCOMPARE(s_path(taken, {"a"}), QVariant(1));
    QCOMPARE(s_elements(s_path(taken, {"b"})), (QVector<double>{1, 2, 3}));
}

void TestSchemaConverterInbound::takeWithNothingReadyClearsNothing()
{
    SchemaConverter converter;
    QVERIFY(!converter.takeVariantToSend(false).isValid());
    QVERIFY(!converter.takeVariantToSend(true).isValid());
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@format": "C", "@flushSize": 3}})"));
    QVERIFY(!converter.takeVariantToSend(false).isValid());
    converter.insertFrame(s_at(1, 0), s_hex("01"));
    QVERIFY(!converter.takeVariantToSend(false).isValid());
    converter.insertFrame(s_at(1, 0), s_hex("02"));
    QVERIFY(!converter.takeVariantToSend(false).isValid());
    converter.insertFrame(s_at(1, 0), s_hex("03"));
    QCOMPARE(s_elements(s_path(converter.takeVariantToSend(false), {"x"})), (QVector<double>{1, 2, 3}));
}

void TestSchemaConverterInbound::takeTwiceGivesNothingTheSecondTime()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@format": "C"}})"));
    converter.insertFrame(s_at(1, 0), s_hex("01"));
    QVERIFY(converter.takeVariantToSend(false).isValid());
    QVERIFY(!converter.takeVariantToSend(false).isValid());
    QVERIFY(!converter.takeVariantToSend(true).isValid());
}

void TestSchemaConverterInbound::forceAfterTakeLeavesTheRest()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"a": {"@mac": 1, "@format": "C"},
                                    "b": {"@mac": 1, "@format": "C", "@flushSize": 2},
                                    "c": {"@mac": 2, "@format": "C"}})"));
    converter.insertFrame(s_at(1, 0), s_hex("01"));
    converter.insertFrame(s_at(2, 0), s_hex("02"));
    QCOMPARE(converter.takeVariantToSend(false).toMap().keys(), (QStringList{"a", "c"}));
    QCOMPARE(converter.takeVariantToSend(true).toMap().keys(), QStringList{"b"});
    // Forced values are gone: nothing is ready that was ready before.
    converter.insertFrame(s_at(2, 0), s_hex("03"));
    QCOMPARE(s_text(converter.takeVariantToSend(true)), QByteArray(R"({"c":3})"));
    QVERIFY(!converter.takeVariantToSend(false).isValid());
    converter.insertFrame(s_at(1, 0), s_hex("04"));
    QCOMPARE(s_text(converter.takeVariantToSend(false)), QByteArray(R"({"a":4})"));
}

// Leaves (x) and (x, y) of different endpoints: whose endpoint orders last has the last word, whichever frame
// came first.
void TestSchemaConverterInbound::collisionsBetweenEndpoints_data()
{
    QTest::addColumn<QByteArray>("outer");
    QTest::addColumn<QByteArray>("inner");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("outer cmd lower: the map replaces the plain value")
        << QByteArray(R"("@mac": 1, "@cmd": 1)") << QByteArray(R"("@mac": 1, "@cmd": 2)")
        << QByteArray(R"({"x":{"y":2}})");
    QTest::newRow("outer cmd higher: the plain value replaces the map")
        << QByteArray(R"("@mac": 1, "@cmd": 2)") << QByteArray(R"("@mac": 1, "@cmd": 1)")
        << QByteArray(R"({"x":1})");
    QTest::newRow("cmd weighs more than mac")
        << QByteArray(R"("@mac": 9, "@cmd": 1)") << QByteArray(R"("@mac": 1, "@cmd": 2)")
        << QByteArray(R"({"x":{"y":2}})");
    QTest::newRow("same cmd, outer mac higher")
        << QByteArray(R"("@mac": 2, "@cmd": 1)") << QByteArray(R"("@mac": 1, "@cmd": 1)")
        << QByteArray(R"({"x":1})");
    QTest::newRow("outer cmd 0x8000 is negative")
        << QByteArray(R"("@mac": 1, "@cmd": 32768)") << QByteArray(R"("@mac": 1, "@cmd": 0)")
        << QByteArray(R"({"x":{"y":2}})");
    QTest::newRow("inner cmd 0xFFFF is negative")
        << QByteArray(R"("@mac": 1, "@cmd": 0)") << QByteArray(R"("@mac": 65535, "@cmd": 65535)")
        << QByteArray(R"({"x":1})");
}

void TestSchemaConverterInbound::collisionsBetweenEndpoints()
{
    QFETCH(QByteArray, outer);
    QFETCH(QByteArray, inner);
    QFETCH(QByteArray, expected);
    SchemaConverter converter;
    converter.loadSchema(
        s_json(R"({"x": {"@format": "C", )" + outer + R"(, "y": {"@format": "C", )" + inner + "}}}"));
    const QVariantMap outerLeaf = s_map("{" + outer + "}");
    const QVariantMap innerLeaf = s_map("{" + inner + "}");
    const VEKEndpoint outerAt = s_at(quint16(outerLeaf["@mac"].toInt()), quint16(outerLeaf["@cmd"].toInt()));
    const VEKEndpoint innerAt = s_at(quint16(innerLeaf["@mac"].toInt()), quint16(innerLeaf["@cmd"].toInt()));

    converter.insertFrame(outerAt, s_hex("01"));
    converter.insertFrame(innerAt, s_hex("02"));
    QCOMPARE(s_text(converter.takeVariantToSend(false)), expected);
    converter.insertFrame(innerAt, s_hex("02"));
    converter.insertFrame(outerAt, s_hex("01"));
    QCOMPARE(s_text(converter.takeVariantToSend(false)), expected);
    QVERIFY(!converter.takeVariantToSend(true).isValid());
}

void TestSchemaConverterInbound::collisionWithOneSideNotReady()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@cmd": 2, "@format": "C",
                                          "y": {"@mac": 1, "@cmd": 1, "@format": "C"}}})"));
    converter.insertFrame(s_at(1, 1), s_hex("02"));
    QCOMPARE(s_text(converter.takeVariantToSend(false)), QByteArray(R"({"x":{"y":2}})"));
    converter.insertFrame(s_at(1, 2), s_hex("01"));
    QCOMPARE(s_text(converter.takeVariantToSend(false)), QByteArray(R"({"x":1})"));
}

void TestSchemaConverterInbound::negativeCommandsComeFirst()
{
    // Three leaves on one path prefix, in the order -, 0, +.
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 0, "@cmd": 1, "@format": "C",
                                          "y": {"@mac": 0, "@cmd": 32768, "@format": "C",
                                                "z": {"@mac": 0, "@cmd": 0, "@format": "C"}}}})"));
    converter.insertFrame(s_at(0, 0), s_hex("03"));
    converter.insertFrame(s_at(0, 32768), s_hex("02"));
    QCOMPARE(s_text(converter.takeVariantToSend(false)), QByteArray(R"({"x":{"y":{"z":3}}})"));
    converter.insertFrame(s_at(0, 0), s_hex("03"));
    converter.insertFrame(s_at(0, 32768), s_hex("02"));
    converter.insertFrame(s_at(0, 1), s_hex("01"));
    QCOMPARE(s_text(converter.takeVariantToSend(false)), QByteArray(R"({"x":1})"));
}

void TestSchemaConverterInbound::rootLeafAmongOthers()
{
    // The root leaf's value stands where the map would: whoever is visited last remains.
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"@mac": 1, "@cmd": 2, "@format": "C",
                                    "a": {"@mac": 1, "@cmd": 1, "@format": "C"},
                                    "b": {"@mac": 1, "@cmd": 3, "@format": "C"}})"));
    converter.insertFrame(s_at(1, 1), s_hex("0a"));
    converter.insertFrame(s_at(1, 2), s_hex("01"));
    QCOMPARE(converter.takeVariantToSend(false), QVariant(1));
    converter.insertFrame(s_at(1, 1), s_hex("0a"));
    converter.insertFrame(s_at(1, 2), s_hex("01"));
    converter.insertFrame(s_at(1, 3), s_hex("0b"));
    QCOMPARE(s_text(converter.takeVariantToSend(false)), QByteArray(R"({"b":11})"));
}

void TestSchemaConverterInbound::shortPayloads()
{
    SchemaConverter converter;
    converter.loadSchema(
        s_json(R"({"a": {"@mac": 1, "@format": "C"}, "b": {"@mac": 1, "@format": "S", "@skip": 1},
                                    "c": {"@mac": 1, "@format": "I", "@skip": 3},
                                    "d": {"@mac": 1, "@format": "C", "@skip": -1},
                                    "e": {"@mac": 1, "@format": "C", "@skip": 2147483647}})"));
    const QByteArray payload = s_hex("0102030405060708");
    const QVector<QByteArray> expected{"",
                                       R"({"a":1})",
                                       R"({"a":1})",
                                       R"({"a":1,"b":770})",
                                       R"({"a":1,"b":770})",
                                       R"({"a":1,"b":770})",
                                       R"({"a":1,"b":770})",
                                       R"({"a":1,"b":770,"c":117835012})",
                                       R"({"a":1,"b":770,"c":117835012})"};
    QSignalSpy spy(&converter, &SchemaConverter::variantToSend);
    for (int length = 0; length <= 8; ++length) {
        spy.clear();
        QCOMPARE(converter.insertFrame(s_at(1, 0), payload.left(length)), 1);
        QCOMPARE(spy.count(), length > 0 ? 1 : 0);
        const QVariant taken = converter.takeVariantToSend(true);
        QCOMPARE(taken.isValid(), length > 0);
        QCOMPARE(taken.isValid() ? s_text(taken) : QByteArray(), expected.at(length));
    }
}

void TestSchemaConverterInbound::negativeFlushSizeNeverSignals()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@format": "C", "@flushSize": -1}})"));
    QSignalSpy spy(&converter, &SchemaConverter::variantToSend);
    QCOMPARE(converter.insertFrame(s_at(1, 0), s_hex("05")), 1);
    QCOMPARE(spy.count(), 0);
    // Always ready, yet empty.
    QVERIFY(!converter.takeVariantToSend(false).isValid());
    QVERIFY(!converter.takeVariantToSend(true).isValid());
}

void TestSchemaConverterInbound::packedThrowsOnAnEmptyPayload()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@format": "p"}})"));
    QSignalSpy spy(&converter, &SchemaConverter::variantToSend);
    QCOMPARE(converter.insertFrame(s_at(1, 0), s_hex("81a17801")), 1);
    COMPARE_THROWN(converter.insertFrame(s_at(1, 0), QByteArray()), "Bad type");
    QCOMPARE(spy.count(), 0);
    QVERIFY(!converter.takeVariantToSend(true).isValid());
    QCOMPARE(converter.insertFrame(s_at(1, 0), s_hex("80")), 1); // works on
}

void TestSchemaConverterInbound::packedThrowLeavesWaitingValues()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"a": {"@mac": 1, "@format": "C"}, "b": {"@mac": 1, "@format": "p"},
                                    "c": {"@mac": 1, "@format": "C", "@flushSize": 2}})"));
    QCOMPARE(converter.insertFrame(s_at(1, 0), s_hex("05")), 1);
    COMPARE_THROWN(converter.insertFrame(s_at(1, 0), QByteArray()), "Bad type");
    QCOMPARE(converter.insertFrame(s_at(1, 0), s_hex("06")), 1);
    const QVariant taken = converter.takeVariantToSend(false);
    QCOMPARE(s_path(taken, {"a"}), QVariant(5));
    QCOMPARE(s_elements(s_path(taken, {"c"})), (QVector<double>{5, 6}));
}

void TestSchemaConverterInbound::charArraysCannotBePacked()
{
    registerTypedArrays();
    SchemaConverter converter;
    converter.loadSchema(
        s_json(R"({"c": {"@mac": 1, "@format": "c", "@flushSize": 1}, "d": {"@mac": 1, "@format": "C"},
                                    "e": {"@mac": 1, "@format": "C", "@flushSize": 1}})"));
    converter.insertFrame(s_at(1, 0), s_hex("ff"));
    const QVariant taken = converter.takeVariantToSend(false);
    LogScope log;
    // The map counts three entries; that of "c" has a name and no value.
    QCOMPARE(MsgPack::pack(taken).toHex(), QByteArray("83a163a164ccffa165d412ff"));
    QVERIFY(!log.lines().isEmpty());
    const QString line =
        QString("warning: MsgPack::pack can't pack type: %1").arg(qMetaTypeId<QVector<char>>());
    QCOMPARE(log.lines().filter(line).size(), log.lines().size());
}

void TestSchemaConverterInbound::handlerMayLoadAnotherSchema()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@format": "C"}})"));
    QObject::connect(&converter, &SchemaConverter::variantToSend,
                     [&] { converter.loadSchema(QJsonDocument()); });
    QCOMPARE(converter.insertFrame(s_at(1, 0), s_hex("05")), 1);
    QCOMPARE(converter.insertFrame(s_at(1, 0), s_hex("05")), 2);
    QVERIFY(!converter.takeVariantToSend(true).isValid());
}

static const char s_twoEndpoints[] = R"({"a": {"@mac": 1, "@format": "C"}, "b": {"@mac": 2, "@format": "C"},
                                         "c": {"@mac": 1, "@format": "C", "@flushSize": 2}})";

void TestSchemaConverterInbound::handlerMayInsertFrames()
{
    // Before it takes: the frame within finds "a" full, and its own handler takes everything.
    SchemaConverter converter;
    converter.loadSchema(s_json(s_twoEndpoints));
    QStringList events;
    QObject::connect(&converter, &SchemaConverter::variantToSend, [&] {
        events << "signal";
        if (events.size() == 1) {
            events << QString::number(converter.insertFrame(s_at(1, 0), s_hex("06")));
            events << QString::number(converter.insertFrame(s_at(2, 0), s_hex("07")));
        }
        const QVariant taken = converter.takeVariantToSend(false);
        events << (taken.isValid() ? QStringList(taken.toMap().keys()).join(' ') : "nothing");
    });
    QCOMPARE(converter.insertFrame(s_at(1, 0), s_hex("05")), 1);
    // The second reading of "c" made it ready: a signal of its own.
    QCOMPARE(events, (QStringList{"signal", "signal", "a c", "1", "signal", "b", "1", "nothing"}));
    QVERIFY(!converter.takeVariantToSend(true).isValid());
}

void TestSchemaConverterInbound::handlerMayInsertFramesAfterTaking()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(s_twoEndpoints));
    QVariantList taken;
    QObject::connect(&converter, &SchemaConverter::variantToSend, [&] {
        taken << converter.takeVariantToSend(false);
        if (taken.size() < 4) {
            converter.insertFrame(s_at(taken.size() == 2 ? 2 : 1, 0), s_hex("06"));
        }
    });
    QCOMPARE(converter.insertFrame(s_at(1, 0), s_hex("05")), 1);
    QCOMPARE(taken.size(), 4);
    QCOMPARE(taken.at(0), QVariant(QVariantMap{{"a", 5}}));
    QCOMPARE(s_path(taken.at(1), {"a"}), QVariant(6));
    QCOMPARE(s_elements(s_path(taken.at(1), {"c"})), (QVector<double>{5, 6}));
    QCOMPARE(taken.at(2), QVariant(QVariantMap{{"b", 6}}));
    QCOMPARE(taken.at(3), QVariant(QVariantMap{{"a", 6}}));
}

void TestSchemaConverterInbound::handlerThatThrowsLeavesTheValues()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(s_twoEndpoints));
    int signalled = 0;
    const auto connection = QObject::connect(&converter, &SchemaConverter::variantToSend, [&signalled] {
        ++signalled;
        throw std::runtime_error("handler");
    });
    COMPARE_THROWN(converter.insertFrame(s_at(1, 0), s_hex("05")), "handler");
    QCOMPARE(signalled, 1);
    COMPARE_THROWN(converter.insertFrame(s_at(1, 0), s_hex("06")), "handler"); // "c" became ready
    QCOMPARE(converter.insertFrame(s_at(1, 0), s_hex("07")), 1);               // all are full
    COMPARE_THROWN(converter.insertFrame(s_at(2, 0), s_hex("08")), "handler");
    QCOMPARE(signalled, 3);
    QObject::disconnect(connection);

    const QVariant taken = converter.takeVariantToSend(false);
    QCOMPARE(s_path(taken, {"a"}), QVariant(5));
    QCOMPARE(s_path(taken, {"b"}), QVariant(8));
    QCOMPARE(s_elements(s_path(taken, {"c"})), (QVector<double>{5, 6}));
    QVERIFY(!converter.takeVariantToSend(true).isValid());
    QSignalSpy spy(&converter, &SchemaConverter::variantToSend);
    QCOMPARE(converter.insertFrame(s_at(1, 0), s_hex("09")), 1);
    QCOMPARE(spy.count(), 1);
}

void TestSchemaConverterInbound::millionsOfReadingsArriveWhole()
{
    LogScope log;
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@format": "f", "@flushSize": 4000000}})"));
    QVariant taken;
    QObject::connect(&converter, &SchemaConverter::variantToSend,
                     [&] { taken = converter.takeVariantToSend(false); });
    QByteArray payload(4, '\0');
    for (int i = 0; i < 4000000; ++i) {
        const auto reading = static_cast<float>(i);
        memcpy(payload.data(), &reading, sizeof reading);
        converter.insertFrame(s_at(1, 0), payload);
    }
    const auto readings = s_path(taken, {"x"}).value<QVector<float>>();
    QCOMPARE(readings.size(), 4000000);
    for (int i = 0; i < readings.size(); ++i) {
        if (readings.at(i) != static_cast<float>(i)) {
            QCOMPARE(readings.at(i), static_cast<float>(i));
        }
    }
    QCOMPARE(log.lines(), QStringList());
}

// As many leaves that never fill as give the whole room to arrays of a little over half a MiB, and some that
// come too late.
static QJsonDocument s_gluttons()
{
    QByteArray document = R"({"late": {"er": {"@mac": 2, "@format": "C", "@flushSize": 3, "@skip": 1},
                                       "": {"@mac": 2, "@format": "C", "@flushSize": 3}}, "motor": {)";
    for (int i = 0; i < 64; ++i) {
        document += (i > 0 ? ",\"" : "\"") + QByteArray::number(i) +
                    R"(": {"@mac": 1, "@format": "I", "@flushSize": 2e9})";
    }
    return s_json(document + R"(}, "single": {"@mac": 3, "@format": "C"}})");
}

void TestSchemaConverterInbound::whatArraysGatherIsBounded()
{
    SchemaConverter converter;
    const QByteArray payload(8, '\1');
    const int overHalf = 128 * 1024 + 1; // readings of four bytes, in a block of 1 MiB
    for (int round = 0; round < 2; ++round) {
        converter.loadSchema(s_gluttons()); // drops what was gathered, and has a warning of its own
        LogScope log;
        for (int i = 0; i < overHalf; ++i) {
            converter.insertFrame(s_at(1, 0), payload);
        }
        QCOMPARE(log.lines(), QStringList());
        for (int i = 0; i < 10; ++i) {
            QCOMPARE(converter.insertFrame(s_at(2, 0), payload), 1);
        }
        QCOMPARE(log.lines(), QStringList{"warning: Attribute (\"late\", \"\") drops readings: the arrays of "
                                          "the schema may take 64 MiB together."});
        QVERIFY(!converter.takeVariantToSend(false).isValid());
        converter.insertFrame(s_at(3, 0), payload); // single values are none of it
        QVERIFY(s_path(converter.takeVariantToSend(false), {"single"}).isValid());
    }
    // Those that have a block go on until it is full.
    LogScope log;
    converter.insertFrame(s_at(1, 0), payload);
    const QVariant taken = converter.takeVariantToSend(true);
    QCOMPARE(taken.toMap().keys(), QStringList{"motor"});
    for (const QVariant &readings : taken.toMap().value("motor").toMap()) {
        QCOMPARE(readings.value<QVector<unsigned int>>().size(), overHalf + 1);
    }
    // What was taken made room.
    for (int i = 0; i < 3; ++i) {
        converter.insertFrame(s_at(2, 0), payload);
    }
    const QVariant late = converter.takeVariantToSend(false);
    QCOMPARE(s_elements(s_path(late, {"late", "er"})), (QVector<double>{1, 1, 1}));
    QCOMPARE(log.lines(), QStringList());
}

void TestSchemaConverterInbound::nothingOnThisPathLogs()
{
    LogScope log;
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@format": "C", "@skip": -1, "@factor": 0},
                                    "y": {"@mac": 1, "@format": "?"}, "z": {"@mac": 1, "@format": "p"},
                                    "v": {"@mac": 1, "@format": "c", "@flushSize": 1}})"));
    converter.insertFrame(s_at(9, 9), s_hex("01"));
    converter.insertFrame(s_at(1, 0), s_hex("01"));
    COMPARE_THROWN(converter.insertFrame(s_at(1, 0), QByteArray()), "Bad type");
    converter.takeVariantToSend(false);
    converter.takeVariantToSend(true);
    QCOMPARE(log.lines(), QStringList());
}

QTEST_APPLESS_MAIN(TestSchemaConverterInbound)
#include "tst_schemaconverter_inbound.moc"
