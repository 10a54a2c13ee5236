#include "msgpack/msgpackstream.h"

#include "msgpack/formats_p.h"
#include "msgpack/limits_p.h"
#include "msgpack/outofmemory_p.h"
#include "msgpack/pack_p.h"
#include "msgpack/utf8_p.h"

#include <QBuffer>
#include <QtEndian>

#include <cstring>
#include <limits>
#include <memory>

using namespace MsgPackPrivate;

namespace
{

constexpr char streamName[] = "MsgPackStream";

constexpr int chunkSize = 16 * 1024; // how far an announced length is trusted at a time

// Writes what `routine` packs at the position it is given: a number or a header, of at most 9 bytes.
template <class Routine>
bool s_writeShort(MsgPackStream &stream, Routine routine)
{
    char bytes[9];
    const auto first = reinterpret_cast<position_t>(bytes);
    const position_t end = routine(first);
    return stream.writeBytes(bytes, static_cast<qint64>(end - first));
}

// Returns false, as a reader that fails does.
bool s_markCorrupt(MsgPackStream &stream)
{
    stream.setStatus(MsgPackStream::ReadCorruptData);
    return false;
}

// Reads a big-endian number of type Wire.
template <class Wire, class Value>
bool s_readNumber(MsgPackStream &stream, Value &value)
{
    char bytes[sizeof(Wire)];
    if (!stream.readBytes(bytes, sizeof bytes)) {
        return false;
    }
    value = qFromBigEndian<Wire>(bytes);
    return true;
}

// The rest of a positive integer.
bool s_readPositive(MsgPackStream &stream, quint8 first, quint64 &value)
{
    switch (first) {
    case Uint8:
        return s_readNumber<quint8>(stream, value);
    case Uint16:
        return s_readNumber<quint16>(stream, value);
    case Uint32:
        return s_readNumber<quint32>(stream, value);
    case Uint64:
        return s_readNumber<quint64>(stream, value);
    default:
        value = first;
        return first < Fixmap || s_markCorrupt(stream);
    }
}

bool s_readInteger(MsgPackStream &stream, quint64 &value)
{
    quint8 first;
    return s_readNumber<quint8>(stream, first) && s_readPositive(stream, first, value);
}

bool s_readPositiveAsSigned(MsgPackStream &stream, quint8 first, qint64 &value)
{
    quint64 positive;
    if (!s_readPositive(stream, first, positive)) {
        return false;
    }
    value = static_cast<qint64>(positive);
    return value >= 0 || s_markCorrupt(stream);
}

bool s_readInteger(MsgPackStream &stream, qint64 &value)
{
    quint8 first;
    if (!s_readNumber<quint8>(stream, first)) {
        return false;
    }
    switch (first) {
    case Int8:
        return s_readNumber<qint8>(stream, value);
    case Int16:
        return s_readNumber<qint16>(stream, value);
    case Int32:
        return s_readNumber<qint32>(stream, value);
    case Int64:
        return s_readNumber<qint64>(stream, value);
    default:
        value = static_cast<qint8>(first);
        return first >= NegativeFixint || s_readPositiveAsSigned(stream, first, value);
    }
}

// Reads an integer into a target that may be narrower than Wide, the widest type of its kind.
template <class Wide, class Target>
MsgPackStream &s_readInto(MsgPackStream &stream, Target &target)
{
    Wide value;
    if (!s_readInteger(stream, value)) {
        return stream;
    }
    if (value < std::numeric_limits<Target>::min() || value > std::numeric_limits<Target>::max()) {
        s_markCorrupt(stream);
    } else {
        target = static_cast<Target>(value);
    }
    return stream;
}

// Reads the one format that `first` stands for.
template <class Bits, class Real>
MsgPackStream &s_readReal(MsgPackStream &stream, FirstByte first, Real &real)
{
    static_assert(sizeof(Bits) == sizeof(Real), "IEEE 754 numbers as they are");
    quint8 actual;
    Bits bits;
    if (s_readNumber<quint8>(stream, actual) && (actual == first || s_markCorrupt(stream)) &&
        s_readNumber<Bits>(stream, bits)) {
        std::memcpy(&real, &bits, sizeof real);
    }
    return stream;
}

// The length in the header of one of three formats that differ in its width.
bool s_readLength(MsgPackStream &stream, quint8 first, FirstByte first8, quint32 &length)
{
    switch (first - first8) {
    case 0:
        return s_readNumber<quint8>(stream, length);
    case 1:
        return s_readNumber<quint16>(stream, length);
    case 2:
        return s_readNumber<quint32>(stream, length);
    default:
        return s_markCorrupt(stream);
    }
}

bool s_readBytes(MsgPackStream &stream, quint32 length, QByteArray &bytes)
{
    if (length > static_cast<quint32>(std::numeric_limits<int>::max())) {
        return s_markCorrupt(stream);
    }
    const int end = static_cast<int>(length);
    while (bytes.size() < end) {
        const int at = bytes.size();
        const int count = qMin(end - at, chunkSize);
        if (at + count > static_cast<int>(maxByteArraySize)) {
            return s_markCorrupt(stream); // so much did come, but no QByteArray holds it
        }
        bytes.resize(at + count);
        if (!stream.readBytes(bytes.data() + at, count)) {
            return false;
        }
    }
    return true;
}

void s_readItem(MsgPackStream &stream, QByteArray &bytes)
{
    quint8 first;
    quint32 length;
    QByteArray read;
    if (s_readNumber<quint8>(stream, first) && s_readLength(stream, first, Bin8, length) &&
        s_readBytes(stream, length, read)) {
        bytes = read;
    }
}

void s_readItem(MsgPackStream &stream, QString &string)
{
    quint8 first;
    if (!s_readNumber<quint8>(stream, first)) {
        return;
    }
    quint32 length = first - Fixstr;
    QByteArray read;
    if ((isFixstr(first) || s_readLength(stream, first, Str8, length)) && s_readBytes(stream, length, read) &&
        (length <= maxStringSize || s_markCorrupt(stream))) {
        string = utf8_read(reinterpret_cast<const quint8 *>(read.constData()), read.size());
    }
}

// Reads an item of whatever size the device says.
template <class Item>
MsgPackStream &s_readSized(MsgPackStream &stream, Item &item)
{
    const bool enoughMemory = withinMemory(streamName, [&] {
        s_readItem(stream, item);
        return true;
    });
    if (!enoughMemory) {
        s_markCorrupt(stream);
    }
    return stream;
}

bool s_readAll(QIODevice &device, char *data, qint64 length)
{
    while (length > 0) {
        const qint64 count = device.read(data, length);
        data += qMax(count, qint64(0));
        length -= qMax(count, qint64(0));
        // A device that has nothing and expects nothing would be asked for ever.
        if (count < 0 || (length > 0 && !device.waitForReadyRead(-1) && count == 0)) {
            return false;
        }
    }
    return true;
}

bool s_writeAll(QIODevice &device, const char *data, qint64 length, bool flush)
{
    while (length > 0) {
        const qint64 count = device.write(data, length);
        // A device that takes nothing and is not about to would be asked for ever.
        const bool flushed = count >= 0 && flush && device.waitForBytesWritten(-1);
        if (count < 0 || (count == 0 && !flushed)) {
            return false;
        }
        data += count;
        length -= count;
    }
    return true;
}

bool s_writeText(MsgPackStream &stream, const char *text)
{
    const uint length = qstrlen(text);
    const bool compatible = compatibilityMode;
    const auto size = static_cast<size_t>(pack_string_raw(text, length, 0, false, compatible));
    const std::unique_ptr<char[]> item(new char[size]);
    pack_string_raw(text, length, reinterpret_cast<position_t>(item.get()), true, compatible);
    return stream.writeBytes(item.get(), static_cast<qint64>(size));
}

} // namespace

