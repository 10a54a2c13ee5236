// The codec when memory runs out: in a child process that may take little more than it has.
#include "msgpack/limits_p.h"
#include "msgpack/msgpack.h"
#include "msgpack/msgpackstream.h"
#include "msgpack/unpack_p.h"
#include "tests/unit/logcollector.h"
#include "tests/unit/manyzeros.h"
#include "tests/unit/variantnotation.h"

#include <QFile>
#include <QtTest>

#include <csignal>
#include <functional>
#include <string>

#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using Bytes = QByteArray;
using VariantNotation::notation;

class TestMsgPackMemory : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void enoughMemory();
    void unpacking_data();
    void unpacking();
    void unpackerThatTakesTooMuch();
    void itemThatIsTooLarge();
    void linesBeforeTheEnd();
    void listsUpToTheBoundAreBegun_data();
    void listsUpToTheBoundAreBegun();
    void packing_data();
    void packing();
    void readingFromAStream_data();
    void readingFromAStream();
    void writingToAStream_data();
    void writingToAStream();
};

using Step = std::function<QString()>;
Q_DECLARE_METATYPE(Step)

// A type that takes this much when it is packed.
struct Large {
    int size = 0;
};
Q_DECLARE_METATYPE(Large)

static const int s_mebibyte = 1024 * 1024;

// One heap, which gives back what is large: neither other threads nor earlier tests leave memory behind that
// is in the process already. Before the first thread begins.
static const bool s_isHeapPlain = mallopt(M_ARENA_MAX, 1) == 1 && mallopt(M_MMAP_THRESHOLD, s_mebibyte) == 1;

static const rlim_t s_room = 64 * s_mebibyte;
static const char s_unpackLine[] = "warning: MsgPack::unpack() has run out of memory";
static const char s_packLine[] = "warning: MsgPack::pack has run out of memory";
static const char s_streamLine[] = "warning: MsgPackStream has run out of memory";

static Bytes s_hex(const char *hex)
{
    return Bytes::fromHex(hex);
}

static void s_limitMemory()
{
    QFile sizes(QStringLiteral("/proc/self/statm"));
    sizes.open(QIODevice::ReadOnly);
    const rlim_t now = sizes.readAll().split(' ').first().toULongLong() * rlim_t(sysconf(_SC_PAGESIZE));
    const rlimit limit{now + s_room, now + s_room};
    setrlimit(RLIMIT_AS, &limit);
}

// QtTest's handlers would have a debugger print the stack of a child that aborts.
static void s_dieQuietly()
{
    for (const int signal : {SIGABRT, SIGSEGV, SIGBUS, SIGALRM}) {
        std::signal(signal, SIG_DFL);
    }
    alarm(60);
}

// Ends the process; by an abort, if an exception leaves the step.
static void s_runAndTell(const Step &step, int pipe) noexcept
{
    s_dieQuietly();
    LogCollector log;
    log.start();
    s_limitMemory();
    QStringList lines{step()};
    lines += log.take();
    // The codec is as it was before.
    const bool works = MsgPack::pack(MsgPack::unpack(s_hex("93a1780590"))) == s_hex("93a1780590");
    const bool isLockFree = MsgPackPrivate::unpackers_lock.tryLockForWrite();
    const Bytes told = works && isLockFree ? lines.join('\n').toUtf8() : Bytes("broken");
    const bool written = write(pipe, told.constData(), size_t(told.size())) == told.size();
    _exit(written ? 0 : 1);
}

// What the step returns when little memory is to be had, and the lines that it logs.
static QStringList s_inLittleMemory(const Step &step)
{
    int ends[2];
    if (pipe(ends) != 0) {
        return {"no pipe"};
    }
    const pid_t child = fork();
    if (child == 0) {
        s_runAndTell(step, ends[1]);
    }
    close(ends[1]);
    QFile reading;
    reading.open(ends[0], QIODevice::ReadOnly, QFileDevice::AutoCloseHandle);
    const QString told = QString::fromUtf8(reading.readAll());
    int status = 0;
    waitpid(child, &status, 0);
    return status == 0 ? told.split('\n') : QStringList{QStringLiteral("died of status %1").arg(status)};
}

