// A text for a variant that shows its exact type beside its value, so that a test which compares two of them
// tells the unsigned 5 from the signed one, and a float from a double.
//
//   nil            an invalid variant         u5, i-5, ull5, ll5   UInt, Int, ULongLong, LongLong
//   true, false    Bool                       f3f800000            Float, its 32 bits in hexadecimal
//   "text"         QString                    d3ff0000000000000    Double, its 64 bits in hexadecimal
//   h'00ff'        QByteArray                 [u1, nil]            QVariantList
//   <QDate>        any other type             {"a": u1}            QVariantMap
//
// UTF-16 units outside printable ASCII, quotes and backslashes in a text are written \uXXXX.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <cstring>

namespace VariantNotation
{

inline QString text(const QString &string)
{
    QString out = QStringLiteral("\"");
    for (const QChar unit : string) {
        const bool plain = unit >= QLatin1Char(' ') && unit <= QLatin1Char('~') && unit != QLatin1Char('"') &&
                           unit != QLatin1Char('\\');
        out += plain ? QString(unit) : QStringLiteral("\\u%1").arg(unit.unicode(), 4, 16, QLatin1Char('0'));
    }
    return out + QLatin1Char('"');
}

template <typename Bits, typename Number>
QString bits(char prefix, Number number)
{
    Bits raw;
    static_assert(sizeof raw == sizeof number, "the bits of the number, all of them");
    std::memcpy(&raw, &number, sizeof raw);
    return QLatin1Char(prefix) + QStringLiteral("%1").arg(raw, int(2 * sizeof raw), 16, QLatin1Char('0'));
}

inline QString notation(const QVariant &value);

inline QString list(const QVariantList &values)
{
    QStringList parts;
    for (const QVariant &value : values) {
        parts << notation(value);
    }
    return QStringLiteral("[") + parts.join(QStringLiteral(", ")) + QStringLiteral("]");
}

inline QString map(const QVariantMap &entries)
{
    QStringList parts;
    for (auto entry = entries.cbegin(); entry != entries.cend(); ++entry) {
        parts << text(entry.key()) + QStringLiteral(": ") + notation(entry.value());
    }
    return QStringLiteral("{") + parts.join(QStringLiteral(", ")) + QStringLiteral("}");
}

inline QString notation(const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::UnknownType:
        return QStringLiteral("nil");
    case QMetaType::Bool:
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    case QMetaType::Int:
        return QStringLiteral("i%1").arg(value.toInt());
    case QMetaType::UInt:
        return QStringLiteral("u%1").arg(value.toUInt());
    case QMetaType::LongLong:
        return QStringLiteral("ll%1").arg(value.toLongLong());
    case QMetaType::ULongLong:
        return QStringLiteral("ull%1").arg(value.toULongLong());
    case QMetaType::Float:
        return bits<quint32>('f', value.value<float>());
    case QMetaType::Double:
        return bits<quint64>('d', value.toDouble());
    case QMetaType::QString:
        return text(value.toString());
    case QMetaType::QByteArray:
        return QStringLiteral("h'%1'").arg(QString::fromLatin1(value.toByteArray().toHex()));
    case QMetaType::QVariantList:
        return list(value.toList());
    case QMetaType::QVariantMap:
        return map(value.toMap());
    default:
        return QStringLiteral("<%1>").arg(QString::fromLatin1(value.typeName()));
    }
}

} // namespace VariantNotation
