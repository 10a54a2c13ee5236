// What decoding is said to take, beside what it takes.
#include "msgpack/msgpack.h"
#include "schema/schemaconverter.h"
#include "service/decodedsize.h"

#include <QJsonDocument>
#include <QtEndian>
#include <QtTest>

#include <malloc.h>

#if defined(__SANITIZE_ADDRESS__)
constexpr bool heapIsCounted = false; // the sanitizer's heap is not the one that the sizes are about
#else
constexpr bool heapIsCounted = true;
#endif

static qint64 s_heap()
{
    const auto info = mallinfo2();
    return static_cast<qint64>(info.uordblks + info.hblkhd);
}

class TestDecodedSize : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void messageTakesNoMoreThanSaid_data();
    void messageTakesNoMoreThanSaid();
    void schemaTakesNoMoreThanSaid_data();
    void schemaTakesNoMoreThanSaid();
    void honestInputIsFarBelowTheLimits_data();
    void honestInputIsFarBelowTheLimits();

    void everyFormatIsSteppedOverAsItIsDecoded_data();
    void everyFormatIsSteppedOverAsItIsDecoded();
    void whatIsAnnouncedAndNotThereIsNotCounted_data();
    void whatIsAnnouncedAndNotThereIsNotCounted();
    void textsInSchemasAreNotTakenApart_data();
    void textsInSchemasAreNotTakenApart();
};

// Lines that were kept would count as decoded.
void TestDecodedSize::initTestCase()
{
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
}

static constexpr int count = 20000;

static QByteArray s_be32(quint32 number)
{
    QByteArray bytes(4, '\0');
    qToBigEndian(number, bytes.data());
    return bytes;
}

static QByteArray s_list(const QByteArray &element)
{
    return "\xdd" + s_be32(count) + element.repeated(count);
}

static QByteArray s_numbered(const char *before, const char *behind)
{
    QByteArray items;
    for (int i = 0; i < count; ++i) {
        items += before + QByteArray::number(i + 100000) + behind;
    }
    return items;
}

static QByteArray s_deep(const QByteArray &open, const QByteArray &inside)
{
    QByteArray nested;
    for (int i = 0; i < 10; ++i) {
        nested += open.repeated(9000) + inside;
    }
    return "\x9a" + nested;
}

void TestDecodedSize::messageTakesNoMoreThanSaid_data()
{
    QTest::addColumn<QByteArray>("message");

    QTest::newRow("small integers") << s_list("\x01");
    QTest::newRow("nils") << s_list("\xc0");
    QTest::newRow("doubles") << s_list(QByteArray("\xcb") + QByteArray(8, '\x01'));
    QTest::newRow("empty texts") << s_list("\xa0");
    QTest::newRow("texts of one character") << s_list("\xa1x");
    QTest::newRow("texts of 31 characters") << s_list("\xbf" + QByteArray(31, 'x'));
    QTest::newRow("texts of three bytes a character") << s_list("\xa3\xe2\x82\xac");
    QTest::newRow("byte arrays") << s_list(QByteArray("\xc4\x03xyz"));
    QTest::newRow("empty lists") << s_list("\x90");
    QTest::newRow("empty maps") << s_list("\x80");
    QTest::newRow("lists of one") << s_list("\x91\x01");
    QTest::newRow("lists of two") << s_list("\x92\x01\x01");
    QTest::newRow("maps of one") << s_list("\x81\xa1x\x01");
    QTest::newRow("maps of one with a number for a key") << s_list("\x81\x01\x01");
    QTest::newRow("maps of one with a long number for a key")
        << s_list(QByteArray("\x81\xcf\xff\xff\xff\xff\xff\xff\xff\xff\x01"));
    QTest::newRow("maps of one with nil for a key") << s_list("\x81\xc0\x01");
    QTest::newRow("maps of one with a list for a key") << s_list("\x81\x90\x01");
    QTest::newRow("unknown extensions") << s_list(QByteArray("\xd4\x11\x00", 3));
    QTest::newRow("lists deep within lists") << s_deep("\x91", "\x01");
    QTest::newRow("maps deep within maps") << s_deep("\x81\x01", "\x01");
    QTest::newRow("maps deep within maps, without a text for a key") << s_deep("\x81\xc0", "\x01");
    QTest::newRow("one map") << QByteArray("\xdf") + s_be32(count) + s_numbered("\xa6", "\x01");
    QTest::newRow("values one after another") << QByteArray(count, '\x01');
    QTest::newRow("one long text") << "\xdb" + s_be32(count) + QByteArray(count, 'x');
}