MsgPackStream::MsgPackStream(QIODevice *device) : m_device(device) {}

MsgPackStream::MsgPackStream(const QByteArray &data) : m_ownsDevice(true)
{
    auto *buffer = new QBuffer;
    buffer->setData(data);
    buffer->open(QIODevice::ReadOnly);
    m_device = buffer;
}

MsgPackStream::MsgPackStream(QByteArray *data, QIODevice::OpenMode mode)
    : m_device(new QBuffer(data)), m_ownsDevice(true)
{
    m_device->open(mode);
}

MsgPackStream::~MsgPackStream()
{
    setDevice(nullptr);
}

void MsgPackStream::setDevice(QIODevice *device)
{
    if (device == m_device) {
        return;
    }
    if (m_ownsDevice) {
        delete m_device;
    }
    m_device = device;
    m_ownsDevice = false;
}

bool MsgPackStream::atEnd() const
{
    return !m_device || m_device->atEnd();
}

bool MsgPackStream::readBytes(char *data, qint64 length)
{
    if (!m_device) {
        return false;
    }
    const bool read = withinMemory(streamName, [&] { return s_readAll(*m_device, data, length); });
    if (!read) {
        m_status = ReadPastEnd;
    }
    return read;
}

bool MsgPackStream::writeBytes(const char *data, qint64 length)
{
    if (!isWritable()) {
        return false;
    }
    const bool written =
        withinMemory(streamName, [&] { return s_writeAll(*m_device, data, length, m_flushWrites); });
    if (!written) {
        m_status = WriteFailed;
    }
    return written;
}

bool MsgPackStream::writeExtHeader(quint32 length, qint8 msgpackType)
{
    return s_writeShort(*this, [=](position_t p) { return pack_ext_header(length, msgpackType, p, true); });
}

