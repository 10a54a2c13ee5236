// Numbers of single precision, which is what the daemon scales with.
#pragma once

#include <limits>

namespace Vorbel
{

constexpr double largestSingle = static_cast<double>(std::numeric_limits<float>::max());

// The number of single precision that is nearest; infinite beyond their range.
double single(double number);

// Of all numbers that are the same in single precision, the one with the fewest digits: 3.93 for
// 3.930000066757202. A number that needs more than single precision is its own.
double shortest(double number);

} // namespace Vorbel
