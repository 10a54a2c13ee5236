// How many lines of one kind a message leaves in the log.
#include "msgpack/linelimit.h"
#include "tests/unit/logcollector.h"

#include <QtTest>

#include <initializer_list>

class TestLineLimit : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void linesUpToTheLimitAreAllTaken();
    void linesBeyondTheLimitAreCounted_data();
    void linesBeyondTheLimitAreCounted();
    void lastLineWaitsForTheEnd();
    void lastLineIsOfTheLevelOfTheOthers();
    void kindsAreCountedEachByItself();

private:
    LogCollector m_log;
};

void TestLineLimit::init()
{
    m_log.start();
}

void TestLineLimit::cleanup()
{
    QCOMPARE(m_log.finish(), QStringList());
}

// How many of so many lines may be written.
static int s_taken(LineLimit &limit, int lines)
{
    int taken = 0;
    for (int i = 0; i < lines; ++i) {
        taken += limit.takeLine();
    }
    return taken;
}

void TestLineLimit::linesUpToTheLimitAreAllTaken()
{
    for (const int lines : {0, 1, 999, 1000}) {
        {
            LineLimit limit(QtWarningMsg, "something");
            QCOMPARE(s_taken(limit, lines), lines);
        }
        QCOMPARE(m_log.take(), QStringList());
    }
}

void TestLineLimit::linesBeyondTheLimitAreCounted_data()
{
    QTest::addColumn<int>("lines");
    QTest::addColumn<QString>("leftOut");

    QTest::newRow("one") << 1001 << "1";
    QTest::newRow("two") << 1002 << "2";
    QTest::newRow("a million") << 1001000 << "1000000";
}

void TestLineLimit::linesBeyondTheLimitAreCounted()
{
    QFETCH(int, lines);
    QFETCH(QString, leftOut);
    {
        LineLimit limit(QtWarningMsg, "Key: ... does not exist");
        QCOMPARE(s_taken(limit, lines), 1000);
    }
    QCOMPARE(m_log.take(),
             QStringList{"warning: And " + leftOut +
                         " more lines of this kind from the same message: Key: ... does not exist"});
}

void TestLineLimit::lastLineWaitsForTheEnd()
{
    {
        LineLimit limit(QtWarningMsg, "something");
        s_taken(limit, 1001);
        QCOMPARE(m_log.take(), QStringList());
    }
    QCOMPARE(m_log.take().size(), 1);
}

void TestLineLimit::lastLineIsOfTheLevelOfTheOthers()
{
    for (const QtMsgType level : {QtDebugMsg, QtWarningMsg}) {
        LineLimit limit(level, "something");
        s_taken(limit, 1001);
    }
    QCOMPARE(m_log.take(),
             (QStringList{"debug: And 1 more lines of this kind from the same message: something",
                          "warning: And 1 more lines of this kind from the same message: something"}));
}

void TestLineLimit::kindsAreCountedEachByItself()
{
    {
        LineLimit first(QtWarningMsg, "first");
        LineLimit second(QtWarningMsg, "second");
        QCOMPARE(s_taken(first, 1000), 1000);
        QCOMPARE(s_taken(second, 1001), 1000);
    }
    QCOMPARE(m_log.take(),
             QStringList{"warning: And 1 more lines of this kind from the same message: second"});
}

QTEST_APPLESS_MAIN(TestLineLimit)
#include "tst_linelimit.moc"
