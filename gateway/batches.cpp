#include "gateway/batches.h"

#include "gateway/plainjson.h"

#include <utility>

namespace Gateway
{

namespace
{
constexpr int closing = 2;      // "]}"
constexpr int usualRoom = 1024; // of a message, in bytes
} // namespace

Batches::Batches(qint64 boot, int interval, int bytes, Publish publish)
    : m_boot(boot), m_interval(interval), m_bytes(bytes), m_publish(std::move(publish))
{
    m_message.reserve(usualRoom); // without which it would not keep any when it becomes empty
    m_end.setSingleShot(true);
    m_end.setTimerType(Qt::PreciseTimer);
    connect(&m_end, &QTimer::timeout, this, &Batches::flush);
}

void Batches::append(const QVariant &values, qint64 arrival)
{
    const auto write = [&] {
        m_message.resize(0);
        m_message += '[';
        appendJson(m_message, arrival - m_begin);
        m_message += ',';
        appendJson(m_message, values, m_leaves.get());
        m_message += ']';
    };
    write();
    if (!m_text.isEmpty() && m_text.size() + 1 + m_message.size() + closing > m_bytes) {
        flush();
    }
    if (m_text.isEmpty()) {
        begin(arrival);
        write();
    } else {
        m_text += ',';
    }
    m_text += m_message;
    if (m_interval == 0) {
        flush();
    }
}

void Batches::begin(qint64 arrival)
{
    m_begin = arrival;
    m_text += "{\"boot\":" + QByteArray::number(m_boot) + ",\"n\":" + QByteArray::number(m_number) +
              ",\"t\":" + QByteArray::number(arrival) + ",\"v\":[";
    m_end.start(m_interval);
}

void Batches::flush()
{
    m_end.stop();
    if (m_text.isEmpty()) {
        return;
    }
    m_text += "]}";
    ++m_number;
    m_publish(std::exchange(m_text, {}));
}

} // namespace Gateway
