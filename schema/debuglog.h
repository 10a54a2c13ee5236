// Debug lines that are written for every message, and about values that clients chose.
#pragma once

#include <QDebug>
#include <QLoggingCategory>
#include <QString>
#include <QVariant>

// Whether lines of qDebug() are written. Qt formats their text even when a rule drops them afterwards: lines
// that are written for every message ask here first.
inline bool isDebugLogged()
{
    return QLoggingCategory::defaultCategory()->isDebugEnabled();
}

// What QDebug prints for a value, for lines with noquote(). Of a longer text the first 64 KiB in UTF-8 with
// " ..." behind them: in print, a value can take many times the space that it took in the client's message.
// What lies behind them is not looked at; the time is that of the text, and of the whole of the last value
// in it that is no list or map.
QString debugText(const QVariant &value);
QString debugText(const QVariantMap &value);
