// Loading a schema: the document walk, what it ignores, what a new schema discards.
//
// The table of attributes is not public. What the walk made of a document shows in the endpoints that are
// known, in the values that readings turn into, and in what can be written.
#include "schema/schemaconverter.h"
#include "tests/unit/tst_schematools.h"

#include <QMetaMethod>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

class TestSchemaConverterLoad : public QObject
{
    Q_OBJECT

private slots:
    // Happy
    void metaObject();
    void startsEmpty();
    void exampleDocument();
    void endpoints_data();
    void endpoints();
    void pathsAreTheMemberNames_data();
    void pathsAreTheMemberNames();
    void leafAtTheRoot();
    void leavesShareAnEndpoint();
    void visitingOrderOfOneEndpoint_data();
    void visitingOrderOfOneEndpoint();
    void everyMemberOfALeafAddsACopy_data();
    void everyMemberOfALeafAddsACopy();
    void dumpWritesTheDocument_data();
    void dumpWritesTheDocument();
    void membersAreVisitedInTheOrderOfQString();
    void dumpOfALargeDocumentIsCut();
    void loadsFromAFile();

    // Rainy
    void documentsWithoutLeaves_data();
    void documentsWithoutLeaves();
    void textThatIsNoObjectEmptiesTheSchema_data();
    void textThatIsNoObjectEmptiesTheSchema();
    void loadingReplacesTheWholeSchema();
    void loadingDiscardsWaitingValues();
    void loadingDiscardsTheObservedValue();
    void fileThatCannotBeOpenedLeavesTheSchema();
    void fileThatIsNoJsonClearsTheSchema();
    void branchOptionsReachNoLeaf();
    void loadingLogsNothing();
    void deepDocument();
    void manyLeaves();
};

// The statuses of a frame for (mac, cmd): 1 when the schema knows the endpoint, else 2.
static int s_status(SchemaConverter &converter, quint16 mac, quint16 cmd)
{
    return converter.insertFrame(VEKEndpoint(mac, cmd, false), s_hex("0102030405060708"));
}

// The compact JSON of a nested value of plain numbers and bools.
static QByteArray s_text(const QVariant &value)
{
    return QJsonDocument::fromVariant(value).toJson(QJsonDocument::Compact);
}

static const char s_example[] =
    R"({"motor": {"speed":   {"@mac": 5, "@cmd": 2, "@format": "s", "@skip": 0, "@factor": 0.1},
                                              "current": {"@mac": 5, "@cmd": 2, "@format": "s", "@skip": 2},
                                              "enabled": {"@mac": 5, "@cmd": 2, "@format": "c", "@skip": 4}},
                                    "config": {"@mac": 5, "@cmd": 7, "@format": "p", "@fragmentation": true}})";

// ---- Happy ----

void TestSchemaConverterLoad::metaObject()
{
    const QMetaObject &meta = SchemaConverter::staticMetaObject;
    QCOMPARE(meta.className(), "SchemaConverter");
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
    QCOMPARE(meta.methodCount() - meta.methodOffset(), 1);
    const QMetaMethod signal = meta.method(meta.methodOffset());
    QCOMPARE(signal.methodType(), QMetaMethod::Signal);
    QCOMPARE(signal.methodSignature(), QByteArray("variantToSend()"));
    QCOMPARE(meta.propertyCount() - meta.propertyOffset(), 0);
    QCOMPARE(meta.enumeratorCount() - meta.enumeratorOffset(), 0);

    QObject parent;
    auto *const child = new SchemaConverter(&parent);
    QCOMPARE(child->parent(), &parent);
    const SchemaConverter orphan;
    QVERIFY(!orphan.parent());
}

void TestSchemaConverterLoad::startsEmpty()
{
    SchemaConverter converter;
    QCOMPARE(s_status(converter, 0, 0), 2);
    QVERIFY(!converter.takeVariantToSend(true).isValid());
    QCOMPARE(converter.toVEKFrames(QVariantMap()).size(), 0);
    LogScope log;
    converter.dump();
    QCOMPARE(log.lines(), QStringList{"debug: QMap()"});
}

void TestSchemaConverterLoad::exampleDocument()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(s_example));
    QCOMPARE(converter.insertFrame(VEKEndpoint(5, 2, false), s_hex("0a00f6ff01")), 1);
    QCOMPARE(converter.insertFrame(VEKEndpoint(5, 7, false), s_hex("80")), 1);
    QCOMPARE(s_status(converter, 5, 3), 2);
    QCOMPARE(s_text(converter.takeVariantToSend(false)),
             QByteArray(R"({"motor":{"current":-10,"enabled":1,"speed":100}})"));
}

