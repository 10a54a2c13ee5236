// A machine with some axes, whose values are known for any time.
#pragma once

#include <QJsonObject>
#include <QString>
#include <QVariantMap>

namespace SimulatedFleet
{

// What one frame of an axis carries: speed, current, temperature and load.
constexpr int valuesPerAxis = 4;

// As many axes as a schema can have with two commands each.
constexpr int axesMax = 63 * 16;

// The schema of a machine with so many axes, axis1 and so on. Each has the four values, and a set point that
// is written only.
QJsonObject plantSchema(int axes);

// The name of one, which are counted from 0.
QString axisName(int axis);

// What the daemon sends when the frame of an axis comes at a time in milliseconds since 1970:
// `{"axis1":{"current":1.52,"load":304,"speed":1490,"temperature":41.5}}`. The speed stays near `setpoint`,
// and each board of a fleet, by its number, has its own.
QVariantMap axisReadings(int axis, int board, double setpoint, qint64 time);

} // namespace SimulatedFleet
