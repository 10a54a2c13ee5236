// The last readings that counted of some leaves of a schema.
#pragma once

#include "vorbel/meaning.h"
#include "vorbel/writing.h"

#include <QHash>
#include <QMap>

#include <functional>
#include <memory>

namespace Vorbel
{

class LastReadings
{
public:
    LastReadings() = default;

    // Of those leaves that are `wanted`.
    LastReadings(std::shared_ptr<const Meanings> meanings, const std::function<bool(const Leaf &)> &wanted);

    // Whether it is about the leaf at a path.
    bool has(const QString &path) const { return m_entries.contains(path); }

    // A message has come. Costs as much as the message is large, and nothing without a wanted leaf.
    void heard(const QVariant &values);

    // A device has taken what was written: that is what it would read now, until a reading comes.
    void wrote(const QVector<Written> &written);

    // The last reading at a path; invalid if there is none.
    QVariant at(const QString &path) const;

    // Nobody knows any more what they are.
    void forget();

private:
    struct Entry {
        std::shared_ptr<const Leaf> leaf;
        QVariant reading;
    };

    // Who waits for a value under these names.
    struct Node {
        std::shared_ptr<Entry> entry;
        QMap<QString, Node> members;
    };

    void hear(const Node &node, const QVariant &value, const QVariant &values);

    std::shared_ptr<const Meanings> m_meanings;
    QHash<QString, std::shared_ptr<Entry>> m_entries; // by path
    Node m_root;
};

} // namespace Vorbel
