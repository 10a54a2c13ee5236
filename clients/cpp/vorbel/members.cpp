#include "vorbel/members.h"

#include "vorbel/memberkinds_p.h"

#include <QJsonArray>

#include <algorithm>

namespace Vorbel
{

namespace
{

// What members can hold beside numbers, texts and truths

bool s_isPair(const QJsonValue &value)
{
    return value.isArray() && value.toArray().size() == 2;
}

bool s_areBits(const QJsonValue &value)
{
    const QJsonArray pair = value.toArray();
    return s_isPair(value) && isWholeNumber(pair.at(0)) && isWholeNumber(pair.at(1));
}

bool s_areLimits(const QJsonValue &value)
{
    const QJsonArray pair = value.toArray();
    return s_isPair(value) && std::all_of(pair.begin(), pair.end(), [](const QJsonValue &end) {
               return end.isNull() || isFiniteNumber(end);
           });
}

// A whole number as JSON writes it. A regular expression would take half a megabyte for it.
bool s_isNumeral(const QString &name)
{
    const QStringRef digits = name.midRef(name.startsWith('-') ? 1 : 0);
    const auto isDigit = [](QChar character) {
        return character >= '0' && character <= '9';
    };
    return name == QLatin1String("0") || (!digits.isEmpty() && digits.front() != '0' &&
                                          std::all_of(digits.cbegin(), digits.cend(), isDigit));
}

bool s_isLabel(const QString &name, const QJsonValue &text)
{
    return text.isString() && s_isNumeral(name);
}

bool s_areLabels(const QJsonValue &value)
{
    const QJsonObject labels = value.toObject();
    const QStringList names = labels.keys();
    return value.isObject() && std::all_of(names.cbegin(), names.cend(), [&labels](const QString &name) {
               return s_isLabel(name, labels.value(name));
           });
}

bool s_isSelector(const QJsonValue &value)
{
    const QJsonObject selector = value.toObject();
    return selector.value(QLatin1String("path")).isString() &&
           isWholeNumber(selector.value(QLatin1String("is")));
}

// How they are taken

template <auto member>
void s_takeText(Members &members, const QJsonValue &value)
{
    members.*member = value.toString();
}

template <auto member>
void s_takeNumber(Members &members, const QJsonValue &value)
{
    members.*member = value.toDouble();
}

template <auto member>
void s_takeTruth(Members &members, const QJsonValue &value)
{
    members.*member = value.toBool();
}

template <auto member>
void s_takeLimits(Members &members, const QJsonValue &value)
{
    const QJsonArray pair = value.toArray();
    Limits &limits = members.*member;
    limits.low = pair.at(0).toDouble(limits.low);
    limits.high = pair.at(1).toDouble(limits.high);
}

void s_takeDecimals(Members &members, const QJsonValue &value)
{
    members.decimals = value.toInt();
}

// Far beyond any reading, bits are as wrong as nearer by.
void s_takeBits(Members &members, const QJsonValue &value)
{
    static constexpr double wrong = 1e6;
    const QJsonArray pair = value.toArray();
    const auto whole = [&pair](int at) {
        return static_cast<int>(std::clamp(pair.at(at).toDouble(), -wrong, wrong));
    };
    members.bits = BitRange{whole(0), whole(1)};
}

// With a scale of 0 there would be no way back.
void s_takeScale(Members &members, const QJsonValue &value)
{
    members.scale = value.toDouble() == 0 ? 1 : value.toDouble();
}

void s_takeLabels(Members &members, const QJsonValue &value)
{
    const QJsonObject labels = value.toObject();
    for (auto label = labels.begin(); label != labels.end(); ++label) {
        members.labels.insert(label.key().toDouble(), label.value().toString());
    }
}

void s_takeLeast(Members &members, const QJsonValue &value)
{
    members.bounds.low = value.toDouble();
}

void s_takeLargest(Members &members, const QJsonValue &value)
{
    members.bounds.high = value.toDouble();
}

void s_takeInitial(Members &members, const QJsonValue &value)
{
    members.initial = static_cast<qint64>(value.toDouble());
}

void s_takeSelector(Members &members, const QJsonValue &value)
{
    const QJsonObject selector = value.toObject();
    members.when = Selector{selector.value(QLatin1String("path")).toString(),
                            selector.value(QLatin1String("is")).toDouble()};
}

constexpr double bits31 = 2147483648.0;
constexpr double bits32 = 4294967295.0;
constexpr Kind limitsKind{"[low, high], each a number or null", &s_areLimits};
constexpr Kind labelsKind{"a map from whole numbers, as texts, to texts", &s_areLabels};
constexpr Kind selectorKind{"{\"path\": a text, \"is\": a whole number}", &s_isSelector};

constexpr MemberKind kinds[] = {
    {"title", aText, &s_takeText<&Members::title>},
    {"description", aText, &s_takeText<&Members::description>},
    {"unit", aText, &s_takeText<&Members::unit>},
    {"decimals", wholeNumber(0, 15), &s_takeDecimals},
    {"bits", {"[the lowest bit, how many]", &s_areBits}, &s_takeBits},
    {"swapped", aTruth, &s_takeTruth<&Members::swapped>},
    {"signed", aTruth, &s_takeTruth<&Members::isSigned>},
    {"float", aTruth, &s_takeTruth<&Members::isFloat>},
    {"scale", aNumber, &s_takeScale},
    {"offset", aNumber, &s_takeNumber<&Members::offset>},
    {"labels", labelsKind, &s_takeLabels, true},
    {"min", aNumber, &s_takeLeast},
    {"max", aNumber, &s_takeLargest},
    {"warn", limitsKind, &s_takeLimits<&Members::warn>},
    {"alarm", limitsKind, &s_takeLimits<&Members::alarm>},
    {"readonly", aTruth, &s_takeTruth<&Members::readonly>},
    {"initial", wholeNumber(-bits31, bits32), &s_takeInitial},
    {"when", selectorKind, &s_takeSelector, true},
};

bool s_holdsObject(const QJsonObject &node)
{
    return std::any_of(node.begin(), node.end(), [](const QJsonValue &member) { return member.isObject(); });
}

} // namespace

const MemberKind *memberKind(const QString &name)
{
    const auto *kind = std::find_if(std::begin(kinds), std::end(kinds), [&name](const MemberKind &each) {
        return name == QLatin1String(each.name);
    });
    return kind == std::end(kinds) ? nullptr : kind;
}

Members membersOf(const QJsonObject &leaf)
{
    Members members;
    for (auto member = leaf.begin(); member != leaf.end(); ++member) {
        const MemberKind *known = memberKind(member.key());
        if (known && isMember(member.key(), member.value()) && known->kind.takes(member.value())) {
            known->take(members, member.value());
        }
    }
    return members;
}

bool isMember(const QString &name, const QJsonValue &value)
{
    const MemberKind *known = memberKind(name);
    if (!known || !value.isObject()) {
        return known != nullptr;
    }
    const QJsonObject node = value.toObject();
    return known->isMap && !node.contains(QLatin1String("@mac")) && !s_holdsObject(node);
}

} // namespace Vorbel
