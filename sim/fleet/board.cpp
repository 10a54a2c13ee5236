#include "fleet/board.h"

#include "fleet/plant.h"
#include "gateway/status.h"
#include "vorbel/schema.h"

#include <QDateTime>

#include <algorithm>
#include <utility>

namespace SimulatedFleet
{

namespace
{

constexpr int second = 1000; // ms
constexpr qint64 minute = 60 * second;
constexpr int minutesPerDay = 24 * 60;
constexpr double usualSpeed = 1200;

QString s_id(int number)
{
    return "board" + QString::number(number);
}

// The boards of a cluster do not all begin with the same of its servers.
Gateway::Settings s_settings(Gateway::Settings settings, int number)
{
    QStringList &urls = settings.broker.urls;
    std::rotate(urls.begin(), urls.begin() + number % urls.size(), urls.end());
    return settings;
}

qint64 s_boot()
{
    return QDateTime::currentSecsSinceEpoch();
}

} // namespace

Board::Board(const Fleet &fleet, int number)
    : m_fleet(fleet),
      m_number(number),
      m_boot(s_boot()),
      m_topics(fleet.settings.topics.prefix, s_id(number)),
      m_session(s_settings(fleet.settings, number), fleet.settings.topics.prefix + '-' + s_id(number),
                nullptr),
      m_batches(m_boot, fleet.settings.values.interval, fleet.settings.values.bytes,
                [this](const QByteArray &batch) { publishBatch(batch); }),
      m_latest(fleet.settings.now.interval,
               [this](const QStringList &names, const QByteArray &value) {
                   m_session.publishOnce(m_topics.now(names), value, true);
               }),
      m_audit([this](const QByteArray &text) { m_session.publish(m_topics.done(), text, false); }),
      m_orders(fleet.settings.write.maxAge * second),
      m_setpoints(fleet.axes, usualSpeed)
{
    m_batches.setLeaves(std::make_shared<const Gateway::LeafTree>(Gateway::leafTreeOf(*fleet.meanings)));
    m_latest.setMeanings(fleet.meanings);
    m_session.setWill(m_topics.status(), Gateway::offlineText);
    connect(&m_session, &Gateway::Session::connected, this, &Board::begin);
    connect(&m_session, &Gateway::Session::disconnected, this, [this] { m_latest.end(); });
    connect(&m_session, &Gateway::Session::arrived, this, &Board::obey);
    m_tick.setTimerType(Qt::PreciseTimer);
    connect(&m_tick, &QTimer::timeout, this, &Board::move);
}

void Board::open()
{
    m_session.open();
}

void Board::end()
{
    m_tick.stop();
    m_batches.flush();
    m_session.publish(m_topics.status(), Gateway::offlineText, true);
}

void Board::begin()
{
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    m_session.publish(m_topics.schema(), Vorbel::schemaText(m_fleet.schema).toUtf8(), true);
    m_session.publish(m_topics.status(), Gateway::statusText({"plant", s_id(m_number), now, m_boot, 0}),
                      true);
    m_session.subscribe(m_topics.setFilter());
    m_latest.begin();
    if (!m_tick.isActive()) {
        publishPast();
        m_tick.start(second / m_fleet.axes);
    }
}

// A reading a minute of each axis, in batches that are as large as they may become.
void Board::publishPast()
{
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    for (int ago = m_fleet.pastDays * minutesPerDay; ago > 0; --ago) {
        for (int axis = 0; axis < m_fleet.axes; ++axis) {
            append(axisReadings(axis, m_number, m_setpoints[axis], now - ago * minute), now - ago * minute);
        }
    }
    m_batches.flush();
}

// The frames of a second come one after the other, not at once.
void Board::move()
{
    hear(m_axis, QDateTime::currentMSecsSinceEpoch());
    m_axis = (m_axis + 1) % m_fleet.axes;
}

void Board::hear(int axis, qint64 time)
{
    const QVariantMap readings = axisReadings(axis, m_number, m_setpoints[axis], time);
    append(readings, time);
    m_latest.heard(readings);
}

void Board::append(const QVariantMap &readings, qint64 time)
{
    m_pending += valuesPerAxis;
    m_batches.append(readings, time);
}

void Board::publishBatch(const QByteArray &batch)
{
    const int count = std::exchange(m_pending, 0);
    (m_session.publish(m_topics.values(), batch, false) ? m_tally.published : m_tally.dropped) += count;
}

void Board::obey(const Gateway::Arrived &message)
{
    const auto topic = m_topics.writeOf(message.topic);
    if (!topic) {
        return;
    }
    const Gateway::ReadOrder read = Gateway::readOrder(topic->user, topic->names, message.payload);
    const Gateway::Order &order = read.order;
    Gateway::Deed deed{order.user, order.path(), order.value, {}, read.error};
    const Gateway::Way way{QDateTime::currentMSecsSinceEpoch(), message.isRetained, message.isRepeated, 0};
    const Gateway::Orders::Judged judged = m_orders.judge(order, way);
    if (deed.error.isEmpty() && judged.verdict == Gateway::Orders::Ignore) {
        return; // it came before
    }
    const int axis = axisOf(order.names);
    if (deed.error.isEmpty()) {
        deed.error = axis < 0 ? "the schema in force has no such value" : judged.reason;
    }
    if (!deed.error.isEmpty()) {
        return m_audit.refused(deed);
    }
    m_setpoints[axis] = order.value.toDouble();
    deed.raw = m_setpoints[axis];
    m_audit.done(deed);
}

// Whose set point it is, counted from 0; -1 if there is none.
int Board::axisOf(const QStringList &names) const
{
    for (int axis = 0; axis < m_fleet.axes; ++axis) {
        if (names == QStringList{axisName(axis), "setpoint"}) {
            return axis;
        }
    }
    return -1;
}

} // namespace SimulatedFleet
