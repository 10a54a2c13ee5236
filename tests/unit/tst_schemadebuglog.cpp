// The text of values in debug lines: what QDebug prints, as far as it is shown, for no more than it costs.
#include "schema/debuglog.h"
#include "tests/unit/allocationcounter.h"
#include "tests/unit/tst_schematools.h"

#include <QtTest>

#include <cmath>
#include <limits>

// A leaf that knows how often it was printed.
struct Counted {
    static int printed;
};
int Counted::printed = 0;
Q_DECLARE_METATYPE(Counted)

static QDebug operator<<(QDebug debug, const Counted &)
{
    ++Counted::printed;
    return debug << "counted";
}

class TestSchemaDebugLog : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    // Happy
    void valuesAsQDebugPrintsThem_data();
    void valuesAsQDebugPrintsThem();
    void mapsAsQDebugPrintsThem();
    void wholeUpToTheLimit_data();
    void wholeUpToTheLimit();

    // Rainy
    void cutBehindTheLimit_data();
    void cutBehindTheLimit();
    void cutInsideOfACharacter_data();
    void cutInsideOfACharacter();
    void nestedTenThousandDeep();
    void whatIsNotShownIsNotVisited_data();
    void whatIsNotShownIsNotVisited();
    void whatIsNotShownCostsNoMemory();
};

void TestSchemaDebugLog::initTestCase()
{
    QVERIFY(QMetaType::registerDebugStreamOperator<Counted>());
}

template <typename T>
static QString s_printed(const T &value)
{
    QString text;
    QDebug(&text).nospace() << value;
    return text;
}

// ---- Happy ----

void TestSchemaDebugLog::valuesAsQDebugPrintsThem_data()
{
    QTest::addColumn<QVariant>("value");

    const auto add = [](const char *name, const QVariant &value) {
        QTest::newRow(name) << value;
    };
    add("nil", QVariant());
    add("null", QVariant::fromValue(nullptr));
    add("typed null", QVariant(QVariant::Int));
    add("false", false);
    add("true", true);
    add("int", -7);
    add("uint", 7U);
    add("longlong", std::numeric_limits<qlonglong>::min());
    add("ulonglong", std::numeric_limits<qulonglong>::max());
    add("float", 0.1F);
    add("double", 1e300);
    add("not a number", std::nan(""));
    add("infinity", -std::numeric_limits<float>::infinity());
    add("char", QVariant::fromValue('c'));
    add("short", QVariant::fromValue(short(-5)));
    add("text", "text");
    add("empty text", "");
    add("text to be quoted", QString::fromUtf8("a \"b\"\\\n\t\x01 \xc3\xa9 \xf0\x9f\x98\x80"));
    add("text with a null and half a character", QString(QChar(0)) + QChar(0xD800) + "x");
    add("bytes", QByteArray::fromHex("00ff226162"));
    add("empty bytes", QByteArray());
    add("date and time", QDateTime::fromMSecsSinceEpoch(0, Qt::UTC));
    add("array of floats", QVariant::fromValue(QVector<float>{1, 2.5F}));
    add("hash", QVariantHash{{"a", QVariantList{1, 2}}});
    add("list of texts", QStringList{"a", "b"});

    add("empty list", QVariantList());
    add("empty map", QVariantMap());
    add("list of one", QVariantList{1});
    add("list of nil", QVariantList{QVariant()});
    add("list", QVariantList{1U, "a", QVariant(), QVariantList(), QVariantMap(), 0.5});
    add("map of one", QVariantMap{{"a", 7U}});
    add("map of nil", QVariantMap{{"", QVariant()}});
    add("map", QVariantMap{{"b", 1}, {"a", QVariantMap{{"x", QVariantList{1, 2}}, {"y", "z"}}}, {"c", true}});
    add("map with a name to be quoted", QVariantMap{{QString::fromUtf8("\"\xc3\xa9\n"), 1}});
    add("lists in lists", QVariantList{QVariantList{QVariantList{1}, QVariantList()}, QVariantList{2}});
    add("maps in a list", QVariantList{QVariantMap{{"a", 1}}, QVariantMap{{"b", 2}, {"c", 3}}});
}

void TestSchemaDebugLog::valuesAsQDebugPrintsThem()
{
    QFETCH(QVariant, value);
    QCOMPARE(debugText(value), s_printed(value));
    const QVariantMap map{{"x", value}};
    QCOMPARE(debugText(map), s_printed(map));
}

void TestSchemaDebugLog::mapsAsQDebugPrintsThem()
{
    QCOMPARE(debugText(QVariantMap()), QString("QMap()"));
    QCOMPARE(debugText(QVariantMap{{"a", 7U}, {"b", QVariant()}}),
             QString(R"(QMap(("a", QVariant(uint, 7))("b", QVariant(Invalid))))"));
    QCOMPARE(debugText(QVariant(QVariantMap{{"a", QVariantList{7U, "x"}}})),
             QString(R"(QVariant(QVariantMap, QMap(("a", QVariant(QVariantList, (QVariant(uint, 7), )"
                     R"(QVariant(QString, "x")))))))"));
}

static constexpr int LIMIT = 64 * 1024;

// A text of which QDebug prints, as `shape` has it, exactly `size` bytes in UTF-8.
static QVariant s_valueOfPrintedSize(const QString &shape, int size)
{
    const auto shaped = [&shape](const QString &text) -> QVariant {
        if (shape == "list") {
            return QVariantList{1, text};
        }
        return shape == "map" ? QVariant(QVariantMap{{"a", 1}, {"b", text}}) : QVariant(text);
    };
    const int around = s_printed(shaped(QString())).toUtf8().size();
    return shaped(QString(size - around, QLatin1Char('x')));
}

