#include "gateway/latest.h"

#include "gateway/plainjson.h"
#include "vorbel/paths.h"

#include <algorithm>
#include <utility>

namespace Gateway
{

namespace
{

// More than any schema has that the daemon takes; of a stranger's values that never end, no more are kept.
constexpr int entriesMax = 200'000;

// How late what rested may be, ms: many that are due at about the same time wake together.
constexpr int coarseness = 10;

} // namespace

Latest::Latest(int interval, Publish publish) : m_interval(interval), m_publish(std::move(publish))
{
    m_clock.start();
    m_wake.setSingleShot(true);
    m_wake.setTimerType(Qt::PreciseTimer);
    connect(&m_wake, &QTimer::timeout, this, &Latest::wake);
}

template <typename Visit>
void Latest::each(Node &node, const Visit &visit)
{
    if (node.entry) {
        visit(node);
    }
    for (Node &member : node.members) {
        each(member, visit);
    }
}

bool Latest::isGone(const Entry &entry) const
{
    return m_meanings && !m_meanings->leaf(Vorbel::joinPath(entry.names));
}

void Latest::setMeanings(const std::shared_ptr<const Vorbel::Meanings> &meanings)
{
    m_meanings = meanings;
    each(m_root, [this](Node &node) {
        Entry &entry = *node.entry;
        entry.reading.clear();
        entry.publishedReading.clear();
        if (!isGone(entry)) {
            entry.leaf = m_meanings ? m_meanings->leaf(Vorbel::joinPath(entry.names)) : nullptr;
            return;
        }
        node.entry.reset();
        --m_count;
    });
}

void Latest::heard(const QVariant &values)
{
    hear(m_root, values, values);
}

// The node of a member, made if there is none yet.
Latest::Node &Latest::memberOf(Node &node, const QString &name)
{
    auto found = node.members.find(name);
    if (found == node.members.end()) {
        found = node.members.insert(name, {nullptr, node.names + QStringList(name), {}});
    }
    return *found;
}

void Latest::hear(Node &node, const QVariant &value, const QVariant &message)
{
    if (value.userType() == QMetaType::QVariantMap) {
        const auto &map = *static_cast<const QVariantMap *>(value.constData());
        for (auto member = map.cbegin(); member != map.cend(); ++member) {
            hear(memberOf(node, member.key()), member.value(), message);
        }
        return;
    }
    const EntryPtr entry = node.entry ? node.entry : entryOf(node);
    if (!entry || (entry->leaf && entry->leaf->members.when && !m_meanings->counts(*entry->leaf, message))) {
        return;
    }
    entry->reading = value;
    if (m_isHeard && !entry->isResting) {
        publish(entry);
    }
}

// Of one that is heard for the first time; none for what the schema does not have, such as a stranger's.
Latest::EntryPtr Latest::entryOf(Node &node)
{
    auto entry = std::make_shared<Entry>();
    entry->names = node.names;
    entry->leaf = m_meanings ? m_meanings->leaf(Vorbel::joinPath(entry->names)) : nullptr;
    if (m_count >= entriesMax || isGone(*entry)) {
        return nullptr;
    }
    ++m_count;
    node.entry = entry;
    return entry;
}

void Latest::publish(const EntryPtr &entry)
{
    if (!entry->reading.isValid() ||
        (!entry->published.isEmpty() && entry->reading == entry->publishedReading)) {
        return;
    }
    entry->publishedReading = entry->reading;
    const QByteArray value = meantJson(entry->reading, entry->leaf);
    if (value != entry->published) {
        entry->published = value;
        m_publish(entry->names, value);
        rest(entry);
    }
}

void Latest::rest(const EntryPtr &entry)
{
    if (m_interval == 0) {
        return;
    }
    entry->isResting = true;
    m_resting.push_back({m_clock.elapsed() + m_interval, entry});
    if (!m_wake.isActive()) {
        m_wake.start(m_interval);
    }
}

void Latest::wake()
{
    while (!m_resting.empty() && m_resting.front().end <= m_clock.elapsed()) {
        const EntryPtr entry = m_resting.front().entry.lock();
        m_resting.pop_front();
        if (!entry) {
            continue;
        }
        entry->isResting = false;
        if (m_isHeard) {
            publish(entry);
        }
    }
    if (!m_resting.empty()) {
        const qint64 left = m_resting.front().end - m_clock.elapsed();
        m_wake.start(static_cast<int>(std::max<qint64>(left, coarseness)));
    }
}

void Latest::begin()
{
    m_isHeard = true;
    each(m_root, [this](Node &node) {
        node.entry->published.clear();
        if (!node.entry->isResting) {
            publish(node.entry);
        }
    });
}

void Latest::end()
{
    m_isHeard = false;
}

} // namespace Gateway
