// The stream over devices: what each operator writes and reads, the status, and devices that deliver slowly,
// cut short or fail.
#include "msgpack/geometry.h"
#include "msgpack/msgpack.h"
#include "msgpack/msgpackstream.h"
#include "msgpack/time.h"
#include "tests/unit/allocationcounter.h"
#include "tests/unit/logcollector.h"
#include "tests/unit/variantnotation.h"

#include <QBuffer>
#include <QPointer>
#include <QtTest>

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <type_traits>

using Bytes = QByteArray;
using VariantNotation::notation;

class TestMsgPackStream : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    // Before any extension type is registered
    void qtValueWithoutTypeNumber_data();
    void qtValueWithoutTypeNumber();

    // Happy
    void isPolymorphic();
    void construction();
    void arrayIsOpenedInTheModeGiven_data();
    void arrayIsOpenedInTheModeGiven();
    void byteArrayIsCopied();
    void arrayOfTheCaller();
    void ownedDeviceIsDeleted();
    void deviceOfTheCallerIsKept();
    void ownedDeviceSetAgainChangesNothing();
    void flags();
    void statusOutlivesTheDevice_data();
    void statusOutlivesTheDevice();
    void writtenBytes_data();
    void writtenBytes();
    void rawBytes();
    void extHeaders_data();
    void extHeaders();
    void extHeadersInAnyFormat_data();
    void extHeadersInAnyFormat();
    void everythingComesBack_data();
    void everythingComesBack();
    void qtValues_data();
    void qtValues();
    void qtValueTakesAnyTypeNumber();
    void qtValuesOfWideNumbers_data();
    void qtValuesOfWideNumbers();
    void qtValuesAreReadWhateverTheStatus();
    void flushedWritesWait();
    void flushedWritesGoOnWhenWaitingFails();
    void unflushedWritesDoNotWait();
    void waitsForBytesWithoutTimeOut();

    // Rainy
    void withoutADevice();
    void qtValuesWithoutADevice();
    void boolIsTrueForOneByteOnly();
    void everyReaderOnEveryFirstByte_data();
    void everyReaderOnEveryFirstByte();
    void numbersOutsideTheTargetsRange_data();
    void numbersOutsideTheTargetsRange();
    void everyReaderOnEveryCut_data();
    void everyReaderOnEveryCut();
    void everyReaderOnEveryFailingRead_data();
    void everyReaderOnEveryFailingRead();
    void everyWriterOnEveryFailingWrite_data();
    void everyWriterOnEveryFailingWrite();
    void statusStaysUntilReset();
    void nothingIsWrittenWhileTheStatusIsBad_data();
    void nothingIsWrittenWhileTheStatusIsBad();
    void readOnlyDeviceFailsWrites();
    void deviceThatRunsOutOfMemory();
    void extHeaderOnEveryFirstByte();
    void extHeaderOnEveryCut();
    void extHeaderNeedsTwoBytes();
    void qtValuesOfWrongLength_data();
    void qtValuesOfWrongLength();
    void announcedLengthTakesNoMemory_data();
    void announcedLengthTakesNoMemory();

private:
    LogCollector m_log;
};

// A sequential device under the test's control. It delivers and takes at most `chunk` bytes a call, holds
// `pending` bytes back until somebody waits for them, and fails the call whose number is set.
class ScriptedDevice : public QIODevice
{
public:
    explicit ScriptedDevice(const Bytes &input = Bytes()) : available(input)
    {
        open(QIODevice::ReadWrite | QIODevice::Unbuffered);
    }

    Bytes available;
    QList<QByteArray> pending;
    Bytes written;
    int chunk = 1;
    int failingRead = 0; // counted from 1; 0 is none
    int failingWrite = 0;
    int reads = 0;
    int writes = 0;
    QList<int> readWaits; // the time-outs that were asked for
    QList<int> writeWaits;
    bool isWaitSuccessful = true; // what waiting for written bytes tells

    bool isSequential() const override { return true; }
    qint64 bytesAvailable() const override { return available.size() + QIODevice::bytesAvailable(); }
    bool atEnd() const override { return available.isEmpty() && pending.isEmpty(); }

    bool waitForReadyRead(int msecs) override
    {
        readWaits << msecs;
        if (pending.isEmpty()) {
            return false;
        }
        available += pending.takeFirst();
        return true;
    }

    bool waitForBytesWritten(int msecs) override
    {
        writeWaits << msecs;
        return isWaitSuccessful;
    }

protected:
    qint64 readData(char *data, qint64 maxSize) override
    {
        if (++reads == failingRead) {
            return -1;
        }
        const int size = int(std::min<qint64>({maxSize, chunk, available.size()}));
        std::memcpy(data, available.constData(), size_t(size));
        available.remove(0, size);
        return size;
    }

    qint64 writeData(const char *data, qint64 size) override
    {
        if (++writes == failingWrite) {
            return -1;
        }
        const int taken = int(std::min<qint64>(size, chunk));
        written.append(data, taken);
        return taken;
    }
};

// A device that runs out of memory.
class GreedyDevice : public QIODevice
{
public:
    GreedyDevice() { open(QIODevice::ReadWrite | QIODevice::Unbuffered); }

protected:
    qint64 readData(char *, qint64) override { throw std::bad_alloc(); }
    qint64 writeData(const char *, qint64) override { throw std::bad_alloc(); }
};

// One operator>>: reads into a target that holds something before, and tells what it holds after.
struct Reader {
    const char *name;
    std::function<QString(MsgPackStream &)> read;
    QString before;
};

template <class T>
static Reader s_reader(const char *name, const T &before)
{
    const auto text = [](const T &value) {
        if constexpr (std::is_integral_v<T> && !std::is_same_v<T, bool>) {
            return QString::number(value);
        } else {
            return notation(QVariant::fromValue(value));
        }
    };
    return {name,
            [before, text](MsgPackStream &stream) {
                T target = before;
                stream >> target;
                return text(target);
            },
            text(before)};
}

static const QVector<Reader> &s_readers()
{
    static const QVector<Reader> readers{
        s_reader<bool>("bool", false),      s_reader<qint8>("qint8", 42),
        s_reader<qint16>("qint16", 42),     s_reader<int>("int", 42),
        s_reader<qint64>("qint64", 42),     s_reader<quint8>("quint8", 42),
        s_reader<quint16>("quint16", 42),   s_reader<quint32>("quint32", 42),
        s_reader<quint64>("quint64", 42),   s_reader<float>("float", 42.0F),
        s_reader<double>("double", 42.0),   s_reader<QByteArray>("bytes", "before"),
        s_reader<QString>("text", "before")};
    return readers;
}

static const Reader &s_readerNamed(const QString &name)
{
    for (const Reader &reader : s_readers()) {
        if (name == QLatin1String(reader.name)) {
            return reader;
        }
    }
    qFatal("no such reader");
}

static void s_readerRows()
{
    QTest::addColumn<QString>("name");
    for (const Reader &reader : s_readers()) {
        QTest::newRow(reader.name) << QString::fromLatin1(reader.name);
    }
}

static Bytes s_hex(const char *hex)
{
    return Bytes::fromHex(hex);
}

using Writer = std::function<void(MsgPackStream &)>;
Q_DECLARE_METATYPE(Writer)

static Bytes s_written(const Writer &write)
{
    Bytes bytes;
    MsgPackStream stream(&bytes, QIODevice::WriteOnly);
    write(stream);
    return stream.status() == MsgPackStream::Ok ? bytes : Bytes("failed");
}

template <class T>
static Writer s_writer(const T &value)
{
    return [value](MsgPackStream &stream) {
        stream << value;
    };
}

