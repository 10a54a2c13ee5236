/// @file
/// From readings to what they mean, by the members of their leaves; docs/protocol.md says how.
#pragma once

#include "vorbel/schema.h"

#include <QJsonObject>
#include <QMap>
#include <QMetaType>
#include <QObject>
#include <QString>
#include <QVariant>

#include <memory>
#include <optional>

namespace Vorbel
{

/// The field that a reading holds; none if it is an array, or no number. True and false count as 1 and 0.
std::optional<double> fieldOf(const Leaf &leaf, const QVariant &reading);

/// The value of a field.
double valueOfField(const Leaf &leaf, double field);

/// The field, not rounded, that stands for a value.
double fieldFor(const Leaf &leaf, double value);

/// The value of a reading: a number (double) where it differs from the reading, of an array the list of its
/// elements' values, and the reading itself otherwise.
QVariant valueOf(const Leaf &leaf, const QVariant &reading);

/// A reading and what it means. Without a leaf, nothing is known of it but itself.
class Meant
{
    Q_GADGET
    /// As the daemon sent it; invalid if there is none.
    Q_PROPERTY(QVariant reading READ reading)
    /// The number that it stands for.
    Q_PROPERTY(QVariant value READ value)
    /// The name of its field.
    Q_PROPERTY(QString label READ label)
    /// What it is measured in.
    Q_PROPERTY(QString unit READ unit)
    /// "alarm" or "warn" if it is beyond these limits.
    Q_PROPERTY(QString level READ level)
    /// In one line for people.
    Q_PROPERTY(QString shown READ shown)

public:
    /// No reading.
    Meant() = default;

    /// Of a leaf, if one is known.
    explicit Meant(const QVariant &reading, std::shared_ptr<const Leaf> leaf = nullptr);

    /// As the daemon sent it; invalid if there is none.
    QVariant reading() const { return m_reading; }

    /// The number that it stands for; of an array the list of its elements' values.
    QVariant value() const;

    /// The name of its field; null if that has none, and of an array.
    QString label() const;

    /// What it is measured in; empty if the schema does not say.
    QString unit() const;

    /// "alarm" or "warn" if the value, of an array the last one, is beyond these limits; otherwise empty.
    QString level() const;

    /// In one line for people: the label, or the value with its decimals and its unit; of an array how many
    /// there are and the last one.
    QString shown() const;

private:
    QVariant m_reading;
    std::shared_ptr<const Leaf> m_leaf;
};

/// What the readings of a schema mean. It does not change, and may be used from any thread.
class Meanings
{
public:
    /// Of no schema.
    Meanings() = default;

    /// Of all leaves of a schema.
    explicit Meanings(const QJsonObject &schema);

    /// The leaf at a dotted path; null if there is none.
    std::shared_ptr<const Leaf> leaf(const QString &path) const;

    /// All leaves by path.
    const QMap<QString, std::shared_ptr<const Leaf>> &leaves() const { return m_leaves; }

    /// What a reading at a dotted path means, whether it counts or not.
    Meant of(const QString &path, const QVariant &reading) const;

    /// What the nested values of a message mean, by dotted path: those that count in it.
    QMap<QString, Meant> flat(const QVariant &values) const;

    /// Whether the value of a leaf counts in a message of nested values. What its selector depends on in turn
    /// is asked as well; one that is in a circle never counts.
    bool counts(const Leaf &leaf, const QVariant &values) const;

private:
    QMap<QString, std::shared_ptr<const Leaf>> m_leaves;
};

} // namespace Vorbel

Q_DECLARE_METATYPE(Vorbel::Meant)
