// What conversion costs in memory: counted allocations, never time.
#include "schema/schemaconverter.h"
#include "tests/unit/allocationcounter.h"
#include "tests/unit/tst_schematools.h"

#include <QtTest>

#include <limits>

struct Cost {
    std::size_t allocations;
    std::size_t bytes;
};

template <typename Call>
static Cost s_costOf(const Call &call)
{
    const AllocationCounter counter;
    call();
    return {counter.allocations(), counter.bytes()};
}

class TestSchemaCost : public QObject
{
    Q_OBJECT

private slots:
    void theHooksCount();
    void scalarReadingsAllocateNothing_data();
    void scalarReadingsAllocateNothing();
    void framesThatConcernNobodyAllocateNothing();
    void gatheringIsAmortised_data();
    void gatheringIsAmortised();
    void gatheringInTheConverterIsAmortised();
    void takingAnArrayCopiesNoElements();
    void announcedFlushSizeReservesNothing();
    void otherLeavesCostAFrameNothing();
    void hostileOffsetsCostNothing_data();
    void hostileOffsetsCostNothing();
    void largestOffsetCostsItsPayload();
    void manyLargeOffsetsAreBounded();
    void copiesOfALeafCostNothing_data();
    void copiesOfALeafCostNothing();
    void manyUnknownKeysCostOneLookUpEach();
};

void TestSchemaCost::theHooksCount()
{
    QByteArray bytes;
    const Cost cost = s_costOf([&bytes] { bytes = QByteArray(1000, 'x'); });
    QVERIFY(cost.allocations >= 1);
    QVERIFY(cost.bytes >= 1000);
    const Cost none = s_costOf([] {});
    QCOMPARE(none.allocations, std::size_t(0));
}

void TestSchemaCost::scalarReadingsAllocateNothing_data()
{
    QTest::addColumn<QByteArray>("options");

    for (const char *format : {"C", "c", "S", "s", "Q", "q", "I", "i", "f"}) {
        const QByteArray start = R"("@format": ")" + QByteArray(format) + "\"";
        QTest::addRow("%s", format) << start;
        QTest::addRow("%s scaled", format) << start + R"(, "@factor": 10)";
        QTest::addRow("%s observed", format) << start + R"(, "@observe": true)";
        QTest::addRow("%s as bool", format) << start + R"(, "@mask": 1, "@asBool": true)";
    }
}

void TestSchemaCost::scalarReadingsAllocateNothing()
{
    QFETCH(QByteArray, options);
    SchemaDataAttribute attribute(s_map("{" + options + "}"), {"x"});
    const QByteArray payloads[] = {s_hex("0102030405060708"), s_hex("0203040506070809")};
    attribute.insert(payloads[1]); // Qt's comparison of variants sets itself up at its first use
    attribute.clear();
    const Cost cost = s_costOf([&] {
        for (int i = 0; i < 1000; ++i) {
            attribute.insert(payloads[i % 2]);
            attribute.clear();
        }
    });
    QCOMPARE(cost.allocations, std::size_t(0)); // a QVariant keeps a number in itself
}

void TestSchemaCost::framesThatConcernNobodyAllocateNothing()
{
    SchemaConverter converter;
    converter.loadSchema(
        s_json(R"({"x": {"@mac": 1, "@format": "C"}, "y": {"@mac": 1, "@format": "I", "@skip": 6}})"));
    const QByteArray payload = s_hex("0102030405060708");
    converter.insertFrame(VEKEndpoint(1, 0, false), payload);
    const Cost unknown = s_costOf([&] { converter.insertFrame(VEKEndpoint(2, 0, false), payload); });
    QCOMPARE(unknown.allocations, std::size_t(0));
    const Cost refused = s_costOf([&] { converter.insertFrame(VEKEndpoint(1, 0, false), payload); });
    QCOMPARE(refused.allocations, std::size_t(0));
}

void TestSchemaCost::gatheringIsAmortised_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<int>("width");

    QTest::newRow("C") << QByteArray(R"("@format": "C")") << 1;
    QTest::newRow("c") << QByteArray(R"("@format": "c")") << 1;
    QTest::newRow("S") << QByteArray(R"("@format": "S")") << 2;
    QTest::newRow("s") << QByteArray(R"("@format": "s")") << 2;
    QTest::newRow("Q") << QByteArray(R"("@format": "Q")") << 2;
    QTest::newRow("q") << QByteArray(R"("@format": "q")") << 2;
    QTest::newRow("I") << QByteArray(R"("@format": "I")") << 4;
    QTest::newRow("i") << QByteArray(R"("@format": "i")") << 4;
    QTest::newRow("f") << QByteArray(R"("@format": "f")") << 4;
    QTest::newRow("scaled") << QByteArray(R"("@format": "C", "@factor": 10)") << 4;
    QTest::newRow("as bool") << QByteArray(R"("@format": "i", "@asBool": true)") << 4;
}

