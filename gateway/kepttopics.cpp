#include "gateway/kepttopics.h"

#include "gateway/savedfile.h"

#include <QDebug>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

#include <utility>

namespace Gateway
{

KeptTopics::KeptTopics(const QString &fileName) : m_fileName(fileName)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly)) {
        return; // nothing was ever kept
    }
    for (const auto &topic : QJsonDocument::fromJson(file.readAll()).array()) {
        m_topics << topic.toString().toUtf8();
    }
}

QSet<QByteArray> KeptTopics::replace(const QSet<QByteArray> &topics)
{
    if (topics == m_topics) {
        return {};
    }
    const QSet<QByteArray> former = std::exchange(m_topics, topics);
    QJsonArray list;
    for (const QByteArray &topic : topics) {
        list << QString::fromUtf8(topic);
    }
    const QString error = saveFile(m_fileName, QJsonDocument(list).toJson(QJsonDocument::Compact));
    if (!error.isEmpty()) {
        qWarning("topics: cannot write %s", qPrintable(error));
    }
    return former - topics;
}

} // namespace Gateway
