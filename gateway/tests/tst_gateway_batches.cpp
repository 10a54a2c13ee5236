#include "gateway/batches.h"
#include "gateway/plainjson.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

#include <cmath>
#include <limits>

using Gateway::Batches;
using Gateway::LeafTree;
using Gateway::plainJson;

class tst_Gateway_batches : public QObject
{
    Q_OBJECT

private slots:
    void init() { m_published.clear(); }
    void valuesAsJson_data();
    void valuesAsJson();
    void leavesSayHowManyDigitsCount();
    void whatIsMeantHasTenDigits();
    void readsOneValue_data();
    void readsOneValue();
    void aBatchHasMessagesAndTheirTimes();
    void batchesAreNumberedWithoutAGap();
    void aBatchEndsBeforeItIsTooLarge();
    void aMessageThatIsTooLargeIsABatchOfItsOwn();
    void eachMessageIsABatchWithoutAnInterval();
    void aBatchEndsAfterItsInterval();
    void nothingIsPublishedOfNothing();

private:
    QList<QByteArray> m_published;
    Batches::Publish m_publish = [this](const QByteArray &batch) {
        m_published << batch;
    };
};

void tst_Gateway_batches::valuesAsJson_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QByteArray>("json");
    QTest::newRow("unsigned") << QVariant(4294967295U) << QByteArray("4294967295");
    QTest::newRow("negative") << QVariant(-32768) << QByteArray("-32768");
    QTest::newRow("long") << QVariant(1795371509018LL) << QByteArray("1795371509018");
    QTest::newRow("flags") << QVariant(QVariantList{true, false}) << QByteArray("[true,false]");
    QTest::newRow("single precision") << QVariant(0.9F) << QByteArray("0.9");
    QTest::newRow("double precision") << QVariant(0.1) << QByteArray("0.1");
    QTest::newRow("whole float") << QVariant(1000000.0F) << QByteArray("1000000");
    QTest::newRow("tiny") << QVariant(1e-7F) << QByteArray("1e-07");
    QTest::newRow("not a number") << QVariant(std::nanf("")) << QByteArray("null");
    QTest::newRow("infinite") << QVariant(-std::numeric_limits<float>::infinity()) << QByteArray("null");
    QTest::newRow("nothing") << QVariant() << QByteArray("null");
    QTest::newRow("array") << QVariant::fromValue(QVector<short>{1, -2}) << QByteArray("[1,-2]");
    QTest::newRow("array of floats") << QVariant::fromValue(QVector<float>{0.9F, 2}) << QByteArray("[0.9,2]");
    QTest::newRow("empty map") << QVariant(QVariantMap()) << QByteArray("{}");
    QTest::newRow("nested") << QVariant(QVariantMap{{"b", QVariantMap{{"c", 1U}}}, {"a", 2U}})
                            << QByteArray(R"({"a":2,"b":{"c":1}})");
    QTest::newRow("names") << QVariant(QVariantMap{{"\"\\\n\x01ö", 1U}})
                           << QByteArray(R"({"\"\\\n\u0001ö":1})");
    QTest::newRow("quote") << QVariant("a\"b") << QByteArray(R"("a\"b")");
    QTest::newRow("backslash") << QVariant("a\\b") << QByteArray(R"("a\\b")");
    QTest::newRow("control character") << QVariant("a\x1f") << QByteArray(R"("a\u001f")");
    QTest::newRow("plain text") << QVariant(" a~") << QByteArray(R"(" a~")");
    QTest::newRow("of two bytes") << QVariant("\u00e9") << QByteArray("\"\u00e9\"");
    QTest::newRow("smallest") << QVariant(std::numeric_limits<qlonglong>::min())
                              << QByteArray("-9223372036854775808");
    QTest::newRow("largest") << QVariant(std::numeric_limits<qulonglong>::max())
                             << QByteArray("18446744073709551615");
}

void tst_Gateway_batches::valuesAsJson()
{
    QFETCH(QVariant, value);
    QTEST(plainJson(value), "json");
}

LeafTree s_treeOf(const char *schema)
{
    return Gateway::leafTreeOf(Vorbel::Meanings(QJsonDocument::fromJson(schema).object()));
}

void tst_Gateway_batches::leavesSayHowManyDigitsCount()
{
    const LeafTree tree = s_treeOf(R"({"a":{"b":{"@mac":1,"@cmd":1,"@format":"S","@factor":1000}}})");
    QByteArray text;
    Gateway::appendJson(text, QVariantMap{{"a", QVariantMap{{"b", 3.9320002F}, {"c", 3.9320002F}}}}, &tree);
    QCOMPARE(text, QByteArray("{\"a\":{\"b\":3.932,\"c\":3.9320002}}"));
    text.clear();
    const QVariant array = QVariant::fromValue(QVector<float>{3.9320002F, 3.9310002F});
    Gateway::appendJson(text, array, tree.member("a")->member("b"));
    QCOMPARE(text, QByteArray("[3.932,3.931]"));
}

