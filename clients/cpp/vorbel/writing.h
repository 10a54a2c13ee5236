/// @file
/// Values to write: whether the daemon would write them, as which raw numbers, and what to send for that.
#pragma once

#include "vorbel/meaning.h"
#include "vorbel/problem.h"
#include "vorbel/schema.h"

#include <QJsonObject>
#include <QString>
#include <QVariant>
#include <QVector>

#include <functional>

namespace Vorbel
{

/// A number that was written.
struct Written {
    Q_GADGET
    /// The leaf's path.
    Q_PROPERTY(QString path READ path)
    /// As it was asked for.
    Q_PROPERTY(double value MEMBER value)
    /// What stands in the payload.
    Q_PROPERTY(double raw MEMBER raw)
    /// What would have been nearest.
    Q_PROPERTY(double nearest MEMBER nearest)
    /// What the raw number is read as.
    Q_PROPERTY(double reading READ reading)
    /// The value that it stands for.
    Q_PROPERTY(double meant READ meant)
    /// Whether something else was written than asked for.
    Q_PROPERTY(bool isRounded READ isRounded)

public:
    /// The leaf that it is for.
    Leaf leaf;

    /// As it was asked for.
    double value = 0;

    /// What stands in the payload.
    double raw = 0;

    /// What would have been nearest to the value; another number than `raw` only where the daemon's single
    /// precision does not reach: with a factor, beyond 24 bits.
    double nearest = 0;

    /// The leaf's path.
    QString path() const;

    /// What the raw number is read as.
    double reading() const;

    /// The field that it holds.
    double field() const;

    /// The value that it stands for.
    double meant() const;

    /// Whether something else was written than asked for.
    bool isRounded() const;

    /// One line for people: "raw 53, which is 0.53".
    Q_INVOKABLE QString text() const;
};

/// What to send for values.
struct Message {
    /// The values as they have to be sent, nested.
    QVariantMap values;

    /// Which numbers they will write, in the order of their leaves' names.
    QVector<Written> written;

    /// Why nothing is to be sent; empty if something is.
    QVector<Problem> problems;

    /// Whether nothing is to be sent.
    bool isRefused() const { return !problems.isEmpty(); }
};

/// The last reading at a path that counted, of which, or of whose last element, the bits beside a field are
/// taken; invalid if there is none.
using Readings = std::function<QVariant(const QString &path)>;

/// The message that makes the daemon write, for every number in nested `values`, the nearest raw number, and
/// for every label its field; refused, with all problems, for what it would ignore or write otherwise. Maps
/// may be of any type that Vorbel::encode() takes.
Message prepare(const QJsonObject &schema, const QVariant &values, const Readings &readings = {});

/// Nested values that write one value under names, and with it what its "when" asks for.
QVariantMap withSelectors(const Meanings &meanings, const QStringList &names, const QVariant &value);

/// What a scaled leaf's payload holds when a number of single precision is sent: the daemon multiplies,
/// clamps and cuts off.
double rawWritten(const Leaf &leaf, double sent);

} // namespace Vorbel

Q_DECLARE_METATYPE(Vorbel::Written)
