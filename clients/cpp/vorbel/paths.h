/// @file
/// Dotted paths: the names that lead from a schema's root to a leaf, joined by dots.
///
/// A dot or a backslash within a name is written behind a backslash. The empty path is the root.
#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>

namespace Vorbel
{

/// The path that names make.
QString joinPath(const QStringList &names);

/// The names of a path. A backslash before anything but a dot or a backslash stands for itself.
QStringList splitPath(const QString &path);

/// The values in nested maps by path; maps without values have none. What is no map has the path of the root.
QVariantMap flatten(const QVariant &values);

/// The nested maps that hold a value under names; the value itself if there are none.
QVariant nest(const QStringList &names, const QVariant &value);

} // namespace Vorbel
