#include "canbus.h"

#include <QFile>

#include <linux/can.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>

struct WrittenFrame {
    std::int64_t nanoseconds;
    canfd_frame frame;
};

static_assert(sizeof(canfd_frame) == 72 && sizeof(WrittenFrame) == 80, "the messages of the local socket");

// Since Linux 5.14 the kernel marks FD frames this way itself; older headers lack the name.
constexpr std::uint8_t fdFrameFlag = 0x04;

static QByteArray s_path(const char *leaf)
{
    return qgetenv("VORBEL_SIM_DIR") + "/can/" + leaf;
}

static QByteArray s_mode()
{
    QFile file(QString::fromLocal8Bit(s_path("mode")));
    return file.open(QIODevice::ReadOnly) ? file.readAll().trimmed() : QByteArray();
}

static std::int64_t s_now()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t(now.tv_sec) * 1000000000 + now.tv_nsec;
}

static QCanBusFrame::FrameType s_frameType(canid_t id)
{
    if (id & CAN_ERR_FLAG) {
        return QCanBusFrame::ErrorFrame;
    }
    return id & CAN_RTR_FLAG ? QCanBusFrame::RemoteRequestFrame : QCanBusFrame::DataFrame;
}

// The length is taken as it stands: more than eight bytes without the FD flag make an invalid frame, and
// whoever reads the device has to cope with those.
static QCanBusFrame s_fromWire(const canfd_frame &wire)
{
    QCanBusFrame frame(s_frameType(wire.can_id));
    frame.setExtendedFrameFormat(wire.can_id & CAN_EFF_FLAG);
    frame.setFrameId(wire.can_id & CAN_EFF_MASK);
    frame.setPayload(
        QByteArray(reinterpret_cast<const char *>(wire.data), qMin<int>(wire.len, CANFD_MAX_DLEN)));
    frame.setFlexibleDataRateFormat(wire.flags & fdFrameFlag);
    return frame;
}

static canid_t s_wireId(const QCanBusFrame &frame)
{
    canid_t id = frame.frameId();
    id |= frame.hasExtendedFrameFormat() ? CAN_EFF_FLAG : 0;
    id |= frame.frameType() == QCanBusFrame::RemoteRequestFrame ? CAN_RTR_FLAG : 0;
    id |= frame.frameType() == QCanBusFrame::ErrorFrame ? CAN_ERR_FLAG : 0;
    return id;
}

static canfd_frame s_toWire(const QCanBusFrame &frame)
{
    canfd_frame wire = {};
    const QByteArray payload = frame.payload();
    wire.can_id = s_wireId(frame);
    wire.len = static_cast<std::uint8_t>(payload.size());
    wire.flags = frame.hasFlexibleDataRateFormat() ? fdFrameFlag : 0;
    std::memcpy(wire.data, payload.constData(), wire.len);
    return wire;
}

VirtualCanBus::~VirtualCanBus()
{
    VirtualCanBus::close();
}

bool VirtualCanBus::open()
{
    const QByteArray mode = s_mode();
    if (mode == "refuse-silently") {
        return false;
    }
    if (mode == "refuse" || !connectSocket()) {
        setError(QStringLiteral("The virtual CAN bus cannot be reached"), QCanBusDevice::ConnectionError);
        return false;
    }
    notifier = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Read);
    connect(notifier.get(), &QSocketNotifier::activated, this, [this] { readMessages(); });
    setState(QCanBusDevice::ConnectedState);
    return true;
}

bool VirtualCanBus::connectSocket()
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, s_path("socket").constData(), sizeof address.sun_path);
    descriptor = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (::connect(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
        return true;
    }
    ::close(descriptor);
    descriptor = -1;
    return false;
}

void VirtualCanBus::close()
{
    notifier.reset();
    if (descriptor != -1) {
        ::close(descriptor);
        descriptor = -1;
    }
    setState(QCanBusDevice::UnconnectedState);
}

// Drains the socket, so that frames that came together are announced together, as the kernel's are.
void VirtualCanBus::readMessages()
{
    QVector<QCanBusFrame> frames;
    char message[sizeof(canfd_frame)];
    ssize_t length;
    while ((length = ::recv(descriptor, message, sizeof message, 0)) > 0) {
        if (length == sizeof(canfd_frame)) {
            canfd_frame wire;
            std::memcpy(&wire, message, sizeof wire);
            frames.append(s_fromWire(wire));
        } else if (length >= ssize_t(sizeof(std::uint32_t))) {
            std::uint32_t code;
            std::memcpy(&code, message, sizeof code);
            setError(QString::fromUtf8(message + sizeof code, int(length) - int(sizeof code)),
                     static_cast<QCanBusDevice::CanBusError>(code));
        }
    }
    const bool lost = length == 0 || errno != EAGAIN;
    if (!frames.isEmpty()) {
        enqueueReceivedFrames(frames);
    }
    if (lost) { // told after the last frames: reading a frame takes an error back
        notifier->setEnabled(false);
        setError(QStringLiteral("The virtual CAN bus is gone"), QCanBusDevice::ReadError);
    }
}

bool VirtualCanBus::writeFrame(const QCanBusFrame &frame)
{
    if (state() != QCanBusDevice::ConnectedState) {
        return false;
    }
    if (!frame.isValid()) {
        setError(tr("Cannot write invalid QCanBusFrame"), QCanBusDevice::WriteError);
        return false;
    }
    const WrittenFrame written = {s_now(), s_toWire(frame)};
    if (s_mode() == "full") {
        setError(qt_error_string(ENOBUFS), QCanBusDevice::WriteError);
        return false;
    }
    if (::send(descriptor, &written, sizeof written, MSG_NOSIGNAL) != ssize_t(sizeof written)) {
        setError(qt_error_string(errno), QCanBusDevice::WriteError);
        return false;
    }
    emit framesWritten(1);
    return true;
}

QString VirtualCanBus::interpretErrorFrame(const QCanBusFrame &frame)
{
    return QString::fromLatin1(frame.payload().toHex());
}

QList<QCanBusDeviceInfo> VirtualCanBusFactory::availableDevices(QString *errorMessage) const
{
    Q_UNUSED(errorMessage)
    return {};
}

QCanBusDevice *VirtualCanBusFactory::createDevice(const QString &interfaceName, QString *errorMessage) const
{
    if (s_mode() == "absent") {
        *errorMessage = QStringLiteral("There is no virtual CAN bus named ") + interfaceName;
        return nullptr;
    }
    return new VirtualCanBus;
}
