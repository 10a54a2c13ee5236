// Between the daemon, of which the gateway is a client, and the broker.
#pragma once

#include "gateway/audit.h"
#include "gateway/batches.h"
#include "gateway/kepttopics.h"
#include "gateway/latest.h"
#include "gateway/metrics.h"
#include "gateway/orders.h"
#include "gateway/runstate.h"
#include "gateway/session.h"
#include "gateway/settings.h"
#include "gateway/spool.h"
#include "gateway/topics.h"

#include "vorbel/vorbelclient.h"

#include <QElapsedTimer>
#include <QHash>
#include <QObject>
#include <QPair>
#include <QSet>
#include <QTimer>

#include <memory>
#include <optional>

namespace Gateway
{

// Where it keeps its files.
struct Folders {
    QString lasting; // what is there after the machine was off
    QString quick;   // what is there after the process was; may be the same
};

// All of it. It has two sessions with the broker: one with a spool, over which everything is published, so
// that nothing is lost; and one over which orders come.
//
// It does not end by itself. It lives in one thread with an event loop, which has begun when it is
// constructed or does so soon.
class Relay : public QObject
{
    Q_OBJECT

public:
    Relay(const Settings &settings, const Folders &folders);
    ~Relay() override;

    // How it is doing.
    Metrics metrics() const;

    // Publishes what has come until now, and that nothing does any more. Takes up to some seconds.
    void stop();

private:
    // What the ID is known for, from the first hello on if it is not configured.
    struct Broker;

    // What follows the daemon is done as a whole. When memory runs out, the program ends and begins anew with
    // what it has spooled: VorbelClient contains what a slot throws, and half of it would have been done.
    void followDaemon();
    void greet() noexcept;
    void daemonLost() noexcept;
    void hear(const Vorbel::Values &values) noexcept;
    void schemaChanged(VorbelClient::SchemaState state, const QString &reason) noexcept;
    void loadSchema();
    void setMeanings(const std::shared_ptr<const Vorbel::Meanings> &meanings);

    void makeBroker(const QString &id);
    void publishState();
    void publishStatus();
    void publishSchema();
    void publishDiscovery();
    void takeAwayLatest();
    void publishBatch(const QByteArray &batch);
    void keepWithinBound();
    void refused(const QByteArray &topic, const QString &reason);
    void unreadable(int count);
    void addLost(int count);
    void settle(bool everything);

    void listen();
    void beat();
    void hearBroker(const Arrived &message);
    void hearPulse(const QByteArray &payload);
    std::optional<qint64> oldest() const;
    void hearOrder(const WriteTopic &topic, const Arrived &message);
    void obey(const Order &order);
    QString refusalOf(const Order &order, const QVariantMap &values) const;
    void hearSchema(const Arrived &message);
    void obeySchema(const QByteArray &text);
    void finished(quint64 number, const QString &error) noexcept;

    QString schemaFile() const;
    QString keptSchemaFile() const;
    QByteArray status() const;

    const Settings m_settings;
    const Folders m_folders;
    RunState m_run;
    Spool m_spool;
    VorbelClient m_daemon;
    Batches m_batches;
    Latest m_latest;
    Audit m_audit;
    Orders m_orders;
    KeptTopics m_discovery;
    KeptTopics m_now;
    QHash<quint64, Deed> m_pending; // on the way to the daemon, by the client's numbers
    qint64 m_messages = 0;          // from the daemon
    QElapsedTimer m_newest;         // since the last one
    qint64 m_failed = 0;            // writes that were sent, of which nothing says whether they were done
    qint64 m_since = 0;             // when the daemon greeted, ms since 1970; 0 while it is away
    std::optional<QString> m_deviceType; // as the daemon said it last; nothing before its first hello
    bool m_isReplaced = false;           // the schema, by another client
    QString m_daemonTrouble;             // that was said last
    QSet<QString> m_spoolTroubles;       // that were said
    int m_calmSettles = 0;
    QSet<QPair<QByteArray, QString>> m_refusals; // that were said on this connection
    QElapsedTimer m_clock;
    std::optional<qint64> m_heardPulse; // when the last one that came was sent, on m_clock
    QTimer m_beat;
    QTimer m_settle;
    std::unique_ptr<Broker> m_broker;
};

} // namespace Gateway