static void s_registerQtTypes()
{
    static const bool registered =
        MsgPack::registerType(QMetaType::QTime, 15) && MsgPack::registerType(QMetaType::QDate, 14) &&
        MsgPack::registerType(QMetaType::QDateTime, 16) && MsgPack::registerType(QMetaType::QPoint, 25) &&
        MsgPack::registerType(QMetaType::QSize, 21) && MsgPack::registerType(QMetaType::QRect, 0x80 + 19);
    QVERIFY(registered);
}

void TestMsgPackStream::initTestCase()
{
    // Away from UTC, so that it can't pass for local time.
    qputenv("TZ", "VST-5:30");
    tzset();
}

void TestMsgPackStream::init()
{
    m_log.start();
}

void TestMsgPackStream::cleanup()
{
    MsgPack::setCompatibilityModeEnabled(false);
    QCOMPARE(m_log.finish(), QStringList());
}

void TestMsgPackStream::qtValueWithoutTypeNumber_data()
{
    QTest::addColumn<Writer>("write");
    QTest::newRow("time") << s_writer(QTime(1, 2));
    QTest::newRow("date") << s_writer(QDate(2024, 3, 5));
    QTest::newRow("date-time") << s_writer(QDateTime(QDate(2024, 3, 5), QTime(1, 2)));
    QTest::newRow("point") << s_writer(QPoint(1, 2));
    QTest::newRow("size") << s_writer(QSize(1, 2));
    QTest::newRow("rectangle") << s_writer(QRect(1, 2, 3, 4));
    QTest::newRow("invalid time") << s_writer(QTime());
}

void TestMsgPackStream::qtValueWithoutTypeNumber()
{
    QFETCH(Writer, write);
    ScriptedDevice device;
    MsgPackStream stream(&device);
    write(stream);
    QCOMPARE(stream.status(), 3);
    QCOMPARE(device.writes, 0);
}

void TestMsgPackStream::isPolymorphic()
{
    QVERIFY(std::has_virtual_destructor_v<MsgPackStream>);
    QCOMPARE(int(MsgPackStream::Ok), 0);
}

void TestMsgPackStream::construction()
{
    const MsgPackStream none;
    QVERIFY(!none.device());
    QVERIFY(none.atEnd());
    QCOMPARE(none.status(), 0);
    QVERIFY(!none.willFlushWrites());

    ScriptedDevice device("x");
    const MsgPackStream onDevice(&device);
    QCOMPARE(onDevice.device(), &device);
    QVERIFY(!onDevice.atEnd());
    QCOMPARE(onDevice.status(), 0);
    QVERIFY(!onDevice.willFlushWrites());

    const MsgPackStream onBytes(Bytes("x"));
    QVERIFY(onBytes.device());
    QCOMPARE(onBytes.device()->openMode() & QIODevice::ReadWrite, QIODevice::ReadOnly);
    QVERIFY(!onBytes.atEnd());
    QVERIFY(MsgPackStream(Bytes()).atEnd());

    Bytes bytes;
    const MsgPackStream onArray(&bytes, QIODevice::ReadWrite);
    QCOMPARE(onArray.device()->openMode() & QIODevice::ReadWrite, QIODevice::ReadWrite);
}

void TestMsgPackStream::arrayIsOpenedInTheModeGiven_data()
{
    QTest::addColumn<int>("mode");
    QTest::newRow("reading") << int(QIODevice::ReadOnly);
    QTest::newRow("writing") << int(QIODevice::WriteOnly);
    QTest::newRow("both") << int(QIODevice::ReadWrite);
    QTest::newRow("at the end") << int(QIODevice::WriteOnly | QIODevice::Append);
    QTest::newRow("anew") << int(QIODevice::WriteOnly | QIODevice::Truncate);
    QTest::newRow("as text") << int(QIODevice::ReadOnly | QIODevice::Text);
}

void TestMsgPackStream::arrayIsOpenedInTheModeGiven()
{
    QFETCH(int, mode);
    const QIODevice::OpenMode given(mode);
    Bytes bytes("x");
    QBuffer expected;
    QVERIFY(expected.open(given));
    const MsgPackStream stream(&bytes, given);
    QCOMPARE(stream.device()->openMode(), expected.openMode());
    QCOMPARE(bytes, Bytes(given.testFlag(QIODevice::Truncate) ? "" : "x"));
}

void TestMsgPackStream::byteArrayIsCopied()
{
    Bytes bytes = s_hex("0102");
    MsgPackStream stream(bytes);
    bytes.fill('\x07');
    int first = 0;
    int second = 0;
    stream >> first >> second;
    QCOMPARE(first, 1);
    QCOMPARE(second, 2);
    QVERIFY(stream.atEnd());
}

void TestMsgPackStream::arrayOfTheCaller()
{
    Bytes bytes;
    {
        MsgPackStream stream(&bytes, QIODevice::WriteOnly);
        stream << 1 << true << "x";
        QCOMPARE(bytes.toHex(), Bytes("01c3a178"));
    }
    {
        MsgPackStream stream(&bytes, QIODevice::Append);
        stream << -1;
    }
    QCOMPARE(bytes.toHex(), Bytes("01c3a178ff"));
    MsgPackStream stream(&bytes, QIODevice::ReadOnly);
    int number = 0;
    bool flag = false;
    QString text;
    stream >> number >> flag >> text >> number;
    QCOMPARE(stream.status(), 0);
    QVERIFY(flag);
    QCOMPARE(text, QStringLiteral("x"));
    QCOMPARE(number, -1);
}

void TestMsgPackStream::ownedDeviceIsDeleted()
{
    QPointer<QIODevice> owned;
    {
        const MsgPackStream stream(Bytes("x"));
        owned = stream.device();
        QVERIFY(owned);
    }
    QVERIFY(!owned);

    ScriptedDevice device;
    Bytes bytes;
    MsgPackStream stream(&bytes, QIODevice::WriteOnly);
    owned = stream.device();
    stream.setDevice(&device);
    QVERIFY(!owned);
    QCOMPARE(stream.device(), &device);
    stream << 1;
    QCOMPARE(device.written.toHex(), Bytes("01"));
    QCOMPARE(bytes, Bytes());

    MsgPackStream toNothing{Bytes("x")};
    owned = toNothing.device();
    toNothing.setDevice(nullptr);
    QVERIFY(!owned);
    QVERIFY(toNothing.atEnd());
}

void TestMsgPackStream::deviceOfTheCallerIsKept()
{
    QPointer<QIODevice> first(new ScriptedDevice);
    QPointer<QIODevice> second(new ScriptedDevice);
    {
        MsgPackStream stream(first);
        stream.setDevice(second);
        QVERIFY(first);
    }
    QVERIFY(second);
    {
        MsgPackStream stream(Bytes("x"));
        stream.setDevice(first);
    }
    QVERIFY(first);
    delete first;
    delete second;
}

void TestMsgPackStream::ownedDeviceSetAgainChangesNothing()
{
    QPointer<QIODevice> owned;
    {
        MsgPackStream stream(s_hex("0102"));
        owned = stream.device();
        int number = 0;
        stream >> number;
        stream.setDevice(stream.device());
        QCOMPARE(stream.device(), owned.data());
        stream >> number;
        QCOMPARE(number, 2);
        QCOMPARE(stream.status(), 0);
    }
    QVERIFY(!owned); // still the stream's own
}

void TestMsgPackStream::statusOutlivesTheDevice_data()
{
    QTest::addColumn<int>("status");
    QTest::newRow("read past end") << 1;
    QTest::newRow("corrupt data") << 2;
    QTest::newRow("write failed") << 3;
}