void TestSchemaConverterLoad::endpoints_data()
{
    QTest::addColumn<QByteArray>("leaf");
    QTest::addColumn<int>("mac");
    QTest::addColumn<int>("cmd");

    QTest::newRow("mac alone makes a leaf") << QByteArray(R"({"@mac": 5})") << 5 << 0;
    QTest::newRow("whatever mac holds") << QByteArray(R"({"@mac": null})") << 0 << 0;
    QTest::newRow("mac as a text") << QByteArray(R"({"@mac": "5", "@cmd": "6"})") << 5 << 6;
    QTest::newRow("mac and cmd above the header fields are kept")
        << QByteArray(R"({"@mac": 70, "@cmd": 33})") << 70 << 33;
    QTest::newRow("low 16 bits") << QByteArray(R"({"@mac": 70000, "@cmd": -1})") << 4464 << 65535;
    QTest::newRow("flag is no part of the key")
        << QByteArray(R"({"@mac": 1, "@cmd": 2, "@fragmentation": true})") << 1 << 2;
}

void TestSchemaConverterLoad::endpoints()
{
    QFETCH(QByteArray, leaf);
    QFETCH(int, mac);
    QFETCH(int, cmd);
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"x": )" + leaf + "}"));
    QCOMPARE(s_status(converter, quint16(mac), quint16(cmd)), 1);
    QCOMPARE(s_status(converter, quint16(mac + 1), quint16(cmd)), 2);
    QCOMPARE(s_status(converter, quint16(mac), quint16(cmd + 1)), 2);
    if (mac > 63) {
        QCOMPARE(s_status(converter, quint16(mac & 0x3F), quint16(cmd & 0x1F)), 2);
    }
}

void TestSchemaConverterLoad::pathsAreTheMemberNames_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<QByteArray>("expected");

#define LEAF R"({"@mac": 1, "@cmd": 2, "@format": "C"})"
    QTest::newRow("one name") << QByteArray(R"({"a": )" LEAF "}") << QByteArray(R"({"a":1})");
    QTest::newRow("three names") << QByteArray(R"({"a": {"b": {"c": )" LEAF "}}}")
                                 << QByteArray(R"({"a":{"b":{"c":1}}})");
    QTest::newRow("empty name") << QByteArray(R"({"": {"": )" LEAF "}}") << QByteArray(R"({"":{"":1}})");
    QTest::newRow("name with dots and blanks")
        << QByteArray(R"({"a.b c": )" LEAF "}") << QByteArray(R"({"a.b c":1})");
    QTest::newRow("a name that begins with @ is a name as any other")
        << QByteArray(R"({"@cmd": )" LEAF "}") << QByteArray(R"({"@cmd":1})");
    QTest::newRow("name beyond ASCII")
        << QByteArray("{\"\xc3\xa4\": " LEAF "}") << QByteArray("{\"\xc3\xa4\":1}");
    QTest::newRow("siblings") << QByteArray(R"({"a": {"b": )" LEAF R"(, "c": )" LEAF R"(}, "d": )" LEAF "}")
                              << QByteArray(R"({"a":{"b":1,"c":1},"d":1})");
    QTest::newRow("values of a branch that are no objects are never walked")
        << QByteArray(R"({"a": 1, "b": [)" LEAF R"(], "c": "x", "d": null, "e": true, "f": )" LEAF "}")
        << QByteArray(R"({"f":1})");
    QTest::newRow("branch options do not make a leaf")
        << QByteArray(R"({"a": {"@cmd": 2, "@format": "C", "b": )" LEAF "}}")
        << QByteArray(R"({"a":{"b":1}})");
#undef LEAF
}

void TestSchemaConverterLoad::pathsAreTheMemberNames()
{
    QFETCH(QByteArray, document);
    SchemaConverter converter;
    converter.loadSchema(s_json(document));
    QCOMPARE(s_status(converter, 1, 2), 1);
    QTEST(s_text(converter.takeVariantToSend(false)), "expected");
}

void TestSchemaConverterLoad::leafAtTheRoot()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"@mac": 1, "@cmd": 2, "@format": "s"})"));
    QCOMPARE(s_status(converter, 1, 2), 1);
    QCOMPARE(converter.takeVariantToSend(false), QVariant(0x0201));
}

