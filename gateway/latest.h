// The latest value of each leaf, for whoever comes later.
#pragma once

#include "vorbel/meaning.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QMap>
#include <QObject>
#include <QStringList>
#include <QTimer>
#include <QVariant>

#include <deque>
#include <functional>
#include <memory>

namespace Gateway
{

// Publishes what readings mean when that changes, each leaf at most once in an interval: at once after a
// silence, and when the interval is over otherwise. A message costs as much as it has values, however many
// leaves there are.
class Latest : public QObject
{
    Q_OBJECT

public:
    // `value` is JSON.
    using Publish = std::function<void(const QStringList &names, const QByteArray &value)>;

    // With the interval in ms; 0 for each change.
    Latest(int interval, Publish publish);

    // There is another schema; null for one that is not known.
    void setMeanings(const std::shared_ptr<const Vorbel::Meanings> &meanings);

    // A message has come, with nested values.
    void heard(const QVariant &values);

    // Somebody takes what is published, and has nothing of it; or nobody does.
    void begin();
    void end();

private:
    struct Entry {
        QStringList names;
        std::shared_ptr<const Vorbel::Leaf> leaf;
        QVariant reading;
        QVariant publishedReading;
        QByteArray published; // empty: nothing
        bool isResting = false;
    };
    using EntryPtr = std::shared_ptr<Entry>;

    struct Node {
        EntryPtr entry;
        QStringList names; // from the root to it
        QMap<QString, Node> members;
    };

    struct Rest {
        qint64 end; // ms of m_clock
        std::weak_ptr<Entry> entry;
    };

    static Node &memberOf(Node &node, const QString &name);
    void hear(Node &node, const QVariant &value, const QVariant &message);
    EntryPtr entryOf(Node &node);
    void publish(const EntryPtr &entry);
    void rest(const EntryPtr &entry);
    void wake();
    bool isGone(const Entry &entry) const;
    template <typename Visit>
    static void each(Node &node, const Visit &visit);

    const int m_interval;
    const Publish m_publish;
    std::shared_ptr<const Vorbel::Meanings> m_meanings;
    Node m_root;
    int m_count = 0;
    bool m_isHeard = false;     // by somebody
    std::deque<Rest> m_resting; // the first one ends first
    QTimer m_wake;
    QElapsedTimer m_clock;
};

} // namespace Gateway
