// The codec as a filter, for test_codec.py: from standard input to standard output, message by message, each
// behind its length in four bytes, big-endian.
//
//   codec_echo            unpacks each message and packs what it held
//   codec_echo arrays     unpacks each message, a list of an element type's name and elements, and packs them
//   as
//                         a typed array
//
// Log lines go to standard error as they are.
#include "msgpack/msgpack.h"
#include "service/typedarrays.h"

#include <QFile>
#include <QHash>
#include <QVector>
#include <QtEndian>

#include <cstdio>
#include <cstring>

static void s_log(QtMsgType, const QMessageLogContext &, const QString &text)
{
    std::fprintf(stderr, "%s\n", qPrintable(text));
}

template <class T>
static QVariant s_array(const QVariantList &elements)
{
    QVector<T> array;
    for (const QVariant &element : elements) {
        array << element.value<T>();
    }
    return QVariant::fromValue(array);
}

static QVariant s_typedArray(const QVariantList &request)
{
    using Builder = QVariant (*)(const QVariantList &);
    static const QHash<QString, Builder> builders{{"signed char", &s_array<signed char>},
                                                  {"unsigned char", &s_array<unsigned char>},
                                                  {"short", &s_array<short>},
                                                  {"unsigned short", &s_array<unsigned short>},
                                                  {"int", &s_array<int>},
                                                  {"unsigned int", &s_array<unsigned int>},
                                                  {"float", &s_array<float>}};
    return builders.value(request.first().toString())(request.mid(1));
}

int main(int argc, char **argv)
{
    const bool arrays = argc == 2 && std::strcmp(argv[1], "arrays") == 0;
    qInstallMessageHandler(&s_log);
    registerTypedArrays();

    QFile in;
    QFile out;
    if (!in.open(0, QIODevice::ReadOnly) || !out.open(1, QIODevice::WriteOnly)) {
        return 1;
    }
    for (QByteArray header = in.read(4); header.size() == 4; header = in.read(4)) {
        const QVariant value = MsgPack::unpack(in.read(qFromBigEndian<qint32>(header.constData())));
        const QByteArray reply = MsgPack::pack(arrays ? s_typedArray(value.toList()) : value);
        qToBigEndian<qint32>(reply.size(), header.data());
        out.write(header + reply);
    }
    return 0;
}
