#include "vorbel/writing.h"

#include "vorbel/bits_p.h"
#include "vorbel/fields_p.h"
#include "vorbel/paths.h"
#include "vorbel/plain_p.h"
#include "vorbel/single_p.h"
#include "vorbel/words_p.h"

#include <algorithm>
#include <cmath>

namespace Vorbel
{

namespace
{

bool s_isPacked(const Leaf &leaf)
{
    return leaf.format == QLatin1Char('p');
}

// The raw numbers that the daemon writes as they are. It does not tell formats with a sign from those
// without; scaled numbers it clamps to the signed range. A field that means something else than itself has
// those that it can be read as.
Range s_range(const Leaf &leaf)
{
    if (leaf.isSingle()) {
        return {-largestSingle, largestSingle};
    }
    if (leaf.isArranged() || (leaf.members.isScaled() && leaf.isWhole())) {
        return fieldRange(leaf);
    }
    const int bits = 8 * leaf.width();
    return {-std::ldexp(1, bits - 1), std::ldexp(1, leaf.isScaled() ? bits - 1 : bits) - 1};
}

// The nearest whole number; halves go up, as they do in the daemon.
double s_nearest(double number)
{
    const double below = std::floor(number);
    return number - below >= 0.5 ? below + 1 : below;
}

// The field of a value, times the factor if there is one.
double s_wanted(const Leaf &leaf, double value)
{
    const double field = fieldFor(leaf, value);
    return leaf.isScaled() ? field * leaf.factor : field;
}

double s_nearestRaw(const Leaf &leaf, double value)
{
    const double wanted = s_wanted(leaf, value);
    return leaf.isSingle() ? single(wanted) : s_nearest(wanted);
}

// Of the numbers of single precision around nearest / factor, the one that the daemon turns into that raw
// number, or else into the one nearest to it. Further ones miss by more.
double s_sentFor(const Leaf &leaf, double nearest)
{
    const auto middle =
        static_cast<float>(std::clamp(single(nearest / leaf.singleFactor()), -largestSingle, largestSingle));
    const auto missed = [&leaf, nearest](float sent) {
        return std::abs(rawWritten(leaf, double(sent)) - nearest);
    };
    float best = middle;
    for (const float towards : {-HUGE_VALF, HUGE_VALF}) {
        const float candidate = std::nextafter(middle, towards);
        if (std::isfinite(candidate) && missed(candidate) < missed(best)) {
            best = candidate;
        }
    }
    return double(best);
}

QString s_short(double number)
{
    return QString::number(number, 'g', 10);
}

// The first problem of a value for a leaf; without a code if the value can be written.
Problem s_outOfRange(const Leaf &leaf, double value)
{
    const Range range = s_range(leaf);
    const double raw = s_nearestRaw(leaf, value);
    if (range.least <= raw && raw <= range.largest) {
        return {};
    }
    const QString field = leaf.members.isScaled()
                              ? QStringLiteral(" is the field %1, which").arg(s_short(fieldFor(leaf, value)))
                              : QString();
    const QString product = leaf.isScaled() ? QStringLiteral(" times the factor %1 is %2, which")
                                                  .arg(s_short(leaf.factor), s_short(s_wanted(leaf, value)))
                                            : QString();
    return {leaf.path(), QStringLiteral("out-of-range"),
            QStringLiteral("%1%2%3 is outside of %4 to %5")
                .arg(numberText(value), field, product, s_short(range.least), s_short(range.largest))};
}

Problem s_outOfBounds(const Leaf &leaf, double value)
{
    const Limits &bounds = leaf.members.bounds;
    if (!bounds.isBeyond(value)) {
        return {};
    }
    QStringList ends;
    if (std::isfinite(bounds.low)) {
        ends << QStringLiteral("at least ") + s_short(bounds.low);
    }
    if (std::isfinite(bounds.high)) {
        ends << QStringLiteral("at most ") + s_short(bounds.high);
    }
    return {leaf.path(), QStringLiteral("out-of-bounds"),
            QStringLiteral("takes %1, not %2").arg(ends.join(QStringLiteral(" and ")), numberText(value))};
}

const char *s_readOnlyMember(const Leaf &leaf)
{
    if (leaf.asBool) {
        return "@asBool";
    }
    return leaf.isMasked() ? "@mask" : "readonly";
}

bool s_isText(const QVariant &value)
{
    return value.userType() == QMetaType::QString;
}

// The value that a label stands for; any other is its own.
QVariant s_ofLabel(const Leaf &leaf, const QVariant &value)
{
    const auto &labels = leaf.members.labels;
    const auto label =
        s_isText(value) ? std::find(labels.cbegin(), labels.cend(), value.toString()) : labels.cend();
    return label == labels.cend() ? value : valueOfField(leaf, label.key());
}

// `value` is none of the leaf's labels.
Problem s_refusal(const Leaf &leaf, const QVariant &value)
{
    const auto problem = [&leaf](const char *code, const QString &message) {
        return Problem{leaf.path(), QLatin1String(code), message};
    };
    const QStringList labels = leaf.members.labelList();
    if (s_isText(value) && !labels.isEmpty()) {
        return problem("unknown-label",
                       QStringLiteral("has no label %1%2: there are %3")
                           .arg(quoted(value), suggestion(value.toString(), labels), listed(labels)));
    }
    if (leaf.isReadOnly()) {
        return problem("read-only", QStringLiteral("is read-only, because its schema has \"%1\"")
                                        .arg(QLatin1String(s_readOnlyMember(leaf))));
    }
    if (leaf.format.isNull()) {
        return problem("no-format", QStringLiteral("has no \"@format\" and cannot be written"));
    }
    if (!leaf.hasFormat()) {
        return problem(
            "unknown-format",
            QStringLiteral("has the format \"%1\", which cannot be written").arg(QString(leaf.format)));
    }
    if (s_isPacked(leaf) || !value.isValid()) {
        return {};
    }
    if (!isNumber(value) || std::isnan(value.toDouble())) {
        return problem("not-a-number", QStringLiteral("takes a number, not %1").arg(quoted(value)));
    }
    const Problem beyond = s_outOfBounds(leaf, value.toDouble());
    return beyond.code.isNull() ? s_outOfRange(leaf, value.toDouble()) : beyond;
}

// Whether there are names below to be written: leaves may have some, too.
bool s_isGroup(const QJsonObject &node)
{
    return !isLeaf(node) || (!s_isPacked(leafOf(QStringList(), node)) && !nodeNames(node).isEmpty());
}

// Puts a value under names into nested maps. Those of names that are missing, or hold no map, are made.
void s_put(QVariantMap &into, const QStringList &names, const QVariant &value)
{
    QVariantMap *map = &into;
    for (int at = 0; at + 1 < names.size(); ++at) {
        QVariant &inner = (*map)[names.at(at)];
        if (!isMap(inner)) {
            inner = QVariantMap();
        }
        map = static_cast<QVariantMap *>(inner.data()); // in place, since others may be as large as a message
    }
    map->insert(names.last(), value);
}

// A number to be written.
struct Entry {
    Leaf leaf;
    double value;
};

// What to send for one, and the raw number that it becomes beside the one that would be nearest.
struct Sending {
    QVariant sent;
    double raw;
    double nearest;
};

Sending s_exactly(const Leaf &leaf, double raw)
{
    return {leaf.format == QLatin1Char('f') ? QVariant(static_cast<float>(raw))
                                            : QVariant(static_cast<qlonglong>(raw)),
            raw, raw};
}

// Of a value that has its bytes for itself.
Sending s_sendingOf(const Leaf &leaf, double value)
{
    const double nearest = s_nearestRaw(leaf, value);
    if (leaf.isArranged()) {
        return s_exactly(leaf, readingWith(leaf, nearest));
    }
    if (!leaf.isScaled()) {
        return s_exactly(leaf, nearest);
    }
    const double sent = s_sentFor(leaf, nearest);
    return {static_cast<float>(sent), rawWritten(leaf, sent), nearest};
}

// The value that was written, with the digits that say something.
double s_meantShortly(const Written &written)
{
    const bool isExact = written.leaf.isWhole() && !written.leaf.isSingle();
    return isExact ? written.meant() : shortest(written.meant());
}

// The walk along values and schema, and then what is sent for the numbers.
class Preparation
{
public:
    Message take(const Readings &readings)
    {
        putNumbers(readings);
        m_message.problems += contradictions(m_message.written) + unselected(m_message.written);
        if (m_message.isRefused()) {
            m_message.written.clear();
        }
        return m_message;
    }

