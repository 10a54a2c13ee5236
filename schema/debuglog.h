// The log category of debug lines that are written for every message.
#pragma once

#include <QDebug>
#include <QLoggingCategory>

// For qCDebug(debugLog). The line is the same as qDebug()'s, which formats its text even when a rule drops
// it afterwards; qCDebug asks the category first.
inline const QLoggingCategory &debugLog()
{
    return *QLoggingCategory::defaultCategory();
}