void TestMsgPackStream::statusOutlivesTheDevice()
{
    QFETCH(int, status);
    ScriptedDevice device;
    MsgPackStream stream(Bytes("x"));
    stream.setStatus(status);
    stream.setDevice(&device);
    QCOMPARE(stream.status(), status);
    stream << 1;
    QCOMPARE(device.writes, 0);
    stream.setDevice(nullptr);
    QCOMPARE(stream.status(), status);
    stream.resetStatus();
    stream.setDevice(&device);
    stream << 1;
    QCOMPARE(device.writes, 1);
}

void TestMsgPackStream::flags()
{
    MsgPackStream stream;
    stream.setFlushWrites(true);
    QVERIFY(stream.willFlushWrites());
    stream.setFlushWrites(false);
    QVERIFY(!stream.willFlushWrites());
    stream.setStatus(2);
    QCOMPARE(stream.status(), 2);
    stream.setStatus(1);
    QCOMPARE(stream.status(), 1);
    stream.setStatus(3);
    stream.resetStatus();
    QCOMPARE(stream.status(), 0);
    stream.setStatus(2);
    stream.setStatus(0);
    QCOMPARE(stream.status(), 0);
}

void TestMsgPackStream::writtenBytes_data()
{
    QTest::addColumn<Writer>("write");
    QTest::addColumn<QByteArray>("normal");
    QTest::addColumn<QByteArray>("compatible");

    const auto same = [](const char *name, const Writer &write, const Bytes &hex) {
        QTest::newRow(name) << write << hex << hex;
    };
    same("false", s_writer(false), "c2");
    same("true", s_writer(true), "c3");
    same("int 0", s_writer(0), "00");
    same("int 127", s_writer(127), "7f");
    same("int 128", s_writer(128), "cc80");
    same("int 256", s_writer(256), "cd0100");
    same("int 65536", s_writer(65536), "ce00010000");
    same("int -1", s_writer(-1), "ff");
    same("int -32", s_writer(-32), "e0");
    same("int -33", s_writer(-33), "d0df");
    same("int -129", s_writer(-129), "d1ff7f");
    same("int -32769", s_writer(-32769), "d2ffff7fff");
    same("unsigned 127", s_writer(127U), "7f");
    same("unsigned 128", s_writer(128U), "cc80");
    same("unsigned 65535", s_writer(65535U), "cdffff");
    same("largest unsigned", s_writer(0xffffffffU), "ceffffffff");
    same("qint64 4294967295", s_writer(qint64(4294967295)), "ceffffffff");
    same("qint64 4294967296", s_writer(qint64(4294967296)), "d30000000100000000");
    same("qint64 -1", s_writer(qint64(-1)), "ff");
    same("qint64 -2147483649", s_writer(qint64(-2147483649LL)), "d3ffffffff7fffffff");
    same("quint64 4294967295", s_writer(quint64(4294967295)), "ceffffffff");
    same("quint64 4294967296", s_writer(quint64(4294967296)), "cf0000000100000000");
    same("float", s_writer(1.0F), "ca3f800000");
    same("double", s_writer(1.0), "cb3ff0000000000000");
    same("empty text", s_writer(QString()), "a0");
    same("text", s_writer(QString(QChar(0xE9))), "a2c3a9");
    same("raw text", s_writer<const char *>("\xff\xfe"), "a2fffe");
    same("empty raw text", s_writer<const char *>(""), "a0");
    same("no raw text", s_writer<const char *>(nullptr), "a0");

    const Bytes x31 = Bytes(31, 'x').toHex();
    const Bytes x32 = Bytes(32, 'x').toHex();
    const Bytes x256 = Bytes(256, 'x').toHex();
    same("text of 31", s_writer(QString(31, QLatin1Char('x'))), "bf" + x31);
    same("text of 256", s_writer(QString(256, QLatin1Char('x'))), "da0100" + x256);
    QTest::newRow("text of 32") << s_writer(QString(32, QLatin1Char('x'))) << "d920" + x32 << "da0020" + x32;
    static const Bytes rawText(65536, 'x');
    same("raw text of 31", s_writer<const char *>(rawText.constData() + 65536 - 31), "bf" + x31);
    same("raw text of 256", s_writer<const char *>(rawText.constData() + 65536 - 256), "da0100" + x256);
    QTest::newRow("raw text of 32") << s_writer<const char *>("xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx")
                                    << "d920" + x32 << "da0020" + x32;
    QTest::newRow("empty bytes") << s_writer(Bytes()) << Bytes("c400") << Bytes("d900");
    QTest::newRow("bytes") << s_writer(s_hex("00ff")) << Bytes("c40200ff") << Bytes("d90200ff");
    QTest::newRow("256 bytes") << s_writer(Bytes(256, 'x')) << "c50100" + x256 << "da0100" + x256;
}

void TestMsgPackStream::writtenBytes()
{
    QFETCH(Writer, write);
    QFETCH(QByteArray, normal);
    QFETCH(QByteArray, compatible);
    QCOMPARE(s_written(write).toHex(), normal);
    MsgPack::setCompatibilityModeEnabled(true);
    QCOMPARE(s_written(write).toHex(), compatible);
    MsgPack::setCompatibilityModeEnabled(false);

    // A device that takes a byte at a time gets the same bytes.
    ScriptedDevice device;
    MsgPackStream stream(&device);
    write(stream);
    QCOMPARE(stream.status(), 0);
    QCOMPARE(device.written.toHex(), normal);
}

void TestMsgPackStream::rawBytes()
{
    Bytes bytes;
    MsgPackStream writing(&bytes, QIODevice::WriteOnly);
    QVERIFY(writing.writeBytes("abc", 3));
    QVERIFY(writing.writeBytes("xyz", 0));
    QVERIFY(writing.writeBytes("xyz", -1));
    QVERIFY(writing.writeBytes("def", 2));
    QCOMPARE(bytes, Bytes("abcde"));

    MsgPackStream reading(bytes);
    char buffer[8] = "-------";
    QVERIFY(reading.readBytes(buffer, 0));
    QVERIFY(reading.readBytes(buffer, -1));
    QVERIFY(reading.readBytes(buffer, 3));
    QCOMPARE(Bytes(buffer), Bytes("abc----"));
    QCOMPARE(reading.status(), 0);
    QVERIFY(!reading.readBytes(buffer, 3));
    QCOMPARE(reading.status(), 1);
    // A bad status stops writers, not readers.
    QVERIFY(reading.readBytes(buffer, 0));
    QCOMPARE(reading.status(), 1);
}

void TestMsgPackStream::extHeaders_data()
{
    QTest::addColumn<quint32>("length");
    QTest::addColumn<QByteArray>("hex");

    QTest::newRow("0") << 0U << Bytes("c7002a");
    QTest::newRow("1") << 1U << Bytes("d42a");
    QTest::newRow("2") << 2U << Bytes("d52a");
    QTest::newRow("3") << 3U << Bytes("c7032a");
    QTest::newRow("4") << 4U << Bytes("d62a");
    QTest::newRow("5") << 5U << Bytes("c7052a");
    QTest::newRow("7") << 7U << Bytes("c7072a");
    QTest::newRow("8") << 8U << Bytes("d72a");
    QTest::newRow("9") << 9U << Bytes("c7092a");
    QTest::newRow("15") << 15U << Bytes("c70f2a");
    QTest::newRow("16") << 16U << Bytes("d82a");
    QTest::newRow("17") << 17U << Bytes("c7112a");
    QTest::newRow("255") << 255U << Bytes("c7ff2a");
    QTest::newRow("256") << 256U << Bytes("c801002a");
    QTest::newRow("65535") << 65535U << Bytes("c8ffff2a");
    QTest::newRow("65536") << 65536U << Bytes("c9000100002a");
    QTest::newRow("2^31") << 0x80000000U << Bytes("c9800000002a");
    QTest::newRow("2^32 - 1") << 0xffffffffU << Bytes("c9ffffffff2a");
}

