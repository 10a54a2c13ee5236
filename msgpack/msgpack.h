// MessagePack encoding and decoding of Qt variant values: the codec's public functions.
#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

namespace MsgPackPrivate
{
using pack_user_f = QByteArray (*)(const QVariant &);
using unpack_user_f = QVariant (*)(const QByteArray &);
} // namespace MsgPackPrivate

namespace MsgPack
{

QByteArray pack(const QVariant &variant);
QVariant unpack(const QByteArray &data);

bool registerPacker(int metatype, qint8 msgpackType, MsgPackPrivate::pack_user_f packer);
bool registerUnpacker(qint8 msgpackType, MsgPackPrivate::unpack_user_f unpacker);

} // namespace MsgPack
