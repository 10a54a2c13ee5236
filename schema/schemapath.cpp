#include "schema/schemapath.h"

SchemaPath::SchemaPath(const SchemaPath &parent, const QString &name)
    : m_link(std::make_shared<const Link>(Link{parent, name}))
{
}

SchemaPath::SchemaPath(const QStringList &names)
{
    for (const QString &name : names) {
        *this = SchemaPath(*this, name);
    }
}

QStringList SchemaPath::names() const
{
    QStringList names;
    for (const SchemaPath *path = this; !path->isRoot(); path = &path->parent()) {
        names.prepend(path->name());
    }
    return names;
}
