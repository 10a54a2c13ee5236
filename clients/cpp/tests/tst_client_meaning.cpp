// What readings mean, where the cases that all clients share leave something to each, and what becomes of the
// last ones.
#include "vorbel/check.h"
#include "vorbel/fields_p.h"
#include "vorbel/lastreadings_p.h"
#include "vorbel/meaning.h"
#include "vorbel/paths.h"
#include "vorbel/writing.h"

#include <QJsonArray>
#include <QtTest>

#include <cmath>

using namespace Vorbel;

namespace
{

QJsonObject s_leaf(const QJsonObject &more = {})
{
    QJsonObject leaf{{"@mac", 5}, {"@cmd", 2}, {"@format", "C"}};
    for (auto member = more.begin(); member != more.end(); ++member) {
        leaf.insert(member.key(), member.value());
    }
    return leaf;
}

QJsonObject s_when(const QString &path, double is, int skip = 1)
{
    return s_leaf({{"@skip", skip}, {"when", QJsonObject{{"path", path}, {"is", is}}}});
}

QStringList s_texts(const QVector<Problem> &problems)
{
    QStringList texts;
    for (const Problem &problem : problems) {
        texts << problem.text();
    }
    return texts;
}

// The raw numbers by path.
QVariantMap s_raw(const Message &message)
{
    QVariantMap raw;
    for (const Written &each : message.written) {
        raw.insert(each.path(), each.raw);
    }
    return raw;
}

Readings s_always(const QVariant &reading)
{
    return [reading](const QString &) {
        return reading;
    };
}

QVariant s_shorts(const QVector<ushort> &elements)
{
    return QVariant::fromValue(elements);
}

// Fields that share bytes with others, in all ways.
const QJsonObject s_sharing{{"a", s_leaf({{"bits", QJsonArray{0, 5}}})},
                            {"b", s_leaf({{"bits", QJsonArray{4, 4}}})},
                            {"far", s_leaf({{"@skip", 4}, {"bits", QJsonArray{0, 5}}})},
                            {"near", s_leaf({{"@format", "S"}, {"@skip", 3}, {"bits", QJsonArray{8, 5}}})},
                            {"byte", s_leaf({{"@cmd", 3}})},
                            {"flag", s_leaf({{"@cmd", 3}, {"bits", QJsonArray{7, 1}}})},
                            {"one", s_leaf({{"@cmd", 4}})},
                            {"two", s_leaf({{"@cmd", 4}})},
                            {"zero", s_leaf({{"@cmd", 4}, {"bits", QJsonArray{0, 1}}})},
                            {"single", s_leaf({{"@cmd", 5}, {"@format", "f"}})},
                            {"sign", s_leaf({{"@cmd", 5}, {"@skip", 3}, {"bits", QJsonArray{7, 1}}})},
                            {"other", s_leaf({{"@mac", 6}, {"bits", QJsonArray{0, 5}}})}};

} // namespace

class TestClientMeaning : public QObject
{
    Q_OBJECT

private slots:
    // Members
    void membersOfALeaf();
    void defaults();
    void membersThatDoNotFit();
    void membersAreNoNodes();
    void wordsAboutMembers_data();
    void wordsAboutMembers();
    void wordsAboutSelectors();

    // Meanings
    void flatMeanings();
    void arrays();
    void withoutALeaf();
    void readingsOfAnotherSchema();
    void emptyLabels();
    void decimalsBeyondTheirRange();
    void wholeNumbersKeepTheirDigits();
    void whatNeverCounts_data();
    void whatNeverCounts();

    // Writing
    void wordsAboutValues_data();
    void wordsAboutValues();
    void wordsAboutWrittenFields();
    void labelsAreWrittenAsTheirFields();
    void bytesThatAreShared();
    void bytesThatAreSharedOtherwise_data();
    void bytesThatAreSharedOtherwise();
    void readingsThatAreNone();
    void selectorsGoOutWithAValue();

    // Last readings
    void lastReadings();
    void lastReadingsThatCount();
    void whatIsReadAfterAWrite_data();
    void whatIsReadAfterAWrite();
    void lastReadingsAreOverwritten();
};

