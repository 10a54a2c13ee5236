// Access to the map within a QVariant, and to what lies in maps within maps.
#pragma once

#include <QStringList>
#include <QVariant>

#include <stdexcept>

// The map that `value` holds; valid as long as `value` is not changed. Throws std::runtime_error("Bad type")
// for everything else, including values that would convert to a map.
inline const QVariantMap &heldMap(const QVariant &value)
{
    if (value.userType() != QMetaType::QVariantMap) {
        throw std::runtime_error("Bad type");
    }
    return *static_cast<const QVariantMap *>(value.constData());
}

// The value at `path` in maps nested within `map`; these have to be maps, not just convert to them. Null if
// there is none, and for the empty path.
inline const QVariant *heldAt(const QVariantMap &map, const QStringList &path)
{
    const QVariantMap *members = &map;
    const QVariant *found = nullptr;
    for (const QString &name : path) {
        if (!members) {
            return nullptr;
        }
        const auto member = members->constFind(name);
        if (member == members->cend()) {
            return nullptr;
        }
        found = &*member;
        members = found->userType() == QMetaType::QVariantMap ? &heldMap(*found) : nullptr;
    }
    return found;
}