void TestMsgPackStream::extHeaders()
{
    QFETCH(quint32, length);
    QFETCH(QByteArray, hex);
    QCOMPARE(s_written([=](MsgPackStream &stream) { QVERIFY(stream.writeExtHeader(length, 0x2A)); }).toHex(),
             hex);

    MsgPackStream stream(Bytes::fromHex(hex) + '\x05');
    quint32 back = 42;
    QVERIFY(stream.readExtHeader(back));
    QCOMPARE(back, length);
    QCOMPARE(stream.status(), 0);
    // The type byte was read, the payload was not.
    QCOMPARE(stream.device()->pos(), qint64(hex.size() / 2));
}

void TestMsgPackStream::extHeadersInAnyFormat_data()
{
    QTest::addColumn<QByteArray>("hex");
    QTest::addColumn<quint32>("length");

    QTest::newRow("ext 8 for 4") << Bytes("c70480") << 4U;
    QTest::newRow("ext 16 for 0") << Bytes("c8000080") << 0U;
    QTest::newRow("ext 16 for 4") << Bytes("c8000480") << 4U;
    QTest::newRow("ext 32 for 0") << Bytes("c90000000080") << 0U;
    QTest::newRow("ext 32 for 16909060") << Bytes("c90102030480") << 0x01020304U;
    QTest::newRow("fixext 1 of type -1") << Bytes("d4ff") << 1U;
    QTest::newRow("fixext 16 of type 0") << Bytes("d800") << 16U;
}

void TestMsgPackStream::extHeadersInAnyFormat()
{
    QFETCH(QByteArray, hex);
    QFETCH(quint32, length);
    ScriptedDevice device(Bytes::fromHex(hex) + '\x05');
    MsgPackStream stream(&device);
    quint32 back = 42;
    QVERIFY(stream.readExtHeader(back));
    QCOMPARE(back, length);
    QCOMPARE(stream.status(), 0);
    QCOMPARE(device.available, Bytes("\x05"));
}

// Every reader once, on every format that it takes.
static const QVector<QPair<const char *, QPair<const char *, const char *>>> &s_items()
{
    static const QVector<QPair<const char *, QPair<const char *, const char *>>> items{
        {"bool", {"c2", "false"}},
        {"bool", {"c3", "true"}},
        {"qint8", {"05", "5"}},
        {"qint8", {"e0", "-32"}},
        {"qint8", {"cc7f", "127"}},
        {"qint8", {"cd007f", "127"}},
        {"qint8", {"ce0000007f", "127"}},
        {"qint8", {"cf000000000000007f", "127"}},
        {"qint8", {"d080", "-128"}},
        {"qint8", {"d1ff80", "-128"}},
        {"qint8", {"d2ffffff80", "-128"}},
        {"qint8", {"d3ffffffffffffff80", "-128"}},
        {"qint16", {"cd7fff", "32767"}},
        {"qint16", {"d18000", "-32768"}},
        {"qint16", {"d3ffffffffffff8000", "-32768"}},
        {"int", {"ce7fffffff", "2147483647"}},
        {"int", {"d280000000", "-2147483648"}},
        {"int", {"cf000000007fffffff", "2147483647"}},
        {"qint64", {"cf7fffffffffffffff", "9223372036854775807"}},
        {"qint64", {"d38000000000000000", "-9223372036854775808"}},
        {"quint8", {"7f", "127"}},
        {"quint8", {"ccff", "255"}},
        {"quint8", {"cf00000000000000ff", "255"}},
        {"quint16", {"cdffff", "65535"}},
        {"quint32", {"ceffffffff", "4294967295"}},
        {"quint64", {"cfffffffffffffffff", "18446744073709551615"}},
        {"float", {"ca3f800000", "f3f800000"}},
        {"double", {"cb3ff0000000000000", "d3ff0000000000000"}},
        {"bytes", {"c400", "h''"}},
        {"bytes", {"c40200ff", "h'00ff'"}},
        {"bytes", {"c5000200ff", "h'00ff'"}},
        {"bytes", {"c60000000200ff", "h'00ff'"}},
        {"text", {"a0", "\"\""}},
        {"text", {"a2c3a9", "\"\\u00e9\""}},
        {"text", {"a1ff", "\"\\ufffd\""}},
        {"text", {"d902c3a9", "\"\\u00e9\""}},
        {"text", {"da0002c3a9", "\"\\u00e9\""}},
        {"text", {"db00000002c3a9", "\"\\u00e9\""}},
    };
    return items;
}

static void s_itemRows()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("hex");
    QTest::addColumn<QString>("expected");
    for (const auto &item : s_items()) {
        QTest::addRow("%s %s", item.first, item.second.first)
            << QString(item.first) << Bytes(item.second.first) << QString(item.second.second);
    }
}

void TestMsgPackStream::everythingComesBack_data()
{
    s_itemRows();
}

void TestMsgPackStream::everythingComesBack()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, hex);
    QFETCH(QString, expected);
    const Bytes item = Bytes::fromHex(hex);
    // From a buffer, a byte at a time, and with each byte waited for. A second item follows right behind.
    MsgPackStream buffered(item + item);
    ScriptedDevice slowDevice(item + item);
    MsgPackStream slow(&slowDevice);
    ScriptedDevice waitingDevice;
    for (const char byte : item + item) {
        waitingDevice.pending << Bytes(1, byte);
    }
    MsgPackStream waiting(&waitingDevice);
    for (MsgPackStream *stream : {&buffered, &slow, &waiting}) {
        QCOMPARE(s_readerNamed(name).read(*stream), expected);
        QCOMPARE(s_readerNamed(name).read(*stream), expected);
        QCOMPARE(stream->status(), 0);
        QVERIFY(stream->atEnd());
    }
}

void TestMsgPackStream::waitsForBytesWithoutTimeOut()
{
    ScriptedDevice device;
    device.pending = {"\xC4", "\x05", "ab", "c", "de"};
    device.chunk = 16;
    MsgPackStream stream(&device);
    Bytes bytes;
    stream >> bytes;
    QCOMPARE(bytes, Bytes("abcde"));
    QCOMPARE(device.readWaits, (QList<int>{-1, -1, -1, -1, -1}));
}

void TestMsgPackStream::flushedWritesWait()
{
    ScriptedDevice device;
    MsgPackStream stream(&device);
    stream.setFlushWrites(true);
    QVERIFY(stream.writeBytes("abc", 3));
    QCOMPARE(device.written, Bytes("abc"));
    QCOMPARE(device.writeWaits, (QList<int>{-1, -1, -1})); // one for each byte that the device took
    QVERIFY(stream.writeBytes("abc", 0));
    QCOMPARE(device.writeWaits.size(), 3);
    device.writeWaits.clear();
    stream << QStringLiteral("xy");
    QCOMPARE(device.writeWaits.size(), device.writes - 3);
}

// Only the device's answer to a write tells whether that failed.
void TestMsgPackStream::flushedWritesGoOnWhenWaitingFails()
{
    ScriptedDevice device;
    device.isWaitSuccessful = false;
    MsgPackStream stream(&device);
    stream.setFlushWrites(true);
    QVERIFY(stream.writeBytes("abc", 3));
    stream << 5 << QStringLiteral("x");
    QCOMPARE(stream.status(), 0);
    QCOMPARE(device.written, Bytes("abc\x05\xA1x"));
    QCOMPARE(device.writeWaits.size(), 6);
}

void TestMsgPackStream::unflushedWritesDoNotWait()
{
    ScriptedDevice device;
    MsgPackStream stream(&device);
    stream << 70000 << QStringLiteral("abc") << Bytes("abc");
    QVERIFY(stream.writeBytes("abc", 3));
    QCOMPARE(device.writeWaits, QList<int>());
}