void TestClientMeaning::membersOfALeaf()
{
    const Members members = membersOf(s_leaf({{"title", "Drive"},
                                              {"description", "behind the gear"},
                                              {"unit", "V"},
                                              {"decimals", 2},
                                              {"bits", QJsonArray{4, 3}},
                                              {"swapped", true},
                                              {"signed", true},
                                              {"float", true},
                                              {"scale", 0.5},
                                              {"offset", -40},
                                              {"labels", QJsonObject{{"10", "ten"}, {"-1", "fault"}}},
                                              {"min", -1},
                                              {"max", 1},
                                              {"warn", QJsonArray{QJsonValue(), 5}},
                                              {"alarm", QJsonArray{-5, QJsonValue()}},
                                              {"readonly", true},
                                              {"initial", 161},
                                              {"when", QJsonObject{{"path", "page"}, {"is", 2}}}}));
    QCOMPARE(members.title, QString("Drive"));
    QCOMPARE(members.description, QString("behind the gear"));
    QCOMPARE(members.unit, QString("V"));
    QVERIFY(members.decimals == 2);
    QVERIFY(members.bits && members.bits->lowest == 4 && members.bits->count == 3);
    QVERIFY(members.swapped && members.isSigned && members.isFloat && members.readonly);
    QVERIFY(members.scale == 0.5 && members.offset == -40 && members.isScaled());
    QCOMPARE(members.labelList(), (QStringList{"fault", "ten"}));
    QVERIFY(members.bounds.low == -1 && members.bounds.high == 1);
    QVERIFY(members.warn.low == -HUGE_VAL && members.warn.high == 5);
    QVERIFY(members.alarm.low == -5 && members.alarm.high == HUGE_VAL);
    QVERIFY(members.initial == 161);
    QVERIFY(members.when && members.when->path == "page" && members.when->is == 2);
}

void TestClientMeaning::defaults()
{
    const Members members = membersOf(s_leaf({{"mine", 5}}));
    QVERIFY(members.title.isEmpty() && members.description.isEmpty() && members.unit.isEmpty());
    QVERIFY(!members.decimals && !members.bits && !members.initial && !members.when);
    QVERIFY(!members.isArranged() && !members.isScaled() && !members.readonly);
    QVERIFY(members.scale == 1 && members.offset == 0 && members.labels.isEmpty());
    for (const Limits &limits : {members.bounds, members.warn, members.alarm}) {
        QVERIFY(!limits.isBeyond(1e308) && !limits.isBeyond(-1e308) && !limits.isBeyond(std::nan("")));
    }
}

void TestClientMeaning::membersThatDoNotFit()
{
    const Members members = membersOf(s_leaf({{"unit", 5},
                                              {"decimals", 16},
                                              {"bits", QJsonArray{1}},
                                              {"scale", 0},
                                              {"labels", QJsonObject{{"x", "y"}}},
                                              {"warn", QJsonArray{1, "2"}},
                                              {"initial", 0.5},
                                              {"when", QJsonObject{{"path", 5}, {"is", 2}}}}));
    QVERIFY(members.unit.isEmpty() && !members.decimals && !members.bits && members.scale == 1);
    QVERIFY(members.labels.isEmpty() && members.warn.low == -HUGE_VAL && !members.initial && !members.when);
    for (const QJsonArray &bits : {QJsonArray{7, 1e300}, QJsonArray{-1, 2}, QJsonArray{2, 0}}) {
        const Leaf leaf = leafOf({"a"}, s_leaf({{"bits", bits}}));
        QVERIFY(leaf.isArranged() && leaf.bits().lowest == 0 && leaf.bits().count == 8 && !leaf.isPart());
    }
}

void TestClientMeaning::membersAreNoNodes()
{
    const QJsonObject labels{{"0", "off"}};
    const QJsonObject named{{"labels", s_leaf()}, {"when", s_leaf()}, {"unit", s_leaf()}};
    QCOMPARE(leaves({{"a", s_leaf({{"labels", labels}})}}).keys(), QStringList{"a"});
    QCOMPARE(leaves(named).keys(), (QStringList{"labels", "unit", "when"}));
    QCOMPARE(leaves({{"a", s_leaf(named)}}).keys(), (QStringList{"a", "a.labels", "a.unit", "a.when"}));
    QVERIFY(leaves({{"a", s_leaf(named)}})["a"].members.labels.isEmpty());
    QCOMPARE(nodeNames({{"labels", labels}}), QStringList{"labels"}); // of a group
    QVERIFY(hasNode({{"labels", labels}}, "labels") && !hasNode(s_leaf({{"labels", labels}}), "labels"));
    QVERIFY(!hasNode(s_leaf(), "@mac") && !hasNode(s_leaf(), "none"));
}

