#include "gateway/audit.h"
#include "gateway/orders.h"

#include <QTest>

using Gateway::Audit;
using Gateway::Order;
using Gateway::Orders;
using Gateway::readOrder;
using Gateway::Way;

constexpr qint64 s_now = 1'800'000'000'000;

class tst_Gateway_orders : public QObject
{
    Q_OBJECT

private slots:
    void readsOrders_data();
    void readsOrders();
    void refusesWhatIsNoOrder_data();
    void refusesWhatIsNoOrder();
    void ordersAreObeyedNow_data();
    void ordersAreObeyedNow();
    void theSameOrderIsObeyedOnce();
    void whatDiffersIsAnotherOrder();
    void ordersWithoutATimeAreNeverTheSame();
    void noMoreThanAThousandAreRemembered();
    void deedsAreTold_data();
    void deedsAreTold();
    void tenRefusalsASecondAreTold();
    void whatWasMissedIsCounted();
};

void tst_Gateway_orders::readsOrders_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<qint64>("time");
    QTest::newRow("number") << QByteArray("1200") << QVariant(1200.0) << qint64(-1);
    QTest::newRow("label") << QByteArray("\"running\"") << QVariant("running") << qint64(-1);
    QTest::newRow("flag") << QByteArray("false") << QVariant(false) << qint64(-1);
    QTest::newRow("timed") << QByteArray(R"({"value":1,"time":1800000000000})") << QVariant(1.0) << s_now;
    QTest::newRow("without a time") << QByteArray(R"({"value":1})") << QVariant(1.0) << qint64(-1);
}

void tst_Gateway_orders::readsOrders()
{
    QFETCH(QByteArray, payload);
    QFETCH(QVariant, value);
    const Gateway::ReadOrder read = readOrder("ann", {"motor", "on.off"}, payload);
    QCOMPARE(read.error, "");
    QCOMPARE(read.order.user, "ann");
    QCOMPARE(read.order.path(), "motor.on\\.off");
    QCOMPARE(read.order.value, value);
    QTEST(read.order.time.value_or(-1), "time");
}

void tst_Gateway_orders::refusesWhatIsNoOrder_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QString>("error");
    const char noValue[] = "neither a number nor true, false or a text";
    const char noTime[] = "\"time\" is not in milliseconds since 1970";
    const char others[] = "an object has \"value\" and \"time\", and nothing else";
    QTest::newRow("nothing") << QByteArray("") << "not one value";
    QTest::newRow("no JSON") << QByteArray("running") << "not JSON: illegal number";
    QTest::newRow("null") << QByteArray("null") << noValue;
    QTest::newRow("list") << QByteArray("[1]") << noValue;
    QTest::newRow("empty object") << QByteArray("{}") << noValue;
    QTest::newRow("object as value") << QByteArray(R"({"value":{}})") << noValue;
    QTest::newRow("another member") << QByteArray(R"({"value":1,"user":"root"})") << others;
    QTest::newRow("time as text") << QByteArray(R"({"value":1,"time":"1"})") << noTime;
    QTest::newRow("time with fraction") << QByteArray(R"({"value":1,"time":1.5})") << noTime;
    QTest::newRow("negative time") << QByteArray(R"({"value":1,"time":-1})") << noTime;
    QTest::newRow("endless time") << QByteArray(R"({"value":1,"time":1e300})") << noTime;
    QTest::newRow("no time") << QByteArray(R"({"value":1,"time":null})") << noTime;
}

void tst_Gateway_orders::refusesWhatIsNoOrder()
{
    QFETCH(QByteArray, payload);
    const Gateway::ReadOrder read = readOrder("ann", {"x"}, payload);
    QTEST(read.error, "error");
    QCOMPARE(read.order.user, "ann");
    QCOMPARE(read.order.path(), "x");
}