void TestSchemaConverterLoad::leavesShareAnEndpoint()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(R"({"b": {"@mac": 1, "@cmd": 2, "@format": "C", "@fragmentation": true},
                                    "a": {"@mac": 1, "@cmd": 2, "@format": "S", "@skip": 1},
                                    "c": {"@mac": 1, "@cmd": 3, "@format": "C"}})"));
    QCOMPARE(s_status(converter, 1, 2), 1);
    QCOMPARE(s_text(converter.takeVariantToSend(false)), QByteArray(R"({"a":770,"b":1})"));
}

// Which of two leaves of one endpoint was visited last shows when their paths collide: a map replaces a plain
// value on its way, a plain value replaces a map.
void TestSchemaConverterLoad::visitingOrderOfOneEndpoint_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<QByteArray>("expected");

#define X R"("@mac": 1, "@cmd": 2, "@format": "C")"
#define Y R"({"@mac": 1, "@cmd": 2, "@format": "C", "@skip": 1})"
    QTest::newRow("child after every option: the child comes last")
        << QByteArray(R"({"x": {)" X R"(, "y": )" Y "}}") << QByteArray(R"({"x":{"y":2}})");
    QTest::newRow("a member behind the child adds a copy behind it")
        << QByteArray(R"({"x": {)" X R"(, "y": )" Y R"(, "z": 0}})") << QByteArray(R"({"x":1})");
    QTest::newRow("whatever that member is")
        << QByteArray(R"({"x": {)" X R"(, "y": )" Y R"(, "z": {}}})") << QByteArray(R"({"x":1})");
    QTest::newRow("a member before the options changes nothing")
        << QByteArray(R"({"x": {)" X R"(, "y": )" Y R"(, "0": 0}})") << QByteArray(R"({"x":{"y":2}})");
    QTest::newRow("digits sort before @: the child comes first")
        << QByteArray(R"({"x": {)" X R"(, "0": )" Y "}}") << QByteArray(R"({"x":1})");
    QTest::newRow("the empty name sorts first of all")
        << QByteArray(R"({"x": {)" X R"(, "": )" Y "}}") << QByteArray(R"({"x":1})");
    QTest::newRow("an option that is an object is a child too")
        << QByteArray(R"({"x": {)" X R"(, "@zone": )" Y "}}") << QByteArray(R"({"x":{"@zone":2}})");
    QTest::newRow("capitals sort behind @ and before small letters")
        << QByteArray(R"({"x": {)" X R"(, "Y": )" Y "}}") << QByteArray(R"({"x":{"Y":2}})");
    QTest::newRow("grandchild") << QByteArray(R"({"x": {)" X R"(, "y": {"z": )" Y "}}}")
                                << QByteArray(R"({"x":{"y":{"z":2}}})");
    QTest::newRow("chain of three leaves") << QByteArray(R"({"x": {)" X R"(, "y": {)" X R"(, "z": )" Y "}}}")
                                           << QByteArray(R"({"x":{"y":{"z":2}}})");
    QTest::newRow("chain of three leaves, the middle one again at the end")
        << QByteArray(R"({"x": {)" X R"(, "y": {)" X R"(, "z": )" Y R"(, "zz": 0}}})")
        << QByteArray(R"({"x":{"y":1}})");
    QTest::newRow("root leaf, child last")
        << QByteArray(R"({)" X R"(, "y": )" Y "}") << QByteArray(R"({"y":2})");
#undef X
#undef Y
}

void TestSchemaConverterLoad::visitingOrderOfOneEndpoint()
{
    QFETCH(QByteArray, document);
    SchemaConverter converter;
    converter.loadSchema(s_json(document));
    QCOMPARE(s_status(converter, 1, 2), 1);
    QTEST(s_text(converter.takeVariantToSend(false)), "expected");
    QVERIFY(!converter.takeVariantToSend(true).isValid()); // every copy was taken and cleared
}

// The copies decode the same bytes, become ready together and write the same path: one leaf, one value, one
// signal, however many members it has.
void TestSchemaConverterLoad::everyMemberOfALeafAddsACopy_data()
{
    QTest::addColumn<int>("extraMembers");
    QTest::newRow("three members") << 0;
    QTest::newRow("four members") << 1;
    QTest::newRow("fifty members") << 47;
}