void TestClientMeaning::wordsAboutMembers_data()
{
    QTest::addColumn<QJsonObject>("members");
    QTest::addColumn<QString>("text");

    const auto add = [](const char *name, const QJsonObject &members, const char *text) {
        QTest::newRow(name) << members << text;
    };
    add("text", {{"unit", 5}}, "a: \"unit\" is 5: it must be a text");
    add("range", {{"decimals", 16}}, "a: \"decimals\" is 16: it must be from 0 to 15");
    add("bits", {{"bits", 4}}, "a: \"bits\" is 4: it must be [the lowest bit, how many]");
    add("limits", {{"warn", QJsonArray{1}}},
        "a: \"warn\" is [1]: it must be [low, high], each a number or null");
    add("labels", {{"labels", QJsonObject{{"x", "y"}}}},
        "a: \"labels\" is {\"x\":\"y\"}: it must be a map from whole numbers, as texts, to texts");
    add("labels in two lines", {{"labels", QJsonObject{{"1\n", "y"}}}},
        "a: \"labels\" is {\"1\\n\":\"y\"}: it must be a map from whole numbers, as texts, to texts");
    add("no format", {{"@format", "d"}, {"bits", QJsonArray{0, 1}}, {"initial", 0}},
        "a: \"@format\" is \"d\": it must be one of C c S s Q q I i f p; the daemon neither reads nor writes "
        "any "
        "other");
    add("selector", {{"when", 1}}, "a: \"when\" is 1: it must be {\"path\": a text, \"is\": a whole number}");
    add("no scale", {{"scale", 0}}, "a: \"scale\" is 0: all fields would mean the same");
    add("bits that it does not have", {{"bits", QJsonArray{1, 8}}},
        "a: \"bits\" is [1,8]: the reading has the bits 0 to 7");
    add("bounds", {{"min", 2}, {"max", 1.5}}, "a: \"min\" is above \"max\": 2 and 1.5");
    add("no whole number", {{"@factor", 2}, {"swapped", true}, {"bits", QJsonArray{0, 1}}, {"@format", "S"}},
        "a: \"bits\", \"swapped\" needs whole numbers for readings, without a factor and \"@asBool\"");
    add("a float of a byte", {{"float", true}}, "a: \"float\" needs 4 bytes, the format \"C\" has 1");
    add("bits of a float", {{"float", true}, {"signed", true}, {"@format", "I"}},
        "a: \"float\" takes all bits as they are: \"bits\" and \"signed\" do not go with it");
    add("swapped byte", {{"swapped", true}}, "a: warning: \"swapped\" has no effect on a single byte");
    add("initial", {{"initial", 1}},
        "a: warning: \"initial\" has no effect without \"bits\" that leave others over");
    add("labels alike", {{"labels", QJsonObject{{"0", "x"}, {"1", "y"}, {"2", "x"}, {"3", "x"}}}},
        "a: \"x\" in \"labels\" stands for several fields");
}

void TestClientMeaning::wordsAboutMembers()
{
    QFETCH(QJsonObject, members);
    QFETCH(QString, text);
    QCOMPARE(s_texts(check({{"a", s_leaf(members)}})), QStringList{text});
}

void TestClientMeaning::wordsAboutSelectors()
{
    const auto texts = [](const QJsonObject &leaf) {
        return s_texts(check({{"a", s_when("p", 1)}, {"p", leaf}}));
    };
    QCOMPARE(texts(s_leaf()), QStringList());
    QCOMPARE(texts(s_when("p", 1, 0)), (QStringList{"a: \"when\" names p, and that leads back",
                                                    "p: \"when\" names p, and that leads back"}));
    QCOMPARE(texts({}), QStringList{"a: \"when\" names \"p\", which is no leaf"});
    QCOMPARE(texts(s_leaf({{"@mac", 6}})),
             QStringList{"a: \"when\" names p, which is read from other frames"});
    QCOMPARE(texts(s_leaf({{"@observe", true}})),
             QStringList{"a: \"when\" names p, which is not in every message"});
    QJsonObject gathered = s_when("p", 1);
    gathered.insert("@flushSize", 2);
    QCOMPARE(
        s_texts(check({{"a", gathered}, {"p", s_leaf()}})),
        QStringList{"a: \"when\" does not go with \"@observe\" or \"@flushSize\": these would take readings "
                    "that do not count with those that do"});
}

