#include "schema/gatheringroom.h"

#include <QDebug>

void GatheringRoom::warnOnce(const SchemaPath &leaf)
{
    if (!m_warned) {
        m_warned = true;
        qWarning() << "Attribute" << leaf.names()
                   << "drops readings: the arrays of the schema may take 64 MiB together.";
    }
}
