// Any bytes as the topic and the payload, behind the first zero byte, of a message that the gateway hears.
#include "gateway/audit.h"
#include "gateway/orders.h"
#include "gateway/topics.h"
#include "tests/fuzz/fuzzing.h"

#include <QJsonDocument>
#include <QJsonObject>

using Fuzzing::require;

namespace
{

constexpr qint64 now = 1'800'000'000'000;
constexpr int toldMax = 30'000; // bytes: four texts of a thousand characters, each as its escape at worst

void checkNames(const Gateway::Topics &topics, const Gateway::WriteTopic &write)
{
    for (const QString &name : write.names) {
        const QByteArray level = Gateway::levelOf(name);
        require(!level.contains('/') && !level.contains('+') && !level.contains('#'),
                "a name that is no one level");
        require(Gateway::nameOf(level) == name, "a name that does not come back");
    }
    const auto again = topics.writeOf(topics.set(write.user, write.names));
    require(again && again->names == write.names, "names that do not come back");
}

void checkOrder(const Gateway::ReadOrder &read)
{
    const Gateway::Order &order = read.order;
    if (read.error.isEmpty()) {
        require(order.value.isValid(), "an order without a value");
        Gateway::Orders orders(10'000);
        require(orders.judge(order, {now, true, false, 0}).verdict == Gateway::Orders::Refuse,
                "a retained order");
        require(orders.judge(order, {now, false, false, 10'001}).verdict == Gateway::Orders::Refuse,
                "an old order");
        const auto first = orders.judge(order, {now, false, false, 0}).verdict;
        const auto second = orders.judge(order, {now, false, false, 0}).verdict;
        require(first != Gateway::Orders::Obey || !order.time || second == Gateway::Orders::Ignore,
                "an order done twice");
    }
    const QByteArray told = Gateway::deedText({order.user, order.path(), order.value, {}, read.error}, now);
    require(QJsonDocument::fromJson(told).isObject(), "an audit that is no JSON");
    require(told.size() < toldMax, "an audit that is too long");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    Fuzzing::silenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray message = Fuzzing::bytes(data, size);
    const int end = message.indexOf('\0');
    const Gateway::Topics topics("vorbel", "7");
    const auto write = topics.writeOf("vorbel/7/set/" + message.left(end < 0 ? message.size() : end));
    require(write.has_value(), "a topic that is nobody's");
    checkNames(topics, *write);
    checkOrder(Gateway::readOrder(write->user, write->names, end < 0 ? QByteArray() : message.mid(end + 1)));
    return 0;
}
