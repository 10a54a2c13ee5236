#include "msgpack/msgpack.h"

QByteArray MsgPack::pack(const QVariant &)
{
    return QByteArray();
}

QVariant MsgPack::unpack(const QByteArray &)
{
    return QVariant();
}

bool MsgPack::registerPacker(int, qint8, MsgPackPrivate::pack_user_f)
{
    return false;
}

bool MsgPack::registerUnpacker(qint8, MsgPackPrivate::unpack_user_f)
{
    return false;
}
