#include "gateway/runstate.h"
#include "gateway/spool.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

#include <sys/resource.h>

using Gateway::RunState;
using Gateway::Spool;
using Gateway::SpooledMessage;

class tst_Gateway_spool : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void isAQueue();
    void countsWhatItTakesOfTheDisk();
    void keepsAMessageAsItIs();
    void neverUsesANumberAgain();
    void findsWhatAnotherProcessLeft();
    void countsOnWhereAnotherProcessLeftOff();
    void writesToTheLastingFolderOnlyWhatStays();
    void staysQuickWhereTheDiskIsFull();
    void keepsInMemoryWhatNoFolderTakes();
    void whatIsDueGoesFromMemoryToTheLastingFolder();
    void keepsNothingInMemoryThatIsWritten();
    void whatFindsNoRoomOnTheDiskGoesToTheQuickFolder();
    void whatIsTooLargeDoesNotKeepOthersFromTheDisk();
    void whatCannotBeReadIsNotMoved();
    void oneFolderMayBeBoth();
    void ofOneMessageInBothFoldersTheQuickOneCounts();
    void ofADamagedFileTheOtherOneCounts();
    void knowsTheLastRetainedMessageOfATopic();
    void damagedFilesAreDropped();
    void aFileThatVanishesIsNoMessage();
    void endsAFileWithItsChecksum();
    void leavesOthersFilesAlone();
    void givesUpTheOldest();
    void givesUpNothingThatIsOnItsWay();
    void runsAreNumbered();
    void lossesAreCountedOverRuns();
    void aBrokenStateBeginsAnew();

private:
    QStringList quick() const { return QDir(m_folder->filePath("quick")).entryList(QDir::Files); }
    QStringList lasting() const { return QDir(m_folder->filePath("lasting")).entryList(QDir::Files); }
    std::unique_ptr<Spool> make() const
    {
        return std::make_unique<Spool>(m_folder->filePath("quick"), m_folder->filePath("lasting"));
    }

    std::unique_ptr<QTemporaryDir> m_folder;
};

void s_append(Spool &spool, const QByteArray &payload)
{
    spool.append({"t", payload, false});
}

// The payloads of all messages, in their order.
QByteArrayList s_payloads(const Spool &spool)
{
    QByteArrayList payloads;
    for (Spool::Number number = spool.following(0); number != 0; number = spool.following(number)) {
        payloads << spool.message(number).payload;
    }
    return payloads;
}

void tst_Gateway_spool::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
}

void tst_Gateway_spool::isAQueue()
{
    const auto spool = make();
    QCOMPARE(spool->following(0), Spool::Number(0));
    for (int at = 0; at < 12; ++at) {
        s_append(*spool, QByteArray::number(at));
    }
    QCOMPARE(s_payloads(*spool).join(' '), QByteArray("0 1 2 3 4 5 6 7 8 9 10 11"));
    spool->remove(spool->following(0));
    spool->remove(6);
    spool->remove(6);
    spool->remove(77);
    QCOMPARE(s_payloads(*spool).join(' '), QByteArray("1 2 3 4 6 7 8 9 10 11"));
    QCOMPARE(spool->count(), 10);
    QCOMPARE(quick().size(), 10);
    QCOMPARE(s_payloads(*make()).join(' '), QByteArray("1 2 3 4 6 7 8 9 10 11"));
}

void tst_Gateway_spool::countsWhatItTakesOfTheDisk()
{
    const auto spool = make();
    constexpr int besides = 4 + 1 + 1 + 4 + 8; // sizes, topic, retained, checksum
    s_append(*spool, QByteArray(4096 - besides, 'x'));
    QCOMPARE(spool->bytes(), 4096);
    QCOMPARE(QFile(m_folder->filePath("quick/message-1")).size(), 4096);
    s_append(*spool, QByteArray(4097 - besides, 'x'));
    QCOMPARE(spool->bytes(), 3 * 4096);
    QCOMPARE(make()->bytes(), 3 * 4096);
    spool->remove(1);
    QCOMPARE(spool->bytes(), 2 * 4096);
    spool->remove(2);
    QCOMPARE(spool->bytes(), 0);
}

