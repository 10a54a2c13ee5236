// Cutting the adapter's byte stream into records.
#include "service/recordscanner.h"

#include <QByteArray>
#include <QList>
#include <QtTest>

class TestRecordScanner : public QObject
{
    Q_OBJECT

private slots:
    // Happy
    void recordsBackToBack();
    void nothingToDo_data();
    void nothingToDo();
    void zerosAreRecords();

    // Rainy
    void garbageOfAnyLengthInFrontIsLostAndNothingElse();
    void garbageBetweenRecords();
    void aCorruptRecordIsSkippedByteByByte();
    void aRecordThatStartsInsideGarbageIsDelivered();
    void everySplitOfTheStreamGivesTheSameRecords();
    void lengthsBeyondEightAreDelivered();
};

static QByteArray s_record(int mac, int cmd, const QByteArray &payload)
{
    vek_frame_t frame{};
    vek_frame_set_header(&frame, vek_header_make(unsigned(mac), unsigned(cmd), unsigned(payload.size())));
    std::memcpy(frame.data, payload.constData(), std::size_t(payload.size()));
    vek_frame_set_valid(&frame);
    return QByteArray(reinterpret_cast<const char *>(&frame), sizeof frame);
}

// Bytes of which no eleven in a row are valid, nor together with the records that follow them here.
static QByteArray s_garbage(int size)
{
    QByteArray bytes;
    for (int i = 0; i < size; ++i) {
        bytes.append(char(0x80 + i % 127));
    }
    return bytes;
}

struct Scan {
    QList<QByteArray> records;
    int consumed = 0;
};

static Scan s_scan(const QByteArray &bytes)
{
    Scan scan;
    scan.consumed = scanRecords(bytes.constData(), bytes.size(), [&scan](const vek_frame_t &frame) {
        scan.records.append(QByteArray(reinterpret_cast<const char *>(&frame), sizeof frame));
    });
    return scan;
}

static const QList<QByteArray> &s_records()
{
    static const QList<QByteArray> records = {s_record(5, 3, QByteArray::fromHex("1234")),
                                              s_record(63, 31, QByteArray::fromHex("0102030405060708")),
                                              s_record(0, 1, QByteArray())};
    return records;
}

static QByteArray s_joined()
{
    return s_records()[0] + s_records()[1] + s_records()[2];
}

void TestRecordScanner::recordsBackToBack()
{
    const Scan scan = s_scan(s_joined());
    QCOMPARE(scan.records, s_records());
    QCOMPARE(scan.consumed, 33);
}

void TestRecordScanner::nothingToDo_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("no bytes") << QByteArray();
    QTest::newRow("one byte") << QByteArray(1, '\0');
    QTest::newRow("ten bytes of a record") << s_records()[0].left(10);
    QTest::newRow("ten bytes of garbage") << s_garbage(10);
}

void TestRecordScanner::nothingToDo()
{
    QFETCH(QByteArray, bytes);
    const Scan scan = s_scan(bytes);
    QCOMPARE(scan.records.size(), 0);
    QCOMPARE(scan.consumed, 0);
}

void TestRecordScanner::zerosAreRecords()
{
    const Scan scan = s_scan(QByteArray(25, '\0'));
    QCOMPARE(scan.records, (QList<QByteArray>{QByteArray(11, '\0'), QByteArray(11, '\0')}));
    QCOMPARE(scan.consumed, 22);
}

void TestRecordScanner::garbageOfAnyLengthInFrontIsLostAndNothingElse()
{
    for (int length = 1; length <= 40; ++length) {
        const Scan scan = s_scan(s_garbage(length) + s_joined());
        QCOMPARE(scan.records, s_records());
        QCOMPARE(scan.consumed, length + 33);
    }
}

void TestRecordScanner::garbageBetweenRecords()
{
    const QByteArray bytes =
        s_records()[0] + s_garbage(3) + s_records()[1] + s_garbage(12) + s_records()[2] + s_garbage(4);
    const Scan scan = s_scan(bytes);
    QCOMPARE(scan.records, s_records());
    QCOMPARE(scan.consumed, bytes.size() - 4);
}

void TestRecordScanner::aCorruptRecordIsSkippedByteByByte()
{
    for (int at = 0; at < 11; ++at) {
        QByteArray corrupt = s_records()[1];
        corrupt[at] = char(corrupt[at] ^ 0x40);
        const Scan scan = s_scan(corrupt + s_joined());
        QCOMPARE(scan.records, s_records());
        QCOMPARE(scan.consumed, 44);
    }
}

void TestRecordScanner::aRecordThatStartsInsideGarbageIsDelivered()
{
    // A record is where eleven bytes pass the checksum, even where nobody meant one.
    const Scan scan = s_scan(s_garbage(5) + QByteArray(11, '\0') + s_records()[0]);
    QCOMPARE(scan.records, (QList<QByteArray>{QByteArray(11, '\0'), s_records()[0]}));
}

void TestRecordScanner::everySplitOfTheStreamGivesTheSameRecords()
{
    const QByteArray stream = s_garbage(3) + s_joined() + s_garbage(14) + s_records()[1];
    const QList<QByteArray> whole = s_scan(stream).records;
    for (int first = 0; first <= stream.size(); ++first) {
        for (int second = first; second <= stream.size(); ++second) {
            QByteArray buffered;
            QList<QByteArray> records;
            const QList<QByteArray> pieces = {stream.left(first), stream.mid(first, second - first),
                                              stream.mid(second)};
            for (const QByteArray &piece : pieces) {
                buffered += piece;
                const Scan scan = s_scan(buffered);
                records += scan.records;
                buffered.remove(0, scan.consumed);
                QVERIFY(buffered.size() < VEK_FRAME_SIZE);
            }
            QCOMPARE(records, whole);
        }
    }
}

void TestRecordScanner::lengthsBeyondEightAreDelivered()
{
    vek_frame_t frame{};
    vek_frame_set_header(&frame, vek_header_make(1, 1, 15));
    vek_frame_set_valid(&frame);
    const QByteArray bytes(reinterpret_cast<const char *>(&frame), sizeof frame);
    QCOMPARE(s_scan(bytes).records, QList<QByteArray>{bytes});
    QCOMPARE(vek_payload_size(vek_frame_header(frame)), 8);
}

QTEST_APPLESS_MAIN(TestRecordScanner)
#include "tst_recordscanner.moc"
