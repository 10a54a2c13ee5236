#include "gateway/kepttopics.h"

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using Gateway::KeptTopics;
using Topics = QSet<QByteArray>;

class tst_Gateway_kepttopics : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void whatIsGoneIsTakenAway();
    void isRememberedByTheNextRun();
    void aBrokenFileRemembersNothing();
    void aFileThatCannotBeWrittenIsTold();

private:
    QString fileName() const { return m_folder->filePath("kept.json"); }

    std::unique_ptr<QTemporaryDir> m_folder;
};

void tst_Gateway_kepttopics::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
}

void tst_Gateway_kepttopics::whatIsGoneIsTakenAway()
{
    KeptTopics kept(fileName());
    QCOMPARE(kept.replace({"a", "b", "c"}), Topics());
    QCOMPARE(kept.replace({"b", "d"}), Topics({"a", "c"}));
    QCOMPARE(kept.replace({"b", "d"}), Topics());
    QCOMPARE(kept.replace({}), Topics({"b", "d"}));
}

void tst_Gateway_kepttopics::isRememberedByTheNextRun()
{
    KeptTopics(fileName()).replace({"now/\xc3\xa4", "b"});
    QCOMPARE(KeptTopics(fileName()).replace({"b"}), Topics({"now/\xc3\xa4"}));
    QCOMPARE(KeptTopics(fileName()).replace({}), Topics({"b"}));
    QCOMPARE(KeptTopics(fileName()).replace({}), Topics());
}

void tst_Gateway_kepttopics::aBrokenFileRemembersNothing()
{
    QFile file(fileName());
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("[\"a\"");
    file.close();
    QCOMPARE(KeptTopics(fileName()).replace({"b"}), Topics());
    QCOMPARE(KeptTopics(fileName()).replace({}), Topics({"b"}));
}

void tst_Gateway_kepttopics::aFileThatCannotBeWrittenIsTold()
{
    KeptTopics kept(m_folder->filePath("not/there.json"));
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^topics: cannot write .*there\\.json: .+"));
    QCOMPARE(kept.replace({"a"}), Topics());
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^topics: cannot write "));
    QCOMPARE(kept.replace({}), Topics({"a"})); // this run knows it
}

QTEST_GUILESS_MAIN(tst_Gateway_kepttopics)
#include "tst_gateway_kepttopics.moc"
