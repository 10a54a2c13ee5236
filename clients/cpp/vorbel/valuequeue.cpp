#include "vorbel/valuequeue.h"

namespace Vorbel
{

ValueQueue::ValueQueue(const VorbelClient *client, int limit) : m_limit(qMax(1, limit))
{
    QObject::connect(client, &VorbelClient::valuesReceived, &m_context,
                     [this](const Values &values) { put(values); });
}

std::optional<Values> ValueQueue::take()
{
    const QMutexLocker locker(&m_mutex);
    return m_waiting.isEmpty() ? std::nullopt : std::optional<Values>(m_waiting.dequeue());
}

int ValueQueue::size() const
{
    const QMutexLocker locker(&m_mutex);
    return m_waiting.size();
}

quint64 ValueQueue::lost() const
{
    const QMutexLocker locker(&m_mutex);
    return m_lost;
}

void ValueQueue::put(const Values &values)
{
    const QMutexLocker locker(&m_mutex);
    if (m_waiting.size() == m_limit) {
        m_waiting.removeFirst();
        ++m_lost;
    }
    m_waiting.enqueue(values);
}

} // namespace Vorbel
