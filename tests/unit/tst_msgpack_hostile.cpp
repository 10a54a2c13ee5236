// What hostile input costs: bytes allocated, time and stack, measured.
#include "msgpack/msgpack.h"
#include "tests/unit/allocationcounter.h"
#include "tests/unit/logcollector.h"
#include "tests/unit/manyzeros.h"
#include "tests/unit/variantnotation.h"

#include <QDebug>
#include <QThread>
#include <QVector>
#include <QtTest>

#include <ctime>
#include <functional>

using Bytes = QByteArray;

class TestMsgPackHostile : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    // Depth
    void deepValuesWork_data();
    void deepValuesWork();
    void deepestValueUnpacks_data();
    void deepestValueUnpacks();
    void deepestValuePacks_data();
    void deepestValuePacks();
    void depthIsCountedPerBranch();
    void depthBehindOtherValuesIsRefused();
    void tenMillionLevelsAreRefusedAtOnce_data();
    void tenMillionLevelsAreRefusedAtOnce();

    // Announced numbers
    void announcedNumbers_data();
    void announcedNumbers();
    void announcedNumbersInEveryLevel_data();
    void announcedNumbersInEveryLevel();
    void announcedNumberBeforeALargeInput_data();
    void announcedNumberBeforeALargeInput();
    void textsBeyondWhatQtHolds_data();
    void textsBeyondWhatQtHolds();
    void listsBeyondWhatQtHolds_data();
    void listsBeyondWhatQtHolds();

    // Cost by size
    void costGrowsWithTheInput_data();
    void costGrowsWithTheInput();
    void longestHeadersOfNothing();

    // Repetition: an extension that nobody knows stands for the value before it
    void repeatedElementsAreShared();
    void repeatedKeysAreNotLookedFor();
    void doublingLevels_data();
    void doublingLevels();
    void everyNumberOfDoublingLevels_data();
    void everyNumberOfDoublingLevels();
    void runsOfUnknownExtensions_data();
    void runsOfUnknownExtensions();
    void megabytesOfUnknownExtensions();
    void linesAreCountedForEachMessage();
    void linesOfWhatCannotBePacked_data();
    void linesOfWhatCannotBePacked();
    void nothingTakesNothingToRepeat();
    void repetitionsUpToTheBound_data();
    void repetitionsUpToTheBound();
    void manyRepetitions_data();
    void manyRepetitions();

private:
    LogCollector m_log;
};

// The stack that a main thread has by default; the test's own thread may have been given another.
static const uint s_stackSize = 8 * 1024 * 1024;

// Memory may grow with the input by this factor: a byte can be an element of a list (a variant on the heap)
// and the list grows by copying.
static const size_t s_bytesPerByte = 250;
static const size_t s_fixedBytes = 16 * 1024;

static void s_onDefaultStack(const std::function<void()> &run)
{
    const QScopedPointer<QThread> thread(QThread::create(run));
    thread->setStackSize(s_stackSize);
    thread->start();
    thread->wait();
}

static Bytes s_hex(const char *hex)
{
    return Bytes::fromHex(hex);
}

void TestMsgPackHostile::init()
{
    m_log.start();
}

void TestMsgPackHostile::cleanup()
{
    QCOMPARE(m_log.finish(), QStringList());
}

// One level of nesting as it stands on the wire before and after what it holds.
static void s_levels()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("after");

    QTest::newRow("arrays") << s_hex("91") << Bytes();
    QTest::newRow("arrays of 16-bit count") << s_hex("dc0001") << Bytes();
    QTest::newRow("arrays of 32-bit count") << s_hex("dd00000001") << Bytes();
    QTest::newRow("arrays with a value behind") << s_hex("92") << s_hex("05");
    QTest::newRow("arrays with a value before") << s_hex("9205") << Bytes();
    QTest::newRow("maps") << s_hex("81a161") << Bytes();
    QTest::newRow("maps of 16-bit count") << s_hex("de0001a161") << Bytes();
    QTest::newRow("maps of 32-bit count") << s_hex("df00000001a161") << Bytes();
    QTest::newRow("maps and arrays") << s_hex("9181a161") << Bytes();
}

static void s_keyLevels()
{
    QTest::newRow("maps as keys") << s_hex("81") << s_hex("c0");
    QTest::newRow("arrays in keys") << s_hex("8191") << s_hex("c0");
}

