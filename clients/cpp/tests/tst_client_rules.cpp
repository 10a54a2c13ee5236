// The rules where the cases that all clients share leave something to each: words, JSON texts, numbers.
#include "vorbel/check.h"
#include "vorbel/digits.h"
#include "vorbel/jsontext_p.h"
#include "vorbel/schema.h"
#include "vorbel/single_p.h"
#include "vorbel/words_p.h"
#include "vorbel/writing.h"

#include <QJsonArray>
#include <QPoint>
#include <QtTest>

#include <cmath>
#include <ctime>
#include <limits>

using namespace Vorbel;

namespace
{

const QJsonObject s_leaf{{"@mac", 5}, {"@cmd", 2}, {"@format", "s"}};

QJsonObject s_with(const QJsonObject &options)
{
    QJsonObject leaf = s_leaf;
    for (auto option = options.begin(); option != options.end(); ++option) {
        leaf.insert(option.key(), option.value());
    }
    return leaf;
}

QStringList s_texts(const QVector<Problem> &problems)
{
    QStringList texts;
    for (const Problem &problem : problems) {
        texts << problem.text();
    }
    return texts;
}

Leaf s_scaled(double factor, const QString &format = "s")
{
    return leafOf({"a"}, s_with({{"@factor", factor}, {"@format", format}}));
}

} // namespace

class TestClientRules : public QObject
{
    Q_OBJECT

private slots:
    void wordsAboutSchemas_data();
    void wordsAboutSchemas();
    void wordsAboutSharedFrames();
    void wordsAboutValues_data();
    void wordsAboutValues();
    void wordsAboutWrittenNumbers();
    void errorsAndWarnings();
    void quotedValues();
    void suggestions();

    void json_data();
    void json();
    void noJson_data();
    void noJson();
    void deepJson();
    void longJson();
    void numbers();
    void hugeNumbersStayNumbers();

    void leafDefaults();
    void optionsAreConvertedAsTheDaemonDoes();
    void leavesByPath();
    void schemaTexts();

    void singlePrecision();
    void fewestDigits();
    void justifiedDigits();
};

void TestClientRules::wordsAboutSchemas_data()
{
    QTest::addColumn<QJsonObject>("leaf");
    QTest::addColumn<QString>("text");

    const auto add = [](const char *name, const QJsonObject &leaf, const char *text) {
        QTest::newRow(name) << leaf << text;
    };
    add("type", s_with({{"@skip", "2"}}), "a: \"@skip\" is \"2\": it must be a whole number");
    add("type of a number", s_with({{"@factor", true}}), "a: \"@factor\" is true: it must be a number");
    add("type of a text", s_with({{"@format", 5}}), "a: \"@format\" is 5: it must be a text");
    add("type of a truth", s_with({{"@observe", QJsonValue()}}),
        "a: \"@observe\" is null: it must be true or false");
    add("range", s_with({{"@mask", 4294967296.0}}),
        "a: \"@mask\" is 4294967296: it must be from -2147483648 to 4294967295");
    add("range of a factor", s_with({{"@factor", 1e39}}),
        "a: \"@factor\" is 1e+39: readings are divided by it in single precision");
    add("unknown", s_with({{"@fator", 1}}),
        "a: \"@fator\" is no option (did you mean \"@factor\"?); the daemon ignores it");
    add("unknown, like none", s_with({{"@note", 1}}), "a: \"@note\" is no option; the daemon ignores it");
    add("without sign", s_with({{"flushsize", 1}}),
        "a: warning: \"flushsize\" has no meaning for the daemon (did you mean \"@flushSize\"?)");
    add("format", s_with({{"@format", "d"}}),
        "a: \"@format\" is \"d\": it must be one of C c S s Q q I i f p; the daemon neither reads nor writes "
        "any "
        "other");
    add("long format", s_with({{"@format", "int"}}),
        "a: warning: only the first character of \"@format\" counts: \"int\" is \"i\"");
    add("beyond a frame", s_with({{"@skip", 7}}),
        "a: warning: needs 9 bytes, a CAN frame has 8: it is read from CAN FD frames only, and written only "
        "with "
        "\"@fragmentation\": true");
    add("beyond any frame", s_with({{"@skip", 63}}),
        "a: needs 65 bytes: no frame is that long, and it is not written without \"@fragmentation\"");
    add("observing arrays", s_with({{"@observe", true}, {"@flushSize", 1}}),
        "a: warning: \"@observe\" has no effect beside \"@flushSize\"");
    add("mask", s_with({{"@format", "f"}, {"@mask", 1}}),
        "a: warning: \"@mask\" is not applied by the format \"f\" and only makes the leaf read-only");
    add("unreadable", s_with({{"@format", "c"}, {"@flushSize", 1}}),
        "a: \"c\" with \"@flushSize\" makes every message that carries it unreadable for all clients: use "
        "\"C\", "
        "which reads the same");
    add("options alone", {{"@cmd", 1}, {"@skip", 1}, {"b", s_leaf}},
        "a: has \"@cmd\", \"@skip\" but no \"@mac\": without it this is no leaf, and its options are "
        "ignored");
    add("names alone", {{"Mac", 1}, {"b", s_leaf}},
        "a: has \"Mac\" but no \"@mac\": the names of options begin with \"@\"");
}

