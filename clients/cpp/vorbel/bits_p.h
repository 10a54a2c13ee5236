// The bits of readings, and the fields within them.
#pragma once

#include "vorbel/schema.h"

#include <QVariant>

#include <optional>

namespace Vorbel
{

// The whole numbers that something can be.
struct Range {
    double least;
    double largest;
};

// All bits that a leaf has.
quint32 windowOf(const Leaf &leaf);

// The bits of a reading that its field has.
quint32 maskOf(const Leaf &leaf);

// The field in the bits of a reading of a leaf whose fields have to be taken out.
double fieldIn(const Leaf &leaf, quint32 reading);

// The bits of the reading that holds a field within fieldRange(), and zeros beside it.
quint32 readingWith(const Leaf &leaf, double field);

// The whole numbers that the field of a leaf with whole numbers can be.
Range fieldRange(const Leaf &leaf);

// The bits that a number of single precision has, and back.
quint32 bitsOfSingle(double number);
double singleOf(quint32 bits);

// A whole number of up to 32 bits, with or without a sign, as bits.
quint32 bitsOf(double number);

// Those of a reading; none of what is no such number, as others' schemas may send it.
std::optional<quint32> bitsOfReading(const QVariant &reading);

} // namespace Vorbel
