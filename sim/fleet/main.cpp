// A fleet of boards that are not there, on a broker that is.
#include "fleet/board.h"
#include "fleet/plant.h"
#include "gateway/supervisor.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <MQTTAsync.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <vector>

namespace
{

using SimulatedFleet::Board;
using SimulatedFleet::Fleet;
using SimulatedFleet::Tally;
using Boards = std::vector<std::unique_ptr<Board>>;

constexpr int reportInterval = 1000; // ms
constexpr int farewell = 2000;       // ms that the last messages have
constexpr int welcomeInterval =
    2; // ms between two boards that come: a broker's queue of connections is short

// What can be asked for, each a number but for the first two.
struct Option {
    const char *name, *meaning, *usual;
};
constexpr Option options[] = {
    {"broker", "where the broker is: one or more, as in gateway.ini", "mqtt://127.0.0.1"},
    {"prefix", "with what all topics begin", "vorbel"},
    {"version", "of MQTT: 5, or 3 for 3.1.1", "5"},
    {"boards", "how many there are", "10"},
    {"first", "the number of the first; others are those of another process", "1"},
    {"values", "how many each has; a multiple of four. Each comes once a second", "12"},
    {"interval", "ms that a batch takes", "1000"},
    {"now", "ms until a latest value is published again", "1000"},
    {"past", "days of which they publish a reading a minute first", "0"},
};

void s_addOptions(QCommandLineParser &parser)
{
    parser.setApplicationDescription(
        "Boards with gateways, as far as a broker can tell, until SIGTERM. Once a second, and "
        "at the end, it says how many are connected and how many values they published, or "
        "dropped, since the broker was not there.");
    parser.addHelpOption();
    for (const Option &option : options) {
        parser.addOption({option.name, option.meaning, "WORD", option.usual});
    }
}

Fleet s_fleetOf(const QCommandLineParser &parser)
{
    const auto number = [&](const char *name) {
        return parser.value(name).toInt();
    };
    Fleet fleet;
    fleet.settings.broker.urls = parser.value("broker").split(',');
    fleet.settings.broker.version = number("version");
    fleet.settings.topics.prefix = parser.value("prefix");
    fleet.settings.values.interval = number("interval");
    fleet.settings.now.interval = number("now");
    fleet.axes = std::clamp(number("values") / SimulatedFleet::valuesPerAxis, 1, SimulatedFleet::axesMax);
    fleet.pastDays = number("past");
    fleet.schema = SimulatedFleet::plantSchema(fleet.axes);
    fleet.meanings = std::make_shared<const Vorbel::Meanings>(fleet.schema);
    return fleet;
}

Boards s_boards(const Fleet &fleet, int first, int count)
{
    Boards boards;
    for (int number = 0; number < count; ++number) {
        boards.push_back(std::make_unique<Board>(fleet, first + number));
        QTimer::singleShot(number * welcomeInterval, boards.back().get(), &Board::open);
    }
    return boards;
}

void s_report(const Boards &boards)
{
    const auto connected =
        std::count_if(boards.begin(), boards.end(), [](const auto &board) { return board->isConnected(); });
    const Tally sum =
        std::accumulate(boards.begin(), boards.end(), Tally(), [](Tally tally, const auto &board) {
            return Tally{tally.published + board->tally().published, tally.dropped + board->tally().dropped};
        });
    std::printf("{\"connected\":%lld,\"published\":%lld,\"dropped\":%lld}\n",
                static_cast<long long>(connected), static_cast<long long>(sum.published),
                static_cast<long long>(sum.dropped));
    std::fflush(stdout);
}

} // namespace

int main(int count, char *words[])
{
    Gateway::Supervisor::blockSignals();
    qputenv("QT_NO_GLIB", "1"); // as the gateway does
    MQTTAsync_init_options once = MQTTAsync_init_options_initializer;
    MQTTAsync_global_init(&once);
    QCoreApplication application(count, words);
    QCommandLineParser parser;
    s_addOptions(parser);
    parser.process(application);
    const Fleet fleet = s_fleetOf(parser);
    const Boards boards = s_boards(fleet, parser.value("first").toInt(), parser.value("boards").toInt());
    QTimer report;
    QObject::connect(&report, &QTimer::timeout, &report, [&boards] { s_report(boards); });
    report.start(reportInterval);
    Gateway::Supervisor supervisor([&boards] {
        for (const auto &board : boards) {
            board->end();
        }
        QTimer::singleShot(farewell, [&boards] {
            s_report(boards);
            std::quick_exit(EXIT_SUCCESS); // to close a thousand connections one by one takes Paho a minute
        });
    });
    return QCoreApplication::exec();
}