bool MsgPackStream::readExtHeader(quint32 &length)
{
    quint8 header[6]; // first byte, 1 to 4 bytes of length unless the first byte tells it, type
    auto *bytes = reinterpret_cast<char *>(header);
    if (!readBytes(bytes, 2)) {
        return false;
    }
    if (!isExtension(header[0])) {
        return s_markCorrupt(*this);
    }
    if (header[0] >= Fixext1) {
        length = 1u << (header[0] - Fixext1);
        return true;
    }
    const int width = 1 << (header[0] - Ext8);
    if (!readBytes(bytes + 2, width)) {
        return false;
    }
    length = 0;
    for (int i = 1; i <= width; ++i) {
        length = length << 8 | header[i];
    }
    return true;
}

MsgPackStream &MsgPackStream::operator<<(bool b)
{
    s_writeShort(*this, [=](position_t p) { return pack_bool(QVariant(b), p, true); });
    return *this;
}

MsgPackStream &MsgPackStream::operator<<(int i)
{
    s_writeShort(*this, [=](position_t p) { return pack_int(i, p, true); });
    return *this;
}

MsgPackStream &MsgPackStream::operator<<(unsigned int i)
{
    s_writeShort(*this, [=](position_t p) { return pack_uint(i, p, true); });
    return *this;
}

MsgPackStream &MsgPackStream::operator<<(qint64 i)
{
    s_writeShort(*this, [=](position_t p) { return pack_longlong(i, p, true); });
    return *this;
}

MsgPackStream &MsgPackStream::operator<<(quint64 i)
{
    s_writeShort(*this, [=](position_t p) { return pack_ulonglong(i, p, true); });
    return *this;
}

MsgPackStream &MsgPackStream::operator<<(float f)
{
    s_writeShort(*this, [=](position_t p) { return pack_float(f, p, true); });
    return *this;
}

MsgPackStream &MsgPackStream::operator<<(double d)
{
    s_writeShort(*this, [=](position_t p) { return pack_double(d, p, true); });
    return *this;
}

MsgPackStream &MsgPackStream::operator<<(const QString &string)
{
    if (!isWritable()) {
        return *this;
    }
    const QByteArray item = MsgPack::pack(string);
    if (item.isEmpty()) { // too long
        m_status = WriteFailed;
    }
    writeBytes(item.constData(), item.size());
    return *this;
}

MsgPackStream &MsgPackStream::operator<<(const char *text)
{
    if (isWritable() && !withinMemory(streamName, [&] { return s_writeText(*this, text); })) {
        m_status = WriteFailed;
    }
    return *this;
}

MsgPackStream &MsgPackStream::operator<<(const QByteArray &bytes)
{
    const auto length = static_cast<quint32>(bytes.size());
    s_writeShort(*this, [=](position_t p) { return pack_bin_header(length, p, true); });
    writeBytes(bytes.constData(), bytes.size());
    return *this;
}

MsgPackStream &MsgPackStream::operator>>(bool &b)
{
    quint8 first;
    if (s_readNumber<quint8>(*this, first)) {
        b = first == True;
        if (!b && first != False) {
            s_markCorrupt(*this);
        }
    }
    return *this;
}

MsgPackStream &MsgPackStream::operator>>(qint8 &i)
{
    return s_readInto<qint64>(*this, i);
}

MsgPackStream &MsgPackStream::operator>>(qint16 &i)
{
    return s_readInto<qint64>(*this, i);
}

MsgPackStream &MsgPackStream::operator>>(int &i)
{
    return s_readInto<qint64>(*this, i);
}

MsgPackStream &MsgPackStream::operator>>(qint64 &i)
{
    return s_readInto<qint64>(*this, i);
}

MsgPackStream &MsgPackStream::operator>>(quint8 &i)
{
    return s_readInto<quint64>(*this, i);
}

MsgPackStream &MsgPackStream::operator>>(quint16 &i)
{
    return s_readInto<quint64>(*this, i);
}

MsgPackStream &MsgPackStream::operator>>(quint32 &i)
{
    return s_readInto<quint64>(*this, i);
}

MsgPackStream &MsgPackStream::operator>>(quint64 &i)
{
    return s_readInto<quint64>(*this, i);
}

MsgPackStream &MsgPackStream::operator>>(float &f)
{
    return s_readReal<quint32>(*this, Float32, f);
}

MsgPackStream &MsgPackStream::operator>>(double &d)
{
    return s_readReal<quint64>(*this, Float64, d);
}

MsgPackStream &MsgPackStream::operator>>(QByteArray &bytes)
{
    return s_readSized(*this, bytes);
}

MsgPackStream &MsgPackStream::operator>>(QString &string)
{
    return s_readSized(*this, string);
}
