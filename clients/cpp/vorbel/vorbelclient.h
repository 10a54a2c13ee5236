/// @file
/// The connection of a Qt application to a Vorbel daemon.
#pragma once

#include "vorbel/meaning.h"
#include "vorbel/problem.h"
#include "vorbel/writing.h"

#include <QByteArray>
#include <QDateTime>
#include <QJsonObject>
#include <QObject>
#include <QSslConfiguration>
#include <QString>
#include <QVariant>
#include <QVector>

#include <memory>

namespace Vorbel
{

/// One message of values.
struct Values {
    Q_GADGET
    /// Maps as the schema has them.
    Q_PROPERTY(QVariant nested MEMBER nested)
    /// The values by dotted path.
    Q_PROPERTY(QVariantMap flat READ flat)
    /// What those that count mean, by dotted path.
    Q_PROPERTY(QVariantMap meant READ meantMap)
    /// When it came.
    Q_PROPERTY(QDateTime time READ time)

public:
    /// Maps as the schema has them, with the values at its leaves, see Vorbel::Decoded.
    QVariant nested;

    /// When it came, in milliseconds since 1970 (UTC).
    qint64 arrival = 0;

    /// What readings mean by the client's schema; null if they mean nothing else than themselves.
    std::shared_ptr<const Meanings> meanings;

    /// The values by dotted path.
    QVariantMap flat() const;

    /// What those that count mean, by dotted path.
    QMap<QString, Meant> meant() const;

    /// The same for scripts.
    QVariantMap meantMap() const;

    /// When it came, in local time.
    QDateTime time() const;
};

/// What became of values that were to be written.
struct WriteResult {
    Q_GADGET
    /// Whether the values go out.
    Q_PROPERTY(bool isSent READ isSent)
    /// Why nothing was sent.
    Q_PROPERTY(QString error MEMBER error)
    /// What signals refer to.
    Q_PROPERTY(quint64 number MEMBER number)
    /// What is wrong with the values.
    Q_PROPERTY(QVariantList problems READ problemList)
    /// Which numbers go out.
    Q_PROPERTY(QVariantList written READ writtenList)

public:
    /// Why nothing was sent, for people; empty if something was.
    QString error;

    /// What is wrong with the values; empty if nothing was sent for another reason.
    QVector<Problem> problems;

    /// Which numbers go out; empty if nothing is known about the values' leaves.
    QVector<Written> written;

    /// With VorbelClient::deliver(), what its signals refer to; otherwise 0.
    quint64 number = 0;

    /// Whether the values went out, or with VorbelClient::deliver() will.
    bool isSent() const { return error.isEmpty(); }

    /// The problems, for scripts.
    QVariantList problemList() const;

    /// The numbers, for scripts.
    QVariantList writtenList() const;
};

} // namespace Vorbel

Q_DECLARE_METATYPE(Vorbel::Values)
Q_DECLARE_METATYPE(Vorbel::WriteResult)

class VorbelClientPrivate;

/// One connection to a daemon, which comes back by itself, with growing pauses, until it is closed.
///
/// The daemon has one schema for all clients. Who sent the last one owns it: the owner sends it again to a
/// daemon that was restarted; whose schema was replaced by another client is told so, and does not send it
/// again by itself.
///
/// Nothing is kept: values are signalled as they come, see Vorbel::ValueQueue for a reader that falls behind,
/// and what is written goes out now or never. An exception that a slot throws at a signal that comes by
/// itself ends there, with a critical line in the log.
///
/// It lives in one thread, with an event loop. A slot that wants to delete it uses deleteLater().
class VorbelClient : public QObject
{
    Q_OBJECT
    /// Where the daemon is: a host, host:port, or a ws:// or wss:// URL, which may hold a user and a
    /// password.
    Q_PROPERTY(QString address READ address WRITE setAddress NOTIFY addressChanged)
    /// Whether there is to be a connection.
    Q_PROPERTY(bool active READ isActive WRITE setActive NOTIFY activeChanged)
    /// How far the connection is.
    Q_PROPERTY(State state READ state NOTIFY stateChanged)
    /// Whether there is one over which values can be written.
    Q_PROPERTY(bool connected READ isConnected NOTIFY stateChanged)
    /// Why there was no connection last, for people.
    Q_PROPERTY(QString trouble READ trouble NOTIFY stateChanged)
    /// What the daemon calls itself.
    Q_PROPERTY(QString deviceType READ deviceType NOTIFY helloReceived)
    /// Which one it is; empty if it does not say.
    Q_PROPERTY(QString deviceId READ deviceId NOTIFY helloReceived)
    /// The schema that this client sends.
    Q_PROPERTY(QJsonObject schema READ schema WRITE setSchema NOTIFY schemaSet)
    /// Why the schema that was set last is not sent, for people; empty if it is.
    Q_PROPERTY(QString schemaError READ schemaError NOTIFY schemaSet)
    /// Whether the daemon's schema is this client's, as far as it can be known.
    Q_PROPERTY(bool ownsSchema READ ownsSchema NOTIFY ownsSchemaChanged)
    /// Whether schemas and values are checked before they are sent.
    Q_PROPERTY(bool checking READ isChecking WRITE setChecking)
    /// The last value of each leaf, nested.
    Q_PROPERTY(QVariant latest READ latest NOTIFY latestChanged)

public:
    /// How far the connection is.
    enum State {
        Closed,     ///< There is none, and none is wanted.
        Connecting, ///< An attempt is being made; it ends with the daemon's hello.
        Listening,  ///< The daemon is there, but whether it still has the schema is not known yet.
        Connected,  ///< Values can be written.
        Waiting,    ///< There is none; the next attempt comes after a pause.
    };
    Q_ENUM(State)

