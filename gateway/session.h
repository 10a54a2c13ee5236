// One connection to a broker, which comes back by itself.
#pragma once

#include "gateway/settings.h"
#include "gateway/spool.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <mqtt/async_client.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>

namespace Gateway
{

// A message that came.
struct Arrived {
    QByteArray topic;
    QByteArray payload; // empty if it is too large
    bool isTooLarge = false;
    bool isRetained = false;
    bool isRepeated = false; // the broker says so
};

// A session of MQTT, which begins anew with each connection. With a spool, what is published waits in it for
// the broker's acknowledgement, however long that takes and whoever of both is restarted: it is sent in its
// order, and what was not acknowledged on one connection is sent again on the next, in the same order.
//
// It lives in one thread. Paho has threads of its own, which only post to it; of what comes, no more than 64
// messages and twice the largest payload wait, and of the others it is only said how many they were.
class Session : public QObject
{
    Q_OBJECT

public:
    using Job = std::function<void()>;

    // `spool`, if there is one, outlives it.
    Session(const Settings &settings, const QString &clientId, Spool *spool);
    ~Session() override;

    // What the broker publishes, retained, when the connection is lost.
    void setWill(const QByteArray &topic, const QByteArray &payload);

    // How large a payload may be that comes; 64 kB by default.
    void setLargest(int bytes) { m_largest = bytes; }

    // Begins to connect, and does so until close().
    void open();

    // Ends the connection. What was published has two seconds to be acknowledged; if there is more, the will
    // is published, as if the connection was lost.
    void close();

    // Gives the connection up, because of what is said in the log, and makes another one.
    void renew(const QString &reason);

    bool isConnected() const { return m_isConnected; }

    // Publishes with QoS 1: with a spool at any time, without one only while connected. What is retained, and
    // waits already as it is, does not wait twice. Whether it was taken.
    bool publish(const QByteArray &topic, const QByteArray &payload, bool isRetained);

    // Publishes with QoS 0, only while connected. What is retained takes the place of what waits for its
    // topic.
    bool publishOnce(const QByteArray &topic, const QByteArray &payload, bool isRetained);

    // Asks for messages on this connection, with QoS 0: the broker then sends none again, and none that it
    // may not send because of its size stands in the way of others.
    void subscribe(const QByteArray &filter);

    // Gives up what is in the spool and not on its way, the oldest first, until no more than so many bytes
    // are left. How many messages for `topic` there were among it.
    int giveUp(qint64 bytes, const QByteArray &topic);

signals:
    void connected();
    void disconnected();
    void arrived(const Gateway::Arrived &message);
    // So many more came than could wait.
    void missed(int count);
    // The broker takes a message that was published, but not for anybody, which only MQTT 5 says: it is lost.
    void refused(const QByteArray &topic, const QString &reason);
    // So is what was published when its file in the spool cannot be read any more: so many were.
    void unreadable(int count);
    // From Paho's threads to this object's own: what is to be done there.
    void posted(const Job &job);

private:
    class ConnectListener;
    class DeliveryListener;

    mqtt::connect_options connectOptions() const;
    mqtt::ssl_options sslOptions() const;
    void makeClient();
    void connectNow();
    void retry(const QString &reason);
    void begin(const QString &server);
    void take(const mqtt::const_message_ptr &message); // in Paho's thread
    bool send(const QByteArray &topic, const QByteArray &payload, int qos, bool isRetained) noexcept;
    // When memory runs out, the program ends, and the next one begins with what is spooled.
    void sendMore() noexcept;
    bool sendSpooled(Spool::Number number);
    void finish(Spool::Number number, const QString &refusal) noexcept;
    bool isRoomOnTheWay() const;
    void awaitAcknowledgements();
    void takeAcknowledgements();

    const Settings m_settings;
    const QString m_clientId;
    Spool *const m_spool;
    QByteArray m_willTopic;
    QByteArray m_willPayload;
    bool m_isOpen = false;
    bool m_isConnected = false;
    QString m_trouble;     // what was said last about it
    int m_pause = 0;       // ms
    QElapsedTimer m_since; // the last connection
    QTimer m_retry;
    QTimer m_sendAgain;
    std::map<Spool::Number, int> m_onTheirWay; // how many bytes each has
    int m_bytesOnTheirWay = 0;
    Spool::Number m_sent = 0; // the last one that was, on this connection
    QString m_sendTrouble;    // what was said last on this connection
    int m_unreadable = 0;     // that were not told yet
    std::atomic<int> m_largest{1 << 16};
    std::atomic<int> m_waiting{0};
    std::atomic<int> m_waitingBytes{0};
    std::atomic<int> m_missed{0};
    std::unique_ptr<ConnectListener> m_connectListener;
    std::unique_ptr<DeliveryListener> m_deliveryListener;
    std::unique_ptr<mqtt::async_client> m_client;
};

} // namespace Gateway

Q_DECLARE_METATYPE(Gateway::Arrived)
Q_DECLARE_METATYPE(Gateway::Session::Job)