void TestClientMeaning::flatMeanings()
{
    const Meanings meanings(
        {{"page", s_leaf()},
         {"speed", s_leaf({{"scale", 0.5}, {"unit", "rpm"}, {"warn", QJsonArray{QJsonValue(), 100}}})},
         {"two", s_when("page", 2)}});
    const QVariantMap values{{"page", 1U}, {"speed", 250U}, {"two", 5U}, {"group", QVariantMap{{"x", "y"}}}};
    const auto flat = meanings.flat(values);
    QCOMPARE(flat.keys(), (QList<QString>{"group.x", "page", "speed"}));
    const Meant speed = flat["speed"];
    QCOMPARE(speed.reading(), QVariant(250U));
    QCOMPARE(speed.value(), QVariant(125.0));
    QVERIFY(speed.label().isNull());
    QCOMPARE(speed.unit(), QString("rpm"));
    QCOMPARE(speed.level(), QString("warn"));
    QCOMPARE(speed.shown(), QString("125 rpm"));
    QCOMPARE(flat["group.x"].shown(), QString("\"y\""));
    QCOMPARE(meanings.of("two", 7U).shown(), QString("7"));
}

void TestClientMeaning::arrays()
{
    const Meanings meanings({{"cells", s_leaf({{"@format", "S"},
                                               {"@flushSize", 2},
                                               {"scale", 0.5},
                                               {"unit", "V"},
                                               {"labels", QJsonObject{{"5", "five"}}},
                                               {"alarm", QJsonArray{0, 3}}})},
                             {"raw", s_leaf({{"@flushSize", 2}})}});
    const Meant cells = meanings.of("cells", s_shorts({2, 7}));
    QCOMPARE(cells.value(), QVariant(QVariantList{1.0, 3.5}));
    QVERIFY(cells.label().isNull());
    QCOMPARE(cells.level(), QString("alarm"));
    QCOMPARE(cells.shown(), QString::fromUtf8("2 × … 3.5 V"));
    QCOMPARE(meanings.of("cells", s_shorts({7, 6})).level(), QString());
    QCOMPARE(meanings.of("cells", s_shorts({9, 5})).shown(), QString::fromUtf8("2 × … five"));
    QCOMPARE(meanings.of("raw", s_shorts({9, 5})).value(), QVariant(QVariantList{9, 5}));
    const Meant none = meanings.of("cells", s_shorts({}));
    QCOMPARE(none.value(), QVariant(QVariantList()));
    QCOMPARE(none.level(), QString());
    QCOMPARE(none.shown(), QString("[]"));
}

void TestClientMeaning::withoutALeaf()
{
    QCOMPARE(Meant(0.1F).shown(), QString("0.1"));
    QCOMPARE(Meant(4294967040U).shown(), QString("4294967040"));
    QCOMPARE(Meant(true).shown(), QString("true"));
    QCOMPARE(Meant(s_shorts({1, 2})).shown(), QString::fromUtf8("2 × … 2"));
    QCOMPARE(Meant().shown(), QString("null"));
    QVERIFY(!Meant().value().isValid() && !Meant().reading().isValid());
    QVERIFY(Meant(5U).label().isNull() && Meant(5U).unit().isEmpty() && Meant(5U).level().isEmpty());
    QCOMPARE(Meanings().of("a", 5U).value(), QVariant(5U));
    QVERIFY(!Meanings().leaf("a"));
}

void TestClientMeaning::readingsOfAnotherSchema()
{
    const Meanings part({{"a", s_leaf({{"bits", QJsonArray{0, 2}}, {"labels", QJsonObject{{"1", "on"}}}})},
                         {"b", s_leaf({{"scale", 2}, {"alarm", QJsonArray{0, 1}}})}});
    QCOMPARE(part.of("a", QVariantMap{{"b", 1}}).value(), QVariant(QVariantMap{{"b", 1}}));
    QCOMPARE(part.of("a", 2.5F).value(), QVariant(2.5));
    QCOMPARE(part.of("a", HUGE_VALF).value(), QVariant(HUGE_VAL));
    QCOMPARE(part.of("a", 1e30).value(), QVariant(1e30));
    QCOMPARE(part.of("a", true).shown(), QString("on"));
    QCOMPARE(part.of("a", "1").shown(), QString("\"1\""));
    QCOMPARE(part.of("b", "5").value(), QVariant("5"));
    QCOMPARE(part.of("b", "5").level(), QString());
    QCOMPARE(part.of("b", QVariant()).shown(), QString("null"));
}

void TestClientMeaning::emptyLabels()
{
    const Meanings meanings({{"a", s_leaf({{"labels", QJsonObject{{"0", ""}}}, {"unit", "V"}})}});
    QCOMPARE(meanings.of("a", 0U).shown(), QString(""));
    QCOMPARE(meanings.of("a", 1U).shown(), QString("1 V"));
}

void TestClientMeaning::decimalsBeyondTheirRange()
{
    const auto shown = [](int decimals) {
        return Meanings({{"a", s_leaf({{"@format", "f"}, {"decimals", decimals}})}}).of("a", 1.5F).shown();
    };
    QCOMPARE(shown(-1), QString("1.5"));
    QCOMPARE(shown(16), QString("1.5"));
    QCOMPARE(shown(15), QString("1.500000000000000"));
    QCOMPARE(shown(0), QString("2"));
}

