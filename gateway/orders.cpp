#include "gateway/orders.h"

#include "gateway/plainjson.h"
#include "vorbel/paths.h"

#include <cmath>

namespace Gateway
{

namespace
{

constexpr int knownMax = 1000;

bool s_isValue(const QVariant &value)
{
    return value.type() == QVariant::Double || value.type() == QVariant::Bool ||
           value.type() == QVariant::String || value.type() == QVariant::LongLong ||
           value.type() == QVariant::Int;
}

std::optional<qint64> s_time(const QVariant &value)
{
    constexpr double largest = 9007199254740992; // to which numbers are exact
    bool isNumber = value.type() == QVariant::Double || value.type() == QVariant::LongLong;
    const double time = value.toDouble();
    isNumber = isNumber && time >= 0 && time <= largest && time == std::floor(time);
    return isNumber ? std::optional(static_cast<qint64>(time)) : std::nullopt;
}

// Takes value and time out of the object that has them; an error in words.
QString s_takeTimed(Order &order, const QVariantMap &object)
{
    for (const QString &name : object.keys()) {
        if (name != "value" && name != "time") {
            return "an object has \"value\" and \"time\", and nothing else";
        }
    }
    order.value = object.value("value");
    if (object.contains("time")) {
        order.time = s_time(object.value("time"));
        if (!order.time) {
            return "\"time\" is not in milliseconds since 1970";
        }
    }
    return {};
}

} // namespace

QString Order::path() const
{
    return Vorbel::joinPath(names);
}

ReadOrder readOrder(const QString &user, const QStringList &names, const QByteArray &payload)
{
    ReadOrder read{{user, names, {}, {}}, {}};
    const ReadJson json = readPlainJson(payload);
    read.error = json.error;
    if (!read.error.isEmpty()) {
        return read;
    }
    if (json.value.type() == QVariant::Map) {
        read.error = s_takeTimed(read.order, json.value.toMap());
    } else {
        read.order.value = json.value;
    }
    if (read.error.isEmpty() && !s_isValue(read.order.value)) {
        read.order.value.clear();
        read.error = "neither a number nor true, false or a text";
    }
    return read;
}

Orders::Orders(qint64 maxAge) : m_maxAge(maxAge) {}

Orders::Judged Orders::judge(const Order &order, const Way &way)
{
    if (const QString reason = staleness(order, way); !reason.isEmpty()) {
        return {Refuse, reason};
    }
    return {isKnown(order, way.now) ? Ignore : Obey, {}};
}

QString Orders::staleness(const Order &order, const Way &way) const
{
    const QString seconds = QString::number(static_cast<double>(m_maxAge) / 1000);
    if (way.isRetained) {
        return "retained: what the broker keeps is never obeyed";
    }
    if (!way.oldest) {
        return "it is not known how long it waited: the gateway has not heard its own pulse yet";
    }
    if (*way.oldest > m_maxAge) {
        return "it may have waited for more than " + seconds + " s on its way to the gateway";
    }
    if (!order.time) {
        return way.isRepeated ? "sent again by the broker, without a time: it may be old" : QString();
    }
    if (*order.time < way.now - m_maxAge) {
        return "older than " + seconds + " s";
    }
    return *order.time > way.now + m_maxAge ? "meant for more than " + seconds + " s from now" : QString();
}

// Only what has a time can be told from the same order given twice.
bool Orders::isKnown(const Order &order, qint64 now)
{
    if (!order.time) {
        return false;
    }
    while (!m_inOrder.isEmpty() && (m_known.value(m_inOrder.head()) < now || m_inOrder.size() >= knownMax)) {
        m_known.remove(m_inOrder.dequeue());
    }
    const QVariantList identity{order.user, order.path(), order.value, *order.time};
    const QByteArray key = plainJson(identity);
    if (m_known.contains(key)) {
        return true;
    }
    m_known.insert(key, now + 2 * m_maxAge); // as long as its time may be ahead and then count
    m_inOrder.enqueue(key);
    return false;
}

} // namespace Gateway
