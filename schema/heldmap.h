// Access to the map within a QVariant, and to what lies in maps within maps.
#pragma once

#include <QStringList>
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

// What stands at `path` in maps nested within `map`, which have to be maps and not only convert to them. Null
// if nothing does, and for the empty path.
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