void tst_Gateway_orders::ordersAreObeyedNow_data()
{
    QTest::addColumn<qint64>("time"); // -1: none
    QTest::addColumn<bool>("isRetained");
    QTest::addColumn<bool>("isRepeated");
    QTest::addColumn<qint64>("oldest"); // -1: not known
    QTest::addColumn<QString>("reason");
    const qint64 none = -1;
    QTest::newRow("now") << none << false << false << qint64(900) << "";
    QTest::newRow("timed") << s_now << false << false << qint64(900) << "";
    QTest::newRow("just young enough") << s_now - 10'000 << false << false << qint64(10'000) << "";
    QTest::newRow("just near enough") << s_now + 10'000 << false << false << qint64(0) << "";
    QTest::newRow("too old") << s_now - 10'001 << false << false << qint64(0) << "older than 10 s";
    QTest::newRow("ahead") << s_now + 10'001 << false << false << qint64(0)
                           << "meant for more than 10 s from now";
    QTest::newRow("retained") << s_now << true << false << qint64(0)
                              << "retained: what the broker keeps is never obeyed";
    QTest::newRow("repeated") << none << false << true << qint64(0)
                              << "sent again by the broker, without a time: it may be old";
    QTest::newRow("repeated, timed") << s_now << false << true << qint64(0) << "";
    QTest::newRow("late pulse") << s_now << false << false << qint64(10'001)
                                << "it may have waited for more than 10 s on its way to the gateway";
    QTest::newRow("no pulse")
        << none << false << false << none
        << "it is not known how long it waited: the gateway has not heard its own pulse yet";
}

