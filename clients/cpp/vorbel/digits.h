/// @file
/// How many digits of a reading say something.
#pragma once

#include "vorbel/schema.h"

#include <QString>

namespace Vorbel
{

/// A reading with the digits that its leaf's factor justifies: 9 at factor 10 is 0.9, and not the nearest
/// number of single precision, 0.90000004.
double justified(double reading, const Leaf &leaf);

/// A reading of unknown origin with the fewest digits that are the same in single precision.
double justified(double reading);

/// A justified number for people, without trailing zeros.
QString shownNumber(double justified);

} // namespace Vorbel
