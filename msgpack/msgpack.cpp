#include "msgpack/msgpack.h"

#include "msgpack/limits_p.h"
#include "msgpack/msgpackcommon.h"
#include "msgpack/outofmemory_p.h"
#include "msgpack/pack_p.h"
#include "msgpack/unpack_p.h"

#include <QDebug>

using namespace MsgPackPrivate;

namespace
{

QByteArray s_pack(const QVariant &variant)
{
    pack_context context;
    const position_t size = MsgPackPrivate::pack(variant, 0, false, context);
    if (context.tooDeep) {
        qWarning() << "MsgPack::pack can't pack more than" << MsgPack::maxNesting << "nested arrays and maps";
        return QByteArray();
    }
    if (size > maxByteArraySize) {
        qWarning() << "MsgPack::pack can't pack into more than" << maxByteArraySize << "bytes";
        return QByteArray();
    }
    QByteArray bytes(static_cast<int>(size), Qt::Uninitialized);
    MsgPackPrivate::pack(variant, reinterpret_cast<position_t>(bytes.data()), true, context);
    return bytes;
}

} // namespace

QByteArray MsgPack::pack(const QVariant &variant)
{
    return withinMemory("MsgPack::pack", [&] { return s_pack(variant); });
}

QVariant MsgPack::unpack(const QByteArray &data)
{
    return withinMemory("MsgPack::unpack()", [&] {
        const auto *first = reinterpret_cast<const quint8 *>(data.constData());
        return MsgPackPrivate::unpack(first, first + data.size() - 1);
    });
}

bool MsgPack::registerPacker(int metatype, qint8 msgpackType, pack_user_f packer)
{
    return register_packer(metatype, msgpackType, packer);
}

bool MsgPack::registerUnpacker(qint8 msgpackType, unpack_user_f unpacker)
{
    return register_unpacker(msgpackType, unpacker);
}

qint8 MsgPack::msgpackType(int metatype)
{
    return msgpack_type(metatype);
}

void MsgPack::setCompatibilityModeEnabled(bool enabled)
{
    compatibilityMode = enabled;
}

QString MsgPack::version()
{
    return QString(QLatin1String("%1.%2.%3")).arg(MSGPACK_MAJOR).arg(MSGPACK_MINOR).arg(MSGPACK_PATCH);
}
