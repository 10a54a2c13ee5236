// Values as texts that tell what QVariant's comparison does not: 1 from 1.0 and from true, and one array from
// another.
#pragma once

#include "vorbel/wire.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>
#include <QVariant>

#include <cmath>

namespace Notation
{

inline QString textOf(const QVariant &value);

inline QString textOfMap(const QVariantMap &map)
{
    QStringList members;
    for (auto member = map.cbegin(); member != map.cend(); ++member) {
        members << '"' + member.key() + "\": " + textOf(member.value());
    }
    return '{' + members.join(", ") + '}';
}

inline QString textOfList(const QVariantList &list)
{
    QStringList elements;
    for (const QVariant &element : list) {
        elements << textOf(element);
    }
    return '[' + elements.join(", ") + ']';
}

inline QString textOfFloat(double number)
{
    const QString digits = QString::number(number, 'g', 17);
    return std::isfinite(number) && !digits.contains('.') && !digits.contains('e') ? digits + ".0" : digits;
}

inline QString arrayName(const QVariant &array)
{
    static const QMap<QString, QString> names{{"QVector<signed char>", "int8"}, {"QVector<uchar>", "uint8"},
                                              {"QVector<short>", "int16"},      {"QVector<ushort>", "uint16"},
                                              {"QVector<int>", "int32"},        {"QVector<uint>", "uint32"},
                                              {"QVector<float>", "float32"}};
    return names.value(array.typeName(), array.typeName());
}

inline QString textOf(const QVariant &value)
{
    if (Vorbel::isArray(value)) {
        return arrayName(value) + textOfList(Vorbel::elements(value));
    }
    switch (value.userType()) {
    case QMetaType::UnknownType:
        return "null";
    case QMetaType::QVariantMap:
        return textOfMap(value.toMap());
    case QMetaType::QVariantList:
        return textOfList(value.toList());
    case QMetaType::QString:
        return '"' + value.toString() + '"';
    case QMetaType::Float:
    case QMetaType::Double:
        return textOfFloat(value.toDouble());
    default:
        return value.toString();
    }
}

// The same of a value as the cases of clients/conformance write it, where an object with "$" is what JSON
// lacks.
inline QString textOfCase(const QVariant &notation);

inline QString textOfCaseMap(const QVariantMap &map)
{
    if (map.contains("elements")) {
        QStringList elements;
        for (const QVariant &element : map.value("elements").toList()) {
            elements << textOfCase(element);
        }
        return map.value("$").toString() + '[' + elements.join(", ") + ']';
    }
    if (map.contains("$")) {
        return map.value("$").toString();
    }
    QStringList members;
    for (auto member = map.cbegin(); member != map.cend(); ++member) {
        members << '"' + member.key() + "\": " + textOfCase(member.value());
    }
    return '{' + members.join(", ") + '}';
}

inline QString textOfCase(const QVariant &notation)
{
    return notation.userType() == QMetaType::QVariantMap ? textOfCaseMap(notation.toMap()) : textOf(notation);
}

template <class Element>
QVariant arrayOf(const QVariantList &elements)
{
    QVector<Element> array;
    for (const QVariant &element : elements) {
        array << element.value<Element>();
    }
    return QVariant::fromValue(array);
}

inline QVariant arrayOfCase(const QVariantMap &notation)
{
    const QVariantList elements = notation.value("elements").toList();
    const QString type = notation.value("$").toString();
    if (type == "uint8") {
        return arrayOf<quint8>(elements);
    }
    if (type != "uint16") {
        qFatal("an array of another type");
    }
    return arrayOf<quint16>(elements);
}

// The value that it stands for; of arrays those of 8 and 16 bits without a sign.
inline QVariant valueOfCase(const QVariant &notation)
{
    if (notation.userType() != QMetaType::QVariantMap) {
        return notation;
    }
    QVariantMap map = notation.toMap();
    if (map.contains("elements")) {
        return arrayOfCase(map);
    }
    if (map.contains("$")) {
        return map.value("$").toString().toDouble();
    }
    for (QVariant &member : map) {
        member = valueOfCase(member);
    }
    return map;
}

} // namespace Notation