void tst_Gateway_batches::whatIsMeantHasTenDigits()
{
    const char schema[] = R"({"t":{"@mac":1,"@cmd":1,"@format":"C","scale":0.1,"offset":-40}})";
    const auto leaf = s_treeOf(schema).member("t")->leaf;
    QCOMPARE(Gateway::meantJson(3U, leaf), QByteArray("-39.7"));
    QCOMPARE(Gateway::meantJson(QVariant::fromValue(QVector<unsigned char>{3, 6}), leaf),
             QByteArray("[-39.7,-39.4]"));
    QCOMPARE(Gateway::meantJson(0.9F, nullptr), QByteArray("0.9"));
}

void tst_Gateway_batches::readsOneValue_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("error");
    QTest::newRow("number") << QByteArray(" 1.5 ") << QVariant(1.5) << "";
    QTest::newRow("text") << QByteArray("\"on\"") << QVariant("on") << "";
    QTest::newRow("flag") << QByteArray("true") << QVariant(true) << "";
    QTest::newRow("object") << QByteArray(R"({"a":true})") << QVariant(QVariantMap{{"a", true}}) << "";
    QTest::newRow("two") << QByteArray("1,2") << QVariant() << "not one value";
    QTest::newRow("none") << QByteArray("") << QVariant() << "not one value";
    QTest::newRow("another list") << QByteArray("1],[2") << QVariant()
                                  << "not JSON: garbage at the end of the document";
    QTest::newRow("bare") << QByteArray("on") << QVariant() << "not JSON: illegal number";
    QTest::newRow("deep") << QByteArray(100000, '[') << QVariant() << "not JSON: too deeply nested document";
}

void tst_Gateway_batches::readsOneValue()
{
    QFETCH(QByteArray, text);
    const Gateway::ReadJson read = Gateway::readPlainJson(text);
    QTEST(read.error, "error");
    QTEST(read.value, "value");
}

void tst_Gateway_batches::aBatchHasMessagesAndTheirTimes()
{
    Batches batches(7, 60'000, 65536, m_publish);
    batches.append(QVariantMap{{"a", 1U}}, 5000);
    batches.append(QVariantMap{{"b", true}}, 5020);
    QVERIFY(m_published.isEmpty());
    batches.flush();
    QCOMPARE(m_published,
             QList<QByteArray>{"{\"boot\":7,\"n\":0,\"t\":5000,\"v\":[[0,{\"a\":1}],[20,{\"b\":true}]]}"});
}

void tst_Gateway_batches::batchesAreNumberedWithoutAGap()
{
    Batches batches(7, 60'000, 65536, m_publish);
    for (unsigned message = 0; message < 3; ++message) {
        batches.append(message, message);
        batches.flush();
    }
    QCOMPARE(m_published, QList<QByteArray>({"{\"boot\":7,\"n\":0,\"t\":0,\"v\":[[0,0]]}",
                                             "{\"boot\":7,\"n\":1,\"t\":1,\"v\":[[0,1]]}",
                                             "{\"boot\":7,\"n\":2,\"t\":2,\"v\":[[0,2]]}"}));
    QCOMPARE(batches.count(), 3);
}

void tst_Gateway_batches::aBatchEndsBeforeItIsTooLarge()
{
    const QByteArray two = R"({"boot":7,"n":0,"t":0,"v":[[0,1],[10,2]]})";
    for (const int room : {0, -1}) {
        m_published.clear();
        Batches batches(7, 60'000, two.size() + room, m_publish);
        batches.append(1U, 0);
        batches.append(2U, 10);
        batches.append(3U, 20);
        QCOMPARE(m_published.first(),
                 room == 0 ? two : QByteArray("{\"boot\":7,\"n\":0,\"t\":0,\"v\":[[0,1]]}"));
        batches.flush();
        QVERIFY(m_published.last().endsWith("[0,3]]}"));
    }
}

void tst_Gateway_batches::aMessageThatIsTooLargeIsABatchOfItsOwn()
{
    Batches batches(7, 60'000, 60, m_publish);
    const QString large(100, 'x');
    batches.append(1U, 0);
    batches.append(large, 5);
    batches.append(2U, 6);
    batches.flush();
    QCOMPARE(m_published.size(), 3);
    QCOMPARE(m_published[1],
             QByteArray("{\"boot\":7,\"n\":1,\"t\":5,\"v\":[[0,\"") + large.toUtf8() + "\"]]}");
}

void tst_Gateway_batches::eachMessageIsABatchWithoutAnInterval()
{
    Batches batches(7, 0, 65536, m_publish);
    batches.append(1U, 5);
    batches.append(2U, 6);
    QCOMPARE(m_published, QList<QByteArray>({"{\"boot\":7,\"n\":0,\"t\":5,\"v\":[[0,1]]}",
                                             "{\"boot\":7,\"n\":1,\"t\":6,\"v\":[[0,2]]}"}));
}

void tst_Gateway_batches::aBatchEndsAfterItsInterval()
{
    Batches batches(7, 20, 65536, m_publish);
    batches.append(1U, 5);
    QVERIFY(m_published.isEmpty());
    QTRY_COMPARE(m_published.size(), 1);
    batches.append(2U, 6);
    QTRY_COMPARE(m_published.size(), 2);
}

void tst_Gateway_batches::nothingIsPublishedOfNothing()
{
    Batches batches(7, 1, 65536, m_publish);
    batches.flush();
    QTest::qWait(10);
    QVERIFY(m_published.isEmpty());
}

QTEST_GUILESS_MAIN(tst_Gateway_batches)
#include "tst_gateway_batches.moc"