static Bytes s_nested(const Bytes &before, const Bytes &after, int levels)
{
    return before.repeated(levels) + s_hex("c3") + after.repeated(levels);
}

// How many containers one level of the row adds.
static int s_containers(const Bytes &before)
{
    return before == s_hex("9181a161") || before == s_hex("8191") ? 2 : 1;
}

void TestMsgPackHostile::deepValuesWork_data()
{
    s_levels();
}

void TestMsgPackHostile::deepValuesWork()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, after);
    const Bytes wire = s_nested(before, after, 8192 / s_containers(before));
    QString printed;
    bool valid = false;
    Bytes packed;
    Bytes packedAgain;
    s_onDefaultStack([&]() {
        QVariant value = MsgPack::unpack(wire);
        valid = value.isValid();
        QDebug(&printed) << value;
        packed = MsgPack::pack(value);
        packedAgain = MsgPack::pack(MsgPack::unpack(packed));
        value.clear();
    });
    QVERIFY(valid);
    QCOMPARE(printed.count(QStringLiteral("QVariant(")) >= 8192, true);
    QVERIFY(printed.contains(QStringLiteral("true")));
    QVERIFY(packed.contains('\xC3'));
    QVERIFY(packedAgain == packed);
    // What was written in the shortest formats comes back byte for byte.
    const bool shortest = before != s_hex("dc0001") && before != s_hex("dd00000001") &&
                          before != s_hex("de0001a161") && before != s_hex("df00000001a161");
    QVERIFY(!shortest || packed == wire);
}

void TestMsgPackHostile::deepestValueUnpacks_data()
{
    s_levels();
    s_keyLevels();
}

void TestMsgPackHostile::deepestValueUnpacks()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, after);
    const int levels = MsgPack::maxNesting / s_containers(before);
    QVERIFY(MsgPack::maxNesting >= 8192);
    QVariant deepest;
    QVariant deeper;
    s_onDefaultStack([&]() {
        deepest = MsgPack::unpack(s_nested(before, after, levels));
        deeper = MsgPack::unpack(s_nested(before, after, levels + 1));
    });
    QVERIFY(deepest.isValid());
    QVERIFY(!deeper.isValid());
    const QStringList lines = m_log.take();
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.first().startsWith("warning: MsgPack::unpack"), qPrintable(lines.first()));
    s_onDefaultStack([&]() { deepest.clear(); });
}

void TestMsgPackHostile::deepestValuePacks_data()
{
    QTest::addColumn<bool>("maps");
    QTest::newRow("lists") << false;
    QTest::newRow("maps") << true;
}

static QVariant s_deepValue(bool maps, int levels)
{
    QVariant value(true);
    for (int i = 0; i < levels; ++i) {
        value = maps ? QVariant(QVariantMap{{"a", value}}) : QVariant(QVariantList{value});
    }
    return value;
}

void TestMsgPackHostile::deepestValuePacks()
{
    QFETCH(bool, maps);
    Bytes deepest;
    Bytes deeper;
    Bytes deeperInside;
    s_onDefaultStack([&]() {
        deepest = MsgPack::pack(s_deepValue(maps, MsgPack::maxNesting));
        const QVariant tooDeep = s_deepValue(maps, MsgPack::maxNesting + 1);
        deeper = MsgPack::pack(tooDeep);
        deeperInside = MsgPack::pack(QVariantList{1, tooDeep, 2});
    });
    QVERIFY(deepest == s_nested(s_hex(maps ? "81a161" : "91"), Bytes(), MsgPack::maxNesting));
    QCOMPARE(deeper, Bytes());
    QCOMPARE(deeperInside, Bytes());
    const QStringList lines = m_log.take();
    QCOMPARE(lines.size(), 2);
    for (const QString &line : lines) {
        QVERIFY2(line.startsWith("warning: MsgPack::pack"), qPrintable(line));
    }
}

void TestMsgPackHostile::depthIsCountedPerBranch()
{
    // Many containers side by side are not deep; and each of several values has the whole depth.
    const Bytes side = Bytes("\xDD") + s_hex("00030d40") + s_hex("91c0").repeated(200000);
    QCOMPARE(MsgPack::unpack(side).toList().size(), 200000);
    const Bytes deep = s_nested("\x91", Bytes(), MsgPack::maxNesting - 1);
    int size = 0;
    s_onDefaultStack([&]() { size = MsgPack::unpack("\x93" + deep + deep + deep).toList().size(); });
    QCOMPARE(size, 3);
    s_onDefaultStack([&]() { size = MsgPack::unpack("\x91" + deep + "\x91" + deep).toList().size(); });
    QCOMPARE(size, 2);
}

