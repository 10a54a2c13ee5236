// How values become bytes of a payload: clamping after a factor was applied, and placing at an offset.
//
// Both write log lines; `lines`, if given, bounds those that the many values of one message cause.
#pragma once

#include "msgpack/linelimit.h"
#include "schema/debuglog.h"

#include <QByteArray>
#include <QVariant>
#include <QtEndian>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

// The largest offset at which a value may be placed.
constexpr int PAYLOAD_OFFSET_MAX = 65535;

// LineLimit::takeLine of `lines`; without any, every line may be written.
inline bool takeLine(LineLimit *lines)
{
    return !lines || lines->takeLine();
}

// `value` truncated to a whole number of type T. Beyond T's range it is the end of the range; NaN gives 0.
template <typename T>
T truncated(float value)
{
    // For int this is 2147483648.0, one more than int holds: what reaches it must not be cast.
    constexpr auto largest = static_cast<float>(std::numeric_limits<T>::max());
    constexpr auto smallest = static_cast<float>(std::numeric_limits<T>::min());
    if (std::isnan(value)) {
        return 0;
    }
    if (value >= largest) {
        return std::numeric_limits<T>::max();
    }
    return value <= smallest ? std::numeric_limits<T>::min() : static_cast<T>(value);
}

// `value` as a QVariant of type T (an integer type of at most 32 bits), truncated. A value beyond T's range
// becomes the end of the range and NaN becomes 0, with a warning.
template <typename T>
QVariant convert_to_qvariant_numeric(float value, LineLimit *lines = nullptr)
{
    constexpr auto largest = static_cast<float>(std::numeric_limits<T>::max());
    constexpr auto smallest = static_cast<float>(std::numeric_limits<T>::min());
    const float result = std::clamp(value, smallest, largest);
    const bool isSame = result == value; // false for NaN too, which clamp lets through
    if (!isSame && takeLine(lines)) {
        qWarning() << "Invalid numeric conversion. Number overflow, value:" << value << "result:" << result;
    }
    return QVariant::fromValue(truncated<T>(result));
}

// `value` as a T by QVariant's conversion, which wraps integers; 0 if it does not convert.
template <typename T>
T convertedOrZero(QVariant value)
{
    const bool isT = value.userType() == qMetaTypeId<T>() || value.convert(qMetaTypeId<T>());
    return isT ? *static_cast<const T *>(value.constData()) : T(0);
}

// Writes `value`, converted to T by QVariant's rules (0 if that fails), little-endian over the sizeof(T)
// bytes at `offset` (0 to PAYLOAD_OFFSET_MAX) of `destination`, which is grown with zeros if need be and
// never shortened.
template <typename T>
void insertToByteArray(QByteArray &destination, int offset, const QVariant &value, LineLimit *lines = nullptr)
{
    if (isDebugLogged() && takeLine(lines)) {
        qDebug().noquote() << "insertToByteArray: " << debugText(value) << ", offset: " << offset
                           << ", dst: " << destination.size();
    }
    constexpr int width = sizeof(T);
    const int missing = offset + width - destination.size();
    if (missing > 0) {
        destination.append(missing, '\0');
    }
    const T number = convertedOrZero<T>(value);
    typename QIntegerForSizeof<T>::Unsigned bits;
    std::memcpy(&bits, &number, sizeof bits);
    qToLittleEndian(bits, destination.data() + offset);
}
