// The key of one stream of frames: what it is ordered by, and what it is not.
#include "schema/vekendpoint.h"

#include <QMap>
#include <QtTest>

class TestVekEndpoint : public QObject
{
    Q_OBJECT

private slots:
    // Happy
    void startsAllZero();
    void keepsTheFullFields();
    void orders_data();
    void orders();

    // Rainy
    void fragmentationIsNotPartOfTheKey();
    void aMapKeepsTheFlagOfTheFirstKey();
    void bitsAboveTheHeaderFieldsAreNotFolded();
};

static bool s_sameKey(const VEKEndpoint &a, const VEKEndpoint &b)
{
    return !(a < b) && !(b < a);
}

void TestVekEndpoint::startsAllZero()
{
    const VEKEndpoint endpoint;
    QCOMPARE(int(endpoint.mac), 0);
    QCOMPARE(int(endpoint.cmd), 0);
    QCOMPARE(endpoint.fragmentation, false);
}

void TestVekEndpoint::keepsTheFullFields()
{
    const VEKEndpoint endpoint(0xFFFF, 0x8001, true);
    QCOMPARE(int(endpoint.mac), 0xFFFF);
    QCOMPARE(int(endpoint.cmd), 0x8001);
    QCOMPARE(endpoint.fragmentation, true);
}

void TestVekEndpoint::orders_data()
{
    QTest::addColumn<int>("mac");
    QTest::addColumn<int>("cmd");
    QTest::addColumn<int>("otherMac");
    QTest::addColumn<int>("otherCmd");

    QTest::newRow("mac within one cmd") << 1 << 4 << 2 << 4;
    QTest::newRow("cmd is the high half") << 1 << 0 << 0 << 1;
    QTest::newRow("mac is unsigned in the low half") << 0x7FFF << 1 << 0x8000 << 1;
    QTest::newRow("largest mac stays below the next cmd") << 0xFFFF << 0 << 0 << 1;
    QTest::newRow("cmd 0x8000 is negative") << 0 << 0x8000 << 0 << 0;
    QTest::newRow("cmd 0xFFFF orders before cmd 0") << 0xFFFF << 0xFFFF << 0 << 0;
    QTest::newRow("cmd 0x8000 orders before cmd 0x7FFF") << 0xFFFF << 0x8000 << 0 << 0x7FFF;
    QTest::newRow("among the negative ones cmd ascends") << 0 << 0x8000 << 0 << 0x8001;
}

void TestVekEndpoint::orders()
{
    QFETCH(int, mac);
    QFETCH(int, cmd);
    QFETCH(int, otherMac);
    QFETCH(int, otherCmd);
    const VEKEndpoint less(static_cast<quint16>(mac), static_cast<quint16>(cmd), true);
    const VEKEndpoint more(static_cast<quint16>(otherMac), static_cast<quint16>(otherCmd), false);
    QVERIFY(less < more);
    QVERIFY(!(more < less));
}

void TestVekEndpoint::fragmentationIsNotPartOfTheKey()
{
    QVERIFY(s_sameKey(VEKEndpoint(5, 2, true), VEKEndpoint(5, 2, false)));
    QVERIFY(!s_sameKey(VEKEndpoint(5, 2, true), VEKEndpoint(5, 3, true)));
    QVERIFY(!s_sameKey(VEKEndpoint(5, 2, true), VEKEndpoint(4, 2, true)));
}

void TestVekEndpoint::aMapKeepsTheFlagOfTheFirstKey()
{
    QMap<VEKEndpoint, int> map;
    map.insert(VEKEndpoint(5, 2, true), 1);
    map.insert(VEKEndpoint(5, 2, false), 2);
    QCOMPARE(map.size(), 1);
    QCOMPARE(map.firstKey().fragmentation, true);
    QCOMPARE(map.value(VEKEndpoint(5, 2, false)), 2);
}

void TestVekEndpoint::bitsAboveTheHeaderFieldsAreNotFolded()
{
    QVERIFY(!s_sameKey(VEKEndpoint(70, 3, false), VEKEndpoint(70 & 0x3F, 3, false)));
    QVERIFY(!s_sameKey(VEKEndpoint(0, 32, false), VEKEndpoint(0, 0, false)));
}

QTEST_APPLESS_MAIN(TestVekEndpoint)
#include "tst_vekendpoint.moc"