    void refuse(const Problem &problem) { m_message.problems << problem; }

    void takeMembers(const QJsonObject &node, const QVariantMap &values, const QStringList &names)
    {
        for (auto member = values.cbegin(); member != values.cend(); ++member) {
            const QStringList below = names + QStringList(member.key());
            if (hasNode(node, member.key())) {
                takeMember(node.value(member.key()).toObject(), member.value(), below);
            } else {
                refuse({joinPath(below), QStringLiteral("unknown-name"),
                        QStringLiteral("does not exist in the schema") +
                            suggestion(member.key(), nodeNames(node))});
            }
        }
    }

private:
    void takeMember(const QJsonObject &node, const QVariant &value, const QStringList &names)
    {
        if (isMap(value) && s_isGroup(node)) {
            s_put(m_message.values, names, QVariantMap());
            takeMembers(node, value.toMap(), names);
        } else if (isLeaf(node)) {
            const Leaf leaf = leafOf(names, node);
            takeLeaf(leaf, s_ofLabel(leaf, value));
        } else {
            const QStringList members = nodeNames(node);
            refuse({joinPath(names), QStringLiteral("is-a-group"),
                    QStringLiteral("is a group of values, not a value: ") +
                        (members.isEmpty() ? QStringLiteral("it is empty") : listed(members))});
        }
    }

