// What a gateway says of itself: docs/gateway.md has the table of its topics.
#pragma once

#include <QByteArray>
#include <QString>

namespace Gateway
{

// A gateway that has its daemon. Times are milliseconds since 1970.
struct Status {
    QString type; // what the daemon calls itself
    QString id;   // empty if it has none
    qint64 since = 0;
    qint64 boot = 0;
    qint64 lost = 0; // batches
};

// It as JSON.
QByteArray statusText(const Status &status);

// What there is to say of any other.
constexpr char offlineText[] = R"({"online":false})";

} // namespace Gateway
