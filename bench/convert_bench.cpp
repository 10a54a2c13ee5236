// What schema conversion costs: frames to values, values to frames, loading.
//
// Inbound cases do what the service does with a frame up to the packing of the value map: insert, and take in
// the signal's handler. Frames visit all endpoints of their schema in a random order.
#include "bench/suite.h"
#include "schema/debuglog.h"
#include "schema/schemaconverter.h"

#include <QJsonObject>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace
{

QJsonObject s_leaf(const VEKEndpoint &endpoint, const QString &format, int skip, const QJsonObject &more)
{
    QJsonObject leaf = more;
    leaf.insert(QStringLiteral("@mac"), endpoint.mac);
    leaf.insert(QStringLiteral("@cmd"), endpoint.cmd);
    leaf.insert(QStringLiteral("@format"), format);
    leaf.insert(QStringLiteral("@skip"), skip);
    return leaf;
}

VEKEndpoint s_endpoint(int index)
{
    return VEKEndpoint(static_cast<quint16>(index % 64), static_cast<quint16>(index / 64 % 32), false);
}

// `count` endpoints with one leaf each.
QJsonDocument s_schema(int count, const QString &format, const QJsonObject &more)
{
    QJsonObject root;
    for (int i = 0; i < count; ++i) {
        const QJsonObject leaf = s_leaf(s_endpoint(i), format, 2, more);
        root.insert(QStringLiteral("node%1").arg(i), QJsonObject{{QStringLiteral("value"), leaf}});
    }
    return QJsonDocument(root);
}

QString s_leafName(int index)
{
    return QStringLiteral("leaf%1").arg(index, 3, 10, QLatin1Char('0'));
}

// `count` leaves of four options in one branch, three to an endpoint.
QJsonDocument s_branch(int count)
{
    QJsonObject leaves;
    for (int i = 0; i < count; ++i) {
        leaves.insert(s_leafName(i), s_leaf(s_endpoint(i / 3), QStringLiteral("s"), i % 3 * 2, {}));
    }
    return QJsonDocument(QJsonObject{{QStringLiteral("motor"), leaves}});
}

QVariantMap s_branchValue(int count)
{
    QVariantMap leaves;
    for (int i = 0; i < count; ++i) {
        leaves.insert(s_leafName(i), 1000 + i);
    }
    return {{QStringLiteral("motor"), leaves}};
}

// A converter whose values are taken as soon as they are announced.
class Consumer
{
public:
    explicit Consumer(const QJsonDocument &schema)
    {
        converter.loadSchema(schema);
        QObject::connect(&converter, &SchemaConverter::variantToSend,
                         [this] { benchmark::DoNotOptimize(converter.takeVariantToSend(false)); });
    }

    SchemaConverter converter;
};

std::vector<VEKEndpoint> s_randomOrder(int count)
{
    std::vector<VEKEndpoint> order;
    for (int i = 0; i < count; ++i) {
        order.push_back(s_endpoint(i));
    }
    std::shuffle(order.begin(), order.end(), std::mt19937(1)); // NOLINT: the same order every time
    return order;
}

// Frames for all of `count` endpoints in turn.
void s_inbound(benchmark::State &state, int count, const QJsonObject &options)
{
    Consumer consumer(s_schema(count, QStringLiteral("s"), options));
    const std::vector<VEKEndpoint> order = s_randomOrder(count);
    const QByteArray payloads[] = {QByteArray::fromHex("0102030405060708"),
                                   QByteArray::fromHex("1112131415161718")};
    std::size_t next = 0;
    std::size_t round = 0;
    for (auto _ : state) {
        consumer.converter.insertFrame(order[next], payloads[round % 2]);
        if (++next == order.size()) {
            next = 0;
            ++round;
        }
    }
}

// One frame for one of 50 endpoints, again and again.
void s_repeat(benchmark::State &state, int endpoint, const QJsonObject &options)
{
    Consumer consumer(s_schema(50, QStringLiteral("s"), options));
    const QByteArray payload = QByteArray::fromHex("0102030405060708");
    for (auto _ : state) {
        consumer.converter.insertFrame(s_endpoint(endpoint), payload);
    }
}

void s_map3(benchmark::State &state)
{
    Consumer consumer(s_branch(3));
    const QByteArray payload = QByteArray::fromHex("0102030405060708");
    for (auto _ : state) {
        consumer.converter.insertFrame(s_endpoint(0), payload);
    }
}

void s_bareMap(benchmark::State &state)
{
    for (auto _ : state) {
        QVariantMap leaves;
        for (int i = 0; i < 3; ++i) {
            static const QString names[] = {s_leafName(0), s_leafName(1), s_leafName(2)};
            leaves.insert(names[i], i);
        }
        QVariantMap root;
        root.insert(QStringLiteral("motor"), leaves);
        benchmark::DoNotOptimize(QVariant(root));
    }
}

void s_drop(QtMsgType, const QMessageLogContext &, const QString &) {}

void s_outbound(benchmark::State &state, int leaves, bool debug)
{
    const QtMessageHandler handler = qInstallMessageHandler(s_drop);
    QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, debug);
    SchemaConverter converter;
    converter.loadSchema(s_branch(leaves));
    const QVariant value = s_branchValue(leaves);
    for (auto _ : state) {
        benchmark::DoNotOptimize(converter.toFrame(value));
    }
    QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, true);
    qInstallMessageHandler(handler);
}

