// A board that is not there, as a broker sees it.
#pragma once

#include "gateway/audit.h"
#include "gateway/batches.h"
#include "gateway/latest.h"
#include "gateway/orders.h"
#include "gateway/session.h"
#include "gateway/settings.h"
#include "gateway/topics.h"

#include "vorbel/meaning.h"

#include <QJsonObject>
#include <QObject>
#include <QTimer>
#include <QVector>

#include <memory>

namespace SimulatedFleet
{

// What all boards of a fleet have in common.
struct Fleet {
    Gateway::Settings settings; // broker, prefix and intervals
    int axes = 1;
    int pastDays = 0;   // of which each publishes readings first, as if the broker had been away
    QJsonObject schema; // of the plant, which each has
    std::shared_ptr<const Vorbel::Meanings> meanings;
};

// Of values: those that the broker was given, and those that it was not there for.
struct Tally {
    qint64 published = 0;
    qint64 dropped = 0;
};

// Publishes what a gateway does, by the gateway's own means, of a plant whose axes each send once a second.
// Set points are obeyed at once, whoever writes them. It lives in a thread with an event loop.
class Board : public QObject
{
    Q_OBJECT

public:
    // `number` counts from 1; the board's ID is "board1" and so on. `fleet` outlives it.
    Board(const Fleet &fleet, int number);

    void open();

    // Publishes what has come until now, and that it is going.
    void end();

    bool isConnected() const { return m_session.isConnected(); }

    Tally tally() const { return m_tally; }

private:
    void begin();
    void publishPast();
    void move();
    void hear(int axis, qint64 time);
    void append(const QVariantMap &readings, qint64 time);
    void publishBatch(const QByteArray &batch);
    void obey(const Gateway::Arrived &message);
    int axisOf(const QStringList &names) const;

    const Fleet &m_fleet;
    const int m_number;
    const qint64 m_boot;
    const Gateway::Topics m_topics;
    Gateway::Session m_session;
    Gateway::Batches m_batches;
    Gateway::Latest m_latest;
    Gateway::Audit m_audit;
    Gateway::Orders m_orders;
    QVector<double> m_setpoints; // of the axes
    int m_axis = 0;              // which is next
    int m_pending = 0;           // values of the batch that has begun
    Tally m_tally;
    QTimer m_tick;
};

} // namespace SimulatedFleet
