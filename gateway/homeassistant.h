// The values of a schema as entities of Home Assistant: docs/gateway.md says which become what.
#pragma once

#include "gateway/settings.h"
#include "gateway/topics.h"

#include "vorbel/meaning.h"

#include <QByteArray>
#include <QMap>
#include <QString>

namespace Gateway
{

// The retained messages of the MQTT discovery, by topic: one for each leaf that is ever read. A leaf that the
// user of [homeassistant] may write, with everything that its "when" asks for, can be set there; all others
// are shown. No two leaves share a topic or a unique_id, and no name, label or unit makes anything but text
// of itself.
//
// `id` is that of the topics, `type` what the daemon calls itself, which may be empty. Whether the discovery
// is enabled is not asked.
QMap<QByteArray, QByteArray> discoveryOf(const Vorbel::Meanings &meanings, const Topics &topics,
                                         const Settings &settings, const QString &id, const QString &type);

} // namespace Gateway
