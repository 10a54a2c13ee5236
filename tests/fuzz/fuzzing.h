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

// Keeps Qt's message logger quiet: the log lines of malformed input are what the time would go into.
inline void silenceLog()
{
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
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

} // namespace Fuzzing
