#include "gateway/session.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDebug>
#include <QRandomGenerator>
#include <QThread>
#include <QUrl>

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

namespace Gateway
{

namespace
{

constexpr int firstPause = 1000; // ms
constexpr int longestPause = 30'000;
constexpr int settled = 10'000; // ms that a connection lasts that is none that ends at once
constexpr std::chrono::seconds patience{10};
constexpr std::chrono::seconds closingTime{2};
constexpr int closingLook = 5; // ms

// On their way at a time: what comes twice when a connection is lost is no more than this. As a share of the
// spool's bound, it leaves the rest to be given up.
constexpr int onTheirWayMax = 20;
constexpr int onTheirWayShare = 10;

// After which what Paho did not take is offered again, in ms.
constexpr int sendAgainPause = 1000;

// Waiting in the event loop for their turn.
constexpr int waitingMax = 64;

std::string s_uri(const QString &url)
{
    const QUrl parts(url);
    const bool isSafe = parts.scheme() == "mqtts";
    const QString host = parts.host().contains(':') ? '[' + parts.host() + ']' : parts.host();
    const QString port = QString::number(parts.port(isSafe ? 8883 : 1883));
    return ((isSafe ? "ssl://" : "tcp://") + host + ':' + port).toStdString();
}

// Whether one of the brokers has to prove who it is.
bool s_isSafe(const Settings &settings)
{
    const QStringList &urls = settings.broker.urls;
    return std::any_of(urls.begin(), urls.end(), [](const QString &url) { return url.startsWith("mqtts:"); });
}

QString s_reason(const mqtt::token &token, bool isSafe)
{
    const int code = token.get_return_code();
    const auto reason = static_cast<int>(token.get_reason_code());
    QString text = QString::fromStdString(mqtt::exception::error_str(code));
    // Refusals of MQTT 3.1.1 come as the codes of its CONNACK.
    switch (code) {
    case 4:
    case 5:
        return "the broker refuses user, password or certificate";
    case 2:
        return "the broker refuses the client's identifier";
    case MQTTASYNC_FAILURE: // Paho says no more about TLS
        return isSafe ? "nobody answers there, or a certificate is not accepted" : "nobody answers there";
    default:
        break;
    }
    if (reason > 0) {
        text += ": " + QString::fromStdString(mqtt::exception::reason_code_str(reason));
    }
    return text;
}

// Paho says so by a code, for which its headers have no name.
void s_endWithoutMemory(const mqtt::exception &exception)
{
    constexpr int outOfMemory = -99;
    if (exception.get_return_code() == outOfMemory) {
        throw std::bad_alloc();
    }
}

} // namespace

// Hears in Paho's thread how an attempt ended.
class Session::ConnectListener : public mqtt::iaction_listener
{
public:
    explicit ConnectListener(Session &session) : m_session(session) {}

    void on_success(const mqtt::token &token) override
    {
        const QString server = QString::fromStdString(token.get_connect_response().get_server_uri());
        emit m_session.posted([session = &m_session, server] { session->begin(server); });
    }

    void on_failure(const mqtt::token &token) override
    {
        const QString reason = s_reason(token, s_isSafe(m_session.m_settings));
        emit m_session.posted([session = &m_session, reason] { session->retry(reason); });
    }

private:
    Session &m_session;
};

// Hears in Paho's thread what became of a message; its context is its number.
class Session::DeliveryListener : public mqtt::iaction_listener
{
public:
    explicit DeliveryListener(Session &session) : m_session(session) {}

    void on_success(const mqtt::token &token) override { finish(token, {}); }

    void on_failure(const mqtt::token &token) override
    {
        // Without a reason of MQTT 5, it is the connection that failed: it is sent again on the next one.
        const mqtt::ReasonCode reason = token.get_reason_code();
        if (reason >= mqtt::ReasonCode::UNSPECIFIED_ERROR && reason != mqtt::ReasonCode::MQTTPP_V3_CODE) {
            finish(token, QString::fromStdString(mqtt::exception::reason_code_str(reason)));
        }
    }

private:
    void finish(const mqtt::token &token, const QString &refusal)
    {
        const auto number = reinterpret_cast<Spool::Number>(token.get_user_context());
        emit m_session.posted([session = &m_session, number, refusal] { session->finish(number, refusal); });
    }

