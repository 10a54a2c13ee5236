// A client in C++ that takes a number of messages and says what they cost:
//     cpp_client vorbel|plain URL COUNT
// "plain" is what Qt and the codec cost by themselves: a QWebSocket whose messages are unpacked.
#include <QCoreApplication>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QWebSocket>
#include <cstdio>
#include <functional>
#include <sys/resource.h>

#include "msgpack/msgpack.h"
#include "vorbel/vorbelclient.h"

namespace
{

/// Seconds of CPU that this process has taken.
double cpuTime()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval &time) {
        return double(time.tv_sec) + double(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// Kilobytes in memory by their name in /proc: "VmRSS", "RssAnon".
int resident(const QByteArray &kind)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (status.open(QIODevice::ReadOnly)) {
        for (const QByteArray &line : status.readAll().split('\n')) {
            if (line.startsWith(kind + ':')) {
                return line.simplified().split(' ').at(1).toInt();
            }
        }
    }
    return 0;
}

/// Counts messages; the first tenth of them is only for warming up. Ends the application with the last.
class Count
{
public:
    explicit Count(int messages) : m_messages(messages) {}

    void operator()()
    {
        ++m_counted;
        if (m_counted == m_messages / 10) {
            m_cpu = cpuTime();
            m_anonymous = resident("RssAnon");
        } else if (m_counted == m_messages) {
            report();
            QCoreApplication::quit();
        }
    }

private:
    void report() const
    {
        const double each = (cpuTime() - m_cpu) / (m_messages - m_messages / 10);
        std::printf(R"({"cpu": %.9f, "resident": %d, "growth": %d})"
                    "\n",
                    each, resident("VmRSS"), resident("RssAnon") - m_anonymous);
    }

    int m_messages;
    int m_counted = 0;
    double m_cpu = 0;
    int m_anonymous = 0;
};

} // namespace

int main(int argc, char *argv[])
{
    qputenv("QT_NO_GLIB", "1");
    QCoreApplication application(argc, argv);
    const QStringList words = QCoreApplication::arguments();
    if (words.size() != 4) {
        std::fputs("cpp_client vorbel|plain URL COUNT\n", stderr);
        return 1;
    }
    Count count(words.at(3).toInt());

    if (words.at(1) == QLatin1String("plain")) {
        QWebSocket socket;
        QVariant values;
        QObject::connect(&socket, &QWebSocket::binaryMessageReceived, [&](const QByteArray &message) {
            values = MsgPack::unpack(message);
            count();
        });
        socket.open(QUrl(words.at(2)));
        return QCoreApplication::exec();
    }
    VorbelClient client(words.at(2));
    client.setSchema(QJsonDocument::fromJson(qgetenv("BENCH_SCHEMA")).object());
    QObject::connect(&client, &VorbelClient::valuesReceived, [&] { count(); });
    client.open();
    return QCoreApplication::exec();
}