void tst_Gateway_orders::ordersAreObeyedNow()
{
    QFETCH(qint64, time);
    QFETCH(bool, isRetained);
    QFETCH(bool, isRepeated);
    QFETCH(qint64, oldest);
    QFETCH(QString, reason);
    Orders orders(10'000);
    const Order order{"ann", {"x"}, 1.0, time < 0 ? std::nullopt : std::optional(time)};
    const Way way{s_now, isRetained, isRepeated, oldest < 0 ? std::nullopt : std::optional(oldest)};
    const Orders::Judged judged = orders.judge(order, way);
    QCOMPARE(judged.verdict, reason.isEmpty() ? Orders::Obey : Orders::Refuse);
    QCOMPARE(judged.reason, reason);
}

void tst_Gateway_orders::theSameOrderIsObeyedOnce()
{
    Orders orders(10'000);
    const Order order{"ann", {"x"}, 1.0, s_now + 10'000};
    QCOMPARE(orders.judge(order, {s_now, false, false, 0}).verdict, Orders::Obey);
    for (const qint64 later : {0, 1, 19'999, 20'000}) {
        QCOMPARE(orders.judge(order, {s_now + later, false, false, 0}).verdict, Orders::Ignore);
    }
}

void tst_Gateway_orders::whatDiffersIsAnotherOrder()
{
    Orders orders(10'000);
    const Way way{s_now, false, false, 0};
    const Order order{"ann", {"x"}, 1.0, s_now};
    QCOMPARE(orders.judge(order, way).verdict, Orders::Obey);
    QCOMPARE(orders.judge({"bob", {"x"}, 1.0, s_now}, way).verdict, Orders::Obey);
    QCOMPARE(orders.judge({"ann", {"y"}, 1.0, s_now}, way).verdict, Orders::Obey);
    QCOMPARE(orders.judge({"ann", {"x"}, 2.0, s_now}, way).verdict, Orders::Obey);
    QCOMPARE(orders.judge({"ann", {"x"}, 1.0, s_now + 1}, way).verdict, Orders::Obey);
    QCOMPARE(orders.judge(order, way).verdict, Orders::Ignore);
}

void tst_Gateway_orders::ordersWithoutATimeAreNeverTheSame()
{
    Orders orders(10'000);
    for (int time = 0; time < 3; ++time) {
        QCOMPARE(orders.judge({"ann", {"x"}, 1.0, std::nullopt}, {s_now, false, false, 0}).verdict,
                 Orders::Obey);
    }
}

void tst_Gateway_orders::noMoreThanAThousandAreRemembered()
{
    Orders orders(10'000);
    const Way way{s_now, false, false, 0};
    for (int number = 0; number <= 1000; ++number) {
        QCOMPARE(orders.judge({"ann", {"x"}, number, s_now}, way).verdict, Orders::Obey);
    }
    QCOMPARE(orders.judge({"ann", {"x"}, 1000, s_now}, way).verdict, Orders::Ignore);
    QCOMPARE(orders.judge({"ann", {"x"}, 0, s_now}, way).verdict, Orders::Obey);
}

void tst_Gateway_orders::deedsAreTold_data()
{
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QVariant>("raw");
    QTest::addColumn<QString>("error");
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("done")
        << "ann"
        << "motor.speed" << QVariant(12.5) << QVariant(125.0) << ""
        << QByteArray(
               R"({"user":"ann","path":"motor.speed","value":12.5,"raw":125,"time":5,"ok":true,"error":null})");
    QTest::newRow("refused")
        << "ann"
        << "x" << QVariant("on") << QVariant() << "no"
        << QByteArray(
               R"({"user":"ann","path":"x","value":"on","raw":null,"time":5,"ok":false,"error":"no"})");
    QTest::newRow("schema")
        << QString() << QString() << QVariant() << QVariant() << ""
        << QByteArray(R"({"user":null,"path":null,"value":null,"raw":null,"time":5,"ok":true,"error":null})");
    QTest::newRow("made up") << QString(2000, 'u') << QString(2000, 'p') << QVariant(QString(2000, 'v'))
                             << QVariant() << QString(2000, 'e')
                             << QByteArray("{\"user\":\"" + QByteArray(1000, 'u') + "\",\"path\":\"" +
                                           QByteArray(1000, 'p') + "\",\"value\":\"" + QByteArray(1000, 'v') +
                                           "\",\"raw\":null,\"time\":5,\"ok\":false,\"error\":\"" +
                                           QByteArray(1000, 'e') + "\"}");
}

void tst_Gateway_orders::deedsAreTold()
{
    QFETCH(QString, user);
    QFETCH(QString, path);
    QFETCH(QVariant, value);
    QFETCH(QVariant, raw);
    QFETCH(QString, error);
    QTEST(Gateway::deedText({user, path, value, raw, error}, 5), "text");
}

void tst_Gateway_orders::tenRefusalsASecondAreTold()
{
    QList<QByteArray> told;
    Audit audit([&told](const QByteArray &text) { told << text; });
    for (int count = 0; count < 47; ++count) {
        audit.refused({"ann", "x", 1, {}, "no"});
    }
    audit.done({"ann", "x", 1, 1, {}});
    QCOMPARE(told.size(), 11);
    QVERIFY(told.last().contains("\"ok\":true"));
    QTRY_COMPARE(told.size(), 12);
    QVERIFY(told.last().startsWith("{\"user\":null,\"path\":null,\"value\":null,\"raw\":null,\"time\":"));
    QVERIFY(told.last().endsWith("\"ok\":false,\"error\":\"37 more refusals\"}"));
    audit.refused({"ann", "x", 1, {}, "no"});
    QCOMPARE(told.size(), 13);
    QCOMPARE(audit.refusedCount(), 48);
    QCOMPARE(audit.doneCount(), 1);
}

void tst_Gateway_orders::whatWasMissedIsCounted()
{
    QList<QByteArray> told;
    Audit audit([&told](const QByteArray &text) { told << text; });
    audit.missed(5);
    audit.missed(6);
    QVERIFY(told.isEmpty());
    QTRY_COMPARE(told.size(), 1);
    QVERIFY(told.last().contains("\"11 more refusals\""));
    QCOMPARE(audit.refusedCount(), 11);
}

QTEST_GUILESS_MAIN(tst_Gateway_orders)
#include "tst_gateway_orders.moc"