void TestMsgPackStream::qtValues_data()
{
    s_registerQtTypes();
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QByteArray>("hex");

    QTest::newRow("time") << QVariant(QTime(10, 20, 30)) << Bytes("d50fa51e");
    QTest::newRow("time with milliseconds") << QVariant(QTime(10, 20, 30, 456)) << Bytes("d60fa51e01c8");
    QTest::newRow("invalid time") << QVariant(QTime()) << Bytes("d40f00");
    QTest::newRow("date") << QVariant(QDate(2024, 3, 21)) << Bytes("c7030e87e835");
    QTest::newRow("invalid date") << QVariant(QDate()) << Bytes("d40e00");
    QTest::newRow("date-time") << QVariant(QDateTime(QDate(2024, 3, 5), QTime(10, 20, 30)))
                               << Bytes("c7051007e835a51e");
    QTest::newRow("date-time with milliseconds")
        << QVariant(QDateTime(QDate(2024, 3, 5), QTime(10, 20, 30, 456))) << Bytes("c7071007e835a51e01c8");
    QTest::newRow("invalid date-time") << QVariant(QDateTime()) << Bytes("d41000");
    QTest::newRow("point") << QVariant(QPoint(1, -1)) << Bytes("d51901ff");
    QTest::newRow("far point") << QVariant(QPoint(70000, -70000)) << Bytes("c70a19ce00011170d2fffeee90");
    QTest::newRow("origin") << QVariant(QPoint()) << Bytes("d41900");
    QTest::newRow("size") << QVariant(QSize(1, 128)) << Bytes("c7031501cc80");
    QTest::newRow("empty size") << QVariant(QSize(0, 0)) << Bytes("d5150000");
    QTest::newRow("invalid size") << QVariant(QSize()) << Bytes("d41500");
    QTest::newRow("rectangle") << QVariant(QRect(QPoint(1, 2), QPoint(3, 4))) << Bytes("d69301020304");
    QTest::newRow("invalid rectangle") << QVariant(QRect()) << Bytes("d49300");
}

template <class T>
static void s_checkQtValue(const T &value, const Bytes &hex, const T &other)
{
    QCOMPARE(s_written(s_writer(value)).toHex(), hex);

    ScriptedDevice device(Bytes::fromHex(hex) + '\x05');
    MsgPackStream stream(&device);
    T back = other;
    stream >> back;
    QCOMPARE(stream.status(), 0);
    QCOMPARE(back, value);
    QCOMPARE(device.available, Bytes("\x05"));

    // Every cut is a short read.
    for (int size = 0; size < hex.size() / 2; ++size) {
        MsgPackStream cut(Bytes::fromHex(hex).left(size));
        back = other;
        cut >> back;
        QCOMPARE(cut.status(), 1);
        QCOMPARE(back, other);
    }
    // Every write that fails is seen, and ends the writing.
    int writes = 0;
    for (bool failed = true; failed;) {
        ScriptedDevice failing;
        failing.failingWrite = ++writes;
        MsgPackStream failingStream(&failing);
        failingStream << value;
        failed = failing.writes >= writes;
        QCOMPARE(failingStream.status(), failed ? 3 : 0);
        QCOMPARE(failing.written, Bytes::fromHex(hex).left(writes - 1));
    }
    QCOMPARE(writes, hex.size() / 2 + 1);
}

void TestMsgPackStream::qtValues()
{
    QFETCH(QVariant, value);
    QFETCH(QByteArray, hex);
    switch (value.userType()) {
    case QMetaType::QTime:
        return s_checkQtValue(value.toTime(), hex, QTime(9, 9));
    case QMetaType::QDate:
        return s_checkQtValue(value.toDate(), hex, QDate(1999, 9, 9));
    case QMetaType::QDateTime:
        return s_checkQtValue(value.toDateTime(), hex, QDateTime(QDate(1999, 9, 9), QTime(9, 9)));
    case QMetaType::QPoint:
        return s_checkQtValue(value.toPoint(), hex, QPoint(9, 9));
    case QMetaType::QSize:
        return s_checkQtValue(value.toSize(), hex, QSize(9, 9));
    case QMetaType::QRect:
        return s_checkQtValue(value.toRect(), hex, QRect(9, 9, 9, 9));
    default:
        QFAIL("no such type");
    }
}

void TestMsgPackStream::qtValueTakesAnyTypeNumber()
{
    MsgPackStream stream(s_hex("d563a51e"
                               "c8000263a51e"
                               "c90000000263a51e"));
    for (int i = 0; i < 3; ++i) {
        QTime time;
        stream >> time;
        QCOMPARE(stream.status(), 0);
        QCOMPARE(time, QTime(10, 20, 30));
    }
}

// A number may stand in any format, in up to nine bytes.
void TestMsgPackStream::qtValuesOfWideNumbers_data()
{
    QTest::addColumn<QByteArray>("numbers");
    QTest::addColumn<QPoint>("expected");

    QTest::newRow("64 bits") << Bytes("d30000000000000001cf0000000000000002") << QPoint(1, 2);
    QTest::newRow("64 and 8 bits") << Bytes("d3ffffffff80000000d0ff") << QPoint(-2147483647 - 1, -1);
    QTest::newRow("fixint and 64 bits") << Bytes("01cf000000007fffffff") << QPoint(1, 2147483647);
    QTest::newRow("32 and 64 bits") << Bytes("ce00000001d3fffffffffffffffe") << QPoint(1, -2);
}

template <class T>
static T s_readQtValue(const Bytes &numbers, const T &before)
{
    MsgPackStream stream("\xC7" + Bytes(1, static_cast<char>(numbers.size())) + '\x63' + numbers);
    T value = before;
    stream >> value;
    return stream.status() == MsgPackStream::Ok && stream.atEnd() ? value : before;
}

void TestMsgPackStream::qtValuesOfWideNumbers()
{
    QFETCH(QByteArray, numbers);
    QFETCH(QPoint, expected);
    const Bytes pair = Bytes::fromHex(numbers);
    QCOMPARE(s_readQtValue(pair, QPoint(9, 9)), expected);
    QCOMPARE(s_readQtValue(pair, QSize(9, 9)), QSize(expected.x(), expected.y()));
    QCOMPARE(s_readQtValue(pair + pair, QRect(9, 9, 9, 9)), QRect(expected, expected));
}

// Reads one value of each Qt type, all with extension headers and payloads that are fine.
static QVariantList s_readQtValues(MsgPackStream &stream)
{
    QTime time(9, 9);
    QDate date(1999, 9, 9);
    QDateTime dateTime(QDate(1999, 9, 9), QTime(9, 9));
    QPoint point(9, 9);
    QSize size(9, 9);
    QRect rectangle(9, 9, 9, 9);
    stream >> time >> date >> dateTime >> point >> size >> rectangle;
    return {time, date, dateTime, point, size, rectangle};
}

void TestMsgPackStream::qtValuesAreReadWhateverTheStatus()
{
    const Bytes bytes = s_hex("d563a51e"
                              "c7036307e835"
                              "c7056307e835a51e"
                              "d56301ff"
                              "d5630102"
                              "d66301020304");
    const QVariantList expected{
        QTime(10, 20, 30), QDate(2024, 3, 5), QDateTime(QDate(2024, 3, 5), QTime(10, 20, 30)),
        QPoint(1, -1),     QSize(1, 2),       QRect(QPoint(1, 2), QPoint(3, 4))};
    for (const int status : {0, 1, 2, 3}) {
        MsgPackStream stream(bytes);
        stream.setStatus(status);
        QCOMPARE(s_readQtValues(stream), expected);
        QCOMPARE(stream.status(), status);
        QVERIFY(stream.atEnd());
    }
}