void TestMsgPackHostile::depthBehindOtherValuesIsRefused()
{
    QVariant value;
    s_onDefaultStack([&]() {
        value = MsgPack::unpack("\x05\x90" + s_nested("\x91", Bytes(), MsgPack::maxNesting + 1) + "\x05");
    });
    QVERIFY(!value.isValid());
    QCOMPARE(m_log.take().size(), 1);
}

void TestMsgPackHostile::tenMillionLevelsAreRefusedAtOnce_data()
{
    s_levels();
    s_keyLevels();
}

// The processor's time that this thread takes, which says something only beside another one.
static qint64 s_nanoseconds(const std::function<void()> &run)
{
    const auto now = []() {
        timespec time = {};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return qint64(time.tv_sec) * 1000000000 + time.tv_nsec;
    };
    const qint64 start = now();
    run();
    return now() - start;
}

void TestMsgPackHostile::tenMillionLevelsAreRefusedAtOnce()
{
    QFETCH(QByteArray, before);
    const Bytes wire = before.repeated(10000000);
    const Bytes text = s_hex("db00989680") + Bytes(10000000, 'x');
    bool valid = true;
    qint64 nanoseconds = 0;
    size_t bytes = 0;
    s_onDefaultStack([&]() {
        const AllocationCounter allocated;
        nanoseconds = s_nanoseconds([&]() { valid = MsgPack::unpack(wire).isValid(); });
        bytes = allocated.bytes();
    });
    const qint64 ofText = s_nanoseconds([&]() { QVERIFY(MsgPack::unpack(text).isValid()); });
    QVERIFY(!valid);
    QCOMPARE(m_log.take().size(), 1);
    QVERIFY2(nanoseconds < 10 * ofText, qPrintable(QString::number(double(nanoseconds) / double(ofText))));
    // The part that was decoded, not the ten million.
    QVERIFY2(bytes < s_fixedBytes + size_t(MsgPack::maxNesting) * 4 * s_bytesPerByte,
             qPrintable(QString::number(bytes)));
}

void TestMsgPackHostile::announcedNumbers_data()
{
    QTest::addColumn<QByteArray>("hex");

    const char *const headers[] = {"dd", "df", "db", "c6"};
    const char *const numbers[] = {"00010000", "00ffffff", "10000000", "7ffffffe", "7fffffff",
                                   "80000000", "80000001", "c0000000", "fffffff0", "ffffffff"};
    for (const char *header : headers) {
        for (const char *number : numbers) {
            QTest::addRow("%s%s", header, number) << Bytes(header) + number;
            QTest::addRow("%s%s and a byte", header, number) << Bytes(header) + number + "00";
            QTest::addRow("%s%s and some bytes", header, number)
                << Bytes(header) + number + "a161c0a162c3000102030405060708090a0b0c0d0e0f";
        }
    }
    for (const char *number : numbers) {
        QTest::addRow("c9%s", number) << Bytes("c9") + number;
        QTest::addRow("c9%s and the type", number) << Bytes("c9") + number + "11";
        QTest::addRow("c9%s and some bytes", number) << Bytes("c9") + number + "1100000000000000";
    }
    for (const char *hex : {"dcffff", "deffff", "daffff", "c5ffff", "c8ffff11", "9f", "8f", "bf", "d9ff",
                            "c4ff", "c7ff11", "d811"}) {
        QTest::newRow(hex) << Bytes(hex);
    }
}

// Unpacks, and checks what that took. The lines of unknown extensions are let through: whether one that runs
// short is still looked up is nobody's business.
static void s_checkCost(const Bytes &bytes, LogCollector &log)
{
    const AllocationCounter allocated;
    const QVariant value = MsgPack::unpack(bytes);
    const size_t taken = allocated.bytes();
    QVERIFY(!value.isValid());
    QVERIFY2(taken < s_fixedBytes + s_bytesPerByte * size_t(bytes.size()),
             qPrintable(QString::number(taken)));
    for (const QString &line : log.take()) {
        QCOMPARE(line, QStringLiteral("warning: MsgPack::unpack() unpacker for type 17 doesn't exist"));
    }
}