static void s_addShapes()
{
    QTest::addColumn<QString>("shape");
    for (const char *shape : {"text", "list", "map"}) {
        QTest::newRow(shape) << shape;
    }
}

void TestSchemaDebugLog::wholeUpToTheLimit_data()
{
    s_addShapes();
}

void TestSchemaDebugLog::wholeUpToTheLimit()
{
    QFETCH(QString, shape);
    for (const int size : {LIMIT - 1, LIMIT}) {
        const QVariant value = s_valueOfPrintedSize(shape, size);
        QCOMPARE(s_printed(value).size(), size);
        QCOMPARE(debugText(value), s_printed(value));
    }
}

// ---- Rainy ----

void TestSchemaDebugLog::cutBehindTheLimit_data()
{
    s_addShapes();
}

void TestSchemaDebugLog::cutBehindTheLimit()
{
    QFETCH(QString, shape);
    for (const int size : {LIMIT + 1, LIMIT + 2, LIMIT + 1000, 1000000}) {
        const QVariant value = s_valueOfPrintedSize(shape, size);
        QCOMPARE(debugText(value), s_printed(value).left(LIMIT) + " ...");
    }
    QVariantList numbers;
    for (int i = 0; i < 20000; ++i) {
        numbers << i << QVariantMap{{"n", i}};
    }
    const QVariant value = shape == "map" ? QVariant(QVariantMap{{"a", numbers}}) : QVariant(numbers);
    QCOMPARE(debugText(value), s_printed(value).left(LIMIT) + " ...");
}

void TestSchemaDebugLog::cutInsideOfACharacter_data()
{
    QTest::addColumn<QString>("character");
    QTest::newRow("two bytes") << QString::fromUtf8("\xc3\xa9");
    QTest::newRow("three bytes") << QString::fromUtf8("\xe2\x82\xac");
    QTest::newRow("four bytes") << QString::fromUtf8("\xf0\x9f\x98\x80");
}

void TestSchemaDebugLog::cutInsideOfACharacter()
{
    QFETCH(QString, character);
    const int width = character.toUtf8().size();
    for (int shift = 0; shift < width; ++shift) {
        const QString text = QString(shift, QLatin1Char('x')) + character.repeated(LIMIT);
        const QVariantList list{text};
        const QByteArray printed = s_printed(QVariant(list)).toUtf8().left(LIMIT);
        const int start = printed.indexOf(character.toUtf8());
        const int whole = start + (LIMIT - start) / width * width;
        QCOMPARE(debugText(QVariant(list)), QString::fromUtf8(printed.left(whole)) + " ...");
    }
}

static QVariant s_nested(int depth, bool inMaps)
{
    QVariant value = 1;
    for (int i = 0; i < depth; ++i) {
        value = inMaps ? QVariant(QVariantMap{{"", value}}) : QVariant(QVariantList{value});
    }
    return value;
}

void TestSchemaDebugLog::nestedTenThousandDeep()
{
    const QString map = R"(QVariant(QVariantMap, QMap(("", )";
    QCOMPARE(debugText(s_nested(10000, true)), map.repeated(LIMIT).left(LIMIT) + " ...");
    const QString list = "QVariant(QVariantList, (";
    QCOMPARE(debugText(s_nested(10000, false)), list.repeated(LIMIT).left(LIMIT) + " ...");
    const QString whole = list.repeated(1000) + "QVariant(int, 1)" + QString("))").repeated(1000);
    QCOMPARE(debugText(s_nested(1000, false)), whole);
}

// Shares one list or map of two 2^20 times.
static QVariant s_bush(bool ofMaps)
{
    QVariant value = QVariant::fromValue(Counted());
    for (int i = 0; i < 20; ++i) {
        value =
            ofMaps ? QVariant(QVariantMap{{"a", value}, {"b", value}}) : QVariant(QVariantList{value, value});
    }
    return value;
}

void TestSchemaDebugLog::whatIsNotShownIsNotVisited_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::newRow("lists") << s_bush(false);
    QTest::newRow("maps") << s_bush(true);
    QTest::newRow("map of a list") << QVariant(QVariantMap{{"a", s_bush(false)}});
    QTest::newRow("wide list") << QVariant(QVector<QVariant>(1 << 20, s_bush(false)).toList());
    QTest::newRow("wide list of leaves")
        << QVariant(QVector<QVariant>(1 << 20, QVariant::fromValue(Counted())).toList());
}

void TestSchemaDebugLog::whatIsNotShownIsNotVisited()
{
    QFETCH(QVariant, value);
    Counted::printed = 0;
    const QString text = debugText(value);
    QCOMPARE(text.size(), LIMIT + 4);
    const int shown = text.count("counted");
    QVERIFY(shown > 100);
    // A buffer of Qt's lies between printing and keeping, of a quarter of what is kept.
    QVERIFY2(Counted::printed <= 2 * shown, qPrintable(QString::number(Counted::printed)));
}

void TestSchemaDebugLog::whatIsNotShownCostsNoMemory()
{
    const QVariant value = s_bush(false);
    const AllocationCounter counter;
    debugText(value);
    QVERIFY2(counter.bytes() < 32 * std::size_t(LIMIT), qPrintable(QString::number(counter.bytes())));
}

QTEST_APPLESS_MAIN(TestSchemaDebugLog)
#include "tst_schemadebuglog.moc"