void TestClientRules::wordsAboutSchemas()
{
    QFETCH(QJsonObject, leaf);
    QFETCH(QString, text);
    QCOMPARE(s_texts(check({{"a", leaf}})), QStringList{text});
}

void TestClientRules::wordsAboutSharedFrames()
{
    QCOMPARE(
        s_texts(check({{"a", s_leaf}, {"b", s_leaf}})),
        QStringList{"b: warning: overlaps a: both use bytes 0 to 1 of mac 5, cmd 2; written together, one "
                    "destroys the other"});
    QCOMPARE(s_texts(check({{"a", s_leaf}, {"b", s_with({{"@skip", 1}, {"@asBool", true}})}})),
             QStringList{"b: warning: overlaps a: both use byte 1 of mac 5, cmd 2"});
    QCOMPARE(s_texts(check({{"a", s_leaf}, {"b", s_with({{"@skip", 2}, {"@fragmentation", true}})}})),
             QStringList{
                 "b: warning: \"@fragmentation\" differs from that of a, also mac 5, cmd 2: in each message "
                 "the first leaf by name decides for all"});
}

void TestClientRules::wordsAboutValues_data()
{
    QTest::addColumn<QVariant>("values");
    QTest::addColumn<QString>("text");

    const auto add = [](const char *name, const QVariant &values, const char *text) {
        QTest::newRow(name) << values << text;
    };
    add("no map", 5, "the root: values are written as a map from names, not as a value of its own");
    add("no name", QVariantMap{{"sped", 1}}, "sped: does not exist in the schema (did you mean \"speed\"?)");
    add("no name like it", QVariantMap{{"x", 1}}, "x: does not exist in the schema");
    add("group", QVariantMap{{"group", 1}}, "group: is a group of values, not a value: \"b\", \"c\"");
    add("empty group", QVariantMap{{"empty", 1}}, "empty: is a group of values, not a value: it is empty");
    add("truth", QVariantMap{{"flag", 1}}, "flag: is read-only, because its schema has \"@asBool\"");
    add("masked", QVariantMap{{"masked", 1}}, "masked: is read-only, because its schema has \"@mask\"");
    add("no format", QVariantMap{{"none", 1}}, "none: has no \"@format\" and cannot be written");
    add("unknown format", QVariantMap{{"odd", 1}}, "odd: has the format \"d\", which cannot be written");
    add("text", QVariantMap{{"speed", "fast"}}, "speed: takes a number, not \"fast\"");
    add("not a number", QVariantMap{{"speed", std::nan("")}}, "speed: takes a number, not nan");
    add("range", QVariantMap{{"speed", 65536}}, "speed: 65536 is outside of -32768 to 65535");
    add("infinite", QVariantMap{{"speed", HUGE_VAL}}, "speed: inf is outside of -32768 to 65535");
    add("range of a float", QVariantMap{{"float", 1e39}},
        "float: 1e+39 is outside of -3.402823466e+38 to 3.402823466e+38");
    add("scaled range", QVariantMap{{"volt", 400.5}},
        "volt: 400.5 times the factor 100 is 40050, which is outside of -32768 to 32767");
}