void TestSchemaCost::gatheringIsAmortised()
{
    QFETCH(QByteArray, options);
    QFETCH(int, width);
    const int readings = 10000;
    SchemaDataAttribute attribute(s_map(R"({"@flushSize": 10000, )" + options + "}"), {"x"});
    const QByteArray payload = s_hex("0102030405060708");
    const Cost cost = s_costOf([&] {
        for (int i = 0; i < readings; ++i) {
            attribute.insert(payload);
        }
    });
    QCOMPARE(attribute.count(), readings);
    QVERIFY(attribute.isFull());
    // Growth by doubling takes about log2(readings) steps, whose sizes add up to a few times the last.
    QVERIFY2(cost.allocations <= 64, qPrintable(QString::number(cost.allocations)));
    QVERIFY2(cost.bytes <= std::size_t(8 * readings * width), qPrintable(QString::number(cost.bytes)));
}

void TestSchemaCost::gatheringInTheConverterIsAmortised()
{
    // A leaf of three members, gathering beside another one that is taken all the while.
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@format": "S", "@flushSize": 10000},
                                    "y": {"@mac": 1, "@format": "C"}})"));
    const QByteArray payload = s_hex("0102030405060708");
    const Cost gathering = s_costOf([&] {
        for (int i = 0; i < 10000; ++i) {
            converter.insertFrame(VEKEndpoint(1, 0, false), payload);
        }
    });
    QCOMPARE(s_elements(converter.takeVariantToSend(false).toMap().value("x")).size(), 10000);
    QVERIFY2(gathering.allocations <= 3 * 64, qPrintable(QString::number(gathering.allocations)));
    QVERIFY2(gathering.bytes <= 3U * 8 * 10000 * 2, qPrintable(QString::number(gathering.bytes)));

    // Collecting what is ready beside it must not make the array's next append copy it.
    Cost taking = {0, 0};
    for (int i = 0; i < 9000; ++i) {
        const Cost one = s_costOf([&] {
            converter.insertFrame(VEKEndpoint(1, 0, false), payload);
            converter.takeVariantToSend(false);
        });
        taking.bytes += one.bytes;
    }
    QVERIFY2(taking.bytes <= 9000U * 1000, qPrintable(QString::number(taking.bytes)));
}

void TestSchemaCost::takingAnArrayCopiesNoElements()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@format": "I", "@flushSize": 10000}})"));
    const QByteArray payload = s_hex("0102030405060708");
    for (int i = 0; i < 10000; ++i) {
        converter.insertFrame(VEKEndpoint(1, 0, false), payload);
    }
    QVariant taken;
    const Cost cost = s_costOf([&] { taken = converter.takeVariantToSend(false); });
    QCOMPARE(s_elements(taken.toMap().value("x")).size(), 10000);
    QVERIFY2(cost.bytes < 10000, qPrintable(QString::number(cost.bytes)));
}

void TestSchemaCost::announcedFlushSizeReservesNothing()
{
    const QVariantMap options = s_map(R"({"@mac": 1, "@format": "I", "@flushSize": 2147483647})");
    const Cost building = s_costOf([&options] {
        SchemaDataAttribute attribute(options, {"x"});
        attribute.insert(QByteArray(8, '\x01'));
    });
    QVERIFY2(building.bytes < 4096, qPrintable(QString::number(building.bytes)));

    SchemaConverter converter;
    const QJsonDocument document = s_json(R"({"x": {"@mac": 1, "@format": "I", "@flushSize": 2147483647}})");
    const Cost loading = s_costOf([&] {
        converter.loadSchema(document);
        converter.insertFrame(VEKEndpoint(1, 0, false), QByteArray(8, '\x01'));
    });
    QVERIFY2(loading.bytes < 16384, qPrintable(QString::number(loading.bytes)));
}

// The allocations of one frame and its taking, in a schema with this many further leaves.
static Cost s_costBeside(int leaves)
{
    QVariantMap document;
    for (int i = 0; i < leaves; ++i) {
        document.insert(QString("leaf %1").arg(i), QVariantMap{{"@mac", 100 + i}, {"@format", "C"}});
    }
    document.insert("x", QVariantMap{{"@mac", 1}, {"@format", "C"}});
    SchemaConverter converter;
    converter.loadSchema(QJsonDocument::fromVariant(document));
    const QByteArray payload = s_hex("05");
    const auto frameAndTake = [&] {
        converter.insertFrame(VEKEndpoint(1, 0, false), payload);
        converter.takeVariantToSend(false);
    };
    frameAndTake(); // what is made once is made
    return s_costOf(frameAndTake);
}

