// Any bytes through the readers of the stream, in any order.
//
// The input's first byte holds the number of steps (bits 0 to 5) and the device (bit 7: one that delivers a
// byte at a time). A byte for each step chooses what is read. The rest is what the device delivers.
#include "msgpack/geometry.h"
#include "msgpack/msgpack.h"
#include "msgpack/msgpackstream.h"
#include "msgpack/time.h"
#include "tests/fuzz/fuzzing.h"
#include "tests/fuzz/qttypes.h"

#include <QDateTime>
#include <QPoint>
#include <QRect>
#include <QSize>

#include <algorithm>
#include <cstring>
#include <type_traits>

using Fuzzing::require;

namespace
{

class SlowDevice : public QIODevice
{
public:
    explicit SlowDevice(const QByteArray &input) : m_input(input) { open(ReadOnly | Unbuffered); }
    bool isSequential() const override { return true; }
    qint64 bytesAvailable() const override { return m_input.size() - m_at + QIODevice::bytesAvailable(); }

protected:
    qint64 readData(char *data, qint64 maxSize) override
    {
        if (m_at >= m_input.size() || maxSize < 1) {
            return 0;
        }
        *data = m_input.at(m_at++);
        return 1;
    }
    qint64 writeData(const char *, qint64) override { return -1; }

private:
    QByteArray m_input;
    int m_at = 0;
};

} // namespace

// The type that a value of T is written as: the two narrow integers have no writers of their own.
template <class T>
using Written = std::conditional_t<
    std::is_same_v<T, qint8> || std::is_same_v<T, qint16>, int,
    std::conditional_t<std::is_same_v<T, quint8> || std::is_same_v<T, quint16>, unsigned int, T>>;

template <class T>
static QByteArray s_written(const T &value)
{
    QByteArray bytes;
    MsgPackStream stream(&bytes, QIODevice::WriteOnly);
    stream << Written<T>(value);
    require(stream.status() == MsgPackStream::Ok, "a value that was read can't be written");
    return bytes;
}

// Reads a T. One that was read is written, read and written again with the same bytes; one that was not is
// still what it was before.
template <class T>
static void s_read(MsgPackStream &stream)
{
    stream.resetStatus();
    T value{};
    const T before = value;
    stream >> value;
    if (stream.status() != MsgPackStream::Ok) {
        require(value == before, "a reader that failed changed its target");
        return;
    }
    const QByteArray bytes = s_written(value);
    MsgPackStream again(bytes);
    T back{};
    again >> back;
    require(again.status() == MsgPackStream::Ok && again.atEnd(), "a value that was written can't be read");
    if constexpr (std::is_same_v<T, QString>) {
        if (value.startsWith(QChar(QChar::ByteOrderMark))) {
            return; // each decoding takes one off
        }
    }
    require(s_written(back) == bytes, "a value comes back as another one");
}

static void s_readExtHeader(MsgPackStream &stream)
{
    stream.resetStatus();
    quint32 length = 42;
    const bool read = stream.readExtHeader(length);
    require(read == (stream.status() == MsgPackStream::Ok),
            "the result and the status contradict each other");
    require(read || length == 42, "a reader that failed changed its target");
}

static void s_readBytes(MsgPackStream &stream)
{
    stream.resetStatus();
    char buffer[16];
    const bool read = stream.readBytes(buffer, sizeof buffer);
    require(read == (stream.status() == MsgPackStream::Ok),
            "the result and the status contradict each other");
}

using Step = void (*)(MsgPackStream &);
static const Step s_steps[] = {&s_read<bool>,    &s_read<qint8>,  &s_read<qint16>,  &s_read<int>,
                               &s_read<qint64>,  &s_read<quint8>, &s_read<quint16>, &s_read<quint32>,
                               &s_read<quint64>, &s_read<float>,  &s_read<double>,  &s_read<QByteArray>,
                               &s_read<QString>, &s_read<QTime>,  &s_read<QDate>,   &s_read<QDateTime>,
                               &s_read<QPoint>,  &s_read<QSize>,  &s_read<QRect>,   &s_readExtHeader,
                               &s_readBytes};

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    Fuzzing::silenceLog();
    Fuzzing::registerQtTypes();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1) {
        return 0;
    }
    const Fuzzing::LineBound bound;
    const size_t steps = std::min<size_t>(data[0] & 0x3FU, size - 1);
    const QByteArray input = Fuzzing::bytes(data + 1 + steps, size - 1 - steps);
    SlowDevice slow(input);
    MsgPackStream fromDevice(&slow);
    MsgPackStream fromBytes(input);
    MsgPackStream &stream = (data[0] & 0x80U) != 0 ? fromDevice : fromBytes;
    for (size_t i = 0; i < steps; ++i) {
        s_steps[data[1 + i] % std::size(s_steps)](stream);
    }
    return 0;
}
