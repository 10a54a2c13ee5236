#include "gateway/runstate.h"

#include "gateway/savedfile.h"

#include <QDateTime>
#include <QDebug>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>

namespace Gateway
{

RunState::RunState(const QString &fileName) : m_fileName(fileName)
{
    QFile file(fileName);
    const bool isFirst = !file.open(QIODevice::ReadOnly);
    const QJsonObject former = isFirst ? QJsonObject() : QJsonDocument::fromJson(file.readAll()).object();
    const auto number = [&former](const char *name) {
        return static_cast<qint64>(former[name].toDouble());
    };
    m_boot = std::max(number("boot") + 1, QDateTime::currentSecsSinceEpoch()); // the clock may be wrong
    m_lost = number("lost");
    save();
}

void RunState::addLost(int count)
{
    m_lost += count;
    save();
}

void RunState::save() const
{
    const QJsonObject state{{"boot", m_boot}, {"lost", m_lost}};
    const QByteArray text = QJsonDocument(state).toJson(QJsonDocument::Compact);
    if (const QString error = saveFile(m_fileName, text); !error.isEmpty()) {
        qWarning("state: cannot write %s", qPrintable(error));
    }
}

} // namespace Gateway
