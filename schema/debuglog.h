// For debug lines that are written for every message, about values that clients choose.
#pragma once

#include <QDebug>
#include <QLoggingCategory>
#include <QString>
#include <QVariant>

// Whether lines of qDebug() are written. Qt formats their text even when a rule drops them afterwards, so
// code that logs for every message asks here first.
inline bool isDebugLogged()
{
    return QLoggingCategory::defaultCategory()->isDebugEnabled();
}

// What QDebug prints for a value, for lines with noquote(). Of a longer text, the first 64 KiB in UTF-8
// followed by " ...": printed, a value can take many times the space that it took in the client's message.
// The rest is not visited; the time taken is that of printing the text, and all of the last value in it that
// is no list or map.
QString debugText(const QVariant &value);
QString debugText(const QVariantMap &value);
