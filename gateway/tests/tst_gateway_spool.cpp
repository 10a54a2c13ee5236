#include "gateway/runstate.h"
#include "gateway/spool.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
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
    void keepsWhatWasPut();
    void findsWhatAnotherProcessLeft();
    void writesToTheLastingFolderOnlyWhatStays();
    void staysQuickWhereTheDiskIsFull();
    void keepsInMemoryWhatNoFolderTakes();
    void whatIsDueGoesFromMemoryToTheLastingFolder();
    void orphansNeedNoFolder();
    void damagedFilesAreDropped();
    void endsAFileWithItsChecksum();
    void givesUpTheOldest();
    void keepsWhatABrokerForgot();
    void keepsOrphansUntilTheyAreTaken();
    void orphansNeedNoRoom();
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

void s_put(Spool &spool, const std::string &key, const std::vector<std::string> &parts)
{
    std::vector<mqtt::string_view> views;
    for (const std::string &part : parts) {
        views.emplace_back(part.data(), part.size());
    }
    spool.put(key, views);
}

QByteArray s_get(const Spool &spool, const char *key)
{
    return QByteArray::fromStdString(spool.get(key));
}

QStringList s_keys(const Spool &spool)
{
    QStringList keys;
    const auto all = spool.keys();
    for (size_t at = 0; at < all.size(); ++at) {
        keys << QString::fromStdString(all[at]);
    }
    return keys;
}

// What it gives to be published again, of which the first `taken` are.
QVector<SpooledMessage> s_republished(Spool &spool, int taken)
{
    QVector<SpooledMessage> messages;
    spool.republish([&](const SpooledMessage &message) {
        messages << message;
        return messages.size() <= taken;
    });
    return messages;
}

void tst_Gateway_spool::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
}

void tst_Gateway_spool::keepsWhatWasPut()
{
    const auto spool = make();
    s_put(*spool, "c-1", {"on", "e"});
    s_put(*spool, "s-1", {std::string(3, '\0')});
    QCOMPARE(s_get(*spool, "c-1"), QByteArray("one"));
    QCOMPARE(s_get(*spool, "s-1"), QByteArray(3, '\0'));
    QCOMPARE(s_keys(*spool), QStringList({"c-1", "s-1"}));
    QCOMPARE(spool->bytes(), 2 * 4096);
    QCOMPARE(spool->count(), 2);
    s_put(*spool, "c-1", {"another"});
    QCOMPARE(s_get(*spool, "c-1"), QByteArray("another"));
    QCOMPARE(spool->bytes(), 2 * 4096);
    s_put(*spool, "c-2", {std::string(4088, 'x')}); // with its checksum, a block
    QCOMPARE(spool->bytes(), 3 * 4096);
    s_put(*spool, "c-2", {std::string(4089, 'x')});
    QCOMPARE(spool->bytes(), 4 * 4096);
    spool->remove("c-2");
    spool->remove("c-1");
    spool->remove("c-1");
    QVERIFY(!spool->contains_key("c-1"));
    QVERIFY(spool->contains_key("s-1"));
    QVERIFY_EXCEPTION_THROWN(s_get(*spool, "c-1"), mqtt::persistence_exception);
    QCOMPARE(spool->bytes(), 4096);
    spool->clear();
    QVERIFY(spool->contains_key("s-1"));
}

void tst_Gateway_spool::findsWhatAnotherProcessLeft()
{
    auto spool = make();
    s_put(*spool, "c-1", {"old"});
    spool->settle(true);
    s_put(*spool, "c-2", {"young"});
    QFile(m_folder->filePath("quick/c-3.abc123")).open(QIODevice::WriteOnly);
    spool = make();
    QCOMPARE(s_keys(*spool), QStringList({"c-1", "c-2"}));
    QCOMPARE(s_get(*spool, "c-1") + s_get(*spool, "c-2"), QByteArray("oldyoung"));
    QCOMPARE(spool->bytes(), 2 * 4096);
    QCOMPARE(quick(), QStringList("c-2"));
}

