#include "gateway/audit.h"

#include "gateway/plainjson.h"

#include <QDateTime>
#include <QDebug>

#include <utility>

namespace Gateway
{

namespace
{

constexpr int toldMax = 10;    // refusals, a second
constexpr int shownMax = 1000; // characters of what others made up

QVariant s_shown(const QString &text)
{
    return text.isNull() ? QVariant() : QVariant(text.left(shownMax));
}

void s_append(QByteArray &text, const char *name, const QVariant &value)
{
    text += text.isEmpty() ? '{' : ',';
    text += '"' + QByteArray(name) + "\":";
    appendJson(text, value);
}

} // namespace

QByteArray deedText(const Deed &deed, qint64 now)
{
    QByteArray text;
    s_append(text, "user", s_shown(deed.user));
    s_append(text, "path", s_shown(deed.path));
    s_append(text, "value",
             deed.value.type() == QVariant::String ? s_shown(deed.value.toString()) : deed.value);
    s_append(text, "raw", deed.raw);
    s_append(text, "time", now);
    s_append(text, "ok", deed.error.isEmpty());
    s_append(text, "error", deed.error.isEmpty() ? QVariant() : s_shown(deed.error));
    return text + '}';
}

Audit::Audit(Publish publish) : m_publish(std::move(publish))
{
    m_second.setSingleShot(true);
    m_second.setInterval(1000);
    connect(&m_second, &QTimer::timeout, this, &Audit::endSecond);
}

void Audit::tell(const Deed &deed)
{
    const QByteArray text = deedText(deed, QDateTime::currentMSecsSinceEpoch());
    qInfo("done %s", text.constData());
    m_publish(text);
}

void Audit::done(const Deed &deed)
{
    ++m_done;
    tell(deed);
}

void Audit::refused(const Deed &deed)
{
    ++m_refused;
    if (m_told >= toldMax) {
        ++m_untold;
        return;
    }
    if (!m_second.isActive()) {
        m_second.start();
    }
    ++m_told;
    tell(deed);
}

void Audit::missed(int count)
{
    m_refused += count;
    m_untold += count;
    if (!m_second.isActive()) {
        m_second.start();
    }
}

void Audit::endSecond()
{
    m_told = 0;
    if (const int count = std::exchange(m_untold, 0); count > 0) {
        tell({{}, {}, {}, {}, QString::number(count) + " more refusals"});
        m_second.start(); // one such line a second
    }
}

} // namespace Gateway