void TestClientRules::wordsAboutValues()
{
    const QJsonObject schema{{"speed", s_leaf},
                             {"float", s_with({{"@format", "f"}})},
                             {"volt", s_with({{"@factor", 100}})},
                             {"flag", s_with({{"@asBool", true}})},
                             {"masked", s_with({{"@mask", 3}})},
                             {"odd", s_with({{"@format", "d"}})},
                             {"none", QJsonObject{{"@mac", 1}}},
                             {"empty", QJsonObject()},
                             {"group", QJsonObject{{"b", s_leaf}, {"c", s_leaf}, {"note", 5}}}};
    QFETCH(QVariant, values);
    QFETCH(QString, text);
    const Message message = prepare(schema, values);
    QVERIFY(message.isRefused());
    QCOMPARE(s_texts(message.problems), QStringList{text});
    QVERIFY(message.written.isEmpty());
}

void TestClientRules::wordsAboutWrittenNumbers()
{
    const auto text = [](const Leaf &leaf, double value, double raw, double nearest) {
        return Written{leaf, value, raw, nearest}.text();
    };
    QCOMPARE(text(s_scaled(100), 0.53, 53, 53), QString("raw 53"));
    QCOMPARE(text(s_scaled(100), 0.534, 53, 53), QString("raw 53, which is 0.53"));
    QCOMPARE(text(leafOf({"a"}, s_leaf), 2.5, 3, 3), QString("raw 3, which is 3"));
    QCOMPARE(text(leafOf({"a"}, s_with({{"@format", "f"}})), 0.1, double(0.1F), double(0.1F)),
             QString("raw 0.1"));
    QCOMPARE(text(s_scaled(1000, "i"), 2000000.001, 2000000000, 2000000001),
             QString("raw 2000000000, which is 2000000 instead of 2000000001, which the daemon's single "
                     "precision does "
                     "not reach"));
}

void TestClientRules::errorsAndWarnings()
{
    const Problem error{"a", "option-range", "x"};
    const Problem warning{"b", "no-cmd", "y"};
    QVERIFY(error.isError() && !warning.isError());
    QVERIFY(hasErrors({warning, error}) && !hasErrors({warning}) && !hasErrors({}));
    QCOMPARE(errorText({error, warning, {"", "no-leaf", "z"}}), QString("a: x; the root: z"));
    QCOMPARE(errorText({warning}), QString());
}

void TestClientRules::quotedValues()
{
    QCOMPARE(quoted("a\"b"), QString("\"a\\\"b\""));
    QCOMPARE(quoted(QVariantList{1, true}), QString("[1,true]"));
    QCOMPARE(quoted(QVariantMap{{"x", 1}}), QString("{\"x\":1}"));
    QCOMPARE(quoted(1e15 + 0.5), QString("1000000000000000.5"));
    QCOMPARE(quoted(-0.1), QString("-0.1"));
    QCOMPARE(quoted(4294967295U), QString("4294967295"));
    QCOMPARE(quoted(QString(38, 'x')), '"' + QString(38, 'x') + '"');
    QCOMPARE(quoted(QString(39, 'x')), '"' + QString(36, 'x') + "...");
}

void TestClientRules::suggestions()
{
    const QStringList known{"speed", "setpoint", "a"};
    QCOMPARE(suggestion("sped", known), QString(" (did you mean \"speed\"?)"));
    QCOMPARE(suggestion("SPEED", known), QString(" (did you mean \"speed\"?)"));
    QCOMPARE(suggestion("setpiont", known), QString(" (did you mean \"setpoint\"?)"));
    QCOMPARE(suggestion("current", known), QString());
    QCOMPARE(suggestion("b", known), QString(" (did you mean \"a\"?)"));
    QCOMPARE(suggestion("", known), QString(" (did you mean \"a\"?)"));
    QCOMPARE(suggestion("speed", {}), QString());
}

