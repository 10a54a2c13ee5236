#include "schema/schemapath.h"

#include <utility>

SchemaPath::SchemaPath(const SchemaPath &parent, const QString &name) : m_link(new Link(parent, name)) {}

SchemaPath::SchemaPath(const QStringList &names)
{
    for (const QString &name : names) {
        *this = SchemaPath(*this, name);
    }
}

// One link after the other, each when it has no parent any more: a link that releases its parent, which
// releases its own, takes as much stack as the path has names.
void SchemaPath::releaseUnshared()
{
    while (m_link && m_link->ref.loadRelaxed() == 1) {
        QExplicitlySharedDataPointer<Link> parent;
        parent.swap(m_link->parent.m_link);
        m_link = std::move(parent);
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
