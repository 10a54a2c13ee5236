#include "vorbel/wire.h"

#include "msgpack/msgpack.h"
#include "vorbel/arrays_p.h"
#include "vorbel/plain_p.h"
#include "vorbel/wellformed_p.h"

namespace Vorbel
{

namespace
{

// What keeps a value, as plain() makes them, from being packed; null if nothing does.
QString s_obstacle(const QVariant &value, int depth = 0);

template <class Members>
QString s_obstacleIn(const Members &members, int depth)
{
    if (depth == nestingLimit) {
        return QStringLiteral("values nested more than %1 deep cannot be sent").arg(nestingLimit);
    }
    for (const QVariant &member : members) {
        QString obstacle = s_obstacle(member, depth + 1);
        if (!obstacle.isNull()) {
            return obstacle;
        }
    }
    return QString();
}

QString s_obstacle(const QVariant &value, int depth)
{
    switch (value.userType()) {
    case QMetaType::QVariantMap:
        return s_obstacleIn(value.toMap(), depth);
    case QMetaType::QVariantList:
        return s_obstacleIn(value.toList(), depth);
    case QMetaType::UnknownType:
    case QMetaType::Bool:
    case QMetaType::QString:
    case QMetaType::QByteArray:
        return QString();
    default:
        return isNumber(value) ? QString()
                               : QStringLiteral("a %1 cannot be sent").arg(QLatin1String(value.typeName()));
    }
}

} // namespace

Decoded decode(const QByteArray &message)
{
    const QString malformed = malformation(message);
    if (!malformed.isNull()) {
        return {QVariant(), malformed};
    }
    registerArrays();
    return {MsgPack::unpack(message), QString()};
}

Encoded encode(const QVariant &values)
{
    const QVariant value = plain(values);
    const QString obstacle = s_obstacle(value);
    if (!obstacle.isNull()) {
        return {QByteArray(), obstacle};
    }
    const QByteArray message = MsgPack::pack(value);
    if (message.size() > sentBytesMax) {
        return {QByteArray(),
                QStringLiteral("the daemon takes no message of more than 4 MiB, this has %1 bytes")
                    .arg(message.size())};
    }
    return {message, QString()};
}

} // namespace Vorbel