void TestMsgPackStream::qtValuesWithoutADevice()
{
    const QVariantList before{QTime(9, 9),  QDate(1999, 9, 9), QDateTime(QDate(1999, 9, 9), QTime(9, 9)),
                              QPoint(9, 9), QSize(9, 9),       QRect(9, 9, 9, 9)};
    for (const int status : {0, 1, 2, 3}) {
        MsgPackStream stream;
        stream.setStatus(status);
        QCOMPARE(s_readQtValues(stream), before);
        QCOMPARE(stream.status(), status);
    }
}

void TestMsgPackStream::boolIsTrueForOneByteOnly()
{
    for (const bool before : {false, true}) {
        for (int byte = 0; byte < 256; ++byte) {
            MsgPackStream stream(Bytes(1, static_cast<char>(byte)));
            bool value = before;
            stream >> value;
            QCOMPARE(value, byte == 0xC3);
            QCOMPARE(stream.status(), byte == 0xC2 || byte == 0xC3 ? 0 : 2);
        }
        MsgPackStream nothing{Bytes()};
        bool value = before;
        nothing >> value;
        QCOMPARE(value, before);
        QCOMPARE(nothing.status(), 1);
    }
}

void TestMsgPackStream::withoutADevice()
{
    s_registerQtTypes();
    MsgPackStream stream;
    stream << true << 1 << 1U << qint64(1) << quint64(1) << 1.0F << 1.0 << QStringLiteral("x") << "x"
           << Bytes("x") << QTime(1, 2) << QDate(2024, 3, 5) << QPoint(1, 2) << QSize(1, 2)
           << QRect(1, 2, 3, 4) << QDateTime(QDate(2024, 3, 5), QTime(1, 2));
    QCOMPARE(stream.status(), 0);
    for (const Reader &reader : s_readers()) {
        QCOMPARE(reader.read(stream), reader.before);
        QCOMPARE(stream.status(), 0);
    }
    char byte = 'x';
    quint32 length = 42;
    QVERIFY(!stream.writeBytes(&byte, 1));
    QVERIFY(!stream.writeBytes(&byte, 0));
    QVERIFY(!stream.readBytes(&byte, 1));
    QVERIFY(!stream.readBytes(&byte, 0));
    QVERIFY(!stream.writeExtHeader(1, 1));
    QVERIFY(!stream.readExtHeader(length));
    QCOMPARE(byte, 'x');
    QCOMPARE(length, 42U);
    QCOMPARE(stream.status(), 0);
}

// What a reader must make of a first byte and the bytes behind it.
struct Outcome {
    int status;
    QString value; // of the target after a status of 0
    int consumed;  // bytes, after a status of 0
};

static const Outcome s_corrupt{2, QString(), 0};
static const Outcome s_short{1, QString(), 0};
static const Outcome s_unsupported{2, QString(), 0}; // a length that no Qt container has

// The width of a number behind the first bytes 0xcc to 0xd3.
static int s_width(int first)
{
    return 1 << ((first - 0xCC) % 4);
}

static quint64 s_bigEndian(const Bytes &bytes)
{
    quint64 number = 0;
    for (const char byte : bytes) {
        number = number << 8 | static_cast<quint8>(byte);
    }
    return number;
}

// Sign-extended from the width.
static qint64 s_signed(quint64 bits, int width)
{
    const int unused = 64 - 8 * width;
    return static_cast<qint64>(bits << unused) >> unused;
}

template <class T>
static Outcome s_integerOutcome(int first, const Bytes &rest)
{
    const auto fits = [](quint64 number, int consumed) {
        return number <= static_cast<quint64>(std::numeric_limits<T>::max())
                   ? Outcome{0, QString::number(number), consumed}
                   : s_corrupt;
    };
    const auto fitsSigned = [](qint64 number, int consumed) {
        if (std::is_unsigned_v<T>) {
            return s_corrupt;
        }
        return number >= static_cast<qint64>(std::numeric_limits<T>::min()) &&
                       number <= static_cast<qint64>(std::numeric_limits<T>::max())
                   ? Outcome{0, QString::number(number), consumed}
                   : s_corrupt;
    };
    if (first <= 0x7F) {
        return fits(quint64(first), 1);
    }
    if (first >= 0xE0) {
        return fitsSigned(first - 256, 1);
    }
    if (first >= 0xCC && first <= 0xCF) {
        return fits(s_bigEndian(rest.left(s_width(first))), 1 + s_width(first));
    }
    if (first >= 0xD0 && first <= 0xD3) {
        return fitsSigned(s_signed(s_bigEndian(rest.left(s_width(first))), s_width(first)),
                          1 + s_width(first));
    }
    return s_corrupt;
}

// The whole of it: the overload that takes a byte array stops at the first zero.
static QString s_text(const Bytes &utf8)
{
    return notation(QString::fromUtf8(utf8.constData(), utf8.size()));
}

static Outcome s_sizedOutcome(const Bytes &rest, int lengthWidth, bool text)
{
    const quint64 length = s_bigEndian(rest.left(lengthWidth));
    if (length > quint64(std::numeric_limits<int>::max())) {
        return s_unsupported;
    }
    if (length > quint64(rest.size() - lengthWidth)) {
        return s_short;
    }
    const Bytes body = rest.mid(lengthWidth, int(length));
    return {0, text ? s_text(body) : notation(body), 1 + lengthWidth + int(length)};
}

static Outcome s_textOutcome(int first, const Bytes &rest)
{
    if (first >= 0xA0 && first <= 0xBF) {
        const Bytes body = rest.left(first - 0xA0);
        return {0, s_text(body), 1 + body.size()};
    }
    return first >= 0xD9 && first <= 0xDB ? s_sizedOutcome(rest, 1 << (first - 0xD9), true) : s_corrupt;
}

static Outcome s_outcome(const QString &reader, int first, const Bytes &rest)
{
    static const QHash<QString, std::function<Outcome(int, const Bytes &)>> outcomes{
        {"bool",
         [](int byte, const Bytes &) {
             return byte == 0xC2 ? Outcome{0, "false", 1} : byte == 0xC3 ? Outcome{0, "true", 1} : s_corrupt;
         }},
        {"qint8", &s_integerOutcome<qint8>},
        {"qint16", &s_integerOutcome<qint16>},
        {"int", &s_integerOutcome<int>},
        {"qint64", &s_integerOutcome<qint64>},
        {"quint8", &s_integerOutcome<quint8>},
        {"quint16", &s_integerOutcome<quint16>},
        {"quint32", &s_integerOutcome<quint32>},
        {"quint64", &s_integerOutcome<quint64>},
        {"float",
         [](int byte, const Bytes &bytes) {
             return byte == 0xCA ? Outcome{0, "f" + QString::fromLatin1(bytes.left(4).toHex()), 5}
                                 : s_corrupt;
         }},
        {"double",
         [](int byte, const Bytes &bytes) {
             return byte == 0xCB ? Outcome{0, "d" + QString::fromLatin1(bytes.left(8).toHex()), 9}
                                 : s_corrupt;
         }},
        {"bytes",
         [](int byte, const Bytes &bytes) {
             return byte >= 0xC4 && byte <= 0xC6 ? s_sizedOutcome(bytes, 1 << (byte - 0xC4), false)
                                                 : s_corrupt;
         }},
        {"text", &s_textOutcome}};
    return outcomes.value(reader)(first, rest);
}

void TestMsgPackStream::everyReaderOnEveryFirstByte_data()
{
    s_readerRows();
}

