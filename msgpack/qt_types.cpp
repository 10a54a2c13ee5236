// Everything that needs Qt Gui, in a library of its own: what does not link it works without a display stack.
#include "msgpack/msgpack.h"
#include "msgpack/qt_types_p.h"

#include <QColor>
#include <QDebug>

using namespace MsgPackPrivate;

namespace
{

struct QtType {
    QMetaType::Type metatype;
    pack_user_f packer;
    unpack_user_f unpacker;
};

constexpr QtType qtTypes[] = {
    {QMetaType::QDate, pack_qdate, unpack_qdate},
    {QMetaType::QTime, pack_qtime, unpack_qtime},
    {QMetaType::QDateTime, pack_qdatetime, unpack_qdatetime},
    {QMetaType::QRect, pack_qrect, unpack_qrect},
    {QMetaType::QSize, pack_qsize, unpack_qsize},
    {QMetaType::QPoint, pack_qpoint, unpack_qpoint},
    {QMetaType::QColor, pack_qcolor, unpack_qcolor},
};

constexpr int colorSize = 4;

} // namespace

bool MsgPack::registerType(QMetaType::Type metatype, quint8 msgpackType)
{
    for (const QtType &type : qtTypes) {
        if (type.metatype == metatype) {
            // Whatever is registered already stays, and says so itself.
            registerPacker(metatype, static_cast<qint8>(msgpackType), type.packer);
            registerUnpacker(static_cast<qint8>(msgpackType), type.unpacker);
            return true;
        }
    }
    qWarning("latrafli was built without metatype %d support.", metatype);
    qWarning(
        "Use MsgPack::registerPacker() and MsgPack::registerUnpacker() to register metatype %d manually.",
        metatype);
    return false;
}

QByteArray MsgPackPrivate::pack_qcolor(const QVariant &variant)
{
    const auto color = variant.value<QColor>();
    if (!color.isValid()) {
        return QByteArray(1, '\0');
    }
    const int components[colorSize] = {color.red(), color.green(), color.blue(), color.alpha()};
    QByteArray payload;
    for (const int component : components) {
        payload.append(static_cast<char>(component));
    }
    return payload;
}

QVariant MsgPackPrivate::unpack_qcolor(const QByteArray &payload)
{
    if (payload.size() < colorSize) {
        return QColor();
    }
    const auto *bytes = reinterpret_cast<const quint8 *>(payload.constData());
    return QColor(bytes[0], bytes[1], bytes[2], bytes[3]);
}