static QString s_unpacked(const Bytes &bytes)
{
    return notation(MsgPack::unpack(bytes));
}

void TestMsgPackMemory::initTestCase()
{
    MsgPack::registerUnpacker(42, [](const QByteArray &payload) { return QVariant(payload); });
    MsgPack::registerUnpacker(43, [](const QByteArray &) { return QVariant(Bytes(100 * s_mebibyte, 'x')); });
    MsgPack::registerPacker(qMetaTypeId<Large>(), 1,
                            [](const QVariant &v) { return Bytes(v.value<Large>().size, 'x'); });
}

void TestMsgPackMemory::enoughMemory()
{
    QVERIFY(s_isHeapPlain);
    QCOMPARE(s_inLittleMemory([] { return s_unpacked(s_hex("9205d41100")); }),
             (QStringList{"[u5, u5]", "warning: MsgPack::unpack() unpacker for type 17 doesn't exist"}));
}

void TestMsgPackMemory::unpacking_data()
{
    QTest::addColumn<QByteArray>("header");
    QTest::addColumn<QByteArray>("unit");
    QTest::addColumn<int>("count");

    const int many = 4 * s_mebibyte;
    QTest::newRow("array") << s_hex("dd00400000") << s_hex("c0") << many;
    QTest::newRow("values one after another") << Bytes() << s_hex("c0") << many;
    QTest::newRow("array in a map in an array") << s_hex("9281a161dd00400000") << s_hex("c0") << many;
    QTest::newRow("arrays of one") << s_hex("dd00400000") << s_hex("91c0") << many;
    QTest::newRow("maps of one") << s_hex("dd00400000") << s_hex("8101c0") << many;
    QTest::newRow("texts") << s_hex("dd00400000") << s_hex("a178") << many;
    QTest::newRow("arrays of an extension") << Bytes() << s_hex("91d42a00") << many;
}

void TestMsgPackMemory::unpacking()
{
    QFETCH(QByteArray, header);
    QFETCH(QByteArray, unit);
    QFETCH(int, count);
    const Bytes bytes = header + unit.repeated(count);
    QCOMPARE(s_inLittleMemory([&] { return s_unpacked(bytes); }), (QStringList{"nil", s_unpackLine}));
}

void TestMsgPackMemory::unpackerThatTakesTooMuch()
{
    QCOMPARE(s_inLittleMemory([] { return s_unpacked(s_hex("9105d42b00")); }),
             (QStringList{"nil", s_unpackLine}));
}

void TestMsgPackMemory::itemThatIsTooLarge()
{
    for (const char *hex : {"db06400000", "c606400000", "c9064000002a"}) {
        const ManyZeros item(s_hex(hex), 100 * s_mebibyte);
        QVERIFY(item.isThere());
        QCOMPARE(s_inLittleMemory([&] { return s_unpacked(item.bytes()); }),
                 (QStringList{"nil", s_unpackLine}));
    }
}

// The count of lines left out ends with the message, before the line that says why.
void TestMsgPackMemory::linesBeforeTheEnd()
{
    const Bytes bytes = s_hex("c70011").repeated(1003) + s_hex("c0").repeated(4 * s_mebibyte);
    const QStringList told = s_inLittleMemory([&] { return s_unpacked(bytes); });
    QCOMPARE(told.size(), 1 + 1000 + 1 + 1);
    QCOMPARE(told.mid(1001), (QStringList{"warning: And 3 more lines of this kind from the same message: "
                                          "MsgPack::unpack() unpacker for type N doesn't exist",
                                          s_unpackLine}));
}

// Only what no list holds is refused before anything is decoded; anything else is decoded, as far as memory
// goes.
void TestMsgPackMemory::listsUpToTheBoundAreBegun_data()
{
    QTest::addColumn<uint>("count");
    QTest::addColumn<uint>("bytes");

    const uint most = MsgPackPrivate::maxListSize;
    QTest::newRow("most elements, all there") << most << most;
    QTest::newRow("one more, but not there") << most + 1 << most;
}

