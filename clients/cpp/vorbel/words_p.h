// Words about values and names, for the messages of problems.
#pragma once

#include <QStringList>
#include <QVariant>

namespace Vorbel
{

// A value as it stands in JSON, cut where it is long.
QString quoted(const QVariant &value);

// A number with as many digits as tell it from others, and no exponent where it can do without.
QString numberText(double number);

// The names in quotes, with commas between them.
QString listed(const QStringList &names);

// A question behind a word that is not known, if it is much like one that is; without, nothing.
QString suggestion(const QString &word, const QStringList &known);

} // namespace Vorbel