    /// What becomes of the schema that this client sent.
    enum SchemaState {
        Kept,     ///< After a reconnection: not sent again, because its values come.
        Resent,   ///< After a reconnection: sent again, because nothing came.
        Replaced, ///< By another client; it is not sent again by itself.
        Silent,   ///< Its values do not come any more: another client may have replaced or cleared it.
        Heard,    ///< Its values come again after a silence.
    };
    Q_ENUM(SchemaState)

    /// A client that is closed, of the daemon on this machine.
    explicit VorbelClient(QObject *parent = nullptr);

    /// Of a daemon somewhere else; see the property `address`.
    explicit VorbelClient(const QString &address, QObject *parent = nullptr);

    /// The same as close().
    ~VorbelClient() override;

    /// Where the daemon is.
    QString address() const;

    /// Where the daemon is, from now on. What is no address is kept, too, and told by `trouble` when it is
    /// used. An open client goes over to it at once.
    void setAddress(const QString &address);

    /// The configuration of wss connections to come, such as the certificates to trust; by default Qt's.
    void setSslConfiguration(const QSslConfiguration &configuration);

    /// The pauses between attempts in milliseconds, of which each is twice the one before and cut by chance
    /// to as little as half: the first one, 200 by default, and the longest one, 10000.
    void setPauses(int first, int longest);

    /// How many milliseconds attempts to come may take until the hello; 10000 by default.
    void setPatience(int milliseconds);

    /// How often the daemon is asked for a sign of life, in milliseconds, on connections to come; 1000 by
    /// default. While two questions in a row have no answer nothing is written, and after five the connection
    /// is lost. After a reconnection, an owner listens as long for values of its schema.
    void setInterval(int milliseconds);

    /// After how many milliseconds without any of the schema's values, which came regularly before, another
    /// client may have replaced it; 10000 by default, 0 for never. Counts for schemas that are set later.
    void setSilentAfter(int milliseconds);

    /// Whether schemas and values are checked before they are sent.
    bool isChecking() const;

    /// Whether they are from now on. By default they are.
    void setChecking(bool checking);

    /// Whether there is to be a connection.
    bool isActive() const;

    /// The same as open() or close().
    void setActive(bool active);

    /// How far the connection is.
    State state() const;

    /// Whether there is one over which values can be written.
    bool isConnected() const { return state() == Connected; }

    /// Why there was no connection last, for people.
    QString trouble() const;

    /// What the daemon calls itself; empty before the first hello.
    QString deviceType() const;

    /// Which one it is; empty if it does not say.
    QString deviceId() const;

    /// The schema that this client sends; empty if it sends none.
    QJsonObject schema() const;

    /// Replaces the daemon's schema for all its clients, now or as soon as there is a connection, which makes
    /// it this client's. False, and everything stays as it was, if it has errors; schemaProblems() has them
    /// then.
    bool setSchema(const QJsonObject &schema);

    /// The same with a file of JSON, in which more can be wrong.
    Q_INVOKABLE bool loadSchema(const QString &fileName);

