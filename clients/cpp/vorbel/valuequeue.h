/// @file
/// Messages of values for a reader that takes them at its own pace.
#pragma once

#include "vorbel/vorbelclient.h"

#include <QMutex>
#include <QObject>
#include <QQueue>

#include <optional>

namespace Vorbel
{

/// The messages of a client, oldest first, for another thread or for a loop that draws.
///
/// They are readings of a live bus: of a reader that falls behind the oldest are dropped and counted, so that
/// memory is bounded by `limit` messages. It is made and destroyed in the thread of the client.
class ValueQueue
{
public:
    /// All messages from now on, of which as many as `limit` can wait.
    explicit ValueQueue(const VorbelClient *client, int limit = 1000);

    /// The oldest message that waits; none if there is none. From any thread.
    std::optional<Values> take();

    /// How many messages wait. From any thread.
    int size() const;

    /// How many messages were dropped because they were not taken in time. From any thread.
    quint64 lost() const;

private:
    void put(const Values &values);

    const int m_limit;
    mutable QMutex m_mutex; // guards what follows
    QQueue<Values> m_waiting;
    quint64 m_lost = 0;
    QObject m_context; // ends the connection to the client, before anything else goes
};

} // namespace Vorbel