void TestMsgPackStream::everyReaderOnEveryFirstByte()
{
    QFETCH(QString, name);
    const Reader &reader = s_readerNamed(name);
    const Bytes rests[] = {Bytes(300, '\0'),
                           Bytes(300, '\x01'),
                           Bytes(300, '\xFF'),
                           Bytes(300, '\x7F'),
                           '\x80' + Bytes(299, '\0'),
                           '\x7F' + Bytes(299, '\xFF'),
                           '\xFF' + Bytes(299, '\x7F'),
                           '\0' + Bytes(299, '\x80')};
    for (int first = 0; first < 256; ++first) {
        for (const Bytes &rest : rests) {
            const Outcome outcome = s_outcome(name, first, rest);
            MsgPackStream stream(Bytes(1, static_cast<char>(first)) + rest);
            const QString value = reader.read(stream);
            const QByteArray where = QStringLiteral("%1 on %2 %3...: status %4, %5")
                                         .arg(name)
                                         .arg(first, 2, 16, QLatin1Char('0'))
                                         .arg(QString::fromLatin1(rest.left(8).toHex()))
                                         .arg(stream.status())
                                         .arg(value)
                                         .toUtf8();
            QVERIFY2(stream.status() == outcome.status, where.constData());
            QVERIFY2(value == (outcome.status == 0 ? outcome.value : reader.before), where.constData());
            if (outcome.status == 0) {
                QVERIFY2(stream.device()->pos() == outcome.consumed, where.constData());
            }
        }
    }
}

void TestMsgPackStream::numbersOutsideTheTargetsRange_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("hex");

    const struct {
        const char *name;
        const char *hex;
    } rows[] = {
        {"qint8", "cc80"},
        {"qint8", "cd0100"},
        {"qint8", "d1ff7f"},
        {"qint8", "d10080"},
        {"qint8", "cfffffffffffffffff"},
        {"qint16", "cd8000"},
        {"qint16", "ce00010000"},
        {"qint16", "d2ffff7fff"},
        {"int", "ce80000000"},
        {"int", "cf0000000080000000"},
        {"int", "cf0000000100000000"},
        {"int", "d3ffffffff7fffffff"},
        {"int", "d30000000080000000"},
        {"qint64", "cf8000000000000000"},
        {"qint64", "cfffffffffffffffff"},
        {"quint8", "cd0100"},
        {"quint8", "cf0000000100000000"},
        {"quint16", "ce00010000"},
        {"quint32", "cf0000000100000000"},
        // A signed format is not for an unsigned target, even when the number is.
        {"quint8", "d005"},
        {"quint16", "d10005"},
        {"quint32", "d200000005"},
        {"quint64", "d30000000000000005"},
        {"quint64", "ff"},
        // No conversion between the floats, nor from integers.
        {"double", "ca3f800000"},
        {"double", "01"},
        {"float", "cb3ff0000000000000"},
        {"float", "01"},
        {"int", "ca3f800000"},
        // Nor between texts and bytes.
        {"bytes", "a178"},
        {"bytes", "d90178"},
        {"text", "c40178"},
    };
    for (const auto &row : rows) {
        QTest::addRow("%s %s", row.name, row.hex) << QString(row.name) << Bytes(row.hex);
    }
}

void TestMsgPackStream::numbersOutsideTheTargetsRange()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, hex);
    const Reader &reader = s_readerNamed(name);
    MsgPackStream stream(Bytes::fromHex(hex));
    QCOMPARE(reader.read(stream), reader.before);
    QCOMPARE(stream.status(), 2);
}

void TestMsgPackStream::everyReaderOnEveryCut_data()
{
    s_itemRows();
}

void TestMsgPackStream::everyReaderOnEveryCut()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, hex);
    const Reader &reader = s_readerNamed(name);
    const Bytes item = Bytes::fromHex(hex);
    for (int size = 0; size < item.size(); ++size) {
        MsgPackStream buffered(item.left(size));
        ScriptedDevice device(item.left(size));
        MsgPackStream slow(&device);
        for (MsgPackStream *stream : {&buffered, &slow}) {
            QCOMPARE(reader.read(*stream), reader.before);
            QCOMPARE(stream->status(), 1);
        }
    }
}

void TestMsgPackStream::everyReaderOnEveryFailingRead_data()
{
    s_itemRows();
}

void TestMsgPackStream::everyReaderOnEveryFailingRead()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, hex);
    QFETCH(QString, expected);
    const Reader &reader = s_readerNamed(name);
    int call = 0;
    for (bool failed = true; failed;) {
        ScriptedDevice device(Bytes::fromHex(hex));
        device.failingRead = ++call;
        MsgPackStream stream(&device);
        const QString value = reader.read(stream);
        failed = device.reads >= call;
        QCOMPARE(stream.status(), failed ? 1 : 0);
        QCOMPARE(value, failed ? reader.before : expected);
        QVERIFY2(!failed || device.reads == call, "the stream went on reading after a failure");
    }
    QVERIFY(call > hex.size() / 2);
}

void TestMsgPackStream::everyWriterOnEveryFailingWrite_data()
{
    writtenBytes_data();
}

void TestMsgPackStream::everyWriterOnEveryFailingWrite()
{
    QFETCH(Writer, write);
    QFETCH(QByteArray, normal);
    const Bytes item = Bytes::fromHex(normal);
    int call = 0;
    for (bool failed = true; failed;) {
        ScriptedDevice device;
        device.failingWrite = ++call;
        MsgPackStream stream(&device);
        write(stream);
        failed = device.writes >= call;
        QCOMPARE(stream.status(), failed ? 3 : 0);
        QVERIFY2(!failed || device.writes == call, "the stream went on writing after a failure");
        QCOMPARE(device.written.toHex(), item.left(call - 1).toHex());
        // Nothing more until the status is reset, everything after that.
        const Bytes before = device.written;
        device.failingWrite = 0;
        write(stream);
        QCOMPARE(device.written, failed ? before : before + item);
        stream.resetStatus();
        write(stream);
        QVERIFY(device.written.endsWith(item));
        QCOMPARE(stream.status(), 0);
    }
    QCOMPARE(call, item.size() + 1);
}

void TestMsgPackStream::statusStaysUntilReset()
{
    MsgPackStream stream(s_hex("c00102"));
    int number = 42;
    stream >> number;
    QCOMPARE(stream.status(), 2);
    QCOMPARE(number, 42);
    // Reading goes on, and a good item does not make the status good.
    stream >> number;
    QCOMPARE(number, 1);
    QCOMPARE(stream.status(), 2);
    stream.resetStatus();
    stream >> number;
    QCOMPARE(number, 2);
    QCOMPARE(stream.status(), 0);
    stream >> number;
    QCOMPARE(number, 2);
    QCOMPARE(stream.status(), 1);
}

void TestMsgPackStream::nothingIsWrittenWhileTheStatusIsBad_data()
{
    QTest::addColumn<int>("status");
    QTest::newRow("read past end") << 1;
    QTest::newRow("corrupt data") << 2;
    QTest::newRow("write failed") << 3;
}

void TestMsgPackStream::nothingIsWrittenWhileTheStatusIsBad()
{
    QFETCH(int, status);
    s_registerQtTypes();
    ScriptedDevice device;
    MsgPackStream stream(&device);
    stream.setStatus(status);
    stream << true << 1 << 1U << qint64(1) << quint64(1) << 1.0F << 1.0 << QStringLiteral("x") << "x"
           << Bytes("x") << QTime(1, 2) << QPoint(1, 2);
    QVERIFY(!stream.writeBytes("x", 1));
    QVERIFY(!stream.writeBytes("x", 0));
    QVERIFY(!stream.writeExtHeader(1, 1));
    QCOMPARE(device.writes, 0);
    QCOMPARE(stream.status(), status);
    stream.resetStatus();
    stream << 1;
    QCOMPARE(device.written.toHex(), Bytes("01"));
}

void TestMsgPackStream::readOnlyDeviceFailsWrites()
{
    MsgPackStream stream(Bytes("x"));
    stream << 1;
    QCOMPARE(stream.status(), 3);
    QCOMPARE(m_log.take(), QStringList{"warning: QIODevice::write (QBuffer): ReadOnly device"});
}