void TestMsgPackHostile::announcedNumbers()
{
    QFETCH(QByteArray, hex);
    const Bytes bytes = Bytes::fromHex(hex);
    s_checkCost(bytes, m_log);
    s_checkCost("\x91" + bytes, m_log);
    s_checkCost("\x92\xC0" + bytes, m_log);
    s_checkCost("\x81\xA1x" + bytes, m_log);
    s_checkCost("\x81" + bytes, m_log);
    s_checkCost("\x05" + bytes, m_log);
}

void TestMsgPackHostile::announcedNumbersInEveryLevel_data()
{
    QTest::addColumn<QByteArray>("level");

    // Each level announces about what is left of the input, so that memory taken for it, however briefly,
    // would add up to the square of the input's size.
    QTest::newRow("arrays") << s_hex("dd00080000");
    QTest::newRow("16-bit arrays") << s_hex("dcffff");
    QTest::newRow("maps") << s_hex("df00040000a161");
    QTest::newRow("maps as keys") << s_hex("df00040000");
    QTest::newRow("arrays that announce everything") << s_hex("ddffffffff");
}

void TestMsgPackHostile::announcedNumbersInEveryLevel()
{
    QFETCH(QByteArray, level);
    const Bytes bytes = level.repeated(8000) + Bytes(600000, '\xC0');
    s_onDefaultStack([&]() { s_checkCost(bytes, m_log); });
}

void TestMsgPackHostile::announcedNumberBeforeALargeInput_data()
{
    QTest::addColumn<QByteArray>("header");
    QTest::newRow("array") << s_hex("ddffffffff");
    QTest::newRow("map") << s_hex("dfffffffff");
    QTest::newRow("text") << s_hex("db7fffffff");
    QTest::newRow("bytes") << s_hex("c67fffffff");
    QTest::newRow("extension") << s_hex("c97fffffff11");
}

void TestMsgPackHostile::announcedNumberBeforeALargeInput()
{
    QFETCH(QByteArray, header);
    s_checkCost(header + Bytes(4000000, '\xC0'), m_log);
}

void TestMsgPackHostile::textsBeyondWhatQtHolds_data()
{
    QTest::addColumn<QByteArray>("header");
    QTest::addColumn<uint>("size");

    QTest::newRow("text") << s_hex("db40000000") << 0x40000000U;
    QTest::newRow("smallest") << s_hex("db3fffffe0") << 0x3fffffe0U;
    QTest::newRow("largest") << s_hex("db7fffff00") << 0x7fffff00U;
    QTest::newRow("element") << s_hex("92c3db40000000") << 0x40000000U;
    QTest::newRow("key") << s_hex("81db40000000") << 0x40000001U;
}

void TestMsgPackHostile::textsBeyondWhatQtHolds()
{
    QFETCH(QByteArray, header);
    QFETCH(uint, size);
    const ManyZeros zeros(header, size);
    QVERIFY(zeros.isThere());
    const AllocationCounter allocated;
    QVERIFY(!MsgPack::unpack(zeros.bytes()).isValid());
    QVERIFY2(allocated.bytes() < s_fixedBytes, qPrintable(QString::number(allocated.bytes())));
}

void TestMsgPackHostile::listsBeyondWhatQtHolds_data()
{
    QTest::addColumn<QByteArray>("header");
    QTest::addColumn<uint>("size");

    QTest::newRow("list") << s_hex("dd10000000") << 0x10000000U;
    QTest::newRow("of bytes to its end") << s_hex("dd7fffff00") << 0x7fffff00U;
    QTest::newRow("and something behind it") << s_hex("dd10000000") << 0x10000001U;
    QTest::newRow("element") << s_hex("92c3dd10000000") << 0x10000000U;
    QTest::newRow("value of a map") << s_hex("81a161dd10000000") << 0x10000000U;
    QTest::newRow("key of a map") << s_hex("81dd10000000") << 0x10000001U;
    QTest::newRow("behind another value") << s_hex("05dd10000000") << 0x10000000U;
}

