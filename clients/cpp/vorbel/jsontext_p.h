// JSON with what Qt's own parser keeps to itself: names that occur twice, and numbers beyond any double.
#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>

namespace Vorbel
{

struct JsonText {
    QVariant value; // of objects QVariantMap, of arrays QVariantList, of null an invalid variant
    QString error;  // what is wrong and where, for people; null if it is JSON
    QStringList
        repeated; // the paths of names that were there before; the elements of arrays have that of the array
};

// What a text holds. It may be nested as deep as the daemon reads it.
JsonText readJson(const QString &text);

} // namespace Vorbel
