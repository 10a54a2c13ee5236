// What comes from the broker to be written: whether it is meant, now.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QQueue>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <optional>

namespace Gateway
{

// A value to write.
struct Order {
    QString user;
    QStringList names;
    QVariant value;             // a number, a flag or a text
    std::optional<qint64> time; // when it was meant, ms since 1970; none if nobody says

    // The dotted path.
    QString path() const;
};

// An order that was read, or why it is none; user and names are there in any case.
struct ReadOrder {
    Order order;
    QString error; // empty if it is one
};

// The order in a message: a value, or an object of a "value" and its "time".
ReadOrder readOrder(const QString &user, const QStringList &names, const QByteArray &payload);

// How an order came.
struct Way {
    qint64 now = 0;          // ms since 1970
    bool isRetained = false; // the broker kept it for whoever comes
    bool isRepeated = false; // the broker says that it sent it before
    std::optional<qint64>
        oldest; // the longest time, ms, that it can have waited behind the broker; none: not known
};

// Whether orders are still meant when they come, and are no repetition of one before. Remembers those of the
// time in which they count, no more than a thousand.
class Orders
{
public:
    // Orders count for `maxAge` ms.
    explicit Orders(qint64 maxAge);

    enum Verdict { Obey, Ignore, Refuse };

    struct Judged {
        Verdict verdict = Obey;
        QString reason; // of a refusal
    };

    Judged judge(const Order &order, const Way &way);

private:
    QString staleness(const Order &order, const Way &way) const;
    bool isKnown(const Order &order, qint64 now);

    const qint64 m_maxAge;
    QHash<QByteArray, qint64> m_known; // until when
    QQueue<QByteArray> m_inOrder;
};

} // namespace Gateway
