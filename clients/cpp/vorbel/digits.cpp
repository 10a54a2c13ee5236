#include "vorbel/digits.h"

#include "vorbel/single_p.h"

#include <QLocale>

#include <algorithm>
#include <cmath>

namespace Vorbel
{

namespace
{

constexpr int anyDecimals = -1;

bool s_isWhole(double number)
{
    constexpr double tolerance = 1e-9;
    const double nearest = std::round(number);
    return nearest > 0 && std::abs(number - nearest) < tolerance * number;
}

// anyDecimals where the bytes may hold any fraction. Otherwise those that a step, 1 / factor, has; if these
// are many or have no end, one more than are needed to tell one step from the next.
int s_decimals(const Leaf &leaf)
{
    if (!leaf.isScaled() || leaf.format == QLatin1Char('f')) {
        return anyDecimals;
    }
    const double step = std::abs(1 / leaf.factor);
    const int needed = std::max(0, static_cast<int>(std::ceil(-std::log10(step))));
    for (int decimals = needed; decimals < needed + 3; ++decimals) {
        if (s_isWhole(step * std::pow(10, decimals))) {
            return decimals;
        }
    }
    return needed + 1;
}

int s_length(double number)
{
    return QString::number(number, 'g', QLocale::FloatingPointShortest).size();
}

} // namespace

double single(double number)
{
    if (std::abs(number) > largestSingle) { // where a cast is undefined
        constexpr double halfAStep = 1.0141204801825835e31;
        const double nearest = std::abs(number) < largestSingle + halfAStep ? largestSingle : HUGE_VAL;
        return std::copysign(nearest, number);
    }
    return static_cast<double>(static_cast<float>(number));
}

double shortest(double number)
{
    constexpr int fewest = 6;
    constexpr int enough = 9;
    constexpr double wholeWithFewest = 1e6;
    const bool isShort = std::abs(number) < wholeWithFewest && std::trunc(number) == number;
    if (isShort || !std::isfinite(number) || single(number) != number) {
        return number;
    }
    for (int digits = fewest; digits < enough; ++digits) {
        const double candidate = QString::number(number, 'g', digits).toDouble();
        if (single(candidate) == number) {
            return candidate;
        }
    }
    return QString::number(number, 'g', enough).toDouble();
}

double justified(double reading, const Leaf &leaf)
{
    const double fewest = shortest(reading);
    const int decimals = std::isfinite(reading) ? s_decimals(leaf) : anyDecimals;
    if (decimals == anyDecimals) {
        return fewest;
    }
    const double rounded = QString::number(reading, 'f', decimals).toDouble() + 0.0; // no -0.0
    return rounded == fewest || s_length(rounded) <= s_length(fewest) ? rounded : fewest;
}

double justified(double reading)
{
    return shortest(reading);
}

QString shownNumber(double justified)
{
    constexpr int digits = 10; // more than single precision has
    return QString::number(justified, 'g', digits);
}

} // namespace Vorbel
