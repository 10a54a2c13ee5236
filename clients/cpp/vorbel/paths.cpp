#include "vorbel/paths.h"

#include "vorbel/plain_p.h"

namespace Vorbel
{

namespace
{

bool s_isMarked(QChar character)
{
    return character == QLatin1Char('.') || character == QLatin1Char('\\');
}

QString s_marked(const QString &name)
{
    QString marked;
    for (const QChar character : name) {
        if (s_isMarked(character)) {
            marked += QLatin1Char('\\');
        }
        marked += character;
    }
    return marked;
}

void s_flatten(const QVariant &value, const QString &path, const QString &separator, QVariantMap &flat)
{
    if (!isMap(value)) {
        flat.insert(path, value);
        return;
    }
    const QVariantMap members = value.toMap();
    for (auto member = members.cbegin(); member != members.cend(); ++member) {
        s_flatten(member.value(), path + separator + s_marked(member.key()), QStringLiteral("."), flat);
    }
}

} // namespace

QString joinPath(const QStringList &names)
{
    QStringList marked;
    for (const QString &name : names) {
        marked << s_marked(name);
    }
    return marked.join(QLatin1Char('.'));
}

QStringList splitPath(const QString &path)
{
    if (path.isEmpty()) {
        return QStringList();
    }
    QStringList names{QString()};
    for (int at = 0; at < path.size(); ++at) {
        if (path.at(at) == QLatin1Char('.')) {
            names << QString();
            continue;
        }
        const bool isMark =
            path.at(at) == QLatin1Char('\\') && at + 1 < path.size() && s_isMarked(path.at(at + 1));
        names.last() += path.at(isMark ? ++at : at);
    }
    return names;
}

QVariantMap flatten(const QVariant &values)
{
    QVariantMap flat;
    s_flatten(values, QString(), QString(), flat);
    return flat;
}

QVariant nest(const QStringList &names, const QVariant &value)
{
    QVariant nested = value;
    for (auto name = names.crbegin(); name != names.crend(); ++name) {
        nested = QVariantMap{{*name, nested}};
    }
    return nested;
}

} // namespace Vorbel