// All of it is there, and nothing of it is decoded.
void TestMsgPackHostile::listsBeyondWhatQtHolds()
{
    QFETCH(QByteArray, header);
    QFETCH(uint, size);
    const ManyZeros zeros(header, size);
    QVERIFY(zeros.isThere());
    const AllocationCounter allocated;
    QVERIFY(!MsgPack::unpack(zeros.bytes()).isValid());
    QVERIFY2(allocated.bytes() < s_fixedBytes, qPrintable(QString::number(allocated.bytes())));
    QCOMPARE(m_log.take(),
             QStringList{"warning: MsgPack::unpack() can't unpack more than 268435447 elements of an array"});
}

void TestMsgPackHostile::costGrowsWithTheInput_data()
{
    QTest::addColumn<QByteArray>("unit");

    QTest::newRow("nil") << s_hex("c0");
    QTest::newRow("numbers") << s_hex("00");
    QTest::newRow("empty texts") << s_hex("a0");
    QTest::newRow("texts of a byte") << s_hex("a178");
    QTest::newRow("empty byte arrays") << s_hex("c400");
    QTest::newRow("empty arrays") << s_hex("90");
    QTest::newRow("arrays of one") << s_hex("91c0");
    QTest::newRow("empty maps") << s_hex("80");
    QTest::newRow("maps of one") << s_hex("81a0c0");
    QTest::newRow("maps with number keys") << s_hex("8100c0");
    QTest::newRow("maps with float keys") << s_hex("81cb3fb999999999999ac0");
}

void TestMsgPackHostile::costGrowsWithTheInput()
{
    QFETCH(QByteArray, unit);
    const int count = 200000;
    const Bytes body = unit.repeated(count);
    const qint64 ofATwentieth = s_nanoseconds([&]() { MsgPack::unpack(unit.repeated(count / 20)); });
    for (const Bytes &bytes : {body, s_hex("dd00030d40") + body}) {
        QVariant value;
        const AllocationCounter allocated;
        const qint64 nanoseconds = s_nanoseconds([&]() { value = MsgPack::unpack(bytes); });
        const size_t taken = allocated.bytes();
        QCOMPARE(value.toList().size(), count);
        QVERIFY2(taken < s_fixedBytes + s_bytesPerByte * size_t(bytes.size()),
                 qPrintable(QString::number(double(taken) / bytes.size())));
        QVERIFY2(nanoseconds < 100 * ofATwentieth,
                 qPrintable(QString::number(double(nanoseconds) / double(ofATwentieth))));
    }
}

void TestMsgPackHostile::longestHeadersOfNothing()
{
    // A 16-bit map whose keys are all the same: one entry is kept, and no more than one is held.
    const Bytes bytes = s_hex("deffff") + s_hex("00c0").repeated(65535);
    QCOMPARE(VariantNotation::notation(MsgPack::unpack(bytes)), QStringLiteral("{\"0\": nil}"));
}

static const Bytes s_unknown = s_hex("c70011");
static Bytes s_bigEndian16(int number)
{
    return Bytes(1, static_cast<char>(number >> 8)) + static_cast<char>(number & 0xFF);
}

static const char s_unknownLine[] = "warning: MsgPack::unpack() unpacker for type 17 doesn't exist";

// The lines of so many extensions of the unknown type in one message.
static QStringList s_unknownLines(int count)
{
    const int written = qMin(count, 1000);
    QStringList lines = QVector<QString>(written, s_unknownLine).toList();
    if (count > written) {
        lines << QStringLiteral("warning: And %1 more lines of this kind from the same message: "
                                "MsgPack::unpack() unpacker for type N doesn't exist")
                     .arg(count - written);
    }
    return lines;
}

// What becomes of a message that repeats too much.
static QString s_refusal(const Bytes &message)
{
    return QStringLiteral("warning: MsgPack::unpack() can't repeat more than %1 bytes in place of unknown "
                          "extensions")
        .arg(message.size() + 65536);
}

void TestMsgPackHostile::repeatedElementsAreShared()
{
    const Bytes text = s_hex("db00002710") + Bytes(10000, 'x');
    const AllocationCounter allocated;
    const QVariantList list = MsgPack::unpack("\x97" + text + s_unknown.repeated(6)).toList();
    QVERIFY2(allocated.bytes() < 80 * 1024, qPrintable(QString::number(allocated.bytes())));
    QCOMPARE(list.size(), 7);
    QVERIFY(list.last().toString() == QString(10000, QLatin1Char('x')));
    QCOMPARE(m_log.take(), s_unknownLines(6));
}