void TestSchemaCost::otherLeavesCostAFrameNothing()
{
    const Cost alone = s_costBeside(0);
    const Cost crowded = s_costBeside(1000);
    QCOMPARE(crowded.allocations, alone.allocations);
    QCOMPARE(crowded.bytes, alone.bytes);
}

void TestSchemaCost::hostileOffsetsCostNothing_data()
{
    QTest::addColumn<int>("skip");
    QTest::newRow("65536") << 65536;
    QTest::newRow("a gigabyte") << (1 << 30);
    QTest::newRow("largest") << std::numeric_limits<int>::max();
    QTest::newRow("negative") << -2;
}

void TestSchemaCost::hostileOffsetsCostNothing()
{
    QFETCH(int, skip);
    SchemaConverter converter;
    converter.loadSchema(QJsonDocument::fromVariant(QVariantMap{
        {"x", QVariantMap{{"@mac", 1}, {"@format", "i"}, {"@fragmentation", true}, {"@skip", skip}}}}));
    const QVariantMap value{{"x", 5}};
    LogScope log;
    const Cost cost = s_costOf([&] { converter.toFrame(value); });
    QVERIFY2(cost.bytes < 60000, qPrintable(QString::number(cost.bytes)));
}

void TestSchemaCost::largestOffsetCostsItsPayload()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": {"@mac": 1, "@format": "C", "@skip": 65535}})"));
    const QVariantMap value{{"x", 5}};
    LogScope log;
    const Cost cost = s_costOf([&] { converter.toFrame(value); }); // trimmed to one frame
    QVERIFY2(cost.bytes < 4 * 65536, qPrintable(QString::number(cost.bytes)));
}

void TestSchemaCost::manyLargeOffsetsAreBounded()
{
    // 2,000 leaves that claim 64 KiB each, by a message of some 20 KiB.
    QVariantMap document;
    QVariantMap value;
    for (int i = 0; i < 2000; ++i) {
        const QString name = QString::number(i);
        document.insert(name, QVariantMap{{"@mac", i}, {"@format", "C"}, {"@skip", 65535}});
        value.insert(name, 1);
    }
    SchemaConverter converter;
    converter.loadSchema(QJsonDocument::fromVariant(document));
    LogScope log;
    const Cost cost = s_costOf([&] { converter.toFrame(value); });
    QVERIFY2(cost.bytes < 40000000, qPrintable(QString::number(cost.bytes)));
}

void TestSchemaCost::copiesOfALeafCostNothing_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<QByteArray>("member");
    QTest::addColumn<int>("bytes"); // a member may take while it is loaded
    for (const char *options :
         {R"("@format": "C")", R"("@format": "C", "@flushSize": 2)", R"("@format": "C", "@flushSize": -1)"}) {
        QTest::addRow("numbers in %s", options) << QByteArray(options) << QByteArray("1") << 130;
        QTest::addRow("objects in %s", options) << QByteArray(options) << QByteArray("{}") << 280;
        QTest::addRow("other leaves in %s", options)
            << QByteArray(options) << QByteArray(R"({"@mac":2})") << 600;
    }
}

// A leaf of very many members that put nothing between its copies has one attribute, and a frame and taking
// by force, which visits all attributes, cost what they cost with a leaf of three members.
void TestSchemaCost::copiesOfALeafCostNothing()
{
    QFETCH(QByteArray, options);
    QFETCH(QByteArray, member);
    QFETCH(int, bytes);
    const int members = 32000;
    QByteArray text = R"({"x": {"@mac": 1, )" + options;
    for (int i = 0; i < members; ++i) {
        text += ",\"" + QByteArray::number(i) + "\":" + member;
    }
    const QJsonDocument document = s_json(text + "}}");
    SchemaConverter converter;
    const Cost loading = s_costOf([&] { converter.loadSchema(document); });
    QVERIFY2(loading.bytes < std::size_t(bytes) * members, qPrintable(QString::number(loading.bytes)));

    const Cost frame = s_costOf([&] {
        converter.insertFrame(VEKEndpoint(1, 0, false), s_hex("05"));
        converter.takeVariantToSend(true);
    });
    QVERIFY2(frame.allocations < 30, qPrintable(QString::number(frame.allocations)));
}

void TestSchemaCost::manyUnknownKeysCostOneLookUpEach()
{
    QVariantMap values;
    for (int i = 0; i < 100000; ++i) {
        values.insert(QString::number(i), 1);
    }
    const QVariant value = values;
    SchemaConverter converter;
    LogScope log;
    const Cost cost = s_costOf([&] { converter.toVEKFrames(value); });
    QVERIFY2(cost.allocations < 50000, qPrintable(QString::number(cost.allocations)));
}

QTEST_APPLESS_MAIN(TestSchemaCost)
#include "tst_schemacost.moc"
