// The frame record and its checksum.
#include "service/vek_frame.h"

#include <QtTest>

#include <cstddef>
#include <cstring>

class TestVekFrame : public QObject
{
    Q_OBJECT

private slots:
    // Happy
    void layoutIsTheWireImage();
    void checksum_data();
    void checksum();
    void tableIsTheRemainderOfThePolynomial();
    void workedExample();
    void headerFields_data();
    void headerFields();
    void sealingOverwritesOnlyTheChecksum();
    void takesElevenBytesAtAnyAlignment();
    void zeroBytesAreAValidFrame();

    // Rainy
    void anyChangedByteMakesTheFrameInvalid();
    void lengthsBeyondEightPassTheChecksum();
    void fieldsThatDoNotFitAreTrimmed();
    void emptyRangeNeedsNoPointer();
};

static vek_frame_t s_example()
{
    vek_frame_t frame;
    std::memset(&frame, 0, sizeof frame);
    vek_frame_set_header(&frame, vek_header_make(5, 3, 2));
    frame.data[0] = 0x12;
    frame.data[1] = 0x34;
    return frame;
}

static QByteArray s_bytes(const vek_frame_t &frame)
{
    return QByteArray(reinterpret_cast<const char *>(&frame), sizeof frame);
}

void TestVekFrame::layoutIsTheWireImage()
{
    QCOMPARE(sizeof(vek_frame_t), std::size_t(11));
    QCOMPARE(offsetof(vek_frame_t, header), std::size_t(0));
    QCOMPARE(offsetof(vek_frame_t, data), std::size_t(2));
    QCOMPARE(offsetof(vek_frame_t, crc), std::size_t(10));
    QCOMPARE(alignof(vek_frame_t), std::size_t(1));

    vek_frame_t frame = s_example();
    vek_frame_set_header(&frame, 0x1234);
    QCOMPARE(s_bytes(frame).left(2), QByteArray::fromHex("3412"));
    QCOMPARE(int(vek_frame_header(frame)), 0x1234);
}

void TestVekFrame::checksum_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("expected");

    QTest::newRow("empty range") << QByteArray() << 0x00;
    QTest::newRow("one zero byte") << QByteArray(1, '\0') << 0x00;
    QTest::newRow("table entry 1") << QByteArray::fromHex("01") << 0x07;
    QTest::newRow("table entry 2") << QByteArray::fromHex("02") << 0x0E;
    QTest::newRow("table entry 255") << QByteArray::fromHex("ff") << 0xF3;
    QTest::newRow("catalogue check value") << QByteArray("123456789") << 0xF4;
    QTest::newRow("ten zero bytes") << QByteArray(10, '\0') << 0x00;
    QTest::newRow("worked example") << QByteArray::fromHex("c5101234000000000000") << 0x96;
}

void TestVekFrame::checksum()
{
    QFETCH(QByteArray, bytes);
    QFETCH(int, expected);
    QCOMPARE(int(vek_crc8(bytes.constData(), unsigned(bytes.size()))), expected);
}

void TestVekFrame::tableIsTheRemainderOfThePolynomial()
{
    // Long division, bit by bit, of i * x^8 by x^8 + x^2 + x + 1.
    for (unsigned i = 0; i < 256; ++i) {
        unsigned rest = i << 8;
        for (int bit = 15; bit >= 8; --bit) {
            if (rest & (1U << bit)) {
                rest ^= 0x107U << (bit - 8);
            }
        }
        const auto byte = static_cast<std::uint8_t>(i);
        QCOMPARE(unsigned(vek_crc8(&byte, 1)), rest);
    }
}

void TestVekFrame::workedExample()
{
    vek_frame_t frame = s_example();
    vek_frame_set_valid(&frame);
    QCOMPARE(s_bytes(frame).toHex(), QByteArray("c510123400000000000096"));
    QVERIFY(vek_frame_is_valid(&frame));
}