void s_debugLineOff(benchmark::State &state)
{
    QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
    for (auto _ : state) {
        if (isDebugLogged()) {
            qDebug() << "Converted size:" << state.iterations();
        }
    }
    QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, true);
}

void s_parse(benchmark::State &state, int leaves)
{
    const QByteArray text = s_schema(leaves, QStringLiteral("s"), {}).toJson();
    for (auto _ : state) {
        benchmark::DoNotOptimize(QJsonDocument::fromJson(text).toVariant());
    }
}

void s_load(benchmark::State &state, int leaves)
{
    const QByteArray text = s_schema(leaves, QStringLiteral("s"), {}).toJson();
    SchemaConverter converter;
    for (auto _ : state) {
        converter.loadSchema(QJsonDocument::fromJson(text));
    }
}

void s_addAll(Suite &suite)
{
    for (const int count : {1, 10, 50, 100, 500, 1000, 2048}) {
        suite.add("convert/inbound/" + std::to_string(count), s_inbound, count, QJsonObject());
    }
    suite.add("convert/inbound/unknown", s_repeat, 51, QJsonObject());
    suite.add("convert/inbound/scaled", s_inbound, 50, QJsonObject{{QStringLiteral("@factor"), 0.1}});
    suite.add("convert/inbound/observe", s_inbound, 50, QJsonObject{{QStringLiteral("@observe"), true}});
    suite.add("convert/inbound/observe_unchanged", s_repeat, 0,
              QJsonObject{{QStringLiteral("@observe"), true}});
    suite.add("convert/inbound/array1000", s_inbound, 50, QJsonObject{{QStringLiteral("@flushSize"), 1000}});
    for (const int size : {10, 100, 1000, 10000}) {
        suite.add("convert/gather/" + std::to_string(size), s_repeat, 0,
                  QJsonObject{{QStringLiteral("@flushSize"), size}});
    }
    suite.add("convert/map3", s_map3);
    suite.add("convert/map3/floor", s_bareMap);
    for (const int leaves : {1, 3, 10, 20, 100}) {
        const std::string name = "convert/outbound/" + std::to_string(leaves);
        suite.add(name + "/debug_on", s_outbound, leaves, true);
        suite.add(name + "/debug_off", s_outbound, leaves, false);
    }
    suite.add("convert/debug_line_off", s_debugLineOff);
    suite.add("schema/load_500", s_load, 500);
    suite.add("schema/load_500/floor", s_parse, 500);
}

} // namespace

int main(int argc, char **argv)
{
    Suite suite(argc, argv);
    s_addAll(suite);
    return suite.run();
}