    Session &m_session;
};

Session::Session(const Settings &settings, const QString &clientId, Spool *spool)
    : m_settings(settings),
      m_clientId(clientId),
      m_spool(spool),
      m_connectListener(std::make_unique<ConnectListener>(*this)),
      m_deliveryListener(std::make_unique<DeliveryListener>(*this))
{
    m_retry.setSingleShot(true);
    m_sendAgain.setSingleShot(true);
    qRegisterMetaType<Job>("Job");
    connect(
        this, &Session::posted, this, [](const Job &job) { job(); }, Qt::QueuedConnection);
    connect(&m_retry, &QTimer::timeout, this, &Session::connectNow);
    connect(&m_sendAgain, &QTimer::timeout, this, &Session::sendMore);
    makeClient();
}

Session::~Session()
{
    m_client.reset(); // and with it Paho's threads, before what they post to
}

void Session::makeClient()
{
    m_client.reset();
    m_onTheirWay.clear();
    m_bytesOnTheirWay = 0;
    m_sent = 0;
    m_sendTrouble.clear();
    mqtt::create_options options(m_settings.broker.version == 5 ? MQTTVERSION_5 : MQTTVERSION_3_1_1);
    if (m_spool) {
        options.set_max_buffered_messages(std::numeric_limits<int>::max()); // many values may be said at once
    }
    m_client = std::make_unique<mqtt::async_client>(s_uri(m_settings.broker.urls.first()),
                                                    m_clientId.toStdString(), options, nullptr);
    m_client->set_connection_lost_handler(
        [this](const std::string & /*cause*/) { emit posted([this] { renew("the connection was lost"); }); });
    m_client->set_disconnected_handler([this](const mqtt::properties & /*more*/, mqtt::ReasonCode reason) {
        const QString text = QString::fromStdString(mqtt::exception::reason_code_str(reason));
        emit posted([this, text] { renew("the broker ended the connection: " + text); });
    });
    m_client->set_message_callback([this](const mqtt::const_message_ptr &message) { take(message); });
}

void Session::setWill(const QByteArray &topic, const QByteArray &payload)
{
    m_willTopic = topic;
    m_willPayload = payload;
}

void Session::open()
{
    m_isOpen = true;
    connectNow();
}

void Session::close()
{
    m_isOpen = false;
    m_retry.stop();
    awaitAcknowledgements();
    if (!std::exchange(m_isConnected, false)) {
        return;
    }
    try {
        m_client->disconnect(0)->wait_for(closingTime);
    } catch (const mqtt::exception &exception) {
        qWarning("broker: the connection did not end as it should: %s", exception.what());
    }
    takeAcknowledgements();
}

// A proper end takes back the will, and what says the same may wait behind what is not acknowledged.
void Session::awaitAcknowledgements()
{
    const QDeadlineTimer deadline(closingTime);
    while (m_isConnected && m_spool && m_spool->count() > 0) {
        if (deadline.hasExpired()) {
            publishOnce(m_willTopic, m_willPayload, true);
            return;
        }
        QThread::msleep(closingLook);
        takeAcknowledgements();
    }
}

// Without the event loop, which may be about to end: nothing else is to happen meanwhile.
void Session::takeAcknowledgements()
{
    QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
}

mqtt::ssl_options Session::sslOptions() const
{
    mqtt::ssl_options options;
    const auto &broker = m_settings.broker;
    options.set_trust_store(
        (broker.ca.isEmpty() ? "/etc/ssl/certs/ca-certificates.crt" : broker.ca).toStdString());
    if (!broker.certificate.isEmpty()) {
        options.set_key_store(broker.certificate.toStdString());
        options.set_private_key(broker.key.toStdString());
    }
    options.set_enable_server_cert_auth(true);
    options.set_verify(true); // that the certificate is for the broker's name, too
    return options;
}

mqtt::connect_options Session::connectOptions() const
{
    const auto &broker = m_settings.broker;
    mqtt::connect_options options;
    if (broker.version == 5) {
        options.set_mqtt_version(MQTTVERSION_5);
        options.set_clean_start(true);
        mqtt::properties properties;
        properties.add({mqtt::property::MAXIMUM_PACKET_SIZE, m_largest + (1 << 17)});
        options.set_properties(properties);
    } else {
        options.set_mqtt_version(MQTTVERSION_3_1_1);
        options.set_clean_session(true);
    }
    auto servers = std::make_shared<mqtt::string_collection>();
    for (const QString &url : broker.urls) {
        servers->push_back(s_uri(url));
    }
    options.set_servers(servers);
    options.set_keep_alive_interval(broker.keepalive);
    options.set_connect_timeout(patience);
    options.set_max_inflight(onTheirWayMax);
    if (!broker.user.isEmpty()) {
        options.set_user_name(broker.user.toStdString());
        options.set_password(broker.password.toStdString());
    }
    if (!m_willTopic.isEmpty()) {
        options.set_will_message(
            mqtt::make_message(m_willTopic.toStdString(), m_willPayload.toStdString(), 1, true));
    }
    options.set_ssl(sslOptions());
    return options;
}

void Session::connectNow()
{
    try {
        m_client->connect(connectOptions(), nullptr, *m_connectListener);
    } catch (const mqtt::exception &exception) {
        retry(exception.what());
    }
}

// Says so once for each reason, however often it comes.
void Session::retry(const QString &reason)
{
    if (!m_isOpen || m_isConnected) {
        return;
    }
    m_pause = std::clamp(2 * m_pause, firstPause, longestPause);
    const int pause = m_pause - QRandomGenerator::global()->bounded(m_pause / 2);
    if (reason != m_trouble) {
        qWarning("broker: %s does not answer as it should: %s; trying again, at least every %d s",
                 qPrintable(m_settings.broker.urls.join(", ")), qPrintable(reason), longestPause / 1000);
        m_trouble = reason;
    }
    m_retry.start(pause);
}

void Session::begin(const QString &server)
{
    if (!m_isOpen) {
        return;
    }
    m_isConnected = true;
    m_since.start();
    m_trouble.clear();
    qInfo("broker: connected to %s as %s", qPrintable(server), qPrintable(m_clientId));
    sendMore();
    emit connected();
}

void Session::renew(const QString &reason)
{
    if (!m_isConnected) {
        return;
    }
    m_isConnected = false;
    if (m_since.hasExpired(settled)) {
        m_pause = 0; // a broker that ends each connection at once is asked more and more seldom
    }
    qWarning("broker: %s; trying again", qPrintable(reason));
    emit disconnected();
    makeClient(); // without what the former one had for messages whose acknowledgement will never come
    retry(reason);
}

bool Session::publish(const QByteArray &topic, const QByteArray &payload, bool isRetained)
{
    if (!m_spool) {
        return m_isConnected && send(topic, payload, 1, isRetained);
    }
    const Spool::Number last = isRetained ? m_spool->retained(topic) : 0;
    if (last <= m_sent || m_spool->message(last).payload != payload) {
        m_spool->append({topic, payload, isRetained});
        sendMore();
    }
    return true;
}

bool Session::publishOnce(const QByteArray &topic, const QByteArray &payload, bool isRetained)
{
    if (!m_isConnected) {
        return false;
    }
    const Spool::Number last = m_spool && isRetained ? m_spool->retained(topic) : 0;
    if (last > m_sent) {
        m_spool->remove(last);
    }
    return send(topic, payload, 0, isRetained);
}

bool Session::send(const QByteArray &topic, const QByteArray &payload, int qos, bool isRetained) noexcept
{
    try {
        m_client->publish(topic.toStdString(), payload.constData(), static_cast<size_t>(payload.size()), qos,
                          isRetained);
        return true;
    } catch (const mqtt::exception &exception) {
        s_endWithoutMemory(exception);
        qWarning("broker: cannot publish on %s: %s", topic.constData(), exception.what());
        return false;
    }
}

void Session::sendMore() noexcept
{
    while (m_isConnected && m_spool && isRoomOnTheWay() && !m_sendAgain.isActive()) {
        const Spool::Number number = m_spool->following(m_sent);
        if (number == 0 || !sendSpooled(number)) {
            return;
        }
        m_sent = number;
    }
}

// There always is for one message, however large.
bool Session::isRoomOnTheWay() const
{
    const qint64 bytesMax = m_settings.spool.bytes() / onTheirWayShare;
    return m_onTheirWay.empty() || (m_onTheirWay.size() < onTheirWayMax && m_bytesOnTheirWay < bytesMax);
}

// Whether it need not be offered again.
bool Session::sendSpooled(Spool::Number number)
{
    const SpooledMessage message = m_spool->message(number);
    if (message.topic.isEmpty()) {
        m_spool->remove(number);
        if (m_unreadable++ == 0) {
            // Whoever hears that may publish.
            emit posted([this] { emit unreadable(std::exchange(m_unreadable, 0)); });
        }
        return true;
    }
    auto *context =
        reinterpret_cast<void *>(number); // NOLINT(performance-no-int-to-ptr): it comes back as it is
    try {
        m_client->publish(mqtt::make_message(message.topic.toStdString(), message.payload.constData(),
                                             static_cast<size_t>(message.payload.size()), 1,
                                             message.isRetained),
                          context, *m_deliveryListener);
    } catch (const mqtt::exception &exception) {
        s_endWithoutMemory(exception);
        if (exception.get_return_code() != MQTTASYNC_DISCONNECTED) { // of which there will be word at once
            const QString trouble = exception.what();
            if (trouble != m_sendTrouble) {
                qWarning("broker: cannot publish on %s: %s; trying again", message.topic.constData(),
                         qPrintable(trouble));
                m_sendTrouble = trouble;
            }
            m_sendAgain.start(sendAgainPause);
        }
        return false;
    }
    m_onTheirWay.emplace(number, message.payload.size());
    m_bytesOnTheirWay += message.payload.size();
    return true;
}

void Session::finish(Spool::Number number, const QString &refusal) noexcept
{
    if (!refusal.isEmpty()) {
        emit refused(m_spool->message(number).topic, refusal);
    }
    const auto found = m_onTheirWay.find(number);
    if (found != m_onTheirWay.end()) {
        m_bytesOnTheirWay -= found->second;
        m_onTheirWay.erase(found);
    }
    m_spool->remove(number);
    sendMore();
}

void Session::subscribe(const QByteArray &filter)
{
    try {
        m_client->subscribe(filter.toStdString(), 0);
    } catch (const mqtt::exception &exception) {
        qWarning("broker: cannot subscribe to %s: %s", filter.constData(), exception.what());
    }
}

int Session::giveUp(qint64 bytes, const QByteArray &topic)
{
    return m_spool->giveUp(bytes, m_sent, topic);
}

void Session::take(const mqtt::const_message_ptr &message)
{
    const auto &payload = message->get_payload_ref();
    const bool isTooLarge = payload.size() > static_cast<size_t>(m_largest);
    const int size = isTooLarge ? 0 : static_cast<int>(payload.size());
    if (m_waiting >= waitingMax || m_waitingBytes + size > 2 * m_largest) {
        if (m_missed++ == 0) {
            emit posted([this] { emit missed(m_missed.exchange(0)); });
        }
        return;
    }
    ++m_waiting;
    m_waitingBytes += size;
    const Arrived arrival{QByteArray::fromStdString(message->get_topic()), QByteArray(payload.data(), size),
                          isTooLarge, message->is_retained(), message->is_duplicate()};
    emit posted([this, arrival] {
        --m_waiting;
        m_waitingBytes -= arrival.payload.size();
        emit arrived(arrival);
    });
}

} // namespace Gateway