void TestClientRules::json_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QVariant>("value");

    QTest::newRow("true") << "true" << QVariant(true);
    QTest::newRow("false, with blanks") << " \t\r\nfalse\n" << QVariant(false);
    QTest::newRow("null") << "null" << QVariant();
    QTest::newRow("0") << "0" << QVariant(0LL);
    QTest::newRow("negative") << "-12" << QVariant(-12LL);
    QTest::newRow("fraction") << "-0.5" << QVariant(-0.5);
    QTest::newRow("whole, with a point") << "5.0" << QVariant(5.0);
    QTest::newRow("exponents") << "[1e2, 1E+2, 1.5e-1]" << QVariant(QVariantList{100.0, 100.0, 0.15});
    QTest::newRow("beyond 64 bits") << "18446744073709551616" << QVariant(18446744073709551616.0);
    QTest::newRow("text") << R"("a\"\\\/\b\f\n\r\t\u00e9\uD83D\uDE00")"
                          << QVariant(QString::fromUtf8("a\"\\/\b\f\n\r\té😀"));
    QTest::newRow("empty text") << "\"\"" << QVariant(QString(""));
    QTest::newRow("empty containers")
        << "[{}, [] , { }, [ ]]"
        << QVariant(QVariantList{QVariantMap(), QVariantList(), QVariantMap(), QVariantList()});
    QTest::newRow("members") << R"({"a" : 1 ,"b":{"c":[2]}, "":null})"
                             << QVariant(QVariantMap{{"a", 1LL},
                                                     {"b", QVariantMap{{"c", QVariantList{2LL}}}},
                                                     {"", QVariant()}});
}

void TestClientRules::json()
{
    QFETCH(QString, text);
    QFETCH(QVariant, value);
    const JsonText read = readJson(text);
    QCOMPARE(read.error, QString());
    QCOMPARE(read.value, value);
    QCOMPARE(read.value.userType(), value.userType());
    QCOMPARE(read.repeated, QStringList());
}

void TestClientRules::noJson_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("error");

    const QString value = "a value is expected";
    const QString number = "a number is expected";
    const QString name = "a name in quotes is expected";
    const QString comma = "a comma or a closing brace is expected";
    const QString bracket = "a comma or a closing bracket is expected";
    const QString unended = "the text does not end";
    const QString escape = "a backslash that escapes nothing";
    QTest::newRow("nothing") << ""
                             << "line 1, column 1: " + value;
    QTest::newRow("blanks") << " \n "
                            << "line 2, column 2: " + value;
    QTest::newRow("word") << "[nul]"
                          << "line 1, column 2: " + value;
    QTest::newRow("NaN") << "{\"a\": NaN}"
                         << "line 1, column 7: " + value;
    QTest::newRow("plus") << "+1"
                          << "line 1, column 1: " + value;
    QTest::newRow("minus alone") << "-"
                                 << "line 1, column 1: " + number;
    QTest::newRow("leading zero") << "01"
                                  << "line 1, column 2: nothing more is expected";
    QTest::newRow("point alone") << "1."
                                 << "line 1, column 2: nothing more is expected";
    QTest::newRow("no exponent") << "1e"
                                 << "line 1, column 2: nothing more is expected";
    QTest::newRow("only its sign") << "1e+"
                                   << "line 1, column 2: nothing more is expected";
    QTest::newRow("signed fraction") << "1.-5"
                                     << "line 1, column 2: nothing more is expected";
    QTest::newRow("letters behind a unit") << R"("\u12g4")"
                                           << "line 1, column 3: " + escape;
    QTest::newRow("two values") << "1 2"
                                << "line 1, column 3: nothing more is expected";
    QTest::newRow("comma at the end") << "[1,]"
                                      << "line 1, column 4: " + value;
    QTest::newRow("no comma") << "[1 2]"
                              << "line 1, column 4: " + bracket;
    QTest::newRow("open list") << "[1"
                               << "line 1, column 3: " + bracket;
    QTest::newRow("open object") << "{\"a\":1"
                                 << "line 1, column 7: " + comma;
    QTest::newRow("wrong end") << "{\"a\":1]"
                               << "line 1, column 7: " + comma;
    QTest::newRow("no colon") << "{\"a\" 1}"
                              << "line 1, column 6: a colon is expected";
    QTest::newRow("no name") << "{a:1}"
                             << "line 1, column 2: " + name;
    QTest::newRow("comma behind the last member") << "{\"a\":1,}"
                                                  << "line 1, column 8: " + name;
    QTest::newRow("open text") << "\"a"
                               << "line 1, column 3: " + unended;
    QTest::newRow("line break in a text") << "\"a\nb\""
                                          << "line 1, column 3: " + unended;
    QTest::newRow("unknown escape") << R"("\x")"
                                    << "line 1, column 3: " + escape;
    QTest::newRow("escape at the end") << "\"\\"
                                       << "line 1, column 3: " + escape;
    QTest::newRow("short unicode") << R"("\u12")"
                                   << "line 1, column 3: " + escape;
    QTest::newRow("signed unicode") << R"("\u+123")"
                                    << "line 1, column 3: " + escape;
}

