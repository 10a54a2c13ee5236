#include "msgpack/linelimit.h"

void LineLimit::writeLastLine() const
{
    const QMessageLogger logger;
    QDebug line = m_level == QtDebugMsg ? logger.debug() : logger.warning();
    line << "And" << m_lines - linesMax << "more lines of this kind from the same message:" << m_kind;
}
