// The leaves of a schema, as messages nest them.
#pragma once

#include "vorbel/meaning.h"

#include <QMap>
#include <QString>

#include <memory>

namespace Gateway
{

// A node of a schema: a leaf, or its members by name.
struct LeafTree {
    std::shared_ptr<const Vorbel::Leaf> leaf;
    QMap<QString, LeafTree> members;

    // The node behind a name; null if there is none.
    const LeafTree *member(const QString &name) const
    {
        const auto found = members.constFind(name);
        return found == members.cend() ? nullptr : &*found;
    }
};

// All that has a meaning.
LeafTree leafTreeOf(const Vorbel::Meanings &meanings);

} // namespace Gateway
