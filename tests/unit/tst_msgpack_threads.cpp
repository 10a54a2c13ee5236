// The codec from many threads at once, while one of them registers.
#include "msgpack/msgpack.h"
#include "tests/unit/logcollector.h"
#include "tests/unit/variantnotation.h"

#include <QVector>
#include <QtTest>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

using Bytes = QByteArray;

class TestMsgPackThreads : public QObject
{
    Q_OBJECT

private slots:
    void packAndUnpackWhileAnotherRegisters();
    void valuesOfATypeThatIsBeingRegistered();
    void extensionsThatAreBeingRegistered();
    void oneOfManyRegistrationsWins();
};

static const int s_threads = 8;

// Runs the function on as many threads at once, with the thread's number, and waits for them all.
static void s_onThreads(int count, const std::function<void(int)> &run)
{
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&, i]() {
            ++ready;
            while (ready.load() < count) {
                std::this_thread::yield();
            }
            run(i);
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

// A type that the Qt type system learns about while the program runs: four bytes, all zero.
static int s_newMetatype(const char *prefix, int number)
{
    static std::atomic<int> next{0};
    const Bytes name = Bytes(prefix) + Bytes::number(number) + '_' + Bytes::number(++next);
    return QMetaType::registerNormalizedType(
        name, [](void *) {},
        [](void *where, const void *copy) -> void * {
            return new (where) qint32(copy ? *static_cast<const qint32 *>(copy) : 0);
        },
        sizeof(qint32), QMetaType::MovableType, nullptr);
}

static QVariant s_valueOf(int metatype)
{
    return QVariant(metatype, nullptr);
}

void TestMsgPackThreads::packAndUnpackWhileAnotherRegisters()
{
    LogCollector log;
    log.start();
    const int known = s_newMetatype("Known", 0);
    QVERIFY(MsgPack::registerPacker(known, 1, [](const QVariant &) { return Bytes("k"); }));
    QVERIFY(MsgPack::registerUnpacker(1, [](const QByteArray &payload) { return QVariant(payload); }));

    std::atomic<int> wrong{0};
    std::atomic<int> working{s_threads};
    s_onThreads(s_threads + 1, [&](int thread) {
        if (thread == s_threads) {
            // Unpackers have but 256 numbers; packers go on until the others are done.
            for (int i = 2; i < 100 || working.load() > 0; ++i) {
                const int metatype = s_newMetatype("New", i);
                wrong += !MsgPack::registerPacker(metatype, qint8(i % 100),
                                                  [](const QVariant &) { return Bytes("new"); });
                wrong += MsgPack::pack(s_valueOf(metatype)) != "\xC7\x03" + Bytes(1, char(i % 100)) + "new";
                if (i < 100) {
                    wrong +=
                        !MsgPack::registerUnpacker(qint8(i), [](const QByteArray &) { return QVariant(); });
                }
            }
            return;
        }
        const QVariantMap value{{"a", QVariantList{thread, -1, s_valueOf(known)}},
                                {"b", QStringLiteral("thread %1").arg(thread)},
                                {"c", s_valueOf(known)}};
        const Bytes packed = "\x83\xA1"
                             "a\x93" +
                             Bytes(1, char(thread)) +
                             "\xFF\xD4\x01k\xA1"
                             "b\xA8thread " +
                             Bytes::number(thread) +
                             "\xA1"
                             "c\xD4\x01k";
        const QString unpacked =
            QStringLiteral("{\"a\": [u%1, i-1, h'6b'], \"b\": \"thread %1\", \"c\": h'6b'}").arg(thread);
        for (int i = 0; i < 2000; ++i) {
            wrong += MsgPack::pack(value) != packed;
            wrong += VariantNotation::notation(MsgPack::unpack(packed)) != unpacked;
            wrong += MsgPack::msgpackType(known) != 1;
        }
        --working;
    });
    QCOMPARE(wrong.load(), 0);
    QCOMPARE(log.take(), QStringList());
}

// A value whose packer appears between the two passes over it must not upset them: it is packed, or it is
// not, and what stands beside it is whole.
void TestMsgPackThreads::valuesOfATypeThatIsBeingRegistered()
{
    LogCollector log;
    log.start();
    const int rounds = 200;
    QVector<int> metatypes;
    for (int i = 0; i < rounds; ++i) {
        metatypes << s_newMetatype("Late", i);
    }
    std::atomic<int> wrong{0};
    std::atomic<int> round{0};
    std::atomic<int> packing{0};
    s_onThreads(s_threads + 1, [&](int thread) {
        if (thread == s_threads) {
            for (int i = 0; i < rounds; ++i) {
                round = i;
                while (packing.load() < s_threads * i) { // every thread has met the type unregistered
                    std::this_thread::yield();
                }
                wrong += !MsgPack::registerPacker(metatypes.at(i), 5,
                                                  [](const QVariant &) { return Bytes("late"); });
            }
            return;
        }
        const Bytes without = "\x93\x01\x02";
        const Bytes with = "\x93\x01\xD6\x05late\x02";
        for (int i = 0; i < rounds; ++i) {
            while (round.load() < i) {
                std::this_thread::yield();
            }
            ++packing;
            const QVariantList list{1, s_valueOf(metatypes.at(i)), 2};
            for (Bytes packed; packed != with;) {
                packed = MsgPack::pack(list);
                wrong += packed != without && packed != with;
                if (wrong.load() > 0) {
                    return;
                }
            }
        }
    });
    QCOMPARE(wrong.load(), 0);
    for (const QString &line : log.take()) {
        QVERIFY2(line.startsWith("warning: MsgPack::pack can't pack type: "), qPrintable(line));
    }
}

void TestMsgPackThreads::extensionsThatAreBeingRegistered()
{
    LogCollector log;
    log.start();
    std::atomic<int> wrong{0};
    s_onThreads(s_threads + 1, [&](int thread) {
        for (int type = -128; type < -28; ++type) {
            if (thread == s_threads) {
                wrong += !MsgPack::registerUnpacker(
                    qint8(type), [](const QByteArray &payload) { return QVariant(payload.size()); });
                continue;
            }
            const Bytes packed = Bytes("\x92\x07\xD5") + char(type) + "xy";
            for (QString unpacked; unpacked != QLatin1String("[u7, i2]");) {
                unpacked = VariantNotation::notation(MsgPack::unpack(packed));
                if (unpacked != QLatin1String("[u7, u7]") && unpacked != QLatin1String("[u7, i2]")) {
                    ++wrong;
                    return;
                }
            }
        }
    });
    QCOMPARE(wrong.load(), 0);
    for (const QString &line : log.take()) {
        QVERIFY2(line.startsWith("warning: MsgPack::unpack() unpacker for type -"), qPrintable(line));
    }
}

void TestMsgPackThreads::oneOfManyRegistrationsWins()
{
    LogCollector log;
    log.start();
    const int metatype = s_newMetatype("Contested", 0);
    std::atomic<int> packers{0};
    std::atomic<int> unpackers{0};
    s_onThreads(s_threads, [&](int thread) {
        packers +=
            MsgPack::registerPacker(metatype, qint8(thread), [](const QVariant &) { return Bytes("x"); });
        unpackers += MsgPack::registerUnpacker(-20, [](const QByteArray &) { return QVariant(1); });
    });
    QCOMPARE(packers.load(), 1);
    QCOMPARE(unpackers.load(), 1);
    const QStringList lines = log.take();
    QCOMPARE(lines.count(QStringLiteral("warning: MsgPack::packer for qtype %1 already exist").arg(metatype)),
             s_threads - 1);
    QCOMPARE(lines.count(QStringLiteral("warning: MsgPack::unpacker for type -20 already exists")),
             s_threads - 1);
    QCOMPARE(lines.size(), 2 * (s_threads - 1));
}

QTEST_APPLESS_MAIN(TestMsgPackThreads)
#include "tst_msgpack_threads.moc"
