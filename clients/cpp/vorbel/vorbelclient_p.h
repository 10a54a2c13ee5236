// What is behind VorbelClient.
//
// Whatever comes is handled to its end before the application hears of it: its slots may call anything, close
// the client, or throw.
#pragma once

#include "vorbel/lastreadings_p.h"
#include "vorbel/link_p.h"
#include "vorbel/ownership_p.h"
#include "vorbel/vorbelclient.h"

#include <QElapsedTimer>
#include <QMap>
#include <QPointer>
#include <QQueue>
#include <QTimer>

#include <optional>

// Values that are to be sent in time or never.
struct VorbelOrder {
    quint64 number;
    QVariantMap values;
    std::shared_ptr<const Vorbel::Meanings> meanings; // those of the schema that it was meant for
    QElapsedTimer age;
    quint64 mark = 0; // the question that its next step waits for
    bool isSent = false;
};

// What goes out for values, or why nothing does.
struct VorbelOutput {
    QByteArray message;
    QVector<Vorbel::Problem> problems;
    QVector<Vorbel::Written> written;
    QString obstacle; // null if nothing is in the way

    Vorbel::WriteResult result() const;
};

class VorbelClientPrivate : public QObject
{
public:
    VorbelClientPrivate(VorbelClient *client, const QString &address);
    ~VorbelClientPrivate() override;

    // Life
    void open();
    void close();
    void changeAddress(const QString &to);
    void attempt();

    // What comes
    void takeHello(const QString &type, const QString &id);
    void takeMessage(const QByteArray &message);
    void takeAnswer(quint64 mark);
    void takeInterval();
    void takeEnd(const QString &reason);

    // The schema
    bool setSchema(const Vorbel::ParsedSchema &parsed, bool clear);
    void own(const QJsonObject &newSchema);
    void restoreSchema();
    void sendSchema();
    void tellSchema(VorbelClient::SchemaState state, const QString &reason);

    // What goes
    Vorbel::WriteResult write(const QVariantMap &values);
    Vorbel::WriteResult set(const QStringList &names, const QVariant &value);
    Vorbel::WriteResult deliver(const QVariantMap &values);
    quint64 confirm();
    QString obstacle() const;

    VorbelClient *const client;
    QString address;
    std::optional<QSslConfiguration> tls; // to ask Qt for its own takes 5 MB for OpenSSL
    int firstPause = 200;
    int longestPause = 10000;
    int patience = 10000;
    int interval = 1000;
    int silentAfter = 10000;
    bool isChecking = true;

    VorbelClient::State state = VorbelClient::Closed;
    QString trouble = QStringLiteral("the client is closed");
    QString deviceType;
    QString deviceId;
    QJsonObject schema;
    QVector<Vorbel::Problem> schemaProblems;
    QString schemaError;
    std::optional<Vorbel::Ownership> ownership; // of `schema`, if there is one
    QVariant latest;
    std::shared_ptr<const Vorbel::Meanings> meanings = std::make_shared<const Vorbel::Meanings>();

    Vorbel::Meant meant(const QStringList &names) const;

private:
    void enter(VorbelClient::State next);
    void settle();
    void dropLink();
    int nextPause();
    void keepLatest(const QVariant &values);
    void failAll(const QString &reason);
    void failOrder(const VorbelOrder &order, const QString &reason);
    VorbelOutput outputOf(const QVariantMap &values) const;
    void send(const VorbelOutput &output);
    QString sendOrder(VorbelOrder &order);
    void askForOrder();
    void stepOrder(quint64 mark);
    QString shownAddress() const;

    QPointer<Vorbel::Link> m_link;
    Vorbel::LastReadings m_formers;  // which fields of some bits are written into
    Vorbel::LastReadings m_selected; // of leaves whose values do not count in all messages
    QTimer m_retry{this};
    QTimer m_picture{this}; // runs from the first change of `latest` until it is told
    QElapsedTimer m_attempt;
    int m_pause = 0; // milliseconds; 0: the first is still to come
    quint64 m_schemaMark = 0;
    quint64 m_lastNumber = 0;
    QMap<quint64, quint64> m_unconfirmed; // by the question, the number that the application has
    QQueue<VorbelOrder> m_orders;         // the first one is on its way
};