void TestMsgPackMemory::listsUpToTheBoundAreBegun()
{
    QFETCH(uint, count);
    QFETCH(uint, bytes);
    const ManyZeros list("\xDD" + s_hex(QByteArray::number(count, 16).rightJustified(8, '0')), bytes);
    QVERIFY(list.isThere());
    QCOMPARE(s_inLittleMemory([&] { return s_unpacked(list.bytes()); }), (QStringList{"nil", s_unpackLine}));
}

void TestMsgPackMemory::packing_data()
{
    QTest::addColumn<QVariant>("value");

    const QVariant large = Bytes(s_mebibyte, 'x');
    QTest::newRow("result") << QVariant(QVector<QVariant>(100, large).toList());
    QTest::newRow("packer") << QVariant::fromValue(Large{100 * s_mebibyte});
    QTest::newRow("payloads") << QVariant(
        QVector<QVariant>(10, QVariant::fromValue(Large{10 * s_mebibyte})).toList());
    QTest::newRow("result and payload") << QVariant::fromValue(Large{40 * s_mebibyte});
}

void TestMsgPackMemory::packing()
{
    QFETCH(QVariant, value);
    QCOMPARE(s_inLittleMemory([&] { return notation(MsgPack::pack(value)); }),
             (QStringList{"h''", s_packLine}));
}

void TestMsgPackMemory::readingFromAStream_data()
{
    QTest::addColumn<QByteArray>("header");
    QTest::addColumn<int>("size");

    QTest::newRow("bytes") << s_hex("c606400000") << 100 * s_mebibyte;
    QTest::newRow("text's bytes") << s_hex("db06400000") << 100 * s_mebibyte;
    QTest::newRow("text") << s_hex("db02800000") << 40 * s_mebibyte;
}

// The target stays, the status says that there is nothing to be had from the bytes read.
template <class T>
static QString s_read(const Bytes &bytes)
{
    MsgPackStream stream(bytes);
    T target("before");
    stream >> target;
    return notation(target) + ' ' + QString::number(stream.status());
}

void TestMsgPackMemory::readingFromAStream()
{
    QFETCH(QByteArray, header);
    QFETCH(int, size);
    const ManyZeros item(header, size_t(size));
    QVERIFY(item.isThere());
    const bool isText = header.startsWith('\xDB');
    QCOMPARE(s_inLittleMemory(
                 [&] { return isText ? s_read<QString>(item.bytes()) : s_read<Bytes>(item.bytes()); }),
             (QStringList{isText ? "\"before\" 2" : "h'6265666f7265' 2", s_streamLine}));
}

// What the buffer holds and the status, after a write that is too large.
template <class T>
static QString s_write(const T &item)
{
    Bytes written;
    MsgPackStream stream(&written, QIODevice::WriteOnly);
    stream << 5 << item;
    return QString::fromLatin1(written.left(1).toHex()) + ' ' + QString::number(stream.status());
}

void TestMsgPackMemory::writingToAStream_data()
{
    QTest::addColumn<Step>("write");
    QTest::addColumn<QString>("line");

    static const ManyZeros bytes(Bytes(), 100 * s_mebibyte);
    QVERIFY(bytes.isThere());
    static const std::string rawText(100 * s_mebibyte, 'x');
    static const QString text(40 * s_mebibyte, QChar(0xE9));
    QTest::newRow("bytes") << Step([] { return s_write(bytes.bytes()); }) << s_streamLine;
    QTest::newRow("raw text") << Step([] { return s_write(rawText.c_str()); }) << s_streamLine;
    QTest::newRow("text") << Step([] { return s_write(text); }) << s_packLine;
}

void TestMsgPackMemory::writingToAStream()
{
    QFETCH(Step, write);
    QFETCH(QString, line);
    QCOMPARE(s_inLittleMemory(write), (QStringList{"05 3", line}));
}

QTEST_APPLESS_MAIN(TestMsgPackMemory)
#include "tst_msgpack_memory.moc"
