// The typed numeric arrays: vectors that reach clients as extension values of raw little-endian elements, and
// that convert to text.
//
// Their payload is the elements one after another in their natural width, with nothing before, between or
// after them. Nothing decodes these extension types: when a client sends them, they are unknown ones.
#pragma once

#include "msgpack/msgpack.h"

#include <QMetaType>
#include <QVector>
#include <QtEndian>

namespace TypedArrays
{

// The payload of a variant that holds a QVector<T> or converts to one; empty if it does not. Where the
// elements are in memory as the payload needs them, it is the memory of the vector that `variant` holds,
// valid only for as long as that vector does not change.
template <class T>
QByteArray pack(const QVariant &variant)
{
    const bool isHeld = variant.userType() == qMetaTypeId<QVector<T>>();
    const auto elements = variant.value<QVector<T>>();
    const int size = elements.size() * static_cast<int>(sizeof(T));
    if (isHeld && Q_BYTE_ORDER == Q_LITTLE_ENDIAN) {
        return QByteArray::fromRawData(reinterpret_cast<const char *>(elements.constData()), size);
    }
    QByteArray payload(size, Qt::Uninitialized);
    qToLittleEndian<T>(elements.constData(), elements.size(), payload.data());
    return payload;
}

inline QString elementText(int element)
{
    return QString::number(element);
}
inline QString elementText(unsigned int element)
{
    return QString::number(element);
}
inline QString elementText(float element)
{
    return QString::number(static_cast<double>(element), 'g', 6);
}

// The elements' texts, each followed by ", ", even the last one: clients split the text there.
template <class T>
QString toText(const QVector<T> &elements)
{
    QString text;
    for (const T element : elements) {
        text += elementText(element) + QLatin1String(", ");
    }
    return text;
}

} // namespace TypedArrays

// Makes QVector<T> known to Qt's type system, convertible to QString, and packed as extension values of type
// `msgpackType`. Once per type and process.
template <class T>
void registerType(int msgpackType)
{
    const int metatype = qRegisterMetaType<QVector<T>>();
    QMetaType::registerConverter<QVector<T>, QString>(&TypedArrays::toText<T>);
    MsgPack::registerPacker(metatype, static_cast<qint8>(msgpackType), &TypedArrays::pack<T>);
}

// Registers QVector of signed char, unsigned char, short, unsigned short, int, unsigned int and float, in
// this order, as extension types 17 to 23. Once per process, on the main thread, before any value exists.
//
// QVector<char> is not among them: it stays a type without packer and text.
void registerTypedArrays();
