// What a name in a schema can hold.
#pragma once

#include <QJsonValue>
#include <QString>

#include <limits>

namespace Vorbel
{

// Words for it, a predicate, and the least and the largest number of it.
struct Kind {
    const char *words;
    bool (*fits)(const QJsonValue &value);
    double least = -std::numeric_limits<double>::infinity();
    double largest = std::numeric_limits<double>::infinity();

    // Whether a value has the right type and is in range.
    bool takes(const QJsonValue &value) const { return fits(value) && isInRange(value); }

    // Whether a value is no number, or one that is in range.
    bool isInRange(const QJsonValue &value) const
    {
        return !value.isDouble() || (least <= value.toDouble() && value.toDouble() <= largest);
    }
};

bool isFiniteNumber(const QJsonValue &value);
bool isWholeNumber(const QJsonValue &value);
bool isText(const QJsonValue &value);
bool isTruth(const QJsonValue &value);

constexpr Kind wholeNumber(double least, double largest)
{
    return {"a whole number", &isWholeNumber, least, largest};
}

constexpr Kind aNumber{"a number", &isFiniteNumber};
constexpr Kind aText{"a text", &isText};
constexpr Kind aTruth{"true or false", &isTruth};

// A problem of which only the place is not known yet; without a code, none.
struct Found {
    QString code;
    QString message;

    bool isProblem() const { return !code.isNull(); }
};

// What is wrong with the type, or else with the range, of what a name holds: the code is `family`-type or
// `family`-range.
Found misfit(const char *family, const QString &name, const Kind &kind, const QJsonValue &value);

} // namespace Vorbel