// A key that is repeated is that of the entry before it. The two long keys differ in their last character, in
// descending order, so that looking for the second one would have a megabyte compared for each repetition.
void TestMsgPackHostile::repeatedKeysAreNotLookedFor()
{
    const int times = 20000;
    const Bytes start(1000000, 'x');
    const Bytes keys = s_hex("db000f4241") + start + "2\x01" + s_hex("db000f4241") + start + "1\x02";
    Bytes repeatedKeys = s_hex("df00004e22") + keys;
    Bytes newKeys = repeatedKeys;
    for (int key = 0; key < times; ++key) {
        repeatedKeys += s_unknown + '\x03';
        newKeys += s_hex("cd") + s_bigEndian16(key) + '\x03';
    }
    QVariantMap map;
    const qint64 nanoseconds = s_nanoseconds([&]() { map = MsgPack::unpack(repeatedKeys).toMap(); });
    QCOMPARE(map.size(), 2);
    QCOMPARE(map.last(), QVariant(1U));
    QCOMPARE(map.first(), QVariant(3U));
    QCOMPARE(m_log.take(), s_unknownLines(times));
    const qint64 ordinary = s_nanoseconds([&]() { map = MsgPack::unpack(newKeys).toMap(); });
    QCOMPARE(map.size(), times + 2);
    QVERIFY2(nanoseconds < 20 * ordinary,
             qPrintable(QString::number(double(nanoseconds) / double(ordinary))));
}

// Each level holds the one inside it twice.
void TestMsgPackHostile::doublingLevels_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("after");

    QTest::newRow("arrays") << s_hex("92") << s_unknown;
    QTest::newRow("arrays of 32-bit count") << s_hex("dd00000002") << s_unknown;
    QTest::newRow("maps by value") << s_hex("82a161") << s_hex("a162") + s_unknown;
    QTest::newRow("arrays in maps") << s_hex("81a16192") << s_unknown;
}

void TestMsgPackHostile::doublingLevels()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, after);
    const auto doubled = [&](int levels) {
        return before.repeated(levels) + s_hex("c3") + after.repeated(levels);
    };

    const QVariant tenLevels = MsgPack::unpack(doubled(10));
    QCOMPARE(VariantNotation::notation(tenLevels).count(QStringLiteral("true")), 1024);
    QCOMPARE(m_log.take(), s_unknownLines(10));

    // Forty levels would be a million million values for whoever walks over them.
    const AllocationCounter allocated;
    const QVariant fortyLevels = MsgPack::unpack(doubled(40));
    QVERIFY2(allocated.bytes() < 256 * 1024, qPrintable(QString::number(allocated.bytes())));
    QVERIFY(!fortyLevels.isValid());
    const QStringList lines = m_log.take();
    QCOMPARE(lines.last(), s_refusal(doubled(40)));
    QCOMPARE(lines.count(s_unknownLine), lines.size() - 1);
}

static int s_valuesIn(const QVariant &value)
{
    int values = 1;
    for (const QVariant &element : value.toList()) {
        values += s_valuesIn(element);
    }
    for (const QVariant &entry : value.toMap()) {
        values += s_valuesIn(entry);
    }
    return values;
}

// However many levels double what they hold: who walks over a value that is not refused meets no more values
// than the message has bytes, twice, and 64 Ki.
void TestMsgPackHostile::everyNumberOfDoublingLevels_data()
{
    doublingLevels_data();
}

void TestMsgPackHostile::everyNumberOfDoublingLevels()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, after);
    int deepest = 0;
    for (int levels = 1; levels < 60; ++levels) {
        const Bytes message = before.repeated(levels) + s_hex("c3") + after.repeated(levels);
        const QVariant value = MsgPack::unpack(message);
        const QStringList lines = m_log.take();
        const int values = value.isValid() ? s_valuesIn(value) : 0;
        QVERIFY2(values <= 2 * message.size() + 65536, qPrintable(QString::number(values)));
        QCOMPARE(lines.contains(s_refusal(message)), !value.isValid());
        deepest = value.isValid() ? levels : deepest;
    }
    QVERIFY2(deepest >= 12 && deepest <= 16, qPrintable(QString::number(deepest)));
}

