// Where a node of the schema is: the member names from the root of the schema to it.
//
// Walking the document makes one path per node, which the attributes of the node's leaf share. A path is a
// link to the path of its parent, so a schema with many deep leaves costs one link for each node, not one
// list of names for each leaf.
#pragma once

#include <QExplicitlySharedDataPointer>
#include <QSharedData>
#include <QString>
#include <QStringList>

class SchemaPath
{
public:
    // The path of the root, which has no name and no parent.
    SchemaPath() = default;

    // The path of the member `name` of the node at `parent`.
    SchemaPath(const SchemaPath &parent, const QString &name);

    explicit SchemaPath(const QStringList &names);

    SchemaPath(const SchemaPath &) = default;
    SchemaPath(SchemaPath &&) noexcept = default;
    SchemaPath &operator=(const SchemaPath &) = default;
    SchemaPath &operator=(SchemaPath &&) noexcept = default;
    ~SchemaPath();

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
    void releaseUnshared();

    QExplicitlySharedDataPointer<Link> m_link;
};

struct SchemaPath::Link : QSharedData {
    Link(const SchemaPath &parentPath, const QString &ownName) : parent(parentPath), name(ownName) {}

    SchemaPath parent;
    QString name;
};

inline SchemaPath::~SchemaPath()
{
    if (m_link) {
        releaseUnshared();
    }
}

inline const SchemaPath &SchemaPath::parent() const
{
    return m_link->parent;
}

inline const QString &SchemaPath::name() const
{
    return m_link->name;
}
