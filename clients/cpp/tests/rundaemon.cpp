#include "rundaemon.h"

#include <QDir>
#include <QElapsedTimer>
#include <QLibraryInfo>
#include <QTcpSocket>
#include <QTest>

#include <linux/can.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace
{

constexpr quint16 s_port = 10443;
constexpr int s_patience = 15000; // milliseconds

// As the other end has it: when it was written, and the frame.
struct WrittenFrame {
    qint64 nanoseconds;
    canfd_frame frame;
};

bool s_canConnect()
{
    QTcpSocket socket;
    socket.connectToHost("127.0.0.1", s_port);
    return socket.waitForConnected(1000);
}

} // namespace

VirtualBus::VirtualBus()
{
    QDir(m_folder.path()).mkdir("can");
    const QByteArray path = (m_folder.path() + "/can/socket").toLocal8Bit();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.constData(), sizeof address.sun_path - 1);
    m_listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0);
    if (bind(m_listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(m_listener, 1) != 0) {
        qFatal("the virtual bus cannot listen at %s", path.constData());
    }
}

VirtualBus::~VirtualBus()
{
    close(m_listener);
    close(m_device);
}

bool VirtualBus::takeDevice()
{
    const int device = accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK);
    if (device < 0) {
        return false;
    }
    close(m_device);
    m_device = device;
    return true;
}

void VirtualBus::say(quint32 mac, quint32 cmd, const QByteArray &hexPayload)
{
    const QByteArray payload = QByteArray::fromHex(hexPayload);
    canfd_frame frame{};
    frame.can_id = mac | cmd << 6;
    frame.len = static_cast<quint8>(payload.size());
    std::memcpy(frame.data, payload.constData(), static_cast<std::size_t>(payload.size()));
    if (send(m_device, &frame, sizeof frame, 0) != sizeof frame) {
        qFatal("nobody hears the virtual bus");
    }
}

QStringList VirtualBus::heard()
{
    QStringList frames;
    WrittenFrame written{};
    while (recv(m_device, &written, sizeof written, 0) == sizeof written) {
        const QByteArray payload(reinterpret_cast<const char *>(written.frame.data), written.frame.len);
        const quint32 id = written.frame.can_id;
        frames << QString("%1 %2 %3").arg(id & 0x3f).arg(id >> 6 & 0x1f).arg(QString(payload.toHex(' ')));
    }
    return frames;
}

bool RunDaemon::start()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("VORBEL_SIM_DIR", bus.folder());
    environment.insert("VORBEL_SOURCE", "socketcan");
    environment.insert("QT_PLUGIN_PATH",
                       QLibraryInfo::location(QLibraryInfo::PluginsPath) + ':' + VORBEL_SIM_PLUGINS);
    m_process.setProcessEnvironment(environment);
    m_process.setStandardOutputFile(QProcess::nullDevice());
    m_process.setStandardErrorFile(QProcess::nullDevice());
    m_process.start(VORBEL_DAEMON, QStringList());
    QElapsedTimer waited;
    waited.start();
    bool hasDevice = false;
    while (!hasDevice || !s_canConnect()) {
        if (waited.hasExpired(s_patience)) {
            return false;
        }
        QTest::qWait(20);
        hasDevice = hasDevice || bus.takeDevice();
    }
    return true;
}

void RunDaemon::stop()
{
    m_process.kill();
    m_process.waitForFinished();
}