void TestSchemaConverterLoad::everyMemberOfALeafAddsACopy()
{
    QFETCH(int, extraMembers);
    QByteArray leaf = R"({"@mac": 1, "@cmd": 2, "@format": "s")";
    for (int i = 0; i < extraMembers; ++i) {
        leaf += ", \"note" + QByteArray::number(i) + "\": 0";
    }
    SchemaConverter converter;
    QSignalSpy spy(&converter, &SchemaConverter::variantToSend);
    for (const char *gathering : {"", R"(, "@flushSize": 2)", R"(, "@observe": true)"}) {
        converter.loadSchema(s_json(R"({"x": )" + leaf + gathering + "}}"));
        spy.clear();
        for (const char *payload : {"0100", "0200"}) {
            QCOMPARE(converter.insertFrame(VEKEndpoint(1, 2, false), s_hex(payload)), 1);
        }
        QCOMPARE(spy.count(), 1);
        const QVariantMap taken = converter.takeVariantToSend(false).toMap();
        QCOMPARE(taken.size(), 1);
        QVERIFY(taken.value("x").isValid());
        if (QByteArray(gathering).contains("flushSize")) {
            QCOMPARE(s_elements(taken.value("x")), (QVector<double>{1, 2}));
        } else {
            QCOMPARE(taken.value("x"), QVariant(1));
        }
        QVERIFY(!converter.takeVariantToSend(true).isValid());
    }
}

void TestSchemaConverterLoad::dumpWritesTheDocument_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<QString>("expected");

    QTest::newRow("empty") << QByteArray("{}") << "QMap()";
    QTest::newRow("nested, in ascending order of names")
        << QByteArray(R"({"b": {"@mac": 5}, "a": {}})")
        << R"(QMap(("a", QVariant(QVariantMap, QMap()))("b", QVariant(QVariantMap, QMap(("@mac", QVariant(qlonglong, 5)))))))";
    QTest::newRow("every kind of value")
        << QByteArray(R"({"d": 0.5, "e": true, "f": "t\"x", "g": [1], "h": null})")
        << R"(QMap(("d", QVariant(double, 0.5))("e", QVariant(bool, true))("f", QVariant(QString, "t\"x")))"
           R"(("g", QVariant(QVariantList, (QVariant(qlonglong, 1))))("h", QVariant(std::nullptr_t, (nullptr)))))";
}

void TestSchemaConverterLoad::dumpWritesTheDocument()
{
    QFETCH(QByteArray, document);
    QFETCH(QString, expected);
    SchemaConverter converter;
    converter.loadSchema(s_json(document));
    LogScope log;
    converter.dump();
    QCOMPARE(log.lines(), QStringList{"debug: " + expected});
}

// QJsonObject orders names by how it stores them, QString by UTF-16: half a character, from an escape, comes
// before U+E1B6 and not behind it.
void TestSchemaConverterLoad::membersAreVisitedInTheOrderOfQString()
{
    const QString half(QChar(0xDA9E));
    const QString whole = QString::fromUtf8("\xee\x86\xb6");
    const QJsonDocument document =
        s_json("{\"x\": {\"@mac\": 1, \"@format\": \"C\",\"\xee\x86\xb6\": 0, \"\\uda9e\": {\"@mac\": 1, "
               "\"@format\": \"C\", \"\xee\x86\xb6\": {\"@mac\": 1}, \"\\uda9e\": {\"@mac\": 1}}}}");
    QVERIFY(document.isObject());
    SchemaConverter converter;
    converter.loadSchema(document);
    // The last member of "x" is no object, so the last copy of "x" writes over the leaf inside of it.
    converter.insertFrame(VEKEndpoint(1, 0, false), s_hex("05"));
    QCOMPARE(converter.takeVariantToSend(false), QVariant(QVariantMap{{"x", 5}}));

    const QJsonDocument branches = s_json("{\"\xee\x86\xb6\": {\"@mac\": 1, \"@format\": \"C\"}, "
                                          "\"\\uda9e\": {\"@mac\": 2, \"@format\": \"C\"}}");
    converter.loadSchema(branches);
    LogScope log;
    QCOMPARE(converter.toVEKFrames(QVariantMap{{half, 1}, {whole, 2}}).size(), 2);
    QCOMPARE(log.lines("warning"), QStringList());
}

