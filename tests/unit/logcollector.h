// Collects what goes through Qt's message logger, so that a test can compare all of it, in order, and sees a
// line that it did not expect.
#pragma once

#include <QString>
#include <QStringList>

#include <cstdio>
#include <mutex>

// At most one of them at a time.
class LogCollector
{
public:
    LogCollector() = default;
    ~LogCollector() { finish(); }
    LogCollector(const LogCollector &) = delete;
    LogCollector &operator=(const LogCollector &) = delete;

    // Takes the place of the message handler. Not before a test function begins: QtTest sets its own first.
    void start()
    {
        take();
        m_previous = qInstallMessageHandler(&LogCollector::s_collect);
        m_started = true;
    }

    // Gives the place back, and the lines that nobody took.
    QStringList finish()
    {
        if (m_started) {
            qInstallMessageHandler(m_previous);
            m_started = false;
        }
        return take();
    }

    // The lines since the last call, each as its level, a colon, a blank and the text: "warning: text".
    QStringList take()
    {
        const std::lock_guard<std::mutex> locker(s_mutex());
        QStringList lines;
        lines.swap(s_lines());
        return lines;
    }

private:
    static QString s_level(QtMsgType type)
    {
        switch (type) {
        case QtDebugMsg:
            return QStringLiteral("debug: ");
        case QtInfoMsg:
            return QStringLiteral("info: ");
        case QtWarningMsg:
            return QStringLiteral("warning: ");
        case QtCriticalMsg:
            return QStringLiteral("critical: ");
        case QtFatalMsg:
            break;
        }
        return QStringLiteral("fatal: ");
    }

    static void s_collect(QtMsgType type, const QMessageLogContext &, const QString &text)
    {
        if (type == QtFatalMsg) {
            std::fprintf(stderr, "%s\n", qPrintable(text));
        }
        const std::lock_guard<std::mutex> locker(s_mutex());
        s_lines() << s_level(type) + text;
    }

    static std::mutex &s_mutex()
    {
        static std::mutex mutex;
        return mutex;
    }

    static QStringList &s_lines()
    {
        static QStringList lines;
        return lines;
    }

    bool m_started = false;
    QtMessageHandler m_previous = nullptr;
};