void tst_Gateway_spool::keepsAMessageAsItIs()
{
    const QByteArray payload("a\0b\xff", 4);
    auto spool = make();
    spool->append({"vorbel/7/values", payload, true});
    spool->append({"vorbel/7/done", {}, false});
    for (const bool isAnew : {false, true}) {
        spool = isAnew ? make() : std::move(spool);
        const SpooledMessage first = spool->message(1);
        QCOMPARE(first.topic, QByteArray("vorbel/7/values"));
        QCOMPARE(first.payload, payload);
        QVERIFY(first.isRetained);
        const SpooledMessage second = spool->message(2);
        QCOMPARE(second.topic, QByteArray("vorbel/7/done"));
        QCOMPARE(second.payload, QByteArray());
        QVERIFY(!second.isRetained);
    }
}

void tst_Gateway_spool::neverUsesANumberAgain()
{
    const auto spool = make();
    s_append(*spool, "one");
    spool->remove(1);
    s_append(*spool, "two");
    QCOMPARE(spool->following(0), Spool::Number(2));
    QVERIFY(spool->message(1).topic.isEmpty());
}

void tst_Gateway_spool::findsWhatAnotherProcessLeft()
{
    auto spool = make();
    s_append(*spool, "old");
    spool->settle(true);
    s_append(*spool, "young");
    QFile(m_folder->filePath("quick/message-3.abc123")).open(QIODevice::WriteOnly);
    spool = make();
    QCOMPARE(s_payloads(*spool), QByteArrayList({"old", "young"}));
    QCOMPARE(spool->bytes(), 2 * 4096);
    QCOMPARE(quick(), QStringList("message-2"));
    QCOMPARE(spool->damaged(), 0);
    QCOMPARE(spool->settle(), QString()); // how old it is, nobody knows
    QCOMPARE(lasting(), QStringList({"message-1", "message-2"}));
}

void tst_Gateway_spool::countsOnWhereAnotherProcessLeftOff()
{
    auto spool = make();
    for (int at = 1; at <= 10; ++at) {
        s_append(*spool, QByteArray::number(at));
        spool->settle(at == 9); // in both folders
    }
    spool = make();
    s_append(*spool, "last");
    QCOMPARE(s_payloads(*spool).join(' '), QByteArray("1 2 3 4 5 6 7 8 9 10 last"));
}

