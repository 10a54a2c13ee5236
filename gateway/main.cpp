#include "gateway/metrics.h"
#include "gateway/relay.h"
#include "gateway/supervisor.h"

#include <MQTTAsync.h>
#include <QCoreApplication>
#include <QDebug>
#include <QTextCodec>

#include <malloc.h>

#include <cstdio>
#include <cstdlib>

namespace
{

constexpr char usage[] = "usage: vorbel-gateway [--check] [FILE]\n"
                         "Connects a Vorbel daemon with an MQTT broker, as FILE says, by default\n"
                         "/etc/vorbel/gateway.ini. With --check, only says what is wrong with FILE.\n";

struct Words {
    QString file = "/etc/vorbel/gateway.ini";
    bool onlyCheck = false;
    bool areKnown = true;
};

Words s_wordsOf(QStringList arguments)
{
    Words words;
    words.onlyCheck = arguments.removeAll("--check") > 0;
    words.areKnown = arguments.size() <= 1 && !(arguments.size() == 1 && arguments.first().startsWith('-'));
    words.file = arguments.value(0, words.file);
    return words;
}

// GLib's event loop would triple the system calls of each event.
void s_preferPlainEventLoop()
{
    if (!qEnvironmentVariableIsSet("QT_NO_GLIB")) {
        qputenv("QT_NO_GLIB", "1");
    }
}

// Log lines are in English and in UTF-8, whatever the machine's language is; its tables, and ICU's, would
// take a quarter of a megabyte.
void s_speakPlainly()
{
    constexpr int utf8 = 106; // by IANA's numbers of character sets
    qputenv("LC_ALL", "C");
    QTextCodec::setCodecForLocale(QTextCodec::codecForMib(utf8));
}

// Batches are large, and several copies of each come and go. Between smaller things they would leave gaps
// that the C library keeps; so each large one is asked of the kernel and given back. And three threads need
// no heaps of their own.
void s_keepHeapSmall()
{
    constexpr int large = 32 * 1024;
    mallopt(M_MMAP_THRESHOLD, large);
    mallopt(M_TRIM_THRESHOLD, large);
    mallopt(M_ARENA_MAX, 1);
}

// systemd names one folder of each kind.
Gateway::Folders s_folders()
{
    const QString lasting = qEnvironmentVariable("STATE_DIRECTORY");
    return {lasting, qEnvironmentVariable("RUNTIME_DIRECTORY", lasting)};
}

} // namespace

int main(int count, char *words[])
{
    Gateway::Supervisor::blockSignals();
    s_preferPlainEventLoop();
    s_keepHeapSmall();
    s_speakPlainly();
    MQTTAsync_init_options once =
        MQTTAsync_init_options_initializer; // OpenSSL begins by itself, when it is used
    MQTTAsync_global_init(&once);
    QCoreApplication application(count, words);
    const QStringList arguments = QCoreApplication::arguments().mid(1);
    if (arguments == QStringList("--help")) {
        std::fputs(usage, stdout);
        return EXIT_SUCCESS;
    }
    const Words asked = s_wordsOf(arguments);
    if (!asked.areKnown) {
        std::fputs(usage, stderr);
        return 2;
    }
    const Gateway::ReadSettings read =
        Gateway::readSettings(asked.file, qEnvironmentVariable("CREDENTIALS_DIRECTORY"));
    for (const QString &error : read.errors) {
        qCritical("settings: %s", qPrintable(error));
    }
    if (!read.errors.isEmpty() || asked.onlyCheck) {
        return read.errors.isEmpty() ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    const Gateway::Folders folders = s_folders();
    if (folders.lasting.isEmpty()) {
        qCritical("STATE_DIRECTORY does not say where to keep what the broker has not acknowledged");
        return EXIT_FAILURE;
    }
    Gateway::Relay relay(read.settings, folders);
    Gateway::MetricsServer metrics([&relay] { return relay.metrics(); });
    if (const int port = read.settings.metrics.port; port != 0) {
        const QString error = metrics.listen(static_cast<quint16>(port));
        if (!error.isEmpty()) {
            qCritical("metrics: port %d: %s", port, qPrintable(error));
        }
    }
    Gateway::Supervisor supervisor([&relay] {
        relay.stop();
        QCoreApplication::quit();
    });
    return QCoreApplication::exec();
}
