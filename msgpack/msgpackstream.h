// Single MessagePack items to and from an I/O device, one typed operator at a time.
#pragma once

#include <QByteArray>
#include <QIODevice>
#include <QString>

// Writes and reads items in the formats of "msgpack/msgpack.h" on a device that somebody else opened, or on
// a byte array. The operators of the Qt value types are in "msgpack/time.h" and "msgpack/geometry.h".
//
// Trouble is recorded in the status, which stays until resetStatus(). While it is not Ok nothing is written;
// reading goes on, and the caller decides what the bytes after a bad item are worth. A reader that fails
// leaves its target as it was. Without a device nothing is done and the status stays as it is.
//
// Reading and writing block until the device has delivered or taken all bytes, or fails. Memory is taken for
// bytes that arrived, not for lengths that were announced. When it runs out, which is logged as a warning, an
// item read is corrupt and one written has failed; a device that ran out of it has failed. One thread at a
// time; the device's.
class MsgPackStream
{
public:
    enum Status { Ok = 0, ReadPastEnd = 1, ReadCorruptData = 2, WriteFailed = 3 };

    MsgPackStream() = default;
    // On a device of the caller, who keeps it open and alive for as long as the stream uses it.
    explicit MsgPackStream(QIODevice *device);
    // Reads from a copy of `data`.
    explicit MsgPackStream(const QByteArray &data);
    // Reads or writes the caller's array through a buffer opened in `mode`.
    MsgPackStream(QByteArray *data, QIODevice::OpenMode mode);
    virtual ~MsgPackStream();
    Q_DISABLE_COPY(MsgPackStream)

    // Continues with a device of the caller, or with none. The buffer of a byte array is deleted, unless it
    // is this very device: then nothing changes.
    void setDevice(QIODevice *device);
    QIODevice *device() const { return m_device; }
    // Also true without a device.
    bool atEnd() const;

    int status() const { return m_status; }
    void resetStatus() { m_status = Ok; }
    // Unlike that of a QDataStream, overwrites a status that is not Ok.
    void setStatus(int status) { m_status = status; }

    // Whether each write waits until the device has written its bytes. Off by default.
    void setFlushWrites(bool flush) { m_flushWrites = flush; }
    bool willFlushWrites() const { return m_flushWrites; }

    // `length` bytes as they are, without a header. True when all were read or written, or `length` is below
    // 1. False without a device; on failure, with ReadPastEnd or WriteFailed; writing, also while the status
    // is not Ok.
    bool readBytes(char *data, qint64 length);
    bool writeBytes(const char *data, qint64 length);

    // The header of an extension value, to be followed by `length` bytes of payload.
    bool writeExtHeader(quint32 length, qint8 msgpackType);
    // The payload length of the extension value that comes next. Its type is read too, but not reported.
    // False, with ReadCorruptData, if what comes next is no such header.
    bool readExtHeader(quint32 &length);

    MsgPackStream &operator<<(bool b);
    MsgPackStream &operator<<(int i);
    MsgPackStream &operator<<(unsigned int i);
    MsgPackStream &operator<<(qint64 i);
    MsgPackStream &operator<<(quint64 i);
    MsgPackStream &operator<<(float f);
    MsgPackStream &operator<<(double d);
    MsgPackStream &operator<<(const QString &string);
    // As a str of the text's bytes, unconverted. A null pointer is an empty text.
    MsgPackStream &operator<<(const char *text);
    MsgPackStream &operator<<(const QByteArray &bytes);

    // Any byte other than false and true is corrupt, but is read as false.
    MsgPackStream &operator>>(bool &b);
    // Signed targets take any integer format, unsigned ones positive fixint and uint only. A number outside
    // the target's range is corrupt.
    MsgPackStream &operator>>(qint8 &i);
    MsgPackStream &operator>>(qint16 &i);
    MsgPackStream &operator>>(int &i);
    MsgPackStream &operator>>(qint64 &i);
    MsgPackStream &operator>>(quint8 &i);
    MsgPackStream &operator>>(quint16 &i);
    MsgPackStream &operator>>(quint32 &i);
    MsgPackStream &operator>>(quint64 &i);
    // float 32 only and float 64 only, without conversion.
    MsgPackStream &operator>>(float &f);
    MsgPackStream &operator>>(double &d);
    // bin 8 to 32 only.
    MsgPackStream &operator>>(QByteArray &bytes);
    // fixstr and str 8 to 32 only.
    MsgPackStream &operator>>(QString &string);

private:
    bool isWritable() const { return m_device && m_status == Ok; }

    QIODevice *m_device = nullptr;
    bool m_ownsDevice = false; // a buffer that the stream made, deleted with it
    int m_status = Ok;
    bool m_flushWrites = false;
};
