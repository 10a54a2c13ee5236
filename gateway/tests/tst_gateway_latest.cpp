#include "gateway/latest.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

using Gateway::Latest;

using Published = QList<QPair<QString, QByteArray>>;

class tst_Gateway_latest : public QObject
{
    Q_OBJECT

private slots:
    void init() { m_published.clear(); }
    void whatChangesIsPublishedAtOnce();
    void whatRestsIsPublishedAfterwards();
    void whatChangesBackIsNotPublished();
    void nobodyHearsBeforeTheBeginning();
    void theBeginningTellsEverything();
    void whatIsMeantIsPublished();
    void whatDoesNotCountIsNotPublished();
    void leavesOfAnotherSchemaBeginAnew();
    void strangersValuesAreLeftOut();
    void withoutASchemaEverythingIsPublished();

private:
    static std::shared_ptr<const Vorbel::Meanings> meanings(const char *schema)
    {
        return std::make_shared<Vorbel::Meanings>(QJsonDocument::fromJson(schema).object());
    }

    Published m_published;
    Latest::Publish m_publish = [this](const QStringList &names, const QByteArray &value) {
        m_published << qMakePair(names.join('|'), value);
    };
};

constexpr int s_never = 3'600'000;

void tst_Gateway_latest::whatChangesIsPublishedAtOnce()
{
    Latest latest(0, m_publish);
    latest.begin();
    latest.heard(QVariantMap{{"a", QVariantMap{{"b", 1U}, {"c", true}}}});
    latest.heard(QVariantMap{{"a", QVariantMap{{"b", 1U}, {"c", false}}}});
    latest.heard(QVariantMap{{"a", QVariantMap{{"b", 2U}}}});
    QCOMPARE(m_published, Published({{"a|b", "1"}, {"a|c", "true"}, {"a|c", "false"}, {"a|b", "2"}}));
}

void tst_Gateway_latest::whatRestsIsPublishedAfterwards()
{
    Latest latest(50, m_publish);
    latest.begin();
    for (unsigned value = 1; value <= 5; ++value) {
        latest.heard(QVariantMap{{"a", value}});
    }
    QCOMPARE(m_published, Published({{"a", "1"}}));
    QTRY_COMPARE(m_published.size(), 2);
    QCOMPARE(m_published.last(), qMakePair(QString("a"), QByteArray("5")));
    QTest::qWait(150);
    latest.heard(QVariantMap{{"a", 6U}}); // it has rested
    QCOMPARE(m_published.size(), 3);
}

void tst_Gateway_latest::whatChangesBackIsNotPublished()
{
    Latest latest(50, m_publish);
    latest.begin();
    latest.heard(QVariantMap{{"a", 1U}});
    latest.heard(QVariantMap{{"a", 2U}});
    latest.heard(QVariantMap{{"a", 1U}});
    QTest::qWait(150);
    QCOMPARE(m_published.size(), 1);
}

void tst_Gateway_latest::nobodyHearsBeforeTheBeginning()
{
    Latest latest(0, m_publish);
    latest.heard(QVariantMap{{"a", 1U}});
    QVERIFY(m_published.isEmpty());
    latest.begin();
    QCOMPARE(m_published, Published({{"a", "1"}}));
    latest.end();
    latest.heard(QVariantMap{{"a", 2U}});
    QCOMPARE(m_published.size(), 1);
}

void tst_Gateway_latest::theBeginningTellsEverything()
{
    Latest latest(0, m_publish);
    latest.begin();
    latest.heard(QVariantMap{{"a", 1U}, {"b", 2U}});
    m_published.clear();
    latest.end();
    latest.begin();
    QCOMPARE(m_published, Published({{"a", "1"}, {"b", "2"}}));
}

void tst_Gateway_latest::whatIsMeantIsPublished()
{
    Latest latest(s_never, m_publish);
    latest.setMeanings(
        meanings(R"({"t":{"@mac":1,"@cmd":1,"@format":"C","offset":-40,"labels":{"0":"cold"}}})"));
    latest.begin();
    latest.heard(QVariantMap{{"t", 0U}});
    QCOMPARE(m_published, Published({{"t", "-40"}}));
}

void tst_Gateway_latest::whatDoesNotCountIsNotPublished()
{
    Latest latest(0, m_publish);
    latest.setMeanings(meanings(R"({"page":{"@mac":1,"@cmd":1,"@format":"C"},
        "x":{"@mac":1,"@cmd":1,"@format":"C","@skip":1,"when":{"path":"page","is":2}}})"));
    latest.begin();
    latest.heard(QVariantMap{{"page", 1U}, {"x", 7U}});
    QCOMPARE(m_published, Published({{"page", "1"}}));
    latest.heard(QVariantMap{{"page", 2U}, {"x", 7U}});
    QCOMPARE(m_published, Published({{"page", "1"}, {"page", "2"}, {"x", "7"}}));
}

void tst_Gateway_latest::leavesOfAnotherSchemaBeginAnew()
{
    Latest latest(0, m_publish);
    latest.setMeanings(
        meanings(R"({"a":{"@mac":1,"@cmd":1,"@format":"C"},"b":{"@mac":1,"@cmd":1,"@format":"C"},
        "c":{"@mac":1,"@cmd":1,"@format":"C"}})"));
    latest.begin();
    latest.heard(QVariantMap{{"a", 1U}, {"b", 1U}});
    m_published.clear();
    latest.setMeanings(meanings(R"({"a":{"@mac":1,"@cmd":1,"@format":"C","offset":1}})"));
    QVERIFY(m_published.isEmpty());
    latest.heard(QVariantMap{{"a", 1U}});
    QCOMPARE(m_published.last(), qMakePair(QString("a"), QByteArray("2")));
}

void tst_Gateway_latest::strangersValuesAreLeftOut()
{
    Latest latest(0, m_publish);
    latest.setMeanings(meanings(R"({"a":{"@mac":1,"@cmd":1,"@format":"C"}})"));
    latest.begin();
    latest.heard(QVariantMap{{"z", 1U}, {"a", QVariantMap{{"b", 1U}}}});
    QVERIFY(m_published.isEmpty());
}

void tst_Gateway_latest::withoutASchemaEverythingIsPublished()
{
    Latest latest(0, m_publish);
    latest.begin();
    latest.heard(QVariantMap{{"x.y", QVariant::fromValue(QVector<float>{0.9F})}, {"", 1U}});
    latest.heard(5U);
    QCOMPARE(m_published, Published({{"", "1"}, {"x.y", "[0.9]"}, {"", "5"}}));
}

QTEST_GUILESS_MAIN(tst_Gateway_latest)
#include "tst_gateway_latest.moc"
