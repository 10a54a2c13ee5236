#include "vorbel/lastreadings_p.h"

#include "vorbel/bits_p.h"
#include "vorbel/fields_p.h"
#include "vorbel/plain_p.h"

namespace Vorbel
{
namespace
{

// Whether a message that writes this says anything of a leaf: its "when" asks for one of these fields.
bool s_isSelected(const Leaf &leaf, const QVector<Written> &written)
{
    const auto &when = leaf.members.when;
    return !when || std::any_of(written.cbegin(), written.cend(), [&when](const Written &each) {
        return each.path() == when->path && each.field() == when->is;
    });
}

} // namespace

LastReadings::LastReadings(std::shared_ptr<const Meanings> meanings,
                           const std::function<bool(const Leaf &)> &wanted)
    : m_meanings(std::move(meanings))
{
    const auto &leaves = m_meanings->leaves();
    for (auto leaf = leaves.cbegin(); leaf != leaves.cend(); ++leaf) {
        if (!wanted(**leaf)) {
            continue;
        }
        const auto entry = std::make_shared<Entry>(Entry{*leaf, QVariant()});
        m_entries.insert(leaf.key(), entry);
        Node *node = &m_root;
        for (const QString &name : (*leaf)->names) {
            node = &node->members[name];
        }
        node->entry = entry;
    }
}

void LastReadings::heard(const QVariant &values)
{
    if (!m_entries.isEmpty()) {
        hear(m_root, values, values);
    }
}

void LastReadings::hear(const Node &node, const QVariant &value, const QVariant &values)
{
    if (isMap(value)) {
        const auto &members = *static_cast<const QVariantMap *>(value.constData());
        for (auto member = members.cbegin(); member != members.cend(); ++member) {
            const auto below = node.members.constFind(member.key());
            if (below != node.members.cend()) {
                hear(*below, member.value(), values);
            }
        }
    } else if (node.entry && lastOf(value).isValid() && m_meanings->counts(*node.entry->leaf, values)) {
        node.entry->reading = value;
    }
}

void LastReadings::wrote(const QVector<Written> &written)
{
    for (const auto &entry : qAsConst(m_entries)) {
        if (!s_isSelected(*entry->leaf, written)) {
            continue;
        }
        const auto after = overwritten(*entry->leaf, bitsBeside(*entry->leaf, entry->reading), written);
        if (after) {
            entry->reading = *after;
        }
    }
}

QVariant LastReadings::at(const QString &path) const
{
    const auto entry = m_entries.value(path);
    return entry ? entry->reading : QVariant();
}

void LastReadings::forget()
{
    for (const auto &entry : qAsConst(m_entries)) {
        entry->reading = QVariant();
    }
}

} // namespace Vorbel
