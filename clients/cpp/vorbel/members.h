/// @file
/// What the members of a leaf say to people; docs/protocol.md has their table.
///
/// The daemon passes over these members: the same frames make the same messages with and without them.
#pragma once

#include <QJsonObject>
#include <QMap>
#include <QMetaType>
#include <QObject>
#include <QString>
#include <QStringList>

#include <limits>
#include <optional>

namespace Vorbel
{

/// A low and a high end; one that is open is infinite.
struct Limits {
    Q_GADGET
    /// The low end.
    Q_PROPERTY(double low MEMBER low)
    /// The high end.
    Q_PROPERTY(double high MEMBER high)

public:
    /// The low end.
    double low = -std::numeric_limits<double>::infinity();

    /// The high end.
    double high = std::numeric_limits<double>::infinity();

    /// Whether a value is below the low end or above the high one.
    bool isBeyond(double value) const { return value < low || value > high; }
};

/// Which bits of a reading hold its field.
struct BitRange {
    /// The lowest one, counted from 0.
    int lowest = 0;

    /// How many there are.
    int count = 0;
};

/// A value counts only in messages in which the leaf at a path has a certain field.
struct Selector {
    /// The leaf's path.
    QString path;

    /// The field.
    double is = 0;
};

/// The members of a leaf for people; one that is absent, or has a value that it cannot have, has its default.
struct Members {
    Q_GADGET
    /// What the value is called.
    Q_PROPERTY(QString title MEMBER title)
    /// More about it.
    Q_PROPERTY(QString description MEMBER description)
    /// What it is measured in.
    Q_PROPERTY(QString unit MEMBER unit)
    /// Bounds of the value for writing, and ends of axes and gauges.
    Q_PROPERTY(Vorbel::Limits bounds MEMBER bounds CONSTANT)
    /// Beyond these a value is marked.
    Q_PROPERTY(Vorbel::Limits warn MEMBER warn CONSTANT)
    /// Beyond these, too.
    Q_PROPERTY(Vorbel::Limits alarm MEMBER alarm CONSTANT)
    /// The names of fields, in the order of these.
    Q_PROPERTY(QStringList labels READ labelList)

public:
    /// "title": what the value is called; empty for the last name of its path.
    QString title;

    /// "description": more about it.
    QString description;

    /// "unit": what it is measured in.
    QString unit;

    /// "decimals": how many are shown; none for as many as the value has.
    std::optional<int> decimals;

    /// "bits": those of the reading that hold the field; none for all. They may be bits that no reading has.
    std::optional<BitRange> bits;

    /// "swapped": whether the bytes of the reading stand in the other order.
    bool swapped = false;

    /// "signed": whether the field is two's complement.
    bool isSigned = false;

    /// "float": whether the four bytes of a whole number are a number of single precision.
    bool isFloat = false;

    /// "readonly": whether no client writes it, although the daemon would.
    bool readonly = false;

    /// "scale": a value is its field times this ...
    double scale = 1;

    /// "offset": ... plus this.
    double offset = 0;

    /// "labels": the names of fields.
    QMap<double, QString> labels;

    /// "min" and "max": the bounds of the value for writing, and ends of axes and gauges.
    Limits bounds;

    /// "warn": a value beyond these is marked.
    Limits warn;

    /// "alarm": and beyond these.
    Limits alarm;

    /// "initial": the reading that the bits beside a field are taken from before one came.
    std::optional<qint64> initial;

    /// "when": what the value counts with; none for always.
    std::optional<Selector> when;

    /// Whether the bits of a reading have to be put in order first.
    bool isArranged() const { return bits || swapped || isSigned || isFloat; }

    /// Whether values differ from fields.
    bool isScaled() const { return scale != 1 || offset != 0; }

    /// The names of fields, in the order of these.
    QStringList labelList() const { return labels.values(); }
};

/// The members that a leaf's node has.
Members membersOf(const QJsonObject &leaf);

/// Whether a member of a leaf's node is one for people, and not a node that has the name of one.
bool isMember(const QString &name, const QJsonValue &value);

} // namespace Vorbel

Q_DECLARE_METATYPE(Vorbel::Limits)
Q_DECLARE_METATYPE(Vorbel::Members)
