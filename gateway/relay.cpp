#include "gateway/relay.h"

#include "gateway/homeassistant.h"
#include "gateway/savedfile.h"
#include "gateway/status.h"
#include "vorbel/paths.h"
#include "vorbel/wire.h"

#include <QDateTime>
#include <QDebug>
#include <QFile>
#include <QJsonDocument>
#include <QSysInfo>

#include <algorithm>
#include <utility>

namespace Gateway
{

namespace
{

constexpr int pulseInterval = 1000;     // ms
constexpr int settleInterval = 1000;    // ms
constexpr int calmSettlesMin = 60;      // without trouble, before the same trouble is told again
constexpr int pendingMax = 64;          // orders on the way to the daemon
constexpr int orderBytesMax = 65536;    // of a value, however long its text
constexpr int silencesMax = 3;          // times an order's largest age, until a connection is given up
constexpr int schemaBytesMax = 1 << 20; // checking it takes 60 times as much memory at worst
// What is given up at a time beyond what has to be, so that it does not have to be soon again.
constexpr int givenUpShare = 10;

qint64 s_now()
{
    return QDateTime::currentMSecsSinceEpoch();
}

} // namespace

struct Relay::Broker {
    QString id;
    Topics topics;
    Session publisher;
    Session listener;

    Broker(const Settings &settings, const QString &brokerId, const QString &clientId, Spool *spool)
        : id(brokerId),
          topics(settings.topics.prefix, brokerId),
          publisher(settings, clientId, spool),
          listener(settings, clientId + "-orders", nullptr)
    {
    }
};

Relay::Relay(const Settings &settings, const Folders &folders)
    : m_settings(settings),
      m_folders(folders),
      m_run(folders.lasting + "/run.json"),
      m_spool(folders.quick + "/spool", folders.lasting + "/spool"),
      m_daemon(settings.daemon.address),
      m_batches(m_run.boot(), settings.values.interval, settings.values.bytes,
                [this](const QByteArray &batch) { publishBatch(batch); }),
      m_latest(settings.now.interval,
               [this](const QStringList &names, const QByteArray &value) {
                   m_broker->publisher.publishOnce(m_broker->topics.now(names), value, true);
               }),
      m_audit([this](const QByteArray &text) {
          m_broker->publisher.publish(m_broker->topics.done(), text, false);
      }),
      m_orders(settings.write.maxAge * 1000LL),
      m_discovery(folders.lasting + "/discovery.json"),
      m_now(folders.lasting + "/now.json")
{
    m_clock.start();
    if (m_spool.damaged() > 0) {
        m_run.addLost(m_spool.damaged());
        qWarning("spool: %d files were damaged, perhaps when the machine lost its power: they are lost",
                 m_spool.damaged());
    }
    connect(&m_beat, &QTimer::timeout, this, &Relay::beat);
    connect(&m_settle, &QTimer::timeout, this, [this] { settle(false); });
    m_settle.start(settleInterval);
    if (!settings.topics.id.isEmpty()) {
        makeBroker(settings.topics.id);
    }
    followDaemon();
    loadSchema();
    m_daemon.open();
}

Relay::~Relay() = default;

void Relay::stop()
{
    m_batches.flush();
    m_daemon.close();
    m_since = 0;
    if (m_broker) {
        m_broker->listener.close();
        m_broker->publisher.publish(m_broker->topics.status(), offlineText, true);
        m_broker->publisher.close();
    }
    settle(true);
}

Metrics Relay::metrics() const
{
    Metrics metrics;
    metrics.isDaemonConnected = m_since != 0;
    metrics.isBrokerConnected = m_broker && m_broker->publisher.isConnected();
    metrics.batchesPublished = m_batches.count();
    metrics.batchesSpooled = m_spool.count();
    metrics.bytesSpooled = m_spool.bytes();
    metrics.batchesLost = m_run.lost();
    metrics.writesOk = m_audit.doneCount();
    metrics.writesRefused = m_audit.refusedCount() - m_failed;
    metrics.writesFailed = m_failed;
    metrics.messagesReceived = m_messages;
    if (m_newest.isValid()) {
        metrics.newestValueAge = static_cast<double>(m_newest.elapsed()) / 1000;
    }
    return metrics;
}

// ---- The daemon

void Relay::followDaemon()
{
    connect(&m_daemon, &VorbelClient::helloReceived, this, &Relay::greet);
    connect(&m_daemon, &VorbelClient::disconnected, this, [this](const QString &reason) noexcept {
        if (m_since != 0 || reason != m_daemonTrouble) {
            qWarning("daemon: %s; trying again", qPrintable(reason));
        }
        m_daemonTrouble = reason;
        daemonLost();
    });
    connect(&m_daemon, &VorbelClient::valuesReceived, this, &Relay::hear);
    connect(
        &m_daemon, &VorbelClient::undecodable, this, [](const QByteArray &message, const QString &reason) {
            qWarning("daemon: a message of %d bytes cannot be read: %s", message.size(), qPrintable(reason));
        });
    connect(&m_daemon, &VorbelClient::schemaChanged, this, &Relay::schemaChanged);
    connect(&m_daemon, &VorbelClient::delivered, this,
            [this](quint64 number) noexcept { finished(number, {}); });
    connect(&m_daemon, &VorbelClient::undelivered, this,
            [this](quint64 number, bool wasSent, const QString &reason) noexcept {
                finished(number, wasSent ? reason + ": nothing says whether it was done" : reason);
            });
    connect(&m_daemon, &VorbelClient::confirmed, this,
            [this](quint64 number) noexcept { finished(number, {}); });
    connect(&m_daemon, &VorbelClient::unconfirmed, this,
            [this](quint64 number, const QString &reason) noexcept { finished(number, reason); });
}

// The daemon greets whenever a client comes, too.
void Relay::greet() noexcept
{
    if (m_since != 0) {
        return;
    }
    m_since = s_now();
    m_daemonTrouble.clear();
    qInfo("daemon: connected to %s", qPrintable(m_daemon.address()));
    if (!m_broker) {
        const QString id = m_daemon.deviceId();
        makeBroker(id.isEmpty() ? QSysInfo::machineHostName() : id);
    }
    publishStatus();
    if (m_deviceType != m_daemon.deviceType()) {
        m_deviceType = m_daemon.deviceType();
        publishDiscovery();
    }
}

void Relay::daemonLost() noexcept
{
    m_batches.flush();
    if (std::exchange(m_since, 0) != 0) {
        publishStatus();
    }
}

void Relay::hear(const Vorbel::Values &values) noexcept
{
    if (!m_broker) {
        return; // who has not said who it is
    }
    ++m_messages;
    m_newest.start();
    m_batches.append(values.nested, values.arrival);
    m_latest.heard(values.nested);
}

QString Relay::keptSchemaFile() const
{
    return m_folders.lasting + "/schema.json";
}

// One that came over the broker counts until another does, also over restarts.
QString Relay::schemaFile() const
{
    return QFile::exists(keptSchemaFile()) ? keptSchemaFile() : m_settings.schema.file;
}

void Relay::loadSchema()
{
    const QString file = schemaFile();
    if (file.isEmpty()) {
        return;
    }
    if (m_daemon.loadSchema(file)) {
        qInfo("schema: %s", qPrintable(file));
        setMeanings(m_daemon.meanings());
    } else {
        qCritical("schema: %s cannot be used: %s", qPrintable(file), qPrintable(m_daemon.schemaError()));
    }
}

void Relay::setMeanings(const std::shared_ptr<const Vorbel::Meanings> &meanings)
{
    m_batches.flush(); // what has come until now has the former schema
    m_batches.setLeaves(meanings ? std::make_shared<const LeafTree>(leafTreeOf(*meanings)) : nullptr);
    m_latest.setMeanings(meanings);
}

void Relay::schemaChanged(VorbelClient::SchemaState state, const QString &reason) noexcept
{
    if (state != VorbelClient::Replaced) {
        return;
    }
    qWarning("schema: %s", qPrintable(reason));
    if (m_settings.schema.defend) {
        m_daemon.setSchema(m_daemon.schema());
        m_audit.done({{}, {}, {}, {}, {}});
        return;
    }
    m_isReplaced = true;
    setMeanings(nullptr);
    publishSchema();
}

// ---- To the broker

void Relay::makeBroker(const QString &id)
{
    const QString clientId = m_settings.broker.clientId.isEmpty() ? m_settings.topics.prefix + '-' + id
                                                                  : m_settings.broker.clientId;
    m_broker = std::make_unique<Broker>(m_settings, id, clientId, &m_spool);
    m_broker->publisher.setWill(m_broker->topics.status(), offlineText);
    connect(&m_broker->publisher, &Session::refused, this, &Relay::refused);
    connect(&m_broker->publisher, &Session::unreadable, this, &Relay::unreadable);
    connect(&m_broker->publisher, &Session::connected, this, [this] { m_refusals.clear(); });
    connect(&m_broker->publisher, &Session::connected, this, &Relay::publishState);
    connect(&m_broker->publisher, &Session::disconnected, this, [this] { m_latest.end(); });
    connect(&m_broker->listener, &Session::connected, this, &Relay::listen);
    connect(&m_broker->listener, &Session::disconnected, this, [this] { m_beat.stop(); });
    connect(&m_broker->listener, &Session::arrived, this, &Relay::hearBroker);
    connect(&m_broker->listener, &Session::missed, &m_audit, &Audit::missed);
    if (m_settings.schema.accept) {
        m_broker->listener.setLargest(schemaBytesMax);
    }
    m_broker->publisher.open();
    m_broker->listener.open();
}

void Relay::publishState()
{
    publishStatus();
    publishSchema();
    publishDiscovery();
    takeAwayLatest();
    m_latest.begin();
}

QByteArray Relay::status() const
{
    return m_since == 0 ? offlineText
                        : statusText({m_daemon.deviceType(), m_daemon.deviceId(), m_since, m_run.boot(),
                                      m_run.lost()});
}

// What says how it is now does not wait for a broker that comes back later; publishState() says it then.
void Relay::publishStatus()
{
    if (m_broker && m_broker->publisher.isConnected()) {
        m_broker->publisher.publish(m_broker->topics.status(), status(), true);
    }
}

void Relay::publishSchema()
{
    if (!m_broker || !m_broker->publisher.isConnected()) {
        return;
    }
    const bool isKnown = !m_isReplaced && !m_daemon.schema().isEmpty();
    m_broker->publisher.publish(m_broker->topics.schema(),
                                isKnown ? Vorbel::schemaText(m_daemon.schema()).toUtf8() : "null", true);
}

// The device bears its type in its name. While the schema is another client's, what it was stays: it may come
// back.
void Relay::publishDiscovery()
{
    if (!m_broker || !m_broker->publisher.isConnected() || !m_deviceType || m_isReplaced) {
        return;
    }
    QMap<QByteArray, QByteArray> messages;
    if (m_settings.homeAssistant.enabled) {
        messages =
            discoveryOf(*m_daemon.meanings(), m_broker->topics, m_settings, m_broker->id, *m_deviceType);
    }
    const QList<QByteArray> topics = messages.keys();
    for (const QByteArray &gone : m_discovery.replace({topics.cbegin(), topics.cend()})) {
        m_broker->publisher.publish(gone, {}, true);
    }
    for (auto message = messages.cbegin(); message != messages.cend(); ++message) {
        m_broker->publisher.publish(message.key(), message.value(), true);
    }
}

// The latest values of leaves that the schema does not have any more.
void Relay::takeAwayLatest()
{
    if (!m_broker || !m_broker->publisher.isConnected() || m_isReplaced) {
        return;
    }
    QSet<QByteArray> topics;
    for (const auto &leaf : m_daemon.meanings()->leaves()) {
        topics << m_broker->topics.now(leaf->names);
    }
    for (const QByteArray &gone : m_now.replace(topics)) {
        m_broker->publisher.publish(gone, {}, true);
    }
}

void Relay::publishBatch(const QByteArray &batch)
{
    m_broker->publisher.publish(m_broker->topics.values(), batch, false);
    keepWithinBound();
}

void Relay::keepWithinBound()
{
    const qint64 bound = m_settings.spool.bytes();
    if (m_spool.bytes() <= bound) {
        return;
    }
    const int count = m_broker->publisher.giveUp(bound - bound / givenUpShare, m_broker->topics.values());
    if (count > 0) {
        qWarning("spool: larger than %d MB: the oldest %d batches are lost", m_settings.spool.megabytes,
                 count);
        addLost(count);
    }
}

// Said once for each topic and reason on a connection.
void Relay::refused(const QByteArray &topic, const QString &reason)
{
    const QPair<QByteArray, QString> refusal(topic, reason);
    if (!m_refusals.contains(refusal)) {
        qWarning("broker: it refuses what is for %s: %s: that is lost", topic.constData(),
                 qPrintable(reason));
        m_refusals.insert(refusal);
    }
}

void Relay::unreadable(int count)
{
    qWarning("spool: %d files cannot be read any more: they are lost", count);
    addLost(count);
}

void Relay::addLost(int count)
{
    m_run.addLost(count);
    publishStatus();
}

void Relay::settle(bool everything)
{
    if (m_broker) {
        keepWithinBound();
    }
    const QString trouble = m_spool.settle(everything);
    if (trouble.isEmpty()) {
        if (++m_calmSettles >= calmSettlesMin) {
            m_spoolTroubles.clear();
        }
        return;
    }
    m_calmSettles = 0;
    if (!m_spoolTroubles.contains(trouble)) {
        qWarning("spool: %s: what the broker has not acknowledged is kept in memory", qPrintable(trouble));
        m_spoolTroubles.insert(trouble);
    }
}

// ---- From the broker

void Relay::listen()
{
    m_heardPulse.reset();
    m_broker->listener.subscribe(m_broker->topics.setFilter());
    m_broker->listener.subscribe(m_broker->topics.schemaSet());
    if (m_settings.obeysSomebody()) {
        m_broker->listener.subscribe(m_broker->topics.pulse());
        m_beat.start(pulseInterval);
        beat();
    }
}

// Messages come in the order in which the broker sends them: what comes behind a pulse was not there before
// it. When those of a connection on which they came do not come any more, nor do orders: another one may
// carry them again.
void Relay::beat()
{
    if (oldest() > silencesMax * m_settings.write.maxAge * 1000LL) {
        return m_broker->listener.renew("orders do not come through any more");
    }
    m_broker->listener.publishOnce(m_broker->topics.pulse(), QByteArray::number(m_clock.elapsed()), false);
}

void Relay::hearPulse(const QByteArray &payload)
{
    const qint64 sent = std::min(payload.toLongLong(), m_clock.elapsed());
    m_heardPulse = std::max(m_heardPulse.value_or(sent), sent); // an older one is a stranger's
}

std::optional<qint64> Relay::oldest() const
{
    return m_heardPulse ? std::optional(m_clock.elapsed() - *m_heardPulse) : std::nullopt;
}

void Relay::hearBroker(const Arrived &message)
{
    const Topics &topics = m_broker->topics;
    if (message.topic == topics.pulse()) {
        hearPulse(message.payload);
    } else if (message.topic == topics.schemaSet()) {
        hearSchema(message);
    } else if (const auto write = topics.writeOf(message.topic)) {
        hearOrder(*write, message);
    }
}

void Relay::hearOrder(const WriteTopic &topic, const Arrived &message)
{
    const bool isTooLarge = message.isTooLarge || message.payload.size() > orderBytesMax;
    const ReadOrder read = isTooLarge ? ReadOrder{{topic.user, topic.names, {}, {}}, "too large"}
                                      : readOrder(topic.user, topic.names, message.payload);
    const Order &order = read.order;
    const auto refuse = [&](const QString &reason) {
        m_audit.refused({order.user, order.path(), order.value, {}, reason});
    };
    if (!read.error.isEmpty()) {
        return refuse(read.error);
    }
    const Orders::Judged judged =
        m_orders.judge(order, {s_now(), message.isRetained, message.isRepeated, oldest()});
    switch (judged.verdict) {
    case Orders::Refuse:
        return refuse(judged.reason);
    case Orders::Ignore:
        return;
    case Orders::Obey:
        return obey(order);
    }
}

// Whether a user may not write some of these values, which are those of an order and what it asks for.
QString Relay::refusalOf(const Order &order, const QVariantMap &values) const
{
    for (const QString &path : Vorbel::flatten(values).keys()) {
        if (!m_settings.mayWrite(order.user, path)) {
            return path == order.path() ? "this user may not write it"
                                        : "this user may not write \"" + path + "\", which it takes as well";
        }
    }
    if (m_isReplaced || !m_daemon.meanings()->leaf(order.path())) {
        return "the schema in force has no such value";
    }
    return m_pending.size() >= pendingMax ? "too many writes wait for the daemon" : QString();
}

void Relay::obey(const Order &order)
{
    const QVariantMap values = Vorbel::withSelectors(*m_daemon.meanings(), order.names, order.value);
    Deed deed{order.user, order.path(), order.value, {}, refusalOf(order, values)};
    if (!deed.error.isEmpty()) {
        return m_audit.refused(deed);
    }
    const Vorbel::WriteResult result = m_daemon.deliver(values);
    if (!result.isSent()) {
        deed.error = result.error;
        return m_audit.refused(deed);
    }
    for (const Vorbel::Written &written : result.written) {
        if (written.path() == deed.path) {
            deed.raw = written.raw;
        }
    }
    m_pending.insert(result.number, deed);
}

void Relay::hearSchema(const Arrived &message)
{
    const auto refuse = [this](const QString &reason) {
        m_audit.refused({{}, {}, {}, {}, reason});
    };
    if (!m_settings.schema.accept) {
        return refuse("a schema: none is accepted ([schema] accept)");
    }
    if (message.isTooLarge) {
        return refuse("a schema: larger than 1 MiB");
    }
    if (message.isRetained) {
        return refuse("a schema: retained: what the broker keeps is never obeyed");
    }
    if (!m_daemon.isConnected()) {
        return refuse("a schema: the daemon is not there");
    }
    obeySchema(message.payload);
}

void Relay::obeySchema(const QByteArray &text)
{
    const Vorbel::ParsedSchema parsed = Vorbel::parseSchema(QString::fromUtf8(text.constData(), text.size()));
    const auto refuse = [this](const QString &reason) {
        m_audit.refused({{}, {}, {}, {}, "a schema: " + reason});
    };
    if (!parsed.isReadable() || Vorbel::hasErrors(parsed.problems)) {
        return refuse(Vorbel::errorText(parsed.problems));
    }
    const QJsonObject former = m_daemon.schema();
    if (!m_daemon.setSchema(parsed.schema)) {
        return refuse(m_daemon.schemaError());
    }
    if (const QString error = saveFile(keptSchemaFile(), text); !error.isEmpty()) {
        qWarning("schema: it counts until the gateway ends: cannot write %s", qPrintable(error));
    }
    m_isReplaced = false;
    setMeanings(m_daemon.meanings());
    publishSchema();
    publishDiscovery();
    takeAwayLatest();
    m_pending.insert(m_daemon.confirm(), {});
}

void Relay::finished(quint64 number, const QString &error) noexcept
{
    const auto found = m_pending.find(number);
    if (found == m_pending.end()) {
        return;
    }
    Deed deed = *found;
    m_pending.erase(found);
    deed.error = error;
    if (error.isEmpty()) {
        m_audit.done(deed);
    } else {
        ++m_failed;
        m_audit.refused(deed);
    }
}

} // namespace Gateway