    void takeLeaf(const Leaf &leaf, const QVariant &value)
    {
        const Problem problem = s_refusal(leaf, value);
        if (!problem.code.isNull()) {
            refuse(problem);
        } else if (s_isPacked(leaf) || !value.isValid()) {
            s_put(m_message.values, leaf.names, value);
        } else {
            m_entries.append({leaf, value.toDouble()});
        }
    }

    void putNumbers(const Readings &readings)
    {
        const Fields fields = allFields();
        for (const Entry &entry : qAsConst(m_entries)) {
            const Leaf &leaf = entry.leaf;
            if (!leaf.isPart()) {
                put(entry, s_sendingOf(leaf, entry.value));
            } else if (const auto reading = fields.reading(
                           leaf, bitsBeside(leaf, readings ? readings(leaf.path()) : QVariant()))) {
                put(entry, s_exactly(leaf, *reading));
            } else {
                refuse({leaf.path(), QStringLiteral("no-reading"),
                        QStringLiteral("shares its bytes with other bits, and no reading of these came yet; "
                                       "\"initial\" would say what they are")});
            }
        }
    }

    Fields allFields()
    {
        Fields fields;
        for (const Entry &entry : qAsConst(m_entries)) {
            if (entry.leaf.isPart()) {
                fields.add(entry.leaf, s_nearestRaw(entry.leaf, entry.value));
            }
        }
        m_message.problems += fields.conflicts();
        return fields;
    }

    void put(const Entry &entry, const Sending &sending)
    {
        s_put(m_message.values, entry.leaf.names, sending.sent);
        m_message.written.append({entry.leaf, entry.value, sending.raw, sending.nearest});
    }

    QVector<Entry> m_entries; // in the order of their names, as maps are
    Message m_message;
};

} // namespace

QString Written::path() const
{
    return leaf.path();
}

double Written::reading() const
{
    return leaf.isScaled() ? raw / leaf.factor : raw;
}

double Written::field() const
{
    return leaf.isArranged() ? fieldIn(leaf, bitsOf(raw)) : reading();
}

double Written::meant() const
{
    return valueOfField(leaf, field());
}

bool Written::isRounded() const
{
    constexpr double tolerance = 1e-12;
    const double asked = s_wanted(leaf, value);
    const double standing = leaf.isArranged() ? field() : raw;
    const double written = leaf.isSingle() ? shortest(standing) : standing;
    return std::abs(asked - written) > tolerance * std::max(1.0, std::abs(written));
}

QString Written::text() const
{
    const QString rounded =
        isRounded() ? QStringLiteral(", which is ") + s_short(s_meantShortly(*this)) : QString();
    const QString missed =
        raw == nearest ? QString()
                       : QStringLiteral(" instead of %1, which the daemon's single precision does not reach")
                             .arg(numberText(nearest));
    const bool isFraction = leaf.format == QLatin1Char('f') && !leaf.isScaled();
    return QStringLiteral("raw ") + (isFraction ? s_short(shortest(raw)) : numberText(raw)) + rounded +
           missed;
}

Message prepare(const QJsonObject &schema, const QVariant &values, const Readings &readings)
{
    Preparation preparation;
    const QVariant plainValues = plain(values);
    if (isMap(plainValues)) {
        preparation.takeMembers(schema, plainValues.toMap(), QStringList());
    } else {
        preparation.refuse(
            {QString(), QStringLiteral("not-a-map"),
             QStringLiteral("values are written as a map from names, not as a value of its own")});
    }
    return preparation.take(readings);
}

QVariantMap withSelectors(const Meanings &meanings, const QStringList &names, const QVariant &value)
{
    QVariantMap values = nest(names, value).toMap();
    auto leaf = meanings.leaf(joinPath(names));
    while (leaf && leaf->members.when) {
        const Selector when = *leaf->members.when;
        leaf = meanings.leaf(when.path);
        if (!leaf || valueAt(values, leaf->names).isValid()) {
            break; // there is nothing to write, or it is written already, as in a circle
        }
        s_put(values, leaf->names, valueOfField(*leaf, when.is));
    }
    return values;
}

double rawWritten(const Leaf &leaf, double sent)
{
    const Range range = s_range(leaf);
    return std::trunc(std::clamp(single(leaf.singleFactor() * sent), range.least, range.largest));
}

} // namespace Vorbel