void TestSchemaConverterLoad::dumpOfALargeDocumentIsCut()
{
    QByteArray text = "{";
    for (int i = 0; i < 20000; ++i) {
        text += (i > 0 ? ",\"" : "\"") + QByteArray::number(i) + R"(": {"@mac": 1, "list": [[1], "x", {}]})";
    }
    const QJsonDocument document = s_json(text + "}");
    SchemaConverter converter;
    converter.loadSchema(document);
    LogScope log;
    converter.dump();
    QString printed;
    QDebug(&printed).nospace() << document.toVariant().toMap();
    QCOMPARE(log.lines(), QStringList{"debug: " + printed.left(64 * 1024) + " ..."});
}

void TestSchemaConverterLoad::loadsFromAFile()
{
    QTemporaryDir folder;
    QFile file(folder.filePath("schema.json"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(s_example);
    file.close();

    SchemaConverter converter;
    LogScope log;
    converter.loadSchemaFromFile(file.fileName());
    QCOMPARE(s_status(converter, 5, 2), 1);
    QCOMPARE(s_status(converter, 5, 7), 1);
    QCOMPARE(log.lines(), QStringList());
}

// ---- Rainy ----

void TestSchemaConverterLoad::documentsWithoutLeaves_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::newRow("empty object") << QByteArray("{}");
    QTest::newRow("plain members only") << QByteArray(R"({"a": 1, "b": "x", "c": [1, 2], "d": null})");
    QTest::newRow("options without mac") << QByteArray(R"({"a": {"@cmd": 0, "@format": "C"}})");
    QTest::newRow("mac in capitals") << QByteArray(R"({"a": {"@MAC": 0}})");
    QTest::newRow("leaf in a list") << QByteArray(R"({"a": [{"@mac": 0}]})");
}

void TestSchemaConverterLoad::documentsWithoutLeaves()
{
    QFETCH(QByteArray, document);
    SchemaConverter converter;
    converter.loadSchema(s_json(document));
    QCOMPARE(s_status(converter, 0, 0), 2);
    QVERIFY(!converter.takeVariantToSend(true).isValid());
}

void TestSchemaConverterLoad::textThatIsNoObjectEmptiesTheSchema_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("nothing") << QByteArray();
    QTest::newRow("broken") << QByteArray(R"({"a": )");
    QTest::newRow("list") << QByteArray(R"([{"@mac": 5}])");
    QTest::newRow("number") << QByteArray("5");
    QTest::newRow("null") << QByteArray("null");
    QTest::newRow("two objects") << QByteArray("{}{}");
}

void TestSchemaConverterLoad::textThatIsNoObjectEmptiesTheSchema()
{
    QFETCH(QByteArray, text);
    SchemaConverter converter;
    converter.loadSchema(s_json(s_example));
    converter.loadSchema(QJsonDocument::fromJson(text));
    QCOMPARE(s_status(converter, 5, 2), 2);
    LogScope log;
    converter.dump();
    QCOMPARE(log.lines(), QStringList{"debug: QMap()"});
}

void TestSchemaConverterLoad::loadingReplacesTheWholeSchema()
{
    SchemaConverter converter;
    converter.loadSchema(s_json(s_example));
    converter.loadSchema(s_json(R"({"x": {"@mac": 6, "@format": "C"}})"));
    QCOMPARE(s_status(converter, 5, 2), 2);
    QCOMPARE(s_status(converter, 5, 7), 2);
    QCOMPARE(s_status(converter, 6, 0), 1);
    LogScope log;
    QCOMPARE(converter.toVEKFrames(s_map(R"({"config": 1})")).size(), 0);
    QCOMPARE(log.lines("warning"), QStringList{R"(warning: Key: "config" does not exist in the schema)"});
}

void TestSchemaConverterLoad::loadingDiscardsWaitingValues()
{
    const QByteArray document = R"({"full": {"@mac": 1, "@format": "C"},
                                    "part": {"@mac": 1, "@format": "C", "@flushSize": 2}})";
    SchemaConverter converter;
    QSignalSpy spy(&converter, &SchemaConverter::variantToSend);
    converter.loadSchema(s_json(document));
    QCOMPARE(s_status(converter, 1, 0), 1);
    QCOMPARE(spy.count(), 1);
    converter.loadSchema(s_json(document));
    QCOMPARE(spy.count(), 1);
    QVERIFY(!converter.takeVariantToSend(false).isValid());
    QVERIFY(!converter.takeVariantToSend(true).isValid());
    // The readings that were gathered do not count for the new array.
    QCOMPARE(s_status(converter, 1, 0), 1);
    QCOMPARE(converter.takeVariantToSend(false).toMap().keys(), QStringList{"full"});
}