void TestClientMeaning::wholeNumbersKeepTheirDigits()
{
    const Meanings wide({{"a", s_leaf({{"@format", "I"}, {"scale", 0.5}})},
                         {"b", s_leaf({{"@format", "I"}, {"unit", "x"}})},
                         {"c", s_leaf({{"@format", "I"}, {"swapped", true}})}});
    QCOMPARE(wide.of("a", 123456792U).value(), QVariant(61728396.0));
    QCOMPARE(wide.of("b", 4294967040U).shown(), QString("4294967040 x"));
    QCOMPARE(wide.of("c", 16777215U).shown(), QString("4294967040"));
}

void TestClientMeaning::whatNeverCounts_data()
{
    QTest::addColumn<QJsonObject>("schema");
    QTest::addColumn<QVariantMap>("values");
    QTest::addColumn<QStringList>("counting");

    QTest::newRow("waits for itself")
        << QJsonObject{{"a", s_when("a", 1)}} << QVariantMap{{"a", 1U}} << QStringList();
    QTest::newRow("in a circle") << QJsonObject{{"a", s_when("b", 1)}, {"b", s_when("a", 1)}}
                                 << QVariantMap{{"a", 1U}, {"b", 1U}} << QStringList();
    QTest::newRow("waits for a group")
        << QJsonObject{{"a", s_when("g", 1)}, {"g", QJsonObject{{"x", s_leaf()}}}}
        << QVariantMap{{"a", 1U}, {"g", QVariantMap{{"x", 1U}}}} << QStringList{"g.x"};
    QTest::newRow("waits for an array") << QJsonObject{{"a", s_when("p", 1)}, {"p", s_leaf()}}
                                        << QVariantMap{{"a", 1U}, {"p", s_shorts({1})}} << QStringList{"p"};
    QTest::newRow("waits for a text") << QJsonObject{{"a", s_when("p", 1)}, {"p", s_leaf()}}
                                      << QVariantMap{{"a", 1U}, {"p", "1"}} << QStringList{"p"};
    QTest::newRow("a value stands in the place of a group")
        << QJsonObject{{"a", s_when("g.p", 1)}, {"g", QJsonObject{{"p", s_leaf()}}}}
        << QVariantMap{{"a", 1U}, {"g", 1U}} << QStringList{"g"};
}

void TestClientMeaning::whatNeverCounts()
{
    QFETCH(QJsonObject, schema);
    QFETCH(QVariantMap, values);
    QFETCH(QStringList, counting);
    QCOMPARE(QStringList(Meanings(schema).flat(values).keys()), counting);
}

void TestClientMeaning::wordsAboutValues_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QJsonObject>("members");
    QTest::addColumn<QString>("text");

    const auto add = [](const char *name, const QVariant &value, const QJsonObject &members,
                        const char *text) {
        QTest::newRow(name) << value << members << text;
    };
    const QJsonObject labels{{"labels", QJsonObject{{"1", "running"}, {"0", "off"}}}};
    add("label", "runing", labels,
        "a: has no label \"runing\" (did you mean \"running\"?): there are \"off\", \"running\"");
    add("label of a read-only leaf", "x", {{"labels", labels["labels"]}, {"readonly", true}},
        "a: has no label \"x\": there are \"off\", \"running\"");
    add("read-only", 1, {{"readonly", true}}, "a: is read-only, because its schema has \"readonly\"");
    add("below", -1, {{"min", 0}}, "a: takes at least 0, not -1");
    add("above", 3.5, {{"max", 3}}, "a: takes at most 3, not 3.5");
    add("between", 9, {{"min", 0.5}, {"max", 3}}, "a: takes at least 0.5 and at most 3, not 9");
    add("field", 300, {{"offset", 10}}, "a: 300 is the field 290, which is outside of 0 to 255");
    add("field times a factor", 100, {{"@factor", 2}, {"scale", 0.5}},
        "a: 100 is the field 200, which times the factor 2 is 400, which is outside of -128 to 127");
    add("bits", 8, {{"bits", QJsonArray{0, 3}}, {"initial", 0}}, "a: 8 is outside of 0 to 7");
    add("bits with a sign", 4, {{"bits", QJsonArray{0, 3}}, {"signed", true}, {"initial", 0}},
        "a: 4 is outside of -4 to 3");
    add("no reading", 1, {{"bits", QJsonArray{0, 3}}},
        "a: shares its bytes with other bits, and no reading of these came yet; \"initial\" would say what "
        "they "
        "are");
    add("selector", 1, {{"when", QJsonObject{{"path", "p"}, {"is", 2}}}},
        "a: counts only where p is 2: write that with it");
}

