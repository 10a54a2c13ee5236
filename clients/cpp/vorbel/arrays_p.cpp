#include "vorbel/arrays_p.h"

#include "msgpack/msgpack.h"
#include "vorbel/wire.h"

#include <QtEndian>

#include <array>

namespace Vorbel
{

namespace
{

// The vector in a payload; invalid if that ends within an element.
template <class T>
QVariant s_unpack(const QByteArray &payload)
{
    constexpr int width = sizeof(T);
    if (payload.size() % width != 0) {
        return QVariant();
    }
    QVector<T> elements(payload.size() / width);
    qFromLittleEndian<T>(payload.constData(), elements.size(), elements.data());
    return QVariant::fromValue(elements);
}

template <class T>
QVariantList s_numbers(const QVariant &array)
{
    QVariantList numbers;
    for (const T element : array.value<QVector<T>>()) {
        numbers.append(QVariant(std::conditional_t<(sizeof(T) < sizeof(int)), int, T>(element)));
    }
    return numbers;
}

struct ArrayType {
    int width;
    MsgPackPrivate::unpack_user_f unpack;
    int (*metatype)();
    QVariantList (*numbers)(const QVariant &);
};

template <class T>
constexpr ArrayType s_arrayType()
{
    return {sizeof(T), &s_unpack<T>, &qMetaTypeId<QVector<T>>, &s_numbers<T>};
}

constexpr int firstType = 17;
constexpr std::array<ArrayType, 7> arrayTypes = {
    s_arrayType<signed char>(),    s_arrayType<unsigned char>(), s_arrayType<short>(),
    s_arrayType<unsigned short>(), s_arrayType<int>(),           s_arrayType<unsigned int>(),
    s_arrayType<float>(),
};

const ArrayType *s_typeOf(const QVariant &value)
{
    for (const ArrayType &type : arrayTypes) {
        if (value.userType() == type.metatype()) {
            return &type;
        }
    }
    return nullptr;
}

bool s_register()
{
    for (std::size_t at = 0; at < arrayTypes.size(); ++at) {
        MsgPack::registerUnpacker(static_cast<qint8>(firstType + at), arrayTypes.at(at).unpack);
    }
    return true;
}

} // namespace

int elementWidth(int extensionType)
{
    const auto at = static_cast<std::size_t>(extensionType - firstType);
    return at < arrayTypes.size() ? arrayTypes.at(at).width : 0;
}

void registerArrays()
{
    static const bool isRegistered = s_register();
    Q_UNUSED(isRegistered)
}

bool isArray(const QVariant &value)
{
    return s_typeOf(value) != nullptr;
}

QVariantList elements(const QVariant &array)
{
    const ArrayType *type = s_typeOf(array);
    return type ? type->numbers(array) : QVariantList();
}

} // namespace Vorbel
