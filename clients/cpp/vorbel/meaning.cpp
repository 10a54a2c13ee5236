#include "vorbel/meaning.h"

#include "vorbel/bits_p.h"
#include "vorbel/digits.h"
#include "vorbel/paths.h"
#include "vorbel/plain_p.h"
#include "vorbel/wire.h"
#include "vorbel/words_p.h"

#include <QSet>

namespace Vorbel
{

namespace
{

bool s_isTruth(const QVariant &value)
{
    return value.userType() == QMetaType::Bool;
}

// Whole numbers of the bus are exact; of all others, the digits that their origin justifies are taken.
double s_exact(const Leaf &leaf, double field)
{
    return leaf.isWhole() && !leaf.isSingle() ? field : justified(field, leaf);
}

// A number with the digits that it has, of which ten say something.
QString s_digits(const Leaf &leaf, double value)
{
    return shownNumber(leaf.members.isScaled() ? value : s_exact(leaf, value));
}

QString s_text(const Leaf &leaf, const QVariant &value)
{
    if (!isNumber(value)) {
        return quoted(value);
    }
    const double number = value.toDouble();
    if (leaf.members.decimals) {
        return QString::number(number, 'f', *leaf.members.decimals);
    }
    return isFloat(value) ? s_digits(leaf, number) : value.toString();
}

std::optional<QString> s_label(const Leaf &leaf, const QVariant &reading)
{
    const auto field = fieldOf(leaf, reading);
    const bool hasName = field && leaf.members.labels.contains(*field);
    return hasName ? std::optional<QString>(leaf.members.labels.value(*field)) : std::nullopt;
}

} // namespace

std::optional<double> fieldOf(const Leaf &leaf, const QVariant &reading)
{
    if (!isNumber(reading) && !s_isTruth(reading)) {
        return std::nullopt;
    }
    const auto bits = leaf.isArranged() ? bitsOfReading(reading) : std::nullopt;
    return bits ? fieldIn(leaf, *bits) : reading.toDouble();
}

double valueOfField(const Leaf &leaf, double field)
{
    const Members &members = leaf.members;
    return members.isScaled() ? s_exact(leaf, field) * members.scale + members.offset : field;
}

double fieldFor(const Leaf &leaf, double value)
{
    const Members &members = leaf.members;
    return members.isScaled() ? (value - members.offset) / members.scale : value;
}

QVariant valueOf(const Leaf &leaf, const QVariant &reading)
{
    if (isArray(reading)) {
        QVariantList values;
        for (const QVariant &element : elements(reading)) {
            values << valueOf(leaf, element);
        }
        return values;
    }
    const auto field = fieldOf(leaf, reading);
    const bool differs = field && (leaf.isArranged() || leaf.members.isScaled());
    return differs ? QVariant(valueOfField(leaf, *field)) : reading;
}

Meant::Meant(const QVariant &reading, std::shared_ptr<const Leaf> leaf)
    : m_reading(reading), m_leaf(std::move(leaf))
{
}

QVariant Meant::value() const
{
    return valueOf(m_leaf ? *m_leaf : Leaf(), m_reading);
}

QString Meant::label() const
{
    return m_leaf ? s_label(*m_leaf, m_reading).value_or(QString()) : QString();
}

QString Meant::unit() const
{
    return m_leaf ? m_leaf->members.unit : QString();
}

QString Meant::level() const
{
    if (!m_leaf) {
        return QString();
    }
    const QVariant value = valueOf(*m_leaf, lastOf(m_reading));
    const bool isComparable = isNumber(value) || s_isTruth(value);
    if (isComparable && m_leaf->members.alarm.isBeyond(value.toDouble())) {
        return QStringLiteral("alarm");
    }
    return isComparable && m_leaf->members.warn.isBeyond(value.toDouble()) ? QStringLiteral("warn")
                                                                           : QString();
}

QString Meant::shown() const
{
    if (isArray(m_reading)) {
        const int count = elements(m_reading).size();
        return count == 0
                   ? QStringLiteral("[]")
                   : QString::fromUtf8("%1 × … ").arg(count) + Meant(lastOf(m_reading), m_leaf).shown();
    }
    const Leaf leaf = m_leaf ? *m_leaf : Leaf();
    const auto name = s_label(leaf, m_reading);
    const QString unit = leaf.members.unit.isEmpty() ? QString() : QLatin1Char(' ') + leaf.members.unit;
    return name ? *name : s_text(leaf, valueOf(leaf, m_reading)) + unit;
}

Meanings::Meanings(const QJsonObject &schema)
{
    const QMap<QString, Leaf> found = Vorbel::leaves(schema);
    for (auto leaf = found.cbegin(); leaf != found.cend(); ++leaf) {
        m_leaves.insert(m_leaves.cend(), leaf.key(), std::make_shared<const Leaf>(leaf.value()));
    }
}

std::shared_ptr<const Leaf> Meanings::leaf(const QString &path) const
{
    return m_leaves.value(path);
}

Meant Meanings::of(const QString &path, const QVariant &reading) const
{
    return Meant(reading, leaf(path));
}

QMap<QString, Meant> Meanings::flat(const QVariant &values) const
{
    QMap<QString, Meant> meant;
    const QVariantMap readings = flatten(values);
    for (auto reading = readings.cbegin(); reading != readings.cend(); ++reading) {
        const auto known = leaf(reading.key());
        if (!known || counts(*known, values)) {
            meant.insert(meant.cend(), reading.key(), Meant(reading.value(), known));
        }
    }
    return meant;
}

bool Meanings::counts(const Leaf &leaf, const QVariant &values) const
{
    QSet<QString> asked;
    for (const Leaf *each = &leaf; each->members.when;) {
        const Selector &when = *each->members.when;
        const auto selector = m_leaves.constFind(when.path);
        if (selector == m_leaves.cend() || asked.contains(when.path)) {
            return false;
        }
        asked.insert(when.path);
        each = selector->get();
        if (fieldOf(*each, valueAt(values, each->names)) != when.is) {
            return false;
        }
    }
    return true;
}

} // namespace Vorbel