void TestClientMeaning::wordsAboutValues()
{
    QFETCH(QVariant, value);
    QFETCH(QJsonObject, members);
    QFETCH(QString, text);
    const Message message = prepare({{"a", s_leaf(members)}}, QVariantMap{{"a", value}});
    QCOMPARE(s_texts(message.problems), QStringList{text});
    QVERIFY(message.written.isEmpty());
}

void TestClientMeaning::wordsAboutWrittenFields()
{
    const auto text = [](const QJsonObject &members, double value) {
        const Message message = prepare({{"a", s_leaf(members)}}, QVariantMap{{"a", value}}, s_always(0));
        return message.written.value(0).text();
    };
    QCOMPARE(text({{"bits", QJsonArray{4, 3}}}, 5), QString("raw 80"));
    QCOMPARE(text({{"bits", QJsonArray{4, 3}}}, 4.6), QString("raw 80, which is 5"));
    QCOMPARE(text({{"scale", 0.1}}, 1.24), QString("raw 12, which is 1.2"));
    QCOMPARE(text({{"@factor", 10}, {"scale", 1000}}, 534), QString("raw 5, which is 500"));
    QCOMPARE(text({{"@format", "I"}}, 4294967040.0), QString("raw 4294967040"));
    QCOMPARE(text({{"@format", "I"}}, 4294967039.7), QString("raw 4294967040, which is 4294967040"));
    QCOMPARE(text({{"@format", "f"}, {"scale", 2}}, 0.2), QString("raw 0.1"));

    const Message message = prepare({{"a", s_leaf({{"bits", QJsonArray{4, 3}}, {"scale", 10}})}},
                                    QVariantMap{{"a", 46}}, s_always(0x8f));
    const Written written = message.written.value(0);
    QCOMPARE(written.raw, double(0xdf));
    QCOMPARE(written.reading(), double(0xdf));
    QCOMPARE(written.field(), 5.0);
    QCOMPARE(written.meant(), 50.0);
    QVERIFY(written.isRounded());
}

void TestClientMeaning::labelsAreWrittenAsTheirFields()
{
    const QJsonObject labels{{"1", "one"}, {"2", "two"}};
    const QJsonObject schema{{"a", s_leaf({{"labels", labels}, {"scale", 10}, {"offset", 1}})},
                             {"p", s_leaf({{"labels", labels}, {"@format", "p"}})}};
    const Message message = prepare(schema, QVariantMap{{"a", "two"}, {"p", "one"}});
    QCOMPARE(message.values, (QVariantMap{{"a", 2}, {"p", 1}}));
    QCOMPARE(message.written.size(), 1);
    QCOMPARE(message.written.at(0).value, 21.0);
}

void TestClientMeaning::bytesThatAreShared()
{
    const auto raw = [](const QVariantMap &values, const QVariant &reading) {
        return s_raw(prepare(s_sharing, values, s_always(reading)));
    };
    using Map = QVariantMap;
    QCOMPARE(raw({{"a", 31}, {"b", 1}}, 0), (Map{{"a", 31.0}, {"b", 31.0}}));
    QCOMPARE(raw({{"far", 1}, {"near", 1}}, 0x20), (Map{{"far", double(0x21)}, {"near", double(0x120)}}));
    QCOMPARE(raw({{"single", -1.5}, {"sign", 1}}, 0x3f), (Map{{"single", -1.5}, {"sign", double(0xbf)}}));
    QCOMPARE(raw({{"a", 31}, {"far", 0}, {"other", 0}}, 0), (Map{{"a", 31.0}, {"far", 0.0}, {"other", 0.0}}));
    QCOMPARE(raw({{"one", 1}, {"two", 2}}, 0), (Map{{"one", 1.0}, {"two", 2.0}})); // where no field is
    QCOMPARE(raw({{"a", 15}, {"b", 15}}, QVariant()), Map());
    QCOMPARE(raw({{"a", 31}, {"b", 15}}, QVariant()), (Map{{"a", 255.0}, {"b", 255.0}})); // no other bits
}