void tst_Gateway_spool::writesToTheLastingFolderOnlyWhatStays()
{
    const auto spool = make();
    s_append(*spool, "one");
    QCOMPARE(spool->settle(), QString());
    QCOMPARE(lasting(), QStringList());
    QCOMPARE(quick(), QStringList("message-1"));
    QTRY_VERIFY_WITH_TIMEOUT((spool->settle(), !lasting().isEmpty()), 20'000);
    QCOMPARE(lasting(), QStringList("message-1"));
    QCOMPARE(quick(), QStringList());
    QCOMPARE(s_payloads(*spool), QByteArrayList({"one"}));
    QCOMPARE(spool->bytes(), 4096);
    spool->remove(1);
    QCOMPARE(lasting(), QStringList());
}

void tst_Gateway_spool::staysQuickWhereTheDiskIsFull()
{
    const auto spool = make();
    s_append(*spool, "one");
    QVERIFY(QDir(m_folder->filePath("lasting")).removeRecursively());
    QCOMPARE(spool->settle(true), "cannot write to " + m_folder->filePath("lasting"));
    QCOMPARE(s_payloads(*spool), QByteArrayList({"one"}));
    QDir().mkpath(m_folder->filePath("lasting"));
    QCOMPARE(spool->settle(true), QString());
    QCOMPARE(lasting(), QStringList("message-1"));
}

void tst_Gateway_spool::keepsInMemoryWhatNoFolderTakes()
{
    const auto spool = make();
    QVERIFY(QDir(m_folder->path()).removeRecursively());
    s_append(*spool, "one");
    s_append(*spool, "two");
    QCOMPARE(s_payloads(*spool), QByteArrayList({"one", "two"}));
    QCOMPARE(spool->count(), 2);
    QCOMPARE(spool->bytes(), 2 * 4096);
    QCOMPARE(spool->settle(), "cannot write to " + m_folder->filePath("quick"));
    QCOMPARE(spool->settle(true), "cannot write to " + m_folder->filePath("lasting"));
    spool->remove(2);
    QDir().mkpath(m_folder->filePath("quick"));
    QCOMPARE(spool->settle(), QString());
    QCOMPARE(quick(), QStringList("message-1"));
    QDir().mkpath(m_folder->filePath("lasting"));
    QCOMPARE(spool->settle(true), QString());
    QCOMPARE(lasting(), QStringList("message-1"));
    QCOMPARE(quick(), QStringList());
    QCOMPARE(s_payloads(*make()), QByteArrayList({"one"}));
}

void tst_Gateway_spool::whatIsDueGoesFromMemoryToTheLastingFolder()
{
    const auto spool = make();
    QVERIFY(QDir(m_folder->filePath("quick")).removeRecursively());
    s_append(*spool, "one");
    QCOMPARE(spool->settle(true), QString());
    QCOMPARE(lasting(), QStringList("message-1"));
    spool->remove(1);
    QCOMPARE(lasting(), QStringList());
    QCOMPARE(spool->bytes(), 0);
}

void tst_Gateway_spool::keepsNothingInMemoryThatIsWritten()
{
    const auto spool = make();
    QVERIFY(QDir(m_folder->filePath("quick")).removeRecursively());
    s_append(*spool, "one");
    QCOMPARE(spool->settle(true), QString());
    QVERIFY(QFile::remove(m_folder->filePath("lasting/message-1")));
    QVERIFY(spool->message(1).topic.isEmpty());
    QCOMPARE(spool->settle(true), QString());
    QCOMPARE(lasting(), QStringList());
}

void tst_Gateway_spool::whatFindsNoRoomOnTheDiskGoesToTheQuickFolder()
{
    const auto spool = make();
    QVERIFY(QDir(m_folder->path()).removeRecursively());
    s_append(*spool, "one");
    QDir().mkpath(m_folder->filePath("quick"));
    QCOMPARE(spool->settle(true), "cannot write to " + m_folder->filePath("lasting"));
    QCOMPARE(quick(), QStringList("message-1"));
    QCOMPARE(s_payloads(*make()), QByteArrayList({"one"}));
}

void tst_Gateway_spool::whatIsTooLargeDoesNotKeepOthersFromTheDisk()
{
    const auto spool = make();
    rlimit former{};
    QCOMPARE(getrlimit(RLIMIT_FSIZE, &former), 0);
    const rlimit little{100, former.rlim_max};
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &little), 0); // as on a disk that is nearly full
    s_append(*spool, QByteArray(1000, 'x'));
    s_append(*spool, "two");
    const QString trouble = spool->settle(true);
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &former), 0);
    std::signal(SIGXFSZ, handler);
    QCOMPARE(trouble, "cannot write to " + m_folder->filePath("lasting"));
    QCOMPARE(lasting(), QStringList("message-2"));
    QCOMPARE(s_payloads(*spool), QByteArrayList({QByteArray(1000, 'x'), "two"}));
    QCOMPARE(spool->settle(true), QString());
    QCOMPARE(lasting(), QStringList({"message-1", "message-2"}));
}

void tst_Gateway_spool::whatCannotBeReadIsNotMoved()
{
    const auto spool = make();
    s_append(*spool, "one");
    QVERIFY(QFile::remove(m_folder->filePath("quick/message-1")));
    QVERIFY(!spool->settle(true).isEmpty());
    QCOMPARE(lasting(), QStringList());
}

