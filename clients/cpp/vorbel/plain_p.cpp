#include "vorbel/plain_p.h"

#include "vorbel/wire.h"

#include <QJsonArray>
#include <QJsonObject>

namespace Vorbel
{

namespace
{

QVariant s_plainMap(const QVariantMap &map)
{
    QVariantMap members;
    for (auto member = map.cbegin(); member != map.cend(); ++member) {
        members.insert(members.cend(), member.key(), plain(member.value()));
    }
    return members;
}

QVariant s_plainList(const QVariantList &list)
{
    QVariantList elements;
    for (const QVariant &element : list) {
        elements.append(plain(element));
    }
    return elements;
}

} // namespace

QVariant plain(const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::QVariantMap:
    case QMetaType::QVariantHash:
    case QMetaType::QJsonObject:
        return s_plainMap(value.toMap());
    case QMetaType::QVariantList:
    case QMetaType::QStringList:
    case QMetaType::QJsonArray:
        return s_plainList(value.toList());
    case QMetaType::QJsonValue:
        return plain(value.toJsonValue().toVariant());
    case QMetaType::Nullptr:
        return QVariant();
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::Short:
    case QMetaType::Long:
        return value.toLongLong();
    case QMetaType::UChar:
    case QMetaType::UShort:
    case QMetaType::ULong:
        return value.toULongLong();
    default:
        return value;
    }
}

bool isMap(const QVariant &value)
{
    return value.userType() == QMetaType::QVariantMap;
}

QVariant valueAt(const QVariant &values, const QStringList &names)
{
    const QVariant *value = &values;
    for (const QString &name : names) {
        if (!isMap(*value)) {
            return QVariant();
        }
        const auto &members = *static_cast<const QVariantMap *>(value->constData());
        const auto member = members.constFind(name);
        if (member == members.cend()) {
            return QVariant();
        }
        value = &*member;
    }
    return *value;
}

QVariant lastOf(const QVariant &value)
{
    if (!isArray(value)) {
        return value;
    }
    const QVariantList all = elements(value);
    return all.isEmpty() ? QVariant() : all.last();
}

bool isNumber(const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        return true;
    default:
        return isFloat(value);
    }
}

bool isFloat(const QVariant &value)
{
    return value.userType() == QMetaType::Float || value.userType() == QMetaType::Double;
}

} // namespace Vorbel
