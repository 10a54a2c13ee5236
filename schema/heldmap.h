// Access to the map within a QVariant.
#pragma once

#include <QVariant>

#include <stdexcept>

// The map that `value` holds; valid as long as `value` is not changed. Throws std::runtime_error("Bad type")
// for everything else, values that would convert to a map included.
inline const QVariantMap &heldMap(const QVariant &value)
{
    if (value.userType() != QMetaType::QVariantMap) {
        throw std::runtime_error("Bad type");
    }
    return *static_cast<const QVariantMap *>(value.constData());
}
