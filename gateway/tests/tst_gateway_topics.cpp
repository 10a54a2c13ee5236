#include "gateway/topics.h"

#include <QTest>

using Gateway::levelOf;
using Gateway::nameOf;
using Gateway::Topics;

class tst_Gateway_topics : public QObject
{
    Q_OBJECT

private slots:
    void namesAreSafeAndComeBack_data();
    void namesAreSafeAndComeBack();
    void levelsThatNobodyEscapedStandForThemselves();
    void topicsAreThoseOfTheTable();
    void writesAreReadFromTheirTopics();
};

void tst_Gateway_topics::namesAreSafeAndComeBack_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("level");
    QTest::newRow("plain") << "speed" << QByteArray("speed");
    QTest::newRow("level") << "a/b" << QByteArray("a%2Fb");
    QTest::newRow("wildcards") << "+#" << QByteArray("%2B%23");
    QTest::newRow("escape") << "50%" << QByteArray("50%25");
    QTest::newRow("escaped looks") << "%2F" << QByteArray("%252F");
    QTest::newRow("subjects") << "a.b*>$ c" << QByteArray("a%2Eb%2A%3E%24%20c");
    QTest::newRow("controls") << QString("a\tb\x7f") + QChar(0) << QByteArray("a%09b%7F%00");
    QTest::newRow("malformed to brokers")
        << QString(QChar(0x85)) + QChar(0xfdd0) + QChar(0xffff) << QByteArray("%C2%85%EF%B7%90%EF%BF%BF");
    QTest::newRow("beyond ASCII") << QString::fromUtf8("Öl °C 😀") << QByteArray("Öl%20°C%20😀");
    QTest::newRow("empty") << "" << QByteArray("");
}

void tst_Gateway_topics::namesAreSafeAndComeBack()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, level);
    QCOMPARE(levelOf(name), level);
    QCOMPARE(nameOf(level), name);
}

void tst_Gateway_topics::levelsThatNobodyEscapedStandForThemselves()
{
    QCOMPARE(nameOf("a.b c"), "a.b c");
    QCOMPARE(nameOf("%2f"), "/");
}

void tst_Gateway_topics::topicsAreThoseOfTheTable()
{
    const Topics topics("plant/vorbel", "press 7");
    QCOMPARE(topics.status(), QByteArray("plant/vorbel/press%207/status"));
    QCOMPARE(topics.schema(), QByteArray("plant/vorbel/press%207/schema"));
    QCOMPARE(topics.schemaSet(), QByteArray("plant/vorbel/press%207/schema/set"));
    QCOMPARE(topics.values(), QByteArray("plant/vorbel/press%207/values"));
    QCOMPARE(topics.done(), QByteArray("plant/vorbel/press%207/done"));
    QCOMPARE(topics.pulse(), QByteArray("plant/vorbel/press%207/pulse"));
    QCOMPARE(topics.setFilter(), QByteArray("plant/vorbel/press%207/set/+/#"));
    QCOMPARE(topics.now({"motor", "speed"}), QByteArray("plant/vorbel/press%207/now/motor/speed"));
    QCOMPARE(topics.now({}), QByteArray("plant/vorbel/press%207/now"));
    QCOMPARE(topics.now({""}), QByteArray("plant/vorbel/press%207/now/"));
    QCOMPARE(topics.set("ann", {"a/b"}), QByteArray("plant/vorbel/press%207/set/ann/a%2Fb"));
}

void tst_Gateway_topics::writesAreReadFromTheirTopics()
{
    const Topics topics("vorbel", "7");
    const auto write = topics.writeOf("vorbel/7/set/ann/motor/a%2Fb");
    QVERIFY(write);
    QCOMPARE(write->user, "ann");
    QCOMPARE(write->names, QStringList({"motor", "a/b"}));
    QCOMPARE(topics.writeOf("vorbel/7/set/ann")->names, QStringList());
    QCOMPARE(topics.writeOf("vorbel/7/set/ann/")->names, QStringList(""));
    QCOMPARE(topics.writeOf("vorbel/7/set/%41nn/x")->user, "%41nn");
    QVERIFY(!topics.writeOf("vorbel/7/done"));
    QVERIFY(!topics.writeOf("vorbel/8/set/ann/x"));
}

QTEST_APPLESS_MAIN(tst_Gateway_topics)
#include "tst_gateway_topics.moc"
