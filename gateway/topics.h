// The names of the topics: docs/gateway.md has their table.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

namespace Gateway
{

// A name as one level of a topic. Bytes that mean something to a broker stand as % and two digits, so that no
// name makes another level or a wildcard, and none is the same as another one's.
QByteArray levelOf(const QString &name);

// The name that a level stands for. A % without two digits behind it stands for itself.
QString nameOf(const QByteArray &level);

// Who is to write what.
struct WriteTopic {
    QString user;      // as it stands in the topic: a broker puts it there, or compares it
    QStringList names; // those on the way to the leaf
};

// The topics of one gateway, in UTF-8.
class Topics
{
public:
    // With what all begin, which may have several levels, and the ID, which is one.
    Topics(const QString &prefix, const QString &id);

    QByteArray status() const { return m_base + "status"; }
    QByteArray schema() const { return m_base + "schema"; }
    QByteArray schemaSet() const { return m_base + "schema/set"; }
    QByteArray values() const { return m_base + "values"; }
    QByteArray done() const { return m_base + "done"; }
    QByteArray pulse() const { return m_base + "pulse"; }

    // Of a leaf's latest value.
    QByteArray now(const QStringList &names) const;

    // Where a user writes a leaf.
    QByteArray set(const QString &user, const QStringList &names) const;

    // What all writes match.
    QByteArray setFilter() const { return m_base + "set/+/#"; }

    // What a topic that matches asks for; none if it does not match.
    std::optional<WriteTopic> writeOf(const QByteArray &topic) const;

private:
    QByteArray m_base; // "PREFIX/ID/"
};

} // namespace Gateway
