// Converts clients' messages into payloads as the daemon does, many in one go, for tests that are too large
// for the running daemon.
//
//   vorbel_converter SCHEMA < MESSAGES > PAYLOADS
//
// SCHEMA is JSON. Before each message in MessagePack stands its length in bytes; for each frame comes the
// length of its payload, one byte, and the payload. Lengths of messages have 4 bytes, little-endian.
#include "msgpack/msgpack.h"
#include "schema/schemaconverter.h"

#include <QFile>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QtEndian>

#include <cstdio>

static QByteArray s_nextMessage(QFile &in)
{
    const QByteArray length = in.read(4);
    return length.size() < 4 ? QByteArray() : in.read(qFromLittleEndian<quint32>(length.constData()));
}

static void s_write(QFile &out, const vek_frame_t &frame)
{
    const auto length = static_cast<char>(vek_header_dlc(vek_frame_header(frame)));
    out.putChar(length);
    out.write(reinterpret_cast<const char *>(frame.data), length);
}

int main(int count, char *words[])
{
    if (count != 2) {
        std::fprintf(stderr, "usage: vorbel_converter SCHEMA < MESSAGES > PAYLOADS\n");
        return 2;
    }
    QLoggingCategory::setFilterRules("*=false");
    SchemaConverter converter(nullptr);
    converter.loadSchema(QJsonDocument::fromJson(words[1]));
    QFile in;
    QFile out;
    if (!in.open(stdin, QIODevice::ReadOnly) || !out.open(stdout, QIODevice::WriteOnly)) {
        return 1;
    }
    for (QByteArray message = s_nextMessage(in); !message.isEmpty(); message = s_nextMessage(in)) {
        for (const vek_frame_t &frame : converter.toVEKFrames(MsgPack::unpack(message))) {
            s_write(out, frame);
        }
    }
    return 0;
}
