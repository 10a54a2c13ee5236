/// @file
/// What can be wrong with a schema, or with values to write.
#pragma once

#include <QMetaType>
#include <QObject>
#include <QString>
#include <QVector>

namespace Vorbel
{

/// Something that is wrong or doubtful about the leaf or group at a path.
struct Problem {
    Q_GADGET
    /// Where it is.
    Q_PROPERTY(QString path MEMBER path)
    /// What it is, for programs.
    Q_PROPERTY(QString code MEMBER code)
    /// What it is, for people.
    Q_PROPERTY(QString message MEMBER message)
    /// Whether it keeps something from being sent.
    Q_PROPERTY(bool isError READ isError)

public:
    /// Where it is; empty for the root.
    QString path;

    /// What it is, for programs: one of the codes that all clients share, such as "out-of-range".
    QString code;

    /// What it is, for people; without the path.
    QString message;

    /// Whether it keeps a schema or values from being sent; if not, it is defined behaviour that is seldom
    /// meant.
    bool isError() const;

    /// One line for people that begins with the path.
    Q_INVOKABLE QString text() const;
};

/// Whether any of them is an error.
bool hasErrors(const QVector<Problem> &problems);

/// The errors among them in words, one after the other.
QString errorText(const QVector<Problem> &problems);

} // namespace Vorbel

Q_DECLARE_METATYPE(Vorbel::Problem)
