// The ready-made extension types, for targets of the codec.
#pragma once

#include "msgpack/msgpack.h"

namespace Fuzzing
{

inline void registerQtTypes()
{
    MsgPack::registerType(QMetaType::QColor, 10);
    MsgPack::registerType(QMetaType::QTime, 11);
    MsgPack::registerType(QMetaType::QDate, 12);
    MsgPack::registerType(QMetaType::QDateTime, 13);
    MsgPack::registerType(QMetaType::QPoint, 14);
    MsgPack::registerType(QMetaType::QSize, 15);
    MsgPack::registerType(QMetaType::QRect, 16);
}

} // namespace Fuzzing