// What clients do send: many extensions that the service does not decode, one after another. Each repeats the
// value before the first of them, which is small or nothing at all, however long the extensions are.
void TestMsgPackHostile::runsOfUnknownExtensions_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("extension");
    QTest::addColumn<int>("times");

    QTest::newRow("many short ones behind a number") << s_hex("05") << s_unknown << 20000;
    QTest::newRow("many short ones behind nothing") << Bytes() << s_unknown << 20000;
    QTest::newRow("long ones behind a number") << s_hex("05") << s_hex("c80fa011") + Bytes(4000, 'x') << 1000;
    QTest::newRow("long ones behind nothing") << Bytes() << s_hex("c80fa011") + Bytes(4000, 'x') << 1000;
}

void TestMsgPackHostile::runsOfUnknownExtensions()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, extension);
    QFETCH(int, times);
    const QVariant repeated = before.isEmpty() ? QVariant() : QVariant(5U);

    const Bytes inArray =
        s_hex("dc") + s_bigEndian16(before.size() + times) + before + extension.repeated(times);
    QCOMPARE(MsgPack::unpack(inArray).toList(), QVector<QVariant>(before.size() + times, repeated).toList());
    QCOMPARE(m_log.take(), s_unknownLines(times));

    Bytes inMap = s_hex("de") + s_bigEndian16(before.size() + times) +
                  (before.isEmpty() ? Bytes() : s_hex("a0") + before);
    for (int key = 0; key < times; ++key) {
        inMap += s_hex("cd") + s_bigEndian16(key) + extension;
    }
    const QVariantMap map = MsgPack::unpack(inMap).toMap();
    QCOMPARE(map.size(), before.size() + times);
    QCOMPARE(map.value(QString::number(times - 1), QStringLiteral("missing")), repeated);
    QCOMPARE(m_log.take(), s_unknownLines(times));
}

// Four MiB of nothing else: what they cost is what decoding costs, not what a million lines do.
void TestMsgPackHostile::megabytesOfUnknownExtensions()
{
    const int count = 4 * 1024 * 1024 / 3;
    const Bytes unknown = s_unknown.repeated(count);
    const Bytes ordinary = s_hex("cd1234").repeated(count);
    QVariant value;
    const qint64 nanoseconds = s_nanoseconds([&]() { value = MsgPack::unpack(unknown); });
    QCOMPARE(value.toList().size(), count);
    QCOMPARE(m_log.take(), s_unknownLines(count));
    const qint64 ofOrdinary = s_nanoseconds([&]() { value = MsgPack::unpack(ordinary); });
    QCOMPARE(value.toList().size(), count);
    QVERIFY2(nanoseconds < 10 * ofOrdinary, qPrintable(QString::number(nanoseconds / ofOrdinary)));
}

void TestMsgPackHostile::linesAreCountedForEachMessage()
{
    const Bytes message = s_unknown.repeated(700);
    for (int i = 0; i < 3; ++i) {
        MsgPack::unpack(message);
        QCOMPARE(m_log.take(), s_unknownLines(700));
    }
    // All types and places of a message together.
    MsgPack::unpack(s_hex("dc03e7") + message + s_hex("d41200").repeated(299) + "\x81" + s_unknown +
                    s_unknown);
    QStringList lines = m_log.take();
    QCOMPARE(lines.size(), 1001);
    QCOMPARE(lines.count(s_unknownLine), 701);
    QCOMPARE(lines.takeLast(), s_unknownLines(1001).last());
}

void TestMsgPackHostile::linesOfWhatCannotBePacked_data()
{
    QTest::addColumn<int>("count");
    QTest::newRow("thousand") << 1000;
    QTest::newRow("thousand and one") << 1001;
    QTest::newRow("million") << 1000000;
}

void TestMsgPackHostile::linesOfWhatCannotBePacked()
{
    QFETCH(int, count);
    const QVariantList list = QVector<QVariant>(count, QVariant(QVariantHash())).toList();
    QStringList expected =
        QVector<QString>(1000, QStringLiteral("warning: MsgPack::pack can't pack type: 28")).toList();
    if (count > 1000) {
        expected << QStringLiteral("warning: And %1 more lines of this kind from the same message: "
                                   "MsgPack::pack can't pack type: N")
                        .arg(count - 1000);
    }
    for (int i = 0; i < 2; ++i) {
        QVERIFY(MsgPack::pack(list).size() <= 5); // the header of the list
        QCOMPARE(m_log.take(), expected);
    }
}

