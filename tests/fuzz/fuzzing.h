// What the fuzz targets share.
#pragma once

#include <QByteArray>
#include <QtGlobal>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace Fuzzing
{

inline int loggedLines = 0;

// Keeps Qt's message logger quiet: writing the log lines of malformed input is what the time would go into.
// They are counted instead, for LineBound.
inline void silenceLog()
{
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) { ++loggedLines; });
}

// The input as it is, without a copy: the fuzzer gives it a block of its own, whose end the sanitizer
// watches.
inline QByteArray bytes(const uint8_t *data, size_t size)
{
    return QByteArray::fromRawData(reinterpret_cast<const char *>(data), static_cast<int>(size));
}

// Reports the current input as a failure unless `holds`.
inline void require(bool holds, const char *what)
{
    if (!holds) {
        std::fprintf(stderr, "%s\n", what);
        std::abort();
    }
}

// A scope in which one message is handled. Reports the current input as a failure when that leaves more lines
// in the log than a few kinds of a thousand each: whoever sends it could fill the log with it.
class LineBound
{
public:
    LineBound() = default;
    ~LineBound() { require(loggedLines - m_before <= maxLines, "a message floods the log"); }
    LineBound(const LineBound &) = delete;
    LineBound &operator=(const LineBound &) = delete;

private:
    static constexpr int maxLines = 5000;
    const int m_before = loggedLines;
};

} // namespace Fuzzing
