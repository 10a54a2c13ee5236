/// @file
/// Checking schemas before they are sent.
///
/// The daemon takes any text for a schema and says nothing about mistakes in it; what is wrong shows as
/// values that never come or come out wrong. So the mistakes are found here.
#pragma once

#include "vorbel/problem.h"

#include <QJsonObject>
#include <QString>
#include <QVector>

namespace Vorbel
{

/// Everything that is wrong or doubtful in a schema, option by option; an option with a mistake counts as
/// absent when the others are checked. A schema without leaves is an error unless it is to `clear` the one
/// that is in force.
QVector<Problem> check(const QJsonObject &schema, bool clear = false);

/// The same of a schema as JSON text, of which more can be said: names that occur twice.
QVector<Problem> checkText(const QString &text, bool clear = false);

} // namespace Vorbel