void TestClientMeaning::bytesThatAreSharedOtherwise_data()
{
    QTest::addColumn<QVariantMap>("values");
    QTest::addColumn<QString>("path");

    QTest::newRow("fields") << QVariantMap{{"a", 31}, {"b", 0}} << "b";
    QTest::newRow("fields the other way round") << QVariantMap{{"a", 0}, {"b", 1}} << "b";
    QTest::newRow("fields that begin apart") << QVariantMap{{"far", 1}, {"near", 2}} << "near";
    QTest::newRow("a field behind a byte") << QVariantMap{{"byte", 1}, {"flag", 1}} << "flag";
    QTest::newRow("a byte of zeros") << QVariantMap{{"byte", 0}, {"flag", 1}} << "flag";
    QTest::newRow("a byte of ones") << QVariantMap{{"byte", 255}, {"flag", 0}} << "flag";
    QTest::newRow("a float") << QVariantMap{{"single", 1.5}, {"sign", 1}} << "single";
    QTest::newRow("any of several bytes") << QVariantMap{{"one", 1}, {"two", 0}, {"zero", 0}} << "zero";
}

void TestClientMeaning::bytesThatAreSharedOtherwise()
{
    QFETCH(QVariantMap, values);
    QFETCH(QString, path);
    const Message message = prepare(s_sharing, values, s_always(0));
    QCOMPARE(s_texts(message.problems),
             QStringList{path + ": has bits that another value of this message sets otherwise"});
}

void TestClientMeaning::readingsThatAreNone()
{
    const QVariantMap values{{"a", 1}};
    for (const QVariant &reading : QVariantList{QVariant(), "5", 2.5, HUGE_VAL, -1e10, 4294967296.0}) {
        const Message message = prepare(s_sharing, values, s_always(reading));
        QVERIFY2(message.isRefused() && message.problems.first().code == "no-reading",
                 qPrintable(reading.toString()));
    }
    QCOMPARE(s_raw(prepare(s_sharing, values, s_always(-1))), (QVariantMap{{"a", double(0xe1)}}));
    QCOMPARE(s_raw(prepare(s_sharing, values, s_always(224.0F))), (QVariantMap{{"a", double(0xe1)}}));
}

void TestClientMeaning::selectorsGoOutWithAValue()
{
    const Meanings meanings(
        {{"a", QJsonObject{{"b.c", s_leaf({{"scale", 10}})}, {"d", s_when("a.b\\.c", 3)}}},
         {"e", s_when("a.d", 4, 2)},
         {"lost", s_when("nowhere", 4, 2)},
         {"x", s_when("x", 1)},
         {"y", s_when("z", 1)},
         {"z", s_when("y", 2)}});
    const auto values = [&meanings](const QString &path) {
        return withSelectors(meanings, splitPath(path), 9);
    };
    QCOMPARE(values("e"), (QVariantMap{{"e", 9}, {"a", QVariantMap{{"d", 4.0}, {"b.c", 30.0}}}}));
    QCOMPARE(values("a.d"), (QVariantMap{{"a", QVariantMap{{"d", 9}, {"b.c", 30.0}}}}));
    QCOMPARE(values("a.b\\.c"), (QVariantMap{{"a", QVariantMap{{"b.c", 9}}}}));
    QCOMPARE(values("lost"), (QVariantMap{{"lost", 9}}));
    QCOMPARE(values("x"), (QVariantMap{{"x", 9}}));
    QCOMPARE(values("y"), (QVariantMap{{"y", 9}, {"z", 1.0}}));
    QCOMPARE(values("none"), (QVariantMap{{"none", 9}}));
}

void TestClientMeaning::lastReadings()
{
    const auto meanings = std::make_shared<const Meanings>(
        QJsonObject{{"g", QJsonObject{{"a.b", s_leaf({{"unit", "V"}})}, {"c", s_leaf()}}}});
    LastReadings readings(meanings, [](const Leaf &leaf) { return !leaf.members.unit.isEmpty(); });
    QVERIFY(readings.has("g.a\\.b") && !readings.has("g.c") && !readings.has("g"));
    QVERIFY(!readings.at("g.a\\.b").isValid());
    readings.heard(QVariantMap{{"g", QVariantMap{{"a.b", 5U}, {"c", 6U}}}, {"h", 7U}});
    QCOMPARE(readings.at("g.a\\.b"), QVariant(5U));
    QVERIFY(!readings.at("g.c").isValid());
    readings.heard(QVariantMap{{"g", QVariantMap{{"c", 8U}}}});
    readings.heard(QVariantMap{{"g", 8U}});
    readings.heard(9U);
    QCOMPARE(readings.at("g.a\\.b"), QVariant(5U));
    readings.forget();
    QVERIFY(!readings.at("g.a\\.b").isValid());
    QVERIFY(!LastReadings().has("") && !LastReadings().at("").isValid());

    LastReadings bare(std::make_shared<const Meanings>(s_leaf()), [](const Leaf &) { return true; });
    bare.heard(5U);
    QCOMPARE(bare.at(""), QVariant(5U));
}