void tst_Gateway_spool::oneFolderMayBeBoth()
{
    const QString folder = m_folder->filePath("lasting");
    auto spool = std::make_unique<Spool>(folder, folder);
    s_append(*spool, "one");
    QCOMPARE(lasting(), QStringList("message-1"));
    QCOMPARE(spool->settle(true), QString());
    spool = std::make_unique<Spool>(folder, folder);
    QCOMPARE(s_payloads(*spool), QByteArrayList({"one"}));
    QVERIFY(QDir(folder).removeRecursively());
    s_append(*spool, "two");
    QCOMPARE(spool->settle(), "cannot write to " + folder);
    QDir().mkpath(folder);
    QCOMPARE(spool->settle(), QString());
    QCOMPARE(lasting(), QStringList("message-2"));
}

void tst_Gateway_spool::ofOneMessageInBothFoldersTheQuickOneCounts()
{
    s_append(*make(), "one");
    QDir().mkpath(m_folder->filePath("lasting"));
    QVERIFY(QFile::copy(m_folder->filePath("quick/message-1"), m_folder->filePath("lasting/message-1")));
    const auto spool = make();
    QCOMPARE(spool->count(), 1);
    QCOMPARE(spool->bytes(), 4096);
    QCOMPARE(quick(), QStringList("message-1"));
    QCOMPARE(lasting(), QStringList());
}

void tst_Gateway_spool::ofADamagedFileTheOtherOneCounts()
{
    const auto former = make();
    s_append(*former, "one");
    former->settle(true);
    QFile half(m_folder->filePath("quick/message-1"));
    QVERIFY(half.open(QIODevice::WriteOnly));
    half.write("half written");
    half.close();
    const auto spool = make();
    QCOMPARE(spool->damaged(), 0);
    QCOMPARE(s_payloads(*spool), QByteArrayList({"one"}));
    QCOMPARE(quick(), QStringList());
}

void tst_Gateway_spool::knowsTheLastRetainedMessageOfATopic()
{
    auto spool = make();
    QCOMPARE(spool->retained("t/v"), Spool::Number(0));
    QCOMPARE(spool->append({"t/v", "value", true}), Spool::Number(1));
    QCOMPARE(spool->append({"t/v", "value", true}), Spool::Number(2));
    QCOMPARE(spool->append({"t/v", "value", false}), Spool::Number(3));
    QCOMPARE(spool->append({"t/w", "value", true}), Spool::Number(4));
    for (const bool isAnew : {false, true}) {
        spool = isAnew ? make() : std::move(spool);
        QCOMPARE(spool->retained("t/v"), Spool::Number(2));
        QCOMPARE(spool->retained("t/w"), Spool::Number(4));
    }
    spool->remove(2);
    QCOMPARE(spool->retained("t/v"), Spool::Number(0));
}