void TestClientRules::noJson()
{
    QFETCH(QString, text);
    QFETCH(QString, error);
    QCOMPARE(readJson(text).error, error);
}

void TestClientRules::deepJson()
{
    const auto nested = [](int depth) {
        return QString(depth, '[') + QString(depth, ']');
    };
    QCOMPARE(readJson(nested(1024)).error, QString());
    QCOMPARE(readJson(nested(1025)).error, QString("line 1, column 1025: nested too deep to be read"));
    QCOMPARE(readJson(QString(4 << 20, '[')).error,
             QString("line 1, column 1025: nested too deep to be read"));
    QCOMPARE(readJson('[' + nested(1023) + ',' + nested(1023) + ']').error, QString());
}

// Ten times as much takes about ten times as long, not a hundred times.
void TestClientRules::longJson()
{
    const auto taken = [](int count) {
        const QString text = '[' + QString("-1.5e+3,\"\\u00e4\",").repeated(count) + "0]";
        const std::clock_t begin = std::clock();
        const bool isRead = readJson(text).error.isNull();
        return isRead ? std::clock() - begin : 0;
    };
    const auto few = taken(5'000);
    const auto many = taken(50'000);
    QVERIFY(few > 0 && many > 0);
    QVERIFY2(many < 50 * few, qPrintable(QString("%1 x").arg(double(many) / double(few))));
}

void TestClientRules::numbers()
{
    QCOMPARE(readJson("-0").value, QVariant(0));
    QCOMPARE(readJson("-12").value, QVariant(-12));
    QCOMPARE(readJson("9223372036854775807").value, QVariant(std::numeric_limits<qlonglong>::max()));
    QCOMPARE(readJson("9223372036854775808").value, QVariant(9223372036854775808.0));
    QCOMPARE(readJson("10.25").value, QVariant(10.25));
    QCOMPARE(readJson("1E2").value, QVariant(100.0));
    QCOMPARE(readJson("1.5e-3").value, QVariant(0.0015));
    QCOMPARE(readJson("2e+3").value, QVariant(2000.0));
    QCOMPARE(readJson(R"("\u00E4\u00e4b")").value, QVariant(QString::fromUtf8("ääb")));
}

void TestClientRules::hugeNumbersStayNumbers()
{
    QCOMPARE(readJson("1e400").value, QVariant(HUGE_VAL));
    QCOMPARE(readJson("-1e400").value, QVariant(-HUGE_VAL));
}

void TestClientRules::leafDefaults()
{
    const Leaf leaf = leafOf({"a", "b.c"}, {{"@mac", 5}});
    QCOMPARE(leaf.path(), QString("a.b\\.c"));
    QCOMPARE(leaf.mac, 5);
    QCOMPARE(leaf.cmd, 0);
    QVERIFY(leaf.format.isNull() && !leaf.hasFormat() && leaf.width() == 0);
    QVERIFY(leaf.skip == 0 && leaf.factor == 1 && leaf.mask == -1 && leaf.flushSize == 0);
    QVERIFY(!leaf.asBool && !leaf.observe && !leaf.fragmentation);
    QVERIFY(!leaf.isMasked() && !leaf.isScaled() && !leaf.isReadOnly());
}

void TestClientRules::optionsAreConvertedAsTheDaemonDoes()
{
    const Leaf leaf = leafOf({}, {{"@mac", "5"}, {"@factor", "2.5"}, {"@asBool", 1}, {"@skip", "x"}});
    QCOMPARE(leaf.mac, 5);
    QCOMPARE(leaf.factor, 2.5);
    QVERIFY(leaf.asBool && leaf.isReadOnly());
    QCOMPARE(leaf.skip, 0);
}

void TestClientRules::leavesByPath()
{
    const QJsonObject schema{{"m", QJsonObject{{"a.b", s_leaf}, {"note", 1}, {"empty", QJsonObject()}}},
                             {"outer", s_with({{"inner", s_leaf}})}};
    QCOMPARE(leaves(schema).keys(), (QStringList{"m.a\\.b", "outer", "outer.inner"}));
    QCOMPARE(leaves(s_leaf).keys(), QStringList{""});
    QJsonObject deep = s_leaf;
    for (int depth = 0; depth < 500; ++depth) {
        deep = QJsonObject{{"n", deep}};
    }
    QCOMPARE(leaves(deep).size(), 1);
    QCOMPARE(leaves({{"n", deep}}).size(), 0);
}

void TestClientRules::schemaTexts()
{
    const ParsedSchema parsed = parseSchema(R"({"é": {"@mac": 5, "@mac": 6.5}})");
    QVERIFY(parsed.isReadable());
    QCOMPARE(s_texts(parsed.problems),
             QStringList{QString::fromUtf8("é.@mac: is there twice; only the last one would count")});
    QCOMPARE(schemaText(parsed.schema), QString::fromUtf8("{\"é\":{\"@mac\":6.5}}"));
    QVERIFY(!parseSchema("[]").isReadable());
    QCOMPARE(s_texts(parseSchema("[]").problems),
             QStringList{"the root: is no JSON object: the daemon would take it for an empty schema"});
    QVERIFY(parseSchema("{}").isReadable() && parseSchema("{}").problems.isEmpty());
}

void TestClientRules::singlePrecision()
{
    QCOMPARE(single(0.1), 0.10000000149011612);
    QCOMPARE(single(16777217), 16777216.0);
    QCOMPARE(single(largestSingle), largestSingle);
    QCOMPARE(single(3.4028235e38), largestSingle);
    QCOMPARE(single(-3.4028235e38), -largestSingle);
    QCOMPARE(single(3.4028236e38), HUGE_VAL);
    QCOMPARE(single(-1e39), -HUGE_VAL);
    QCOMPARE(single(HUGE_VAL), HUGE_VAL);
    QCOMPARE(single(1e-50), 0.0);
    QVERIFY(std::isnan(single(std::nan(""))));
}

void TestClientRules::fewestDigits()
{
    QCOMPARE(shortest(3.930000066757202), 3.93);
    QCOMPARE(shortest(16777216), 16777216.0);
    QCOMPARE(shortest(0.1), 0.1); // more than single precision
    QCOMPARE(shortest(double(1.00000012F)), 1.0000001);
    QCOMPARE(shortest(8589934592), 8589935000.0);
    QCOMPARE(shortest(-HUGE_VAL), -HUGE_VAL);
    QVERIFY(std::isnan(shortest(std::nan(""))));
}

void TestClientRules::justifiedDigits()
{
    QCOMPARE(justified(0.9000000357627869), 0.90000004);
    QCOMPARE(justified(0.9000000357627869, s_scaled(10)), 0.9);
    QCOMPARE(justified(double(1 / 3.0F), s_scaled(3)), 0.33);
    QCOMPARE(justified(double(1 / 7.0F), s_scaled(7)), 0.14);
    QCOMPARE(justified(0.375, s_scaled(8)), 0.375);
    QCOMPARE(justified(HUGE_VAL, s_scaled(8)), HUGE_VAL);
    QVERIFY(!std::signbit(justified(-0.0, s_scaled(-10))));
    QCOMPARE(shownNumber(justified(double(0.1F), s_scaled(10, "f"))), QString("0.1"));
    QCOMPARE(shownNumber(justified(2600)), QString("2600"));
    QCOMPARE(shownNumber(justified(double(1e20F))), QString("1e+20"));
    QCOMPARE(shownNumber(std::numeric_limits<double>::quiet_NaN()), QString("nan"));
}

QTEST_APPLESS_MAIN(TestClientRules)
#include "tst_client_rules.moc"