void TestDecodedSize::messageTakesNoMoreThanSaid()
{
    QFETCH(QByteArray, message);
    const qint64 before = s_heap();
    const QVariant value = MsgPack::unpack(message);
    const qint64 taken = s_heap() - before;
    QVERIFY(value.isValid());
    if (heapIsCounted) {
        QVERIFY2(taken <= unpackedSize(message) + 4096, qPrintable(QString::number(taken)));
        QVERIFY2(unpackedSize(message) < 4 * taken + 4096, qPrintable(QString::number(taken)));
    }
}

void TestDecodedSize::schemaTakesNoMoreThanSaid_data()
{
    QTest::addColumn<QByteArray>("text");

    QTest::newRow("numbers") << "[" + QByteArray("1,").repeated(count) + "1]";
    QTest::newRow("texts") << R"(["")" + QByteArray(R"(,"abc")").repeated(count) + "]";
    QTest::newRow("empty lists") << "[[]" + QByteArray(",[]").repeated(count) + "]";
    QTest::newRow("empty objects in a list") << "[{}" + QByteArray(",{}").repeated(count) + "]";
    QTest::newRow("empty objects") << "{" + s_numbered("\"", "\":{},") + R"("":{}})";
    QTest::newRow("members") << "{" + s_numbered("\"", "\":1,") + R"("":1})";
    QTest::newRow("members with texts") << "{" + s_numbered("\"", R"(":"a",)") + R"("":"a"})";
    QTest::newRow("leaves") << "{" + s_numbered("\"", R"(":{"@mac":1},)") + R"("":1})";
    QTest::newRow("leaves in a leaf") << R"({"@mac":1,)" + s_numbered("\"", R"(":{"@mac":1},)") + R"("":1})";
    QTest::newRow("members of one leaf") << R"({"@mac":1,)" + s_numbered("\"", "\":1,") + R"("":1})";
    QTest::newRow("lists deep within lists")
        << QByteArray("[").repeated(1000) + QByteArray("]").repeated(1000);
    QTest::newRow("objects deep within objects")
        << QByteArray(R"({"":)").repeated(1000) + "1" + QByteArray("}").repeated(1000);
    QTest::newRow("leaves deep within leaves")
        << QByteArray(R"({"@mac":1,"a":)").repeated(1000) + "1" + QByteArray("}").repeated(1000);
    QTest::newRow("one long text") << R"({"a":")" + QByteArray(count, 'x') + R"("})";
    QTest::newRow("one long text that is not Latin")
        << R"({"a":")" + QByteArray("\xe2\x82\xac").repeated(count) + R"("})";
}

void TestDecodedSize::schemaTakesNoMoreThanSaid()
{
    QFETCH(QByteArray, text);
    const qint64 before = s_heap();
    SchemaConverter converter;
    const QJsonDocument document = QJsonDocument::fromJson(text);
    QVERIFY(!document.isNull());
    converter.loadSchema(document);
    // A list makes no schema; its values are there until that is known.
    const QVariant list = document.isArray() ? document.toVariant() : QVariant();
    const qint64 taken = s_heap() - before;
    if (heapIsCounted) {
        QVERIFY2(taken <= parsedSize(text) + 4096, qPrintable(QString::number(taken)));
    }
}

void TestDecodedSize::honestInputIsFarBelowTheLimits_data()
{
    QTest::addColumn<qint64>("size");

    QByteArray leaves;
    for (int i = 0; i < 2048 * 8; ++i) {
        leaves += QByteArray(i == 0 ? "" : ",") + '"' + QByteArray::number(i) +
                  R"(":{"@mac":1,"@cmd":2,"@format":"C","@skip":3})";
    }
    QTest::newRow("a schema with a leaf for every byte of every frame") << parsedSize("{" + leaves + "}");
    QTest::newRow("a write of all of them")
        << unpackedSize(QByteArray("\xdf") + s_be32(count) + s_numbered("\xa6", "\xcd\x12\x34"));
    QTest::newRow("a packed value of a megabyte")
        << unpackedSize("\xc6" + s_be32(1 << 20) + QByteArray(1 << 20, 'x'));
}

void TestDecodedSize::honestInputIsFarBelowTheLimits()
{
    QFETCH(qint64, size);
    QVERIFY2(size < 32 * 1024 * 1024, qPrintable(QString::number(size)));
}

