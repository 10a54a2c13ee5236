// What the values of one message set in the bytes of its frames. They are in the order of their names, which
// the daemon goes by.
#pragma once

#include "vorbel/problem.h"
#include "vorbel/writing.h"

#include <QHash>
#include <QVector>

#include <optional>

namespace Vorbel
{

// Bits that are set to 0, and those that are set to 1; what several set differently is both.
struct SetBits {
    quint32 zeros = 0;
    quint32 ones = 0;

    quint32 mask() const { return zeros | ones; }

    // Whether some bit is 0 in one and 1 in the other.
    bool contradicts(const SetBits &other) const
    {
        return ((zeros & other.ones) | (ones & other.zeros)) != 0;
    }
};

// Bits of payloads, by frame and byte.
class PayloadBits
{
public:
    // Beside what is set already.
    void add(const Leaf &leaf, const SetBits &bits);

    // In place of what is set already.
    void replace(const Leaf &leaf, const SetBits &bits);

    // Those that are set in the bytes of a leaf.
    SetBits within(const Leaf &leaf) const;

private:
    QHash<QPair<int, qint64>, SetBits> m_bytes;
};

// The fields of some bits that a message writes.
class Fields
{
public:
    void add(const Leaf &leaf, double field);

    // Those whose bits another one sets otherwise.
    QVector<Problem> conflicts() const { return m_conflicts; }

    // The reading with all fields in it; none if it has other bits and these are not known.
    std::optional<quint32> reading(const Leaf &leaf, std::optional<quint32> former) const;

private:
    PayloadBits m_bits;
    QVector<Problem> m_conflicts;
};

// Values that would put something else into bytes of a field than the field does: the daemon takes the later
// one.
QVector<Problem> contradictions(const QVector<Written> &written);

// Values of which the selector is not written with them.
QVector<Problem> unselected(const QVector<Written> &written);

// The bits beside a field: those of the last reading, or else of "initial"; none without either.
std::optional<quint32> bitsBeside(const Leaf &leaf, const QVariant &lastReading);

// What a leaf reads once a device has taken what was written: the bytes of the payload in place of the
// reading's. Those before the last one that no value covers are 0. None if bytes beside these are not known.
std::optional<quint32> overwritten(const Leaf &leaf, std::optional<quint32> reading,
                                   const QVector<Written> &written);

} // namespace Vorbel