    /// Clears the daemon's schema for all its clients, now or as soon as there is a connection: no values
    /// come any more.
    Q_INVOKABLE bool clearSchema();

    /// Everything wrong or doubtful in the schema that was set last.
    QVector<Vorbel::Problem> schemaProblems() const;

    /// Why the schema that was set last is not sent, for people; empty if it is.
    QString schemaError() const;

    /// Whether the daemon's schema is this client's, as far as it can be known.
    bool ownsSchema() const;

    /// The last value of each leaf, nested; invalid before the first.
    QVariant latest() const;

    /// The last value at a dotted path; invalid if none has come.
    Q_INVOKABLE QVariant value(const QString &path) const;

    /// What the last value that counted at a dotted path means.
    Q_INVOKABLE Vorbel::Meant meant(const QString &path) const;

    /// What the members of the leaf at a dotted path say; nothing, if the schema has none there.
    Q_INVOKABLE Vorbel::Members members(const QString &path) const;

    /// What readings mean by the schema.
    std::shared_ptr<const Vorbel::Meanings> meanings() const;

    /// A value as scripts can read it: the elements of a typed array as a list, anything else as it is.
    Q_INVOKABLE QVariant readable(const QVariant &value) const;

    /// Writes nested values to the bus.
    ///
    /// With a schema they are checked first: nothing is sent of what the daemon would only log or ignore.
    /// Values and labels become the readings that mean them, see docs/protocol.md; fields of some bits go
    /// into the last reading that counted, which is the one that was written until another comes. Scaled ones
    /// are sent so that the daemon, which multiplies in single precision and cuts off, writes the nearest raw
    /// number. They go out now or never: without a connection, and while the daemon does not
    /// answer, nothing is sent. Nothing comes back when they were written; confirm() tells when the daemon
    /// has handled them.
    Q_INVOKABLE Vorbel::WriteResult write(const QVariantMap &values);

    /// Writes one value by its dotted path, and with it what its "when" asks for.
    Q_INVOKABLE Vorbel::WriteResult set(const QString &path, const QVariant &value);

    /// Writes as write() does, but only after an answer of the daemon that came just now; delivered() or
    /// undelivered() follows, with the result's number. One goes out after the other; fields of some bits go
    /// into the last reading that counted then.
    Q_INVOKABLE Vorbel::WriteResult deliver(const QVariantMap &values);

    /// Asks whether the daemon has handled everything that was sent before; confirmed() or unconfirmed()
    /// follows, with the number that is returned. 0, and nothing follows, without a connection.
    Q_INVOKABLE quint64 confirm();

    /// Connects, and comes back until close().
    Q_INVOKABLE void open();

    /// Ends the connection. For a second more, if the application runs as long, what was sent before is
    /// handed over.
    Q_INVOKABLE void close();

signals:
    /// There is another address.
    void addressChanged();
    /// open() or close() was called.
    void activeChanged();
    /// How far the connection is has changed.
    void stateChanged();
    /// The daemon greets: when it is connected to, and again whenever a client connects or it opens its
    /// adapter.
    void helloReceived();
    /// The connection was lost or could not be made. The next attempt comes in some milliseconds.
    void disconnected(const QString &reason, int retryIn);
    /// setSchema(), loadSchema() or clearSchema() was called; see schemaError().
    void schemaSet();
    /// What became of the schema, and why, for people.
    void schemaChanged(VorbelClient::SchemaState state, const QString &reason);
    /// Whether the daemon's schema is this client's has changed.
    void ownsSchemaChanged();
    /// A message of values has come.
    void valuesReceived(const Vorbel::Values &values);
    /// The last values have changed; not for each message, but as often as pictures are drawn.
    void latestChanged();
    /// A message that is no complete value has come. The next one may be well again.
    void undecodable(const QByteArray &message, const QString &reason);
    /// The daemon has handled everything that was sent before confirm().
    void confirmed(quint64 number);
    /// The connection ended before: nothing says whether it has.
    void unconfirmed(quint64 number, const QString &reason);
    /// The daemon has handled what deliver() was given.
    void delivered(quint64 number);
    /// It was not sent, or, if it was, nothing says whether the daemon has handled it.
    void undelivered(quint64 number, bool wasSent, const QString &reason);

private:
    const std::unique_ptr<VorbelClientPrivate> m_private;
};
