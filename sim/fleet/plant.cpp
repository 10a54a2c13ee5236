#include "fleet/plant.h"

#include <QJsonArray>
#include <QtMath>

namespace SimulatedFleet
{

namespace
{

constexpr double minute = 60'000; // ms
constexpr double day = 24 * 60 * minute;
constexpr int axesPerNode = 16;

QJsonObject s_leaf(int axis, bool isWritten, const char *format, int skip)
{
    return {{"@mac", axis / axesPerNode + 1},
            {"@cmd", axis % axesPerNode * 2 + (isWritten ? 1 : 0)},
            {"@format", format},
            {"@skip", skip}};
}

QJsonObject s_with(QJsonObject leaf, const QJsonObject &members)
{
    for (auto member = members.begin(); member != members.end(); ++member) {
        leaf.insert(member.key(), member.value());
    }
    return leaf;
}

QJsonArray s_below(double high)
{
    return {QJsonValue(), high};
}

QJsonObject s_axis(int axis)
{
    return {
        {"speed", s_with(s_leaf(axis, false, "s", 0), {{"title", "Speed"}, {"unit", "rpm"}})},
        {"current", s_with(s_leaf(axis, false, "S", 2),
                           {{"@factor", 100}, {"title", "Current"}, {"unit", "A"}, {"decimals", 2}})},
        {"temperature", s_with(s_leaf(axis, false, "s", 4), {{"@factor", 10},
                                                             {"title", "Temperature"},
                                                             {"unit", "°C"},
                                                             {"decimals", 1},
                                                             {"warn", s_below(60)},
                                                             {"alarm", s_below(70)}})},
        {"load", s_with(s_leaf(axis, false, "S", 6),
                        {{"title", "Load"}, {"unit", "%"}, {"scale", 0.1}, {"decimals", 1}})},
        {"setpoint", s_with(s_leaf(axis, true, "s", 0),
                            {{"title", "Set point"}, {"unit", "rpm"}, {"min", -3000}, {"max", 3000}})},
    };
}

// From -1 to 1, once in a period of ms.
double s_wave(qint64 time, double period, double phase)
{
    return qSin(2 * M_PI * (std::fmod(static_cast<double>(time), period) / period + phase));
}

double s_rounded(double value, int digits)
{
    const double unit = std::pow(10, digits);
    return std::round(value * unit) / unit;
}

} // namespace

QString axisName(int axis)
{
    return "axis" + QString::number(axis + 1);
}

QJsonObject plantSchema(int axes)
{
    QJsonObject schema;
    for (int axis = 0; axis < axes; ++axis) {
        schema.insert(axisName(axis), s_axis(axis));
    }
    return schema;
}

QVariantMap axisReadings(int axis, int board, double setpoint, qint64 time)
{
    const double phase = 0.137 * board + 0.071 * axis;
    const double slow = 0.5 + 0.35 * s_wave(time, day, phase) + 0.15 * s_wave(time, 7 * day, 3 * phase);
    const double quick = s_wave(time, 7 * minute, phase);
    const double swing = s_wave(time, minute / 2, phase);
    const QVariantMap readings{
        {"speed", std::round(setpoint + 15 * swing)},
        {"current", s_rounded(0.8 + 3 * slow + 0.5 * quick + 0.2 * swing, 2)},
        {"temperature", s_rounded(30 + 24 * slow + 3 * (board % 5) + quick, 1)},
        {"load", std::round(1000 * (0.1 + 0.7 * slow + 0.1 * quick))},
    };
    return {{axisName(axis), readings}};
}

} // namespace SimulatedFleet