void tst_Gateway_spool::damagedFilesAreDropped()
{
    auto spool = make();
    s_append(*spool, "whole");
    spool->settle(true);
    QFile good(m_folder->filePath("lasting/message-1"));
    QVERIFY(good.open(QIODevice::ReadOnly));
    const QByteArray whole = good.readAll();
    QByteArray altered = whole;
    altered[9] = altered[9] + 1;
    for (const QByteArray &content : {QByteArray(), QByteArray("00000000"), QByteArray("half written"),
                                      altered, whole.left(whole.size() - 1), whole.mid(1)}) {
        QFile file(m_folder->filePath("lasting/message-2"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
        file.close();
        spool = make();
        QCOMPARE(spool->damaged(), 1);
        QCOMPARE(s_payloads(*spool), QByteArrayList({"whole"}));
        QCOMPARE(lasting(), QStringList("message-1"));
    }
    QCOMPARE(make()->damaged(), 0);
}

void tst_Gateway_spool::aFileThatVanishesIsNoMessage()
{
    const auto spool = make();
    s_append(*spool, "one");
    QVERIFY(QFile::remove(m_folder->filePath("quick/message-1")));
    QVERIFY(spool->message(1).topic.isEmpty());
    QCOMPARE(spool->following(0), Spool::Number(1));
}

void tst_Gateway_spool::endsAFileWithItsChecksum()
{
    const auto spool = make();
    spool->append({"t/v", "whole", true});
    s_append(*spool, "33"); // whose CRC-32 begins with a zero
    const auto content = [this](const char *name) {
        QFile file(m_folder->filePath(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    };
    QCOMPARE(content("quick/message-1"), QByteArray("\0\0\0\3t/v\1\0\0\0\5whole0e853a92", 25));
    QCOMPARE(content("quick/message-2"), QByteArray("\0\0\0\1t\0\0\0\0\002330c8b9d0e", 20));
}

void tst_Gateway_spool::leavesOthersFilesAlone()
{
    QDir().mkpath(m_folder->filePath("lasting"));
    QFile(m_folder->filePath("lasting/notes")).open(QIODevice::WriteOnly);
    QCOMPARE(make()->count(), 0);
    QCOMPARE(lasting(), QStringList("notes"));
}

void tst_Gateway_spool::givesUpTheOldest()
{
    const auto spool = make();
    for (const char *topic : {"p/1/values", "p/1/done", "p/1/values", "p/1/values", "p/1/values/other"}) {
        spool->append({topic, "value", false});
    }
    QCOMPARE(spool->giveUp(5 * 4096, 0, "p/1/values"), 0);
    QCOMPARE(spool->giveUp(2 * 4096 + 1, 0, "p/1/values"), 2);
    QCOMPARE(spool->following(0), Spool::Number(4));
    QCOMPARE(quick(), QStringList({"message-4", "message-5"}));
    QCOMPARE(spool->giveUp(0, 0, "p/1/values"), 1);
    QCOMPARE(spool->count(), 0);
}

void tst_Gateway_spool::givesUpNothingThatIsOnItsWay()
{
    const auto spool = make();
    for (const char *payload : {"one", "two", "three", "four"}) {
        s_append(*spool, payload);
    }
    QCOMPARE(spool->giveUp(3 * 4096, 2, "t"), 1);
    QCOMPARE(s_payloads(*spool), QByteArrayList({"one", "two", "four"}));
    QCOMPARE(spool->giveUp(0, 2, "t"), 1);
    QCOMPARE(s_payloads(*spool), QByteArrayList({"one", "two"}));
}

void tst_Gateway_spool::runsAreNumbered()
{
    const QString file = m_folder->filePath("run.json");
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    const qint64 first = RunState(file).boot();
    QVERIFY(first >= now && first <= now + 60);
    QVERIFY(RunState(file).boot() > first);
    QFile ahead(file); // the clock was wrong
    QVERIFY(ahead.open(QIODevice::WriteOnly));
    ahead.write(R"({"boot":9000000000,"lost":3})");
    ahead.close();
    QCOMPARE(RunState(file).boot(), 9000000001);
}

void tst_Gateway_spool::lossesAreCountedOverRuns()
{
    const QString file = m_folder->filePath("run.json");
    RunState first(file);
    QCOMPARE(first.lost(), 0);
    first.addLost(2);
    first.addLost(3);
    QCOMPARE(first.lost(), 5);
    QCOMPARE(RunState(file).lost(), 5);
}

void tst_Gateway_spool::aBrokenStateBeginsAnew()
{
    const QString file = m_folder->filePath("run.json");
    QFile broken(file);
    QVERIFY(broken.open(QIODevice::WriteOnly));
    broken.write("{\"boot\":");
    broken.close();
    RunState state(file);
    QVERIFY(state.boot() > 0);
    QCOMPARE(state.lost(), 0);
}

QTEST_GUILESS_MAIN(tst_Gateway_spool)
#include "tst_gateway_spool.moc"
