// How readings are kept: as one value, or gathered in a QVector within a QVariant.
#pragma once

#include <QVariant>
#include <QVector>

// The QVector<Element> that `value` holds, to be changed in place; what `value` held otherwise is converted
// to one, or replaced by an empty one. Stays valid until `value` is assigned to.
template <typename Element>
QVector<Element> &heldVector(QVariant &value)
{
    if (value.userType() != qMetaTypeId<QVector<Element>>()) {
        value = QVariant::fromValue(value.value<QVector<Element>>());
    }
    return *static_cast<QVector<Element> *>(value.data());
}

// Stores one reading in `value` and returns the number of readings in it.
//
// Without `append`, `value` becomes the reading in the type that QVariant gives it (int for every type
// narrower than int), or a bool for whether it is not 0 (`asBool`). With `append` it is added to the
// QVector<Element> in `value`, as 1 or 0 of the element type when `asBool`; what `value` held before is kept
// if it is such an array or converts to one. Appending moves no earlier element except when the array grows
// by its usual factor, as long as nobody holds a copy of it.
template <typename T, typename Element = T>
unsigned long appendOrSet_variant(QVariant &value, const T &reading, bool append, bool asBool)
{
    const bool isSet = reading != T(0);
    if (!append) {
        value = asBool ? QVariant(isSet) : QVariant(reading);
        return 1;
    }
    QVector<Element> &readings = heldVector<Element>(value);
    readings.append(asBool ? static_cast<Element>(isSet) : static_cast<Element>(reading));
    return static_cast<unsigned long>(readings.size());
}
