// Values of all the types that applications and scripts hold them in, as the few types that the rules know.
#pragma once

#include <QStringList>
#include <QVariant>

namespace Vorbel
{

// The same value with maps as QVariantMap, lists as QVariantList, null as an invalid variant and whole
// numbers in the types that the codec packs, all the way down; what is none of these stays as it is.
QVariant plain(const QVariant &value);

// Whether a value is a map, as plain() makes them.
bool isMap(const QVariant &value);

// What stands under names in nested maps, as plain() makes them; invalid if nothing does.
QVariant valueAt(const QVariant &values, const QStringList &names);

// The last element of a typed array, invalid without one; any other value is its own.
QVariant lastOf(const QVariant &value);

// Whether a value is a number, as plain() makes them; true and false are none.
bool isNumber(const QVariant &value);

// Whether it is a number that may have a fraction.
bool isFloat(const QVariant &value);

} // namespace Vorbel
