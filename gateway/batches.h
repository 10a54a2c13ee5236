// Messages of values gathered to what is published at a time.
#pragma once

#include "gateway/leaftree.h"

#include <QByteArray>
#include <QObject>
#include <QTimer>
#include <QVariant>

#include <functional>
#include <memory>

namespace Gateway
{

// The batches of one run of the gateway, numbered from 0 without a gap. Holds one at a time, no larger than
// its bound and the message that did not fit.
class Batches : public QObject
{
    Q_OBJECT

public:
    using Publish = std::function<void(const QByteArray &batch)>;

    // `boot` tells this run from others. A batch ends `interval` ms after its first message came, and before
    // it has more than `bytes`; `publish` is called with it then.
    Batches(qint64 boot, int interval, int bytes, Publish publish);

    // The schema of what comes; null for one that is not known.
    void setLeaves(const std::shared_ptr<const LeafTree> &leaves) { m_leaves = leaves; }

    // A message has come, in milliseconds since 1970.
    void append(const QVariant &values, qint64 arrival);

    // Ends the batch that has begun, if one has.
    void flush();

    // How many there were.
    qint64 count() const { return m_number; }

private:
    void begin(qint64 arrival);

    const qint64 m_boot;
    const int m_interval;
    const int m_bytes;
    const Publish m_publish;
    std::shared_ptr<const LeafTree> m_leaves;
    qint64 m_number = 0;
    QByteArray m_text; // empty before a message
    QByteArray m_message;
    qint64 m_begin = 0;
    QTimer m_end;
};

} // namespace Gateway