// The first extension of a container stands for nothing, whatever its own length; so do those that follow.
void TestMsgPackHostile::nothingTakesNothingToRepeat()
{
    const int times = 20000;
    const Bytes bytes = s_hex("c8ffff11") + Bytes(65535, 'x') + s_unknown.repeated(times);
    QCOMPARE(MsgPack::unpack(bytes).toList(), QVector<QVariant>(times + 1).toList());
    QCOMPARE(m_log.take(), s_unknownLines(times + 1));
}

// What may be repeated grows with the message, every byte of it, and has 64 KiB to begin with. Here it is met
// to the byte, in every place where something is repeated.
void TestMsgPackHostile::repetitionsUpToTheBound_data()
{
    QTest::addColumn<QByteArray>("before"); // stands before the value and those that repeat it
    QTest::addColumn<int>("keySize");       // of the key before each of them

    QTest::newRow("top level") << Bytes() << 0;
    QTest::newRow("array") << s_hex("dc0065") << 0;
    QTest::newRow("array of 32-bit count") << s_hex("dd00000065") << 0;
    QTest::newRow("map") << s_hex("de0065") << 3;
    QTest::newRow("map of 32-bit count") << s_hex("df00000065") << 3;
    QTest::newRow("array in a map in an array") << s_hex("9381a161dc0065") << 0;
}

// A value of 1,000 bytes and a hundred extensions that repeat it. The last of them is so long that the
// message has `size` bytes.
static Bytes s_repetitions(const Bytes &before, int keySize, int size)
{
    Bytes bytes = before;
    for (int i = 0; i <= 100; ++i) {
        bytes += (s_hex("cd") + s_bigEndian16(i)).left(keySize);
        if (i == 0) {
            bytes += s_hex("c503e5") + Bytes(997, 'x');
        } else if (i < 100) {
            bytes += s_unknown;
        }
    }
    const Bytes after = before.startsWith('\x93') ? s_hex("c0c0") : Bytes();
    const int rest = size - bytes.size() - 4 - after.size();
    return bytes + s_hex("c8") + s_bigEndian16(rest) + s_hex("11") + Bytes(rest, 'x') + after;
}

void TestMsgPackHostile::repetitionsUpToTheBound()
{
    QFETCH(QByteArray, before);
    QFETCH(int, keySize);
    const int largeEnough = 100 * 1000 - 65536;
    QVERIFY(MsgPack::unpack(s_repetitions(before, keySize, largeEnough)).isValid());
    QCOMPARE(m_log.take(), s_unknownLines(100));

    const Bytes tooSmall = s_repetitions(before, keySize, largeEnough - 1);
    QCOMPARE(tooSmall.size(), largeEnough - 1);
    QVERIFY(!MsgPack::unpack(tooSmall).isValid());
    QCOMPARE(m_log.take(), s_unknownLines(100) + QStringList{s_refusal(tooSmall)});
}

void TestMsgPackHostile::manyRepetitions_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<int>("times");

    QTest::newRow("long text") << s_hex("db000f4240") + Bytes(1000000, 'x') << 100000;
    QTest::newRow("long bytes") << s_hex("c6000f4240") + Bytes(1000000, 'x') << 100000;
    QTest::newRow("long list") << s_hex("dd000f4240") + Bytes(1000000, '\xC0') << 100000;
    QTest::newRow("long key") << s_hex("81db000f4240") + Bytes(1000000, 'x') + s_hex("c0") << 100000;
}

void TestMsgPackHostile::manyRepetitions()
{
    QFETCH(QByteArray, value);
    QFETCH(int, times);
    const Bytes values = value + s_unknown.repeated(times);
    for (const Bytes &bytes : {s_hex("dd000186a1") + values, s_hex("81c3dd000186a1") + values, values}) {
        QVERIFY(!MsgPack::unpack(bytes).isValid());
        const QStringList lines = m_log.take();
        QCOMPARE(lines.last(), s_refusal(bytes));
        QCOMPARE(lines.count(s_unknownLine), lines.size() - 1);
    }
}

QTEST_APPLESS_MAIN(TestMsgPackHostile)
#include "tst_msgpack_hostile.moc"