void tst_Gateway_spool::writesToTheLastingFolderOnlyWhatStays()
{
    const auto spool = make();
    s_put(*spool, "c-1", {"one"});
    QCOMPARE(spool->settle(), QString());
    QCOMPARE(lasting(), QStringList());
    QCOMPARE(quick(), QStringList("c-1"));
    QTRY_VERIFY_WITH_TIMEOUT((spool->settle(), !lasting().isEmpty()), 20'000);
    QCOMPARE(lasting(), QStringList("c-1"));
    QCOMPARE(quick(), QStringList());
    QCOMPARE(s_get(*spool, "c-1"), QByteArray("one"));
    QCOMPARE(spool->bytes(), 4096);
    spool->remove("c-1");
    QCOMPARE(lasting(), QStringList());
}

void tst_Gateway_spool::staysQuickWhereTheDiskIsFull()
{
    const auto spool = make();
    s_put(*spool, "c-1", {"one"});
    QVERIFY(QDir(m_folder->filePath("lasting")).removeRecursively());
    QCOMPARE(spool->settle(true), "cannot write to " + m_folder->filePath("lasting"));
    QCOMPARE(s_get(*spool, "c-1"), QByteArray("one"));
    QDir().mkpath(m_folder->filePath("lasting"));
    QCOMPARE(spool->settle(true), QString());
    QCOMPARE(lasting(), QStringList("c-1"));
}

void tst_Gateway_spool::keepsInMemoryWhatNoFolderTakes()
{
    const auto spool = make();
    QVERIFY(QDir(m_folder->path()).removeRecursively());
    s_put(*spool, "c-1", {"one"});
    s_put(*spool, "s-2", {"two"});
    QCOMPARE(s_keys(*spool), QStringList({"c-1", "s-2"}));
    QCOMPARE(s_get(*spool, "c-1"), QByteArray("one"));
    QCOMPARE(spool->count(), 2);
    QVERIFY(spool->bytes() > 0);
    QCOMPARE(spool->settle(), "cannot write to " + m_folder->filePath("quick"));
    QCOMPARE(spool->settle(true), "cannot write to " + m_folder->filePath("lasting"));
    spool->remove("s-2");
    QDir().mkpath(m_folder->filePath("quick"));
    QCOMPARE(spool->settle(), QString());
    QCOMPARE(quick(), QStringList("c-1"));
    QDir().mkpath(m_folder->filePath("lasting"));
    QCOMPARE(spool->settle(true), QString());
    QCOMPARE(lasting(), QStringList("c-1"));
    QCOMPARE(quick(), QStringList());
    QCOMPARE(s_get(*make(), "c-1"), QByteArray("one"));
}

void tst_Gateway_spool::whatIsDueGoesFromMemoryToTheLastingFolder()
{
    const auto spool = make();
    QVERIFY(QDir(m_folder->filePath("quick")).removeRecursively());
    s_put(*spool, "c-1", {"one"});
    QCOMPARE(spool->settle(true), QString());
    QCOMPARE(lasting(), QStringList("c-1"));
    spool->remove("c-1");
    QCOMPARE(lasting(), QStringList());
    QCOMPARE(spool->bytes(), 0);
}

void tst_Gateway_spool::orphansNeedNoFolder()
{
    const auto spool = make();
    QVERIFY(QDir(m_folder->path()).removeRecursively());
    s_put(*spool, "s-1", {std::string("\x32\6\0\1t\0\1x", 8)});
    spool->setConnecting(true);
    spool->remove("s-1");
    spool->setConnecting(false);
    QCOMPARE(s_republished(*spool, 1).value(0).payload, QByteArray("x"));
    QCOMPARE(spool->count(), 0);
}

void tst_Gateway_spool::damagedFilesAreDropped()
{
    s_put(*make(), "c-1", {"whole"});
    for (const QByteArray &content : {QByteArray(), QByteArray("00000000"), QByteArray("half written"),
                                      QByteArray("whalec459294f"), QByteArray("wholc459294f")}) {
        QFile file(m_folder->filePath("lasting/c-2"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
        file.close();
        const auto spool = make();
        QCOMPARE(spool->damaged(), 1);
        QCOMPARE(s_keys(*spool), QStringList("c-1"));
        QCOMPARE(lasting(), QStringList());
    }
    QCOMPARE(make()->damaged(), 0);
}

void tst_Gateway_spool::endsAFileWithItsChecksum()
{
    const auto spool = make();
    s_put(*spool, "c-1", {"wh", "ole"});
    s_put(*spool, "c-2", {"a"});
    s_put(*spool, "c-3", {"33"}); // whose CRC-32 begins with a zero
    const auto content = [this](const char *name) {
        QFile file(m_folder->filePath(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    };
    QCOMPARE(content("quick/c-1"), QByteArray("wholec459294f"));
    QCOMPARE(content("quick/c-2"), QByteArray("ae8b7be43"));
    QCOMPARE(content("quick/c-3"), QByteArray("330a6216d9"));
}

void tst_Gateway_spool::givesUpTheOldest()
{
    const auto spool = make();
    const std::string value = std::string("p/1/values") + '\0' + std::string(89, 'v'); // 100 bytes
    const std::string other = std::string("p/1/done") + '\0' + std::string(91, 'd');
    for (const char *key : {"c-10", "c-9", "c-11", "s-1", "c-8"}) {
        s_put(*spool, key, {std::string(key) == "c-9" ? other : value});
    }
    QCOMPARE(spool->bytes(), 5 * 4096);
    QCOMPARE(spool->giveUp(5 * 4096, "p/1/values"), 0);
    QCOMPARE(spool->giveUp(2 * 4096 + 1, "p/1/values"), 2);
    QCOMPARE(s_keys(*spool), QStringList({"c-11", "s-1"}));
    QCOMPARE(spool->giveUp(0, "p/1/values"), 1);
    QCOMPARE(s_keys(*spool), QStringList("s-1"));
    QCOMPARE(quick(), QStringList("s-1"));
}

void tst_Gateway_spool::keepsWhatABrokerForgot()
{
    auto spool = make();
    const std::string three("\x33\x0a\0\3t/v\0\1ab!", 12);           // retained
    const std::string five("\x32\x0f\0\3t/w\0\2\3\x23\0\1cd?.", 17); // with three bytes of properties
    s_put(*spool, "s-10", {three});
    s_put(*spool, "s5-2", {five});
    s_put(*spool, "c-1", {"waits"});
    spool->setConnecting(true);
    for (const char *key : {"s5-2", "s-10", "c-1"}) {
        spool->remove(key);
    }
    QCOMPARE(s_keys(*spool), QStringList());
    spool = make(); // another process
    spool->setConnecting(false);
    const auto orphans = s_republished(*spool, 2);
    QCOMPARE(orphans.size(), 2);
    QCOMPARE(orphans[0].topic, QByteArray("t/w"));
    QCOMPARE(orphans[0].payload, QByteArray("cd?."));
    QVERIFY(!orphans[0].isRetained);
    QCOMPARE(orphans[1].topic, QByteArray("t/v"));
    QCOMPARE(orphans[1].payload, QByteArray("ab!"));
    QVERIFY(orphans[1].isRetained);
    QCOMPARE(spool->bytes(), 0);
    s_put(*spool, "s-1", {three});
    spool->remove("s-1"); // acknowledged
    QVERIFY(s_republished(*spool, 1).isEmpty());
}

void tst_Gateway_spool::keepsOrphansUntilTheyAreTaken()
{
    const auto spool = make();
    spool->setConnecting(true);
    for (const char *key : {"s-1", "s-2", "s-3"}) {
        s_put(*spool, key, {std::string("\x32\6\0\1t\0\1", 7) + key[2]});
        spool->remove(key);
    }
    const auto payloads = [](const QVector<SpooledMessage> &messages) {
        QByteArray all;
        for (const SpooledMessage &message : messages) {
            all += message.payload;
        }
        return all;
    };
    QCOMPARE(payloads(s_republished(*spool, 1)), QByteArray("12"));
    QCOMPARE(payloads(s_republished(*make(), 0)), QByteArray("2")); // another process
    QCOMPARE(payloads(s_republished(*spool, 2)), QByteArray("23"));
    QCOMPARE(payloads(s_republished(*spool, 2)), QByteArray());
}

void tst_Gateway_spool::orphansNeedNoRoom()
{
    const auto spool = make();
    s_put(*spool, "s-1", {std::string("\x32\6\0\1t\0\1x", 8)});
    rlimit former{};
    QCOMPARE(getrlimit(RLIMIT_FSIZE, &former), 0);
    const rlimit none{0, former.rlim_max};
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &none), 0); // as on a disk that is full
    spool->setConnecting(true);
    spool->remove("s-1");
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &former), 0);
    std::signal(SIGXFSZ, handler);
    QCOMPARE(s_republished(*spool, 1).value(0).payload, QByteArray("x"));
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