void TestSchemaConverterLoad::loadingDiscardsTheObservedValue()
{
    const QByteArray document = R"({"x": {"@mac": 1, "@format": "C", "@observe": true}})";
    SchemaConverter converter;
    converter.loadSchema(s_json(document));
    s_status(converter, 1, 0);
    QVERIFY(converter.takeVariantToSend(false).isValid());
    s_status(converter, 1, 0);
    QVERIFY(!converter.takeVariantToSend(false).isValid());
    converter.loadSchema(s_json(document));
    s_status(converter, 1, 0);
    QVERIFY(converter.takeVariantToSend(false).isValid());
}

void TestSchemaConverterLoad::fileThatCannotBeOpenedLeavesTheSchema()
{
    QTemporaryDir folder;
    SchemaConverter converter;
    converter.loadSchema(s_json(s_example));
    s_status(converter, 5, 2);
    LogScope log;
    converter.loadSchemaFromFile(folder.filePath("missing.json"));
    converter.loadSchemaFromFile(folder.path()); // a folder
    QCOMPARE(log.lines(), QStringList());
    converter.loadSchemaFromFile(QString()); // of which Qt itself complains
    QCOMPARE(s_status(converter, 5, 2), 1);
    QVERIFY(converter.takeVariantToSend(false).isValid());
}

void TestSchemaConverterLoad::fileThatIsNoJsonClearsTheSchema()
{
    QTemporaryDir folder;
    for (const char *content : {"", "no JSON", "[]", "{\"a\""}) {
        QFile file(folder.filePath("schema.json"));
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(content);
        file.close();
        SchemaConverter converter;
        converter.loadSchema(s_json(s_example));
        LogScope log;
        converter.loadSchemaFromFile(file.fileName());
        QCOMPARE(s_status(converter, 5, 2), 2);
        QCOMPARE(log.lines(), QStringList());
    }
}

void TestSchemaConverterLoad::branchOptionsReachNoLeaf()
{
    SchemaConverter converter;
    converter.loadSchema(
        s_json(R"({"a": {"@cmd": 9, "@format": "S", "@skip": 3, "b": {"@mac": 1, "@format": "C"}}})"));
    QCOMPARE(s_status(converter, 1, 9), 2);
    QCOMPARE(s_status(converter, 1, 0), 1);
    QCOMPARE(s_text(converter.takeVariantToSend(false)), QByteArray(R"({"a":{"b":1}})"));
}

void TestSchemaConverterLoad::loadingLogsNothing()
{
    LogScope log;
    SchemaConverter converter;
    converter.loadSchema(s_json(s_example));
    converter.loadSchema(QJsonDocument());
    converter.loadSchema(s_json(R"({"x": {"@mac": "a", "@skip": -1, "@factor": {}, "@format": "?"}})"));
    QCOMPARE(log.lines(), QStringList());
}

void TestSchemaConverterLoad::deepDocument()
{
    const int depth = 500;
    QByteArray document = R"({"@mac": 1, "@format": "C"})";
    for (int i = 0; i < depth; ++i) {
        document = R"({"a": )" + document + "}";
    }
    SchemaConverter converter;
    converter.loadSchema(s_json(document));
    QCOMPARE(s_status(converter, 1, 0), 1);
    QVariant value = converter.takeVariantToSend(false);
    for (int i = 0; i < depth; ++i) {
        QCOMPARE(value.toMap().keys(), QStringList{"a"});
        value = value.toMap().value("a");
    }
    QCOMPARE(value, QVariant(1));
}

void TestSchemaConverterLoad::manyLeaves()
{
    QVariantMap document;
    for (int mac = 0; mac < 2000; ++mac) {
        document.insert(QString::number(mac), QVariantMap{{"@mac", mac}, {"@format", "C"}});
    }
    SchemaConverter converter;
    converter.loadSchema(QJsonDocument::fromVariant(document));
    for (quint16 mac = 0; mac < 2000; ++mac) {
        QCOMPARE(converter.insertFrame(VEKEndpoint(mac, 0, false), QByteArray(1, char(mac & 0xFF))), 1);
    }
    const QVariantMap taken = converter.takeVariantToSend(false).toMap();
    QCOMPARE(taken.size(), 2000);
    for (int mac = 0; mac < 2000; ++mac) {
        QCOMPARE(taken.value(QString::number(mac)), QVariant(mac & 0xFF));
    }
}

QTEST_APPLESS_MAIN(TestSchemaConverterLoad)
#include "tst_schemaconverter_load.moc"
