#include "msgpack/outofmemory_p.h"

#include <QDebug>

void MsgPackPrivate::warnOutOfMemory(const char *who)
{
    qWarning() << who << "has run out of memory";
}
