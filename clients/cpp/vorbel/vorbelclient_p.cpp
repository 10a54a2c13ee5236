#include "vorbel/vorbelclient_p.h"

#include "vorbel/address.h"
#include "vorbel/check.h"
#include "vorbel/contained_p.h"
#include "vorbel/paths.h"
#include "vorbel/plain_p.h"
#include "vorbel/wire.h"

#include <QRandomGenerator>

using namespace Vorbel;

namespace
{

constexpr int pictureTime = 16; // milliseconds, of sixty pictures a second

// Puts values over those that were there before, leaf by leaf.
void s_merge(QVariant &into, const QVariant &values)
{
    if (!isMap(into) || !isMap(values)) {
        into = values;
        return;
    }
    auto &members = *static_cast<QVariantMap *>(into.data());
    const auto &news = *static_cast<const QVariantMap *>(values.constData());
    for (auto member = news.cbegin(); member != news.cend(); ++member) {
        s_merge(members[member.key()], member.value());
    }
}

} // namespace

VorbelClientPrivate::VorbelClientPrivate(VorbelClient *owner, const QString &where)
    : QObject(owner), client(owner), address(where)
{
    m_retry.setSingleShot(true);
    m_picture.setSingleShot(true);
    m_picture.setInterval(pictureTime);
    connect(&m_retry, &QTimer::timeout, this, contained([this] { attempt(); }));
    connect(&m_picture, &QTimer::timeout, client, contained([this] { emit client->latestChanged(); }));
}

VorbelClientPrivate::~VorbelClientPrivate()
{
    dropLink();
}

// Life

void VorbelClientPrivate::open()
{
    if (state != VorbelClient::Closed) {
        return;
    }
    m_pause = 0;
    trouble = QStringLiteral("no answer yet");
    attempt();
    emit client->activeChanged();
}

void VorbelClientPrivate::close()
{
    if (state == VorbelClient::Closed) {
        return;
    }
    m_retry.stop();
    dropLink();
    state = VorbelClient::Closed;
    trouble = QStringLiteral("the client is closed");
    failAll(trouble);
    emit client->stateChanged();
    emit client->activeChanged();
}

void VorbelClientPrivate::changeAddress(const QString &to)
{
    address = to;
    dropLink();
    if (ownership) { // another daemon has not been sent anything
        own(schema);
    }
    if (state != VorbelClient::Closed) {
        m_retry.stop();
        m_pause = 0;
        failAll(QStringLiteral("the address was changed"));
        attempt();
    }
    emit client->addressChanged();
}

void VorbelClientPrivate::attempt()
{
    m_attempt.start();
    const QUrl url = urlOf(address);
    if (!url.isValid()) {
        const QString withoutLogin = address.section(QLatin1Char('@'), -1);
        takeEnd(QStringLiteral("\"%1\" is no address of a daemon").arg(withoutLogin));
        return;
    }
    enter(VorbelClient::Connecting);
    if (state != VorbelClient::Connecting) {
        return; // whoever heard of it has closed the client
    }
    m_link = new Link(url, tls, interval, patience, this);
    connect(m_link, &Link::greeted, this, &VorbelClientPrivate::takeHello);
    connect(m_link, &Link::received, this, &VorbelClientPrivate::takeMessage);
    connect(m_link, &Link::answered, this, &VorbelClientPrivate::takeAnswer);
    connect(m_link, &Link::intervalPassed, this, &VorbelClientPrivate::takeInterval);
    connect(m_link, &Link::ended, this, &VorbelClientPrivate::takeEnd);
    m_link->start();
}

void VorbelClientPrivate::enter(VorbelClient::State next)
{
    if (state != next) {
        state = next;
        emit client->stateChanged();
    }
}

// Ends a connection that is still good.
void VorbelClientPrivate::dropLink()
{
    if (m_link) {
        m_link->disconnect(this);
        m_link->leave();
        m_link.clear();
    }
    m_formers.forget(); // nobody knows what they are meanwhile
}

// Clients that lost one daemon together should not come back together.
int VorbelClientPrivate::nextPause()
{
    const bool isFirst = m_pause == 0 || m_attempt.elapsed() > longestPause;
    m_pause = isFirst ? firstPause : qMin(2 * m_pause, longestPause);
    return m_pause / 2 + QRandomGenerator::global()->bounded(m_pause / 2 + 1);
}

// What comes

void VorbelClientPrivate::takeHello(const QString &type, const QString &id)
{
    deviceType = type;
    deviceId = id;
    if (state == VorbelClient::Connecting) {
        restoreSchema();
        settle();
    }
    emit client->helloReceived();
}

// Whether values can be written depends on whether the daemon has the schema that they are for.
void VorbelClientPrivate::settle()
{
    if (m_link && state != VorbelClient::Closed && state != VorbelClient::Waiting) {
        enter(ownership && ownership->isListening() ? VorbelClient::Listening : VorbelClient::Connected);
    }
}