void TestMsgPackStream::deviceThatRunsOutOfMemory()
{
    const QStringList line{"warning: MsgPackStream has run out of memory"};
    GreedyDevice device;
    for (const Reader &reader : s_readers()) {
        MsgPackStream stream(&device);
        QCOMPARE(reader.read(stream), reader.before);
        QCOMPARE(stream.status(), 1);
        QCOMPARE(m_log.take(), line);
    }
    for (const Writer &write : {s_writer(true), s_writer(5), s_writer<const char *>("x"),
                                s_writer(QStringLiteral("x")), s_writer(Bytes("x"))}) {
        MsgPackStream stream(&device);
        write(stream);
        QCOMPARE(stream.status(), 3);
        QCOMPARE(m_log.take(), line);
    }
}

void TestMsgPackStream::extHeaderOnEveryFirstByte()
{
    for (int first = 0; first < 256; ++first) {
        const bool isExt = (first >= 0xC7 && first <= 0xC9) || (first >= 0xD4 && first <= 0xD8);
        MsgPackStream stream(Bytes(1, static_cast<char>(first)) + s_hex("00000000000000"));
        quint32 length = 42;
        QCOMPARE(stream.readExtHeader(length), isExt);
        QCOMPARE(stream.status(), isExt ? 0 : 2);
        QCOMPARE(length, !isExt ? 42U : first >= 0xD4 ? 1U << (first - 0xD4) : 0U);
    }
}

void TestMsgPackStream::extHeaderOnEveryCut()
{
    for (const char *hex : {"d42a", "d82a", "c7052a", "c800052a", "c9000000052a"}) {
        const Bytes header = s_hex(hex);
        for (int size = 0; size < header.size(); ++size) {
            MsgPackStream stream(header.left(size));
            quint32 length = 42;
            QVERIFY(!stream.readExtHeader(length));
            QCOMPARE(stream.status(), 1);
            QCOMPARE(length, 42U);
        }
    }
}

// The type byte belongs to it: a byte alone is too short for a header, whatever it is.
void TestMsgPackStream::extHeaderNeedsTwoBytes()
{
    for (int first = 0; first < 256; ++first) {
        MsgPackStream stream(Bytes(1, static_cast<char>(first)));
        quint32 length = 42;
        QVERIFY(!stream.readExtHeader(length));
        QCOMPARE(stream.status(), 1);
        QCOMPARE(length, 42U);
    }
}

void TestMsgPackStream::qtValuesOfWrongLength_data()
{
    QTest::addColumn<QVariant>("before");
    QTest::addColumn<QByteArray>("hex");

    const auto rows = [](const char *name, const QVariant &before, const QList<int> &lengths) {
        for (const int length : lengths) {
            QTest::addRow("%s of %d", name, length)
                << before
                << "c7" + Bytes(1, static_cast<char>(length)).toHex() + "63" + Bytes(2 * length, '1');
        }
        QTest::addRow("%s that is nil", name) << before << Bytes("c000000000");
        QTest::addRow("%s that is an integer", name) << before << Bytes("0102030405");
    };
    rows("time", QTime(9, 9), {0, 3, 5, 255});
    rows("date", QDate(1999, 9, 9), {0, 2, 4, 255});
    rows("date-time", QDateTime(QDate(1999, 9, 9), QTime(9, 9)), {0, 2, 3, 4, 6, 8, 255});
    rows("point", QPoint(9, 9), {0, 19, 255});
    rows("size", QSize(9, 9), {0, 19, 255});
    rows("rectangle", QRect(9, 9, 9, 9), {0, 2, 3, 37, 255});

    const QVariant point = QPoint(9, 9);
    QTest::newRow("point of one number") << point << Bytes("d563cc01");
    QTest::newRow("point cut short") << point << Bytes("d66301ceffff");
    QTest::newRow("point of texts") << point << Bytes("d663a131a132");
    QTest::newRow("point outside the range") << point << Bytes("c7066301ce80000000");
    QTest::newRow("point far outside the range") << point << Bytes("c70a6301d3ffffffff7fffffff");
    QTest::newRow("size of one number") << QVariant(QSize(9, 9)) << Bytes("d563cc01");
    QTest::newRow("size outside the range") << QVariant(QSize(9, 9)) << Bytes("c7066301ceffffffff");
    QTest::newRow("rectangle of three numbers") << QVariant(QRect(9, 9, 9, 9)) << Bytes("d6630102cc03");
    QTest::newRow("rectangle outside the range")
        << QVariant(QRect(9, 9, 9, 9)) << Bytes("d763010203ce80000000");
}

template <class T>
static void s_checkCorrupt(const T &before, const Bytes &bytes)
{
    MsgPackStream stream(bytes);
    T target = before;
    stream >> target;
    QCOMPARE(stream.status(), 2);
    QCOMPARE(target, before);
}

void TestMsgPackStream::qtValuesOfWrongLength()
{
    QFETCH(QVariant, before);
    QFETCH(QByteArray, hex);
    const Bytes bytes = Bytes::fromHex(hex);
    switch (before.userType()) {
    case QMetaType::QTime:
        return s_checkCorrupt(before.toTime(), bytes);
    case QMetaType::QDate:
        return s_checkCorrupt(before.toDate(), bytes);
    case QMetaType::QDateTime:
        return s_checkCorrupt(before.toDateTime(), bytes);
    case QMetaType::QPoint:
        return s_checkCorrupt(before.toPoint(), bytes);
    case QMetaType::QSize:
        return s_checkCorrupt(before.toSize(), bytes);
    case QMetaType::QRect:
        return s_checkCorrupt(before.toRect(), bytes);
    default:
        QFAIL("no such type");
    }
}

void TestMsgPackStream::announcedLengthTakesNoMemory_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("hex");

    QTest::newRow("bin 32 of 2^24") << "bytes" << Bytes("c60100000000");
    QTest::newRow("bin 32 of 2^30") << "bytes" << Bytes("c64000000000");
    QTest::newRow("bin 32 of 2^31 - 1") << "bytes" << Bytes("c67fffffff00");
    QTest::newRow("bin 32 of 2^31") << "bytes" << Bytes("c68000000000");
    QTest::newRow("bin 32 of 2^32 - 1") << "bytes" << Bytes("c6ffffffff00");
    QTest::newRow("bin 16") << "bytes" << Bytes("c5ffff00");
    QTest::newRow("str 32 of 2^24") << "text" << Bytes("db0100000000");
    QTest::newRow("str 32 of 2^30") << "text" << Bytes("db4000000000");
    QTest::newRow("str 32 of 2^31 - 1") << "text" << Bytes("db7fffffff00");
    QTest::newRow("str 32 of 2^31") << "text" << Bytes("db8000000000");
    QTest::newRow("str 32 of 2^32 - 1") << "text" << Bytes("dbffffffff00");
    QTest::newRow("str 16") << "text" << Bytes("daffff00");
}

void TestMsgPackStream::announcedLengthTakesNoMemory()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, hex);
    const Reader &reader = s_readerNamed(name);
    MsgPackStream buffered(Bytes::fromHex(hex));
    ScriptedDevice device(Bytes::fromHex(hex));
    MsgPackStream slow(&device);
    for (MsgPackStream *stream : {&buffered, &slow}) {
        const AllocationCounter allocated;
        const QString value = reader.read(*stream);
        QVERIFY2(allocated.bytes() < 1000000, qPrintable(QString::number(allocated.bytes())));
        QCOMPARE(value, reader.before);
        QVERIFY(stream->status() != 0);
    }
}

QTEST_APPLESS_MAIN(TestMsgPackStream)
#include "tst_msgpack_stream.moc"
