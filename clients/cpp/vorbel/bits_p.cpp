#include "vorbel/bits_p.h"

#include "vorbel/plain_p.h"

#include <QtEndian>

#include <cmath>
#include <cstring>

namespace Vorbel
{

namespace
{

constexpr int bitsMost = 32;

quint32 s_lowest(int count)
{
    return count == 0 ? 0 : ~quint32(0) >> (bitsMost - count);
}

// The bits of a reading in the order that its field needs, and back.
quint32 s_inOrder(const Leaf &leaf, quint32 reading)
{
    return leaf.members.swapped ? qbswap(reading) >> (bitsMost - 8 * leaf.width()) : reading;
}

} // namespace

quint32 windowOf(const Leaf &leaf)
{
    return s_lowest(8 * leaf.width());
}

quint32 maskOf(const Leaf &leaf)
{
    const BitRange range = leaf.bits();
    return s_inOrder(leaf, s_lowest(range.count) << range.lowest);
}

double fieldIn(const Leaf &leaf, quint32 reading)
{
    const quint32 ordered = s_inOrder(leaf, reading);
    if (leaf.isSingle()) {
        return singleOf(ordered);
    }
    const BitRange range = leaf.bits();
    const quint32 largest = s_lowest(range.count);
    const quint32 field = ordered >> range.lowest & largest;
    const bool isNegative = leaf.members.isSigned && field > largest / 2;
    return isNegative ? field - std::ldexp(1, range.count) : field;
}

quint32 readingWith(const Leaf &leaf, double field)
{
    if (leaf.isSingle()) {
        return s_inOrder(leaf, bitsOfSingle(field));
    }
    const BitRange range = leaf.bits();
    return s_inOrder(leaf, (bitsOf(field) & s_lowest(range.count)) << range.lowest);
}

Range fieldRange(const Leaf &leaf)
{
    const int count = leaf.bits().count;
    const bool isSigned = leaf.isArranged() ? leaf.members.isSigned : leaf.hasSign();
    const double half = std::ldexp(1, count - 1);
    return isSigned ? Range{-half, half - 1} : Range{0, 2 * half - 1};
}

quint32 bitsOfSingle(double number)
{
    const auto single = static_cast<float>(number);
    quint32 bits = 0;
    std::memcpy(&bits, &single, sizeof bits);
    return bits;
}

double singleOf(quint32 bits)
{
    float single = 0;
    std::memcpy(&single, &bits, sizeof single);
    return double(single);
}

quint32 bitsOf(double number)
{
    return static_cast<quint32>(static_cast<qint64>(number));
}

std::optional<quint32> bitsOfReading(const QVariant &reading)
{
    constexpr double least = -2147483648.0;
    constexpr double largest = 4294967295.0;
    if (!isNumber(reading) && reading.userType() != QMetaType::Bool) {
        return std::nullopt;
    }
    const double number = reading.toDouble();
    const bool isWhole = least <= number && number <= largest && number == std::floor(number);
    return isWhole ? std::optional<quint32>(bitsOf(number)) : std::nullopt;
}

} // namespace Vorbel
