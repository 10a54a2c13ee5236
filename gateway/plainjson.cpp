#include "gateway/plainjson.h"

#include "vorbel/digits.h"
#include "vorbel/wire.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <limits>

namespace Gateway
{

namespace
{

// Whether a character stands for itself in JSON, in one byte.
bool s_isPlain(QChar character)
{
    return character >= ' ' && character <= '~' && character != '"' && character != '\\';
}

// Nearly all texts are names that are plain, and there are several in each message.
void s_appendText(QByteArray &text, const QString &value)
{
    if (std::all_of(value.cbegin(), value.cend(), s_isPlain)) {
        int at = text.size();
        text.resize(at + value.size() + 2);
        char *const bytes = text.data();
        bytes[at++] = '"';
        for (const QChar character : value) {
            bytes[at++] = character.toLatin1();
        }
        bytes[at] = '"';
        return;
    }
    const QByteArray list = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    text += list.mid(1, list.size() - 2);
}

template <typename Whole>
void s_appendWhole(QByteArray &text, Whole number)
{
    char digits[std::numeric_limits<Whole>::digits10 + 2]; // and a sign
    const char *const end = std::to_chars(std::begin(digits), std::end(digits), number).ptr;
    text.append(digits, static_cast<int>(end - digits));
}

void s_appendNumber(QByteArray &text, double number)
{
    constexpr double exact = 9007199254740992; // to which whole numbers are
    if (!std::isfinite(number)) {
        text += "null";
    } else if (number == std::floor(number) && std::abs(number) < exact) {
        s_appendWhole(text, static_cast<qint64>(number));
    } else {
        text += QByteArray::number(number, 'g', QLocale::FloatingPointShortest);
    }
}

void s_appendSingle(QByteArray &text, double number, const LeafTree *node)
{
    const bool isKnown = node && node->leaf;
    s_appendNumber(text, isKnown ? Vorbel::justified(number, *node->leaf) : Vorbel::justified(number));
}

void s_appendMap(QByteArray &text, const QVariantMap &map, const LeafTree *node)
{
    text += '{';
    for (auto entry = map.cbegin(); entry != map.cend(); ++entry) {
        if (entry != map.cbegin()) {
            text += ',';
        }
        s_appendText(text, entry.key());
        text += ':';
        appendJson(text, entry.value(), node ? node->member(entry.key()) : nullptr);
    }
    text += '}';
}

void s_appendList(QByteArray &text, const QVariantList &list, const LeafTree *node)
{
    text += '[';
    for (auto element = list.cbegin(); element != list.cend(); ++element) {
        if (element != list.cbegin()) {
            text += ',';
        }
        appendJson(text, *element, node);
    }
    text += ']';
}

// A value that was computed, with the ten digits that say something.
QVariant s_rounded(const QVariant &value)
{
    if (value.userType() == QMetaType::QVariantList) {
        QVariantList rounded;
        for (const QVariant &element : value.toList()) {
            rounded << s_rounded(element);
        }
        return rounded;
    }
    return value.userType() == QMetaType::Double ? QByteArray::number(value.toDouble(), 'g', 10).toDouble()
                                                 : value;
}

} // namespace

void appendJson(QByteArray &text, const QVariant &value, const LeafTree *node)
{
    switch (static_cast<QMetaType::Type>(value.userType())) {
    case QMetaType::QVariantMap:
        return s_appendMap(text, *static_cast<const QVariantMap *>(value.constData()), node);
    case QMetaType::QVariantList:
        return s_appendList(text, *static_cast<const QVariantList *>(value.constData()), node);
    case QMetaType::UInt:
        return s_appendWhole(text, value.toUInt());
    case QMetaType::Int:
        return s_appendWhole(text, value.toInt());
    case QMetaType::ULongLong:
        return s_appendWhole(text, value.toULongLong());
    case QMetaType::LongLong:
        return s_appendWhole(text, value.toLongLong());
    case QMetaType::Bool:
        text += value.toBool() ? "true" : "false";
        return;
    case QMetaType::Float:
        return s_appendSingle(text, static_cast<double>(value.toFloat()), node);
    case QMetaType::Double:
        return s_appendNumber(text, value.toDouble());
    case QMetaType::QString:
        return s_appendText(text, value.toString());
    default:
        if (Vorbel::isArray(value)) {
            return s_appendList(text, Vorbel::elements(value), node);
        }
        text += "null";
    }
}

QByteArray meantJson(const QVariant &reading, const std::shared_ptr<const Vorbel::Leaf> &leaf)
{
    const LeafTree node{leaf, {}};
    QByteArray text;
    appendJson(text, s_rounded(Vorbel::Meant(reading, leaf).value()), &node);
    return text;
}

QByteArray plainJson(const QVariant &value)
{
    QByteArray text;
    appendJson(text, value);
    return text;
}

// Qt reads documents only, which begin with a bracket.
ReadJson readPlainJson(const QByteArray &text)
{
    QJsonParseError error{};
    const QJsonArray list = QJsonDocument::fromJson('[' + text + ']', &error).array();
    if (error.error != QJsonParseError::NoError) {
        return {{}, "not JSON: " + error.errorString()};
    }
    if (list.size() != 1) {
        return {{}, "not one value"};
    }
    return {list.first().toVariant(), {}};
}

} // namespace Gateway