void VorbelClientPrivate::takeMessage(const QByteArray &message)
{
    const Decoded decoded = decode(message);
    if (!decoded.isDecoded()) {
        emit client->undecodable(message, decoded.error);
        return;
    }
    keepLatest(decoded.value);
    if (ownership) {
        ownership->heard(decoded.value);
        settle();
    }
    const bool isOwn = ownership && ownership->isConfirmed() && ownership->isOwned();
    if (isOwn) { // others' readings mean something else
        m_formers.heard(decoded.value);
    }
    emit client->valuesReceived({decoded.value, QDateTime::currentMSecsSinceEpoch(), meanings});
}

void VorbelClientPrivate::keepLatest(const QVariant &values)
{
    s_merge(latest, values);
    m_selected.heard(values);
    if (!m_picture.isActive()) {
        m_picture.start();
    }
}

void VorbelClientPrivate::takeAnswer(quint64 mark)
{
    if (ownership && ownership->isSent() && m_schemaMark != 0 && mark >= m_schemaMark) {
        m_schemaMark = 0;
        ownership->confirm();
    }
    stepOrder(mark);
    while (!m_unconfirmed.isEmpty() && m_unconfirmed.firstKey() <= mark) {
        const quint64 number = m_unconfirmed.take(m_unconfirmed.firstKey());
        emit client->confirmed(number);
    }
}

void VorbelClientPrivate::takeInterval()
{
    if (!ownership) {
        return;
    }
    if (!ownership->isListening()) {
        ownership->tick();
        return;
    }
    sendSchema();
    settle();
    tellSchema(VorbelClient::Resent,
               QStringLiteral("none of its values came, and a restarted daemon has none"));
}

void VorbelClientPrivate::takeEnd(const QString &reason)
{
    if (m_link) {
        m_link->deleteLater();
        m_link.clear();
    }
    m_formers.forget();
    trouble = reason;
    const int pause = nextPause();
    m_retry.start(pause);
    state = VorbelClient::Waiting;
    failAll(reason);
    emit client->stateChanged();
    emit client->disconnected(reason, pause);
}

void VorbelClientPrivate::failAll(const QString &reason)
{
    m_schemaMark = 0;
    const auto unconfirmed = std::exchange(m_unconfirmed, {});
    const auto orders = std::exchange(m_orders, {});
    for (const quint64 number : unconfirmed) {
        emit client->unconfirmed(number, reason);
    }
    for (const VorbelOrder &order : orders) {
        failOrder(order, reason);
    }
}

// The schema

bool VorbelClientPrivate::setSchema(const ParsedSchema &parsed, bool clear)
{
    schemaProblems = parsed.problems;
    if (parsed.isReadable() && isChecking) {
        schemaProblems += check(parsed.schema, clear);
    }
    const int size = schemaText(parsed.schema).toUtf8().size();
    schemaError = !parsed.isReadable() || isChecking ? errorText(schemaProblems) : QString();
    if (schemaError.isEmpty() && size > sentBytesMax) {
        schemaError =
            QStringLiteral("has %1 bytes: the daemon closes the connection at more than 4 MiB").arg(size);
    }
    const bool isTaken = schemaError.isEmpty();
    if (isTaken) {
        own(parsed.schema);
    }
    emit client->schemaSet();
    if (isTaken) {
        emit client->ownsSchemaChanged();
    }
    return isTaken;
}

// From now on this client sends this schema.
void VorbelClientPrivate::own(const QJsonObject &newSchema)
{
    schema = newSchema;
    latest = QVariant();
    meanings = std::make_shared<const Meanings>(schema);
    m_formers = LastReadings(meanings, [](const Leaf &leaf) { return leaf.isPart() && !leaf.isReadOnly(); });
    m_selected = LastReadings(meanings, [](const Leaf &leaf) { return leaf.members.when.has_value(); });
    const int ticks = silentAfter > 0 ? (silentAfter + interval - 1) / interval : 0;
    ownership.emplace(
        schema, ticks, interval / 1000.0,
        [this](VorbelClient::SchemaState news, const QString &reason) { tellSchema(news, reason); });
    if (m_link && state != VorbelClient::Connecting) {
        sendSchema();
        settle();
    }
}

// What the daemon is known to have had, it may have still, or another client's that was sent later.
void VorbelClientPrivate::restoreSchema()
{
    if (ownership && ownership->isConfirmed()) {
        ownership->resume();
    } else if (ownership) {
        sendSchema();
    }
}

void VorbelClientPrivate::sendSchema()
{
    ownership->begin();
    m_link->sendText(schemaText(schema));
    m_schemaMark = m_link->ask();
}

void VorbelClientPrivate::tellSchema(VorbelClient::SchemaState news, const QString &reason)
{
    if (news == VorbelClient::Replaced) {
        m_formers.forget();
    }
    settle();
    emit client->schemaChanged(news, reason);
    if (news == VorbelClient::Replaced || news == VorbelClient::Silent || news == VorbelClient::Heard) {
        emit client->ownsSchemaChanged();
    }
}

// What readings mean