void TestClientMeaning::lastReadingsThatCount()
{
    const auto meanings =
        std::make_shared<const Meanings>(QJsonObject{{"page", s_leaf()}, {"a", s_when("page", 1)}});
    LastReadings readings(meanings, [](const Leaf &leaf) { return leaf.members.when.has_value(); });
    readings.heard(QVariantMap{{"page", 1U}, {"a", 5U}});
    readings.heard(QVariantMap{{"page", 2U}, {"a", 6U}});
    QCOMPARE(readings.at("a"), QVariant(5U));
}

void TestClientMeaning::whatIsReadAfterAWrite_data()
{
    QTest::addColumn<int>("skip");
    QTest::addColumn<QString>("format");
    QTest::addColumn<quint32>("reading");
    QTest::addColumn<QVariantMap>("values");
    QTest::addColumn<quint32>("after");

    using Map = QVariantMap;
    QTest::newRow("the byte") << 0 << "C" << 0x5aU << Map{{"a", 1}} << 0x01U;
    QTest::newRow("the byte behind") << 1 << "C" << 0x5aU << Map{{"a", 1}} << 0x5aU;
    QTest::newRow("a byte further behind") << 2 << "C" << 0x5aU << Map{{"a", 1}} << 0x5aU;
    QTest::newRow("the byte before") << 0 << "C" << 0x5aU << Map{{"b", 0x0302}} << 0x00U;
    QTest::newRow("both bytes") << 1 << "S" << 0x5a5aU << Map{{"b", 0x0302}} << 0x0302U;
    QTest::newRow("one of two") << 2 << "S" << 0x5a5aU << Map{{"b", 0x0302}} << 0x5a03U;
    QTest::newRow("two values") << 0 << "I" << 0x5a5a5a5aU << Map{{"a", 1}, {"b", 0x0302}} << 0x5a030201U;
    QTest::newRow("a value below 0") << 0 << "I" << 0x5a5a5a5aU << Map{{"a", -1}} << 0x5a5a5affU;
    QTest::newRow("all four") << 0 << "I" << 0x5a5a5a5aU << Map{{"i", -2}} << 0xfffffffeU;
    QTest::newRow("the later by name") << 0 << "C" << 0x5aU << Map{{"a", 1}, {"i", 2}} << 0x02U;
    QTest::newRow("another frame") << 0 << "C" << 0x5aU << Map{{"other", 1}} << 0x5aU;
    QTest::newRow("another node") << 0 << "C" << 0x5aU << Map{{"elsewhere", 1}} << 0x5aU;
}

void TestClientMeaning::whatIsReadAfterAWrite()
{
    QFETCH(int, skip);
    QFETCH(QString, format);
    QFETCH(quint32, reading);
    QFETCH(QVariantMap, values);
    QFETCH(quint32, after);
    const QJsonObject schema{{"a", s_leaf()},
                             {"b", s_leaf({{"@format", "S"}, {"@skip", 1}})},
                             {"i", s_leaf({{"@format", "i"}})},
                             {"other", s_leaf({{"@cmd", 7}})},
                             {"elsewhere", s_leaf({{"@mac", 7}})}};
    const Leaf leaf = leafOf({"x"}, s_leaf({{"@format", format}, {"@skip", skip}}));
    QCOMPARE(overwritten(leaf, reading, prepare(schema, values).written), std::optional<quint32>(after));
}

void TestClientMeaning::lastReadingsAreOverwritten()
{
    const QJsonObject schema{
        {"a", s_leaf()}, {"b", s_leaf({{"@flushSize", 2}})}, {"c", s_leaf({{"@cmd", 7}})}};
    LastReadings readings(std::make_shared<const Meanings>(schema), [](const Leaf &) { return true; });
    readings.heard(QVariantMap{{"b", s_shorts({8, 9})}, {"c", 5U}});
    readings.wrote(prepare(schema, QVariantMap{{"c", 6}}).written);
    QVERIFY(!readings.at("a").isValid());
    QCOMPARE(readings.at("b"), QVariant(9U));
    QCOMPARE(readings.at("c"), QVariant(6U));
    readings.wrote(prepare(schema, QVariantMap{{"a", 7}}).written);
    QCOMPARE(readings.at("a"), QVariant(7U)); // all of its bytes are known now
    QCOMPARE(readings.at("b"), QVariant(7U));
}

QTEST_APPLESS_MAIN(TestClientMeaning)
#include "tst_client_meaning.moc"
