// Checking the members for people that leaves have.
#pragma once

#include "vorbel/kinds_p.h"
#include "vorbel/schema.h"

#include <QVector>

namespace Vorbel
{

// What is wrong or doubtful in the members of one leaf.
QVector<Found> memberProblems(const QJsonObject &node, const Leaf &leaf);

// What is wrong with the paths that the leaves' "when" name; `leaves` are all of a schema.
QVector<Problem> selectorProblems(const QVector<Leaf> &leaves);

} // namespace Vorbel