Meant VorbelClientPrivate::meant(const QStringList &names) const
{
    const QString path = joinPath(names);
    return meanings->of(path, m_selected.has(path) ? m_selected.at(path) : valueAt(latest, names));
}

// What goes

// Why nothing is to be sent now; null if something is.
QString VorbelClientPrivate::obstacle() const
{
    if (!m_link || state == VorbelClient::Connecting) {
        return QStringLiteral("there is no connection to %1: %2").arg(shownAddress(), trouble);
    }
    if (!m_link->isOpen()) {
        return QStringLiteral("%1 is ending the connection").arg(shownAddress());
    }
    if (m_link->isDoubtful()) {
        return QStringLiteral("%1 has not answered for %2 s")
            .arg(shownAddress())
            .arg(doubtedAfter * interval / 1000.0);
    }
    if (state == VorbelClient::Listening) {
        return QStringLiteral("%1 is back, but whether it has the schema is not known yet")
            .arg(shownAddress());
    }
    if (m_link->waiting() > sentBytesMax) {
        return QStringLiteral("%1 does not take what was sent before").arg(shownAddress());
    }
    return QString();
}

VorbelOutput VorbelClientPrivate::outputOf(const QVariantMap &values) const
{
    Message checked;
    checked.values = values;
    if (isChecking && ownership) {
        checked = prepare(schema, values, [this](const QString &path) { return m_formers.at(path); });
    }
    const Encoded encoded = encode(checked.values);
    const QString fault = checked.isRefused() ? errorText(checked.problems) : encoded.error;
    return {encoded.message, checked.problems, checked.written, fault.isEmpty() ? obstacle() : fault};
}

WriteResult VorbelOutput::result() const
{
    WriteResult result;
    result.problems = problems;
    if (obstacle.isEmpty()) {
        result.written = written;
    } else {
        result.error = QStringLiteral("Not written: ") + obstacle;
    }
    return result;
}

void VorbelClientPrivate::send(const VorbelOutput &output)
{
    m_link->sendBytes(output.message);
    m_formers.wrote(output.written);
}

WriteResult VorbelClientPrivate::write(const QVariantMap &values)
{
    const VorbelOutput output = outputOf(values);
    if (output.obstacle.isEmpty()) {
        send(output);
    }
    return output.result();
}

WriteResult VorbelClientPrivate::set(const QStringList &names, const QVariant &value)
{
    return write(isChecking ? withSelectors(*meanings, names, value) : nest(names, value).toMap());
}

WriteResult VorbelClientPrivate::deliver(const QVariantMap &values)
{
    WriteResult result = outputOf(values).result();
    if (!result.isSent()) {
        return result;
    }
    VorbelOrder order;
    order.values = values;
    order.meanings = meanings;
    result.number = order.number = ++m_lastNumber;
    order.age.start();
    m_orders.enqueue(order);
    if (m_orders.size() == 1) {
        askForOrder();
    }
    return result;
}

void VorbelClientPrivate::askForOrder()
{
    m_orders.head().mark = m_link->ask();
}

// The first order goes out at the answer behind it that came last, and is done at the one behind itself.
void VorbelClientPrivate::stepOrder(quint64 mark)
{
    if (m_orders.isEmpty() || mark < m_orders.head().mark) {
        return;
    }
    const bool isDone = m_orders.head().isSent;
    const QString obstacle = isDone ? QString() : sendOrder(m_orders.head());
    if (!isDone && obstacle.isEmpty()) {
        askForOrder();
        return;
    }
    const VorbelOrder order = m_orders.dequeue();
    if (!m_orders.isEmpty()) {
        askForOrder();
    }
    if (isDone) {
        emit client->delivered(order.number);
    } else {
        failOrder(order, obstacle);
    }
}

// Returns why it is not sent, if so. What it writes is known only now: readings have come meanwhile.
QString VorbelClientPrivate::sendOrder(VorbelOrder &order)
{
    if (order.age.hasExpired(qint64(lostAfter) * interval)) {
        return QStringLiteral("no answer in time");
    }
    if (order.meanings != meanings) {
        return QStringLiteral("the schema is another by now");
    }
    const VorbelOutput output = outputOf(order.values);
    if (output.obstacle.isEmpty()) {
        send(output);
        order.isSent = true;
    }
    return output.obstacle;
}

void VorbelClientPrivate::failOrder(const VorbelOrder &order, const QString &reason)
{
    emit client->undelivered(order.number, order.isSent,
                             order.isSent
                                 ? QStringLiteral("Sent, but nothing says whether %1 has handled it: %2")
                                       .arg(shownAddress(), reason)
                                 : QStringLiteral("Not written: ") + reason);
}

quint64 VorbelClientPrivate::confirm()
{
    if (!m_link || state == VorbelClient::Connecting) {
        return 0;
    }
    const quint64 number = ++m_lastNumber;
    m_unconfirmed.insert(m_link->ask(), number);
    return number;
}

QString VorbelClientPrivate::shownAddress() const
{
    return Vorbel::shownAddress(urlOf(address));
}
