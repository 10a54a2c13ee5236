// How many lines of one kind one message may leave in the log.
#pragma once

#include <QDebug>

// Counts the lines of one kind that one message causes. A message of a few MiB can name a million unknown
// things, and the log is shared: the first lines are written, the others are counted, and when the message
// has been handled, one more line of the same level says how many they were and of which kind:
//
//   And 4 more lines of this kind from the same message: Key: ... does not exist in the schema
//
// One object per kind and message, on the stack of whoever handles the message. Not thread-safe.
//
//   LineLimit unknownKeys(QtWarningMsg, "Key: ... does not exist in the schema");
//   ...
//   if (unknownKeys.takeLine()) {
//       qWarning() << "Key:" << key << "does not exist in the schema";
//   }
class LineLimit
{
public:
    static constexpr int linesMax = 1000;

    // `level` is QtDebugMsg or QtWarningMsg. `kind`, a literal, says in the last line which lines are meant.
    LineLimit(QtMsgType level, const char *kind) : m_level(level), m_kind(kind) {}
    ~LineLimit()
    {
        if (m_lines > linesMax) {
            writeLastLine();
        }
    }
    Q_DISABLE_COPY(LineLimit)

    // Counts one more line and returns whether it may be written.
    bool takeLine() { return ++m_lines <= linesMax; }

private:
    void writeLastLine() const;

    const QtMsgType m_level;
    const char *const m_kind;
    qint64 m_lines = 0;
};
