#include "gateway/topics.h"

#include <QVector>

namespace Gateway
{

namespace
{

// Levels, wildcards and the escape itself; and what separates, ends or may not stand in the subjects that
// some brokers make of topics.
constexpr char special[] = "/+#%.*>$ ";

// Beside these, what brokers take for malformed: they would end the connection.
bool s_isSpecial(uint character)
{
    const bool isControl = character < ' ' || (character >= 0x7f && character <= 0x9f);
    const bool isNamed = character < 0x80 && QByteArray(special).contains(static_cast<char>(character));
    return isControl || isNamed || QChar::isNonCharacter(character);
}

QByteArray s_escaped(const QByteArray &bytes)
{
    QByteArray escaped;
    for (const char byte : bytes) {
        escaped += '%' + QByteArray(1, byte).toHex().toUpper();
    }
    return escaped;
}

QByteArray s_joined(const QByteArray &base, const QStringList &names)
{
    QByteArray topic = base;
    for (const QString &name : names) {
        topic += '/' + levelOf(name);
    }
    return topic;
}

} // namespace

QByteArray levelOf(const QString &name)
{
    QByteArray level;
    for (const uint character : name.toUcs4()) {
        const QByteArray bytes = QString::fromUcs4(&character, 1).toUtf8();
        level += s_isSpecial(character) ? s_escaped(bytes) : bytes;
    }
    return level;
}

QString nameOf(const QByteArray &level)
{
    const QByteArray name = QByteArray::fromPercentEncoding(level);
    return QString::fromUtf8(name.constData(), name.size()); // beyond a zero byte, too
}

Topics::Topics(const QString &prefix, const QString &id) : m_base(prefix.toUtf8() + '/' + levelOf(id) + '/')
{
}

QByteArray Topics::now(const QStringList &names) const
{
    return s_joined(m_base + "now", names);
}

QByteArray Topics::set(const QString &user, const QStringList &names) const
{
    return s_joined(m_base + "set/" + user.toUtf8(), names);
}

std::optional<WriteTopic> Topics::writeOf(const QByteArray &topic) const
{
    const QByteArray begin = m_base + "set/";
    if (!topic.startsWith(begin)) {
        return std::nullopt;
    }
    QList<QByteArray> levels = topic.mid(begin.size()).split('/');
    WriteTopic write{QString::fromUtf8(levels.takeFirst()), {}};
    for (const QByteArray &level : levels) {
        write.names << nameOf(level);
    }
    return write;
}

} // namespace Gateway
