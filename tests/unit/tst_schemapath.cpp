// The path of a node: its names, what is shared, and that no length of it is too long.
#include "schema/schemapath.h"

#include <QtTest>

class TestSchemaPath : public QObject
{
    Q_OBJECT

private slots:
    // Happy
    void rootHasNoNames();
    void namesFromTheOutermostOn();
    void onlyCopiesAreShared();
    void assigningKeepsWhatOthersUse();

    // Rainy
    void aMillionNames_data();
    void aMillionNames();
    void aMillionNamesThatOthersHaveTheHalfOf();
};

void TestSchemaPath::rootHasNoNames()
{
    QVERIFY(SchemaPath().isRoot());
    QCOMPARE(SchemaPath().names(), QStringList());
    QVERIFY(SchemaPath(QStringList()).isRoot());
}

void TestSchemaPath::namesFromTheOutermostOn()
{
    const SchemaPath motor(SchemaPath(), "motor");
    const SchemaPath speed(motor, "speed");
    QVERIFY(!speed.isRoot());
    QCOMPARE(speed.names(), (QStringList{"motor", "speed"}));
    QCOMPARE(speed.name(), QString("speed"));
    QCOMPARE(speed.parent().names(), QStringList{"motor"});
    QVERIFY(speed.parent().isSharedWith(motor));
    QCOMPARE(SchemaPath(QStringList{"motor", "", "speed"}).names(), (QStringList{"motor", "", "speed"}));
}

void TestSchemaPath::onlyCopiesAreShared()
{
    const SchemaPath path(SchemaPath(), "x");
    const SchemaPath copy = path; // NOLINT(performance-unnecessary-copy-initialization): what is asked
    QVERIFY(copy.isSharedWith(path));
    QVERIFY(!SchemaPath(SchemaPath(), "x").isSharedWith(path));
    QVERIFY(!SchemaPath().isSharedWith(path));
}

void TestSchemaPath::assigningKeepsWhatOthersUse()
{
    SchemaPath path(QStringList{"a", "b", "c"});
    const SchemaPath copy = path;
    const SchemaPath branch(path.parent(), "d");
    path = path.parent(); // NOLINT: a part of itself
    QCOMPARE(path.names(), (QStringList{"a", "b"}));
    path = SchemaPath();
    QCOMPARE(copy.names(), (QStringList{"a", "b", "c"}));
    QCOMPARE(branch.names(), (QStringList{"a", "b", "d"}));
}

static constexpr int MANY = 1000000;

static SchemaPath s_longPath()
{
    SchemaPath path;
    for (int i = 0; i < MANY; ++i) {
        path = SchemaPath(path, QStringLiteral("n"));
    }
    return path;
}

void TestSchemaPath::aMillionNames_data()
{
    QTest::addColumn<int>("way");
    QTest::newRow("destroyed") << 0;
    QTest::newRow("assigned to") << 1;
    QTest::newRow("moved to") << 2;
    QTest::newRow("by names") << 3;
}

// Released one within the other, a million links take more stack than there is.
void TestSchemaPath::aMillionNames()
{
    QFETCH(int, way);
    SchemaPath path = s_longPath();
    const SchemaPath other(SchemaPath(), "other");
    if (way == 1) {
        path = other;
        QCOMPARE(path.names(), QStringList{"other"});
    } else if (way == 2) {
        path = SchemaPath(SchemaPath(), "other");
        QCOMPARE(path.names(), QStringList{"other"});
    } else if (way == 3) {
        const QStringList names = path.names();
        QCOMPARE(names.size(), MANY);
        path = SchemaPath(names);
        QCOMPARE(path.names(), names);
    }
}

void TestSchemaPath::aMillionNamesThatOthersHaveTheHalfOf()
{
    SchemaPath half;
    {
        const SchemaPath path = s_longPath();
        half = path;
        for (int i = 0; i < MANY / 2; ++i) {
            half = SchemaPath(half.parent());
        }
    }
    QCOMPARE(half.names().size(), MANY / 2);
}

QTEST_APPLESS_MAIN(TestSchemaPath)
#include "tst_schemapath.moc"
