// Which retained messages the broker keeps of the gateway, beside those that it always has.
#pragma once

#include <QByteArray>
#include <QSet>
#include <QString>

namespace Gateway
{

// Topics whose messages are taken away when they are no more to be: also those of a run before, which are
// remembered in a file.
class KeptTopics
{
public:
    explicit KeptTopics(const QString &fileName);

    // From now on these are to be kept. Those that were and are not any more, which the caller takes away.
    QSet<QByteArray> replace(const QSet<QByteArray> &topics);

private:
    const QString m_fileName;
    QSet<QByteArray> m_topics;
};

} // namespace Gateway
