#include "gateway/status.h"

#include "gateway/plainjson.h"

#include <QVariant>

namespace Gateway
{

QByteArray statusText(const Status &status)
{
    return "{\"online\":true,\"type\":" + plainJson(status.type) +
           ",\"id\":" + plainJson(status.id.isEmpty() ? QVariant() : status.id) +
           ",\"since\":" + plainJson(status.since) + ",\"boot\":" + plainJson(status.boot) +
           ",\"lost\":" + plainJson(status.lost) + '}';
}

} // namespace Gateway