void TestDecodedSize::everyFormatIsSteppedOverAsItIsDecoded_data()
{
    QTest::addColumn<QByteArray>("item");

    for (int first = 0; first <= 0xff; ++first) {
        const bool isFixstr = first >= 0xa0 && first <= 0xbf;
        const bool isContainer = (first >= 0x80 && first <= 0x9f) || (first >= 0xdc && first <= 0xdf);
        // Behind a first byte with a length, zeros make it 0 and the payload empty.
        static const int behind[32] = {0, 0, 0, 0, 1, 2, 4, 2, 3,  5, 4, 8, 1, 2, 4, 8,
                                       1, 2, 4, 8, 2, 3, 5, 9, 17, 1, 2, 4, 2, 4, 2, 4};
        const int size = isFixstr ? first & 0x1f : first >= 0xc0 && first <= 0xdf ? behind[first - 0xc0] : 0;
        if (!isContainer || first >= 0xdc || (first & 0x0f) == 0) {
            QTest::addRow("%02x", first) << QByteArray(1, static_cast<char>(first)) + QByteArray(size, '\0');
        }
    }
    QTest::newRow("str 8 with a text") << QByteArray("\xd9\x02xy");
    QTest::newRow("str 16 with a text") << QByteArray("\xda\x00\x02xy", 5);
    QTest::newRow("str 32 with a text") << QByteArray("\xdb\x00\x00\x00\x02xy", 7);
    QTest::newRow("bin 8 with bytes") << QByteArray("\xc4\x02xy");
    QTest::newRow("bin 16 with bytes") << QByteArray("\xc5\x00\x02xy", 5);
    QTest::newRow("bin 32 with bytes") << QByteArray("\xc6\x00\x00\x00\x02xy", 7);
    QTest::newRow("ext 8 with bytes") << QByteArray("\xc7\x02\x11xy");
    QTest::newRow("ext 16 with bytes") << QByteArray("\xc8\x00\x02\x11xy", 6);
    QTest::newRow("ext 32 with bytes") << QByteArray("\xc9\x00\x00\x00\x02\x11xy", 8);
}

// A thousand items and the marker behind them cost what each costs by itself only if each is stepped over
// whole.
void TestDecodedSize::everyFormatIsSteppedOverAsItIsDecoded()
{
    QFETCH(QByteArray, item);
    const QByteArray marker("\xa3xyz");
    QCOMPARE(unpackedSize(item.repeated(1000) + marker), 1000 * unpackedSize(item) + unpackedSize(marker));
    QVERIFY(unpackedSize(item) > 0);
    const QVariantList decoded = MsgPack::unpack(item + marker).toList();
    QCOMPARE(decoded.size(), 2);
    QCOMPARE(decoded.at(1).toString(), QStringLiteral("xyz"));
}

void TestDecodedSize::whatIsAnnouncedAndNotThereIsNotCounted_data()
{
    QTest::addColumn<QByteArray>("message");

    QTest::newRow("nothing") << QByteArray();
    QTest::newRow("a list of 2^32 - 1") << QByteArray("\xdd\xff\xff\xff\xff");
    QTest::newRow("a map of 2^32 - 1") << QByteArray("\xdf\xff\xff\xff\xff");
    QTest::newRow("a text of 2^32 - 1 bytes") << QByteArray("\xdb\xff\xff\xff\xffx");
    QTest::newRow("a byte array of 2^32 - 1 bytes") << QByteArray("\xc6\xff\xff\xff\xffx");
    QTest::newRow("an extension of 2^32 - 1 bytes") << QByteArray("\xc9\xff\xff\xff\xff\x11x");
    for (int first = 0xc0; first <= 0xdf; ++first) {
        QTest::addRow("only the byte %02x", first) << QByteArray(1, static_cast<char>(first));
    }
}

void TestDecodedSize::whatIsAnnouncedAndNotThereIsNotCounted()
{
    QFETCH(QByteArray, message);
    // In a block of its own size, whose end the sanitizer watches.
    const std::vector<char> bytes(message.cbegin(), message.cend());
    QVERIFY(unpackedSize(QByteArray::fromRawData(bytes.data(), static_cast<int>(bytes.size()))) < 256);
}

void TestDecodedSize::textsInSchemasAreNotTakenApart_data()
{
    QTest::addColumn<QByteArray>("text");

    QTest::newRow("brackets") << QByteArray(R"("[[[[{{{{")");
    QTest::newRow("commas and colons") << QByteArray(R"(",,,,::::")");
    QTest::newRow("behind an escaped quote") << QByteArray(R"("\",,,,,,")");
    QTest::newRow("behind an escaped backslash and quote") << QByteArray(R"("\\\",,,,")");
    QTest::newRow("not closed") << QByteArray(R"("[[[[,,,,)");
}

void TestDecodedSize::textsInSchemasAreNotTakenApart()
{
    QFETCH(QByteArray, text);
    const QByteArray plain = '"' + QByteArray(text.size() - 2, 'x') + '"';
    QCOMPARE(parsedSize(text), parsedSize(plain));
    // And the end of a text is found: what stands behind it counts.
    if (text.endsWith('"')) {
        QCOMPARE(parsedSize(text + ",["), parsedSize(plain + ",["));
        QVERIFY(parsedSize(text + "\\\"[") > parsedSize(text + "\\\"x") - 1);
        QVERIFY(parsedSize(text + ",[") > parsedSize(plain + "xx"));
    }
}

QTEST_APPLESS_MAIN(TestDecodedSize)
#include "tst_decodedsize.moc"