void TestVekFrame::headerFields_data()
{
    QTest::addColumn<int>("header");
    QTest::addColumn<int>("mac");
    QTest::addColumn<int>("cmd");
    QTest::addColumn<int>("dlc");
    QTest::addColumn<int>("rtr");

    QTest::newRow("all zero") << 0x0000 << 0 << 0 << 0 << 0;
    QTest::newRow("worked example") << 0x10C5 << 5 << 3 << 2 << 0;
    QTest::newRow("mac only") << 0x003F << 63 << 0 << 0 << 0;
    QTest::newRow("cmd only") << 0x07C0 << 0 << 31 << 0 << 0;
    QTest::newRow("dlc only") << 0x7800 << 0 << 0 << 15 << 0;
    QTest::newRow("rtr only") << 0x8000 << 0 << 0 << 0 << 1;
    QTest::newRow("all set") << 0xFFFF << 63 << 31 << 15 << 1;
}

void TestVekFrame::headerFields()
{
    QFETCH(int, header);
    QFETCH(int, mac);
    QFETCH(int, cmd);
    QFETCH(int, dlc);
    QFETCH(int, rtr);
    const auto bits = static_cast<std::uint16_t>(header);
    QCOMPARE(int(vek_header_mac(bits)), mac);
    QCOMPARE(int(vek_header_cmd(bits)), cmd);
    QCOMPARE(int(vek_header_dlc(bits)), dlc);
    QCOMPARE(int(vek_header_rtr(bits)), rtr);
    QCOMPARE(int(vek_header_can_id(bits)), mac + 64 * cmd);
    QCOMPARE(int(vek_header_make(unsigned(mac), unsigned(cmd), unsigned(dlc))), header & 0x7FFF);
}

void TestVekFrame::sealingOverwritesOnlyTheChecksum()
{
    vek_frame_t frame = s_example();
    std::memset(frame.data, 0xA5, sizeof frame.data);
    frame.crc = 0x11;
    const QByteArray before = s_bytes(frame);
    vek_frame_set_valid(&frame);
    QCOMPARE(s_bytes(frame).left(10), before.left(10));
    QCOMPARE(int(frame.crc), int(vek_crc8(before.constData(), 10)));
}

void TestVekFrame::takesElevenBytesAtAnyAlignment()
{
    const QByteArray wire = QByteArray::fromHex("c510123400000000000096");
    for (int offset = 0; offset < 8; ++offset) {
        const QByteArray padded = QByteArray(offset, '\x55') + wire;
        QVERIFY(vek_frame_is_valid(padded.constData() + offset));
    }
}

void TestVekFrame::zeroBytesAreAValidFrame()
{
    const QByteArray zeros(11, '\0');
    QVERIFY(vek_frame_is_valid(zeros.constData()));
}

void TestVekFrame::anyChangedByteMakesTheFrameInvalid()
{
    vek_frame_t sealed = s_example();
    vek_frame_set_valid(&sealed);
    for (int at = 0; at < 11; ++at) {
        for (int flip = 1; flip < 256; ++flip) {
            QByteArray bytes = s_bytes(sealed);
            bytes[at] = static_cast<char>(bytes.at(at) ^ flip);
            QVERIFY2(!vek_frame_is_valid(bytes.constData()), qPrintable(QString::number(at)));
        }
    }
}

void TestVekFrame::lengthsBeyondEightPassTheChecksum()
{
    for (unsigned dlc = 9; dlc <= 15; ++dlc) {
        vek_frame_t frame = s_example();
        vek_frame_set_header(&frame, vek_header_make(1, 2, dlc));
        vek_frame_set_valid(&frame);
        QVERIFY(vek_frame_is_valid(&frame));
        QCOMPARE(unsigned(vek_header_dlc(vek_frame_header(frame))), dlc);
    }
}

void TestVekFrame::fieldsThatDoNotFitAreTrimmed()
{
    QCOMPARE(int(vek_header_make(65, 0, 0)), 1);
    QCOMPARE(int(vek_header_make(0, 32 + 3, 0)), 3 << 6);
    QCOMPARE(int(vek_header_make(0, 0, 16 + 8)), 8 << 11);
}

void TestVekFrame::emptyRangeNeedsNoPointer()
{
    QCOMPARE(int(vek_crc8(nullptr, 0)), 0);
}

QTEST_APPLESS_MAIN(TestVekFrame)
#include "tst_vek_frame.moc"
