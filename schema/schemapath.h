// Where a node of the schema is: the member names from the root of the schema to it.
//
// The document walk makes one path per node, the attributes of the node's leaf share it. A path is a link to
// the path of its parent, so a schema of many leaves far down costs one link for each node and not one list
// of names for each leaf.
#pragma once

#include <QString>
#include <QStringList>

#include <memory>

class SchemaPath
{
public:
    // The path of the root, which has no name and no parent.
    SchemaPath() = default;

    // The path of the member `name` of the node at `parent`.
    SchemaPath(const SchemaPath &parent, const QString &name);

    explicit SchemaPath(const QStringList &names);

    bool isRoot() const { return !m_link; }

    // Not for the path of the root.
    const SchemaPath &parent() const;
    const QString &name() const;

    // All names, the outermost first.
    QStringList names() const;

    // True for copies of one path, false for others, even if they have the same names.
    bool isSharedWith(const SchemaPath &other) const { return m_link == other.m_link; }

private:
    struct Link;
    std::shared_ptr<const Link> m_link;
};

struct SchemaPath::Link {
    SchemaPath parent;
    QString name;
};

inline const SchemaPath &SchemaPath::parent() const
{
    return m_link->parent;
}

inline const QString &SchemaPath::name() const
{
    return m_link->name;
}
