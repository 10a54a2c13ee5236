#include "service/main.h"

#include "service/containment.h"

#include <QCanBus>
#include <QCanBusDevice>
#include <QCanBusFrame>
#include <QThread>

#include <net/if.h>

#include <cerrno>

namespace
{

constexpr char interfaceName[] = "can0";
constexpr unsigned long pauseBeforeFrame = 10; // ms; nodes on the bus lose frames that come faster

// What one message may put on the bus: with the pause before each, over a minute in which nobody else is
// served.
constexpr int frameLimit = 8192;

QCanBusFrame s_canFrame(const vek_frame_t &frame)
{
    const std::uint16_t header = vek_frame_header(frame);
    return QCanBusFrame(vek_header_can_id(header),
                        QByteArray(reinterpret_cast<const char *>(frame.data), vek_payload_size(header)));
}

// What a device reports while it is written to: one error for each frame that it does not take. It is
// listened to for the log alone; what the service does depends on no write.
struct CanErrors {
    explicit CanErrors(QCanBusDevice *device)
    {
        QObject::connect(device, &QCanBusDevice::errorOccurred, &listener, contained([this, device] {
                             ++count;
                             last = device->errorString();
                         }));
    }

    int count = 0;
    QString last;
    QObject listener; // its end is the end of listening
};

} // namespace

// The device gets no parameters: bit rate and all else are those of the system's interface, and Qt's plugin
// takes classic frames only then.
void Main::superviseSocketCan()
{
    if (canDevice && canDevice->error() == QCanBusDevice::NoError && !canInterfaceIsReplaced()) {
        return;
    }
    if (canDevice) {
        qDebug() << "Close SocketCan";
        delete canDevice;
    }
    QString errorMessage;
    canDevice = QCanBus::instance()->createDevice(QStringLiteral("socketcan"), QLatin1String(interfaceName),
                                                  &errorMessage);
    canInterfaceIndex = if_nametoindex(interfaceName);
    if (!canDevice) {
        qCritical() << "Socket can creation failed: " << errorMessage;
    } else if (!canDevice->connectDevice()) {
        qCritical() << "Socket can cannot connect.";
    }
    startRead();
}

// Qt reports no error to a reader when the interface is deleted and made again: its number tells. That it
// cannot be asked for, for want of a descriptor, says nothing.
bool Main::canInterfaceIsReplaced() const
{
    const unsigned index = if_nametoindex(interfaceName);
    const bool isKnown = index != 0 || errno == ENODEV;
    return isKnown && index != canInterfaceIndex;
}

// The device may outlive this object: the destructor ends the connection.
void Main::startRead()
{
    if (source == SourceSocketCan) {
        canReading =
            connect(canDevice, &QCanBusDevice::framesReceived, contained([this] { readSocketCan(); }));
    }
}

// Remote and error frames are delivered like data frames: an error frame arrives as node 0, command 0.
void Main::readSocketCan()
{
    while (canDevice->framesAvailable() > 0) {
        const QCanBusFrame frame = canDevice->readFrame();
        if (frame.isValid()) {
            insertFrame(static_cast<quint16>(frame.frameId() & 0x7FF), frame.payload());
        }
    }
    flushClients();
}

void Main::writeToSocketCan(const QVariant &value)
{
    const QList<vek_frame_t> frames = converter.toVEKFrames(value);
    if (frames.size() > frameLimit) {
        qWarning() << "Dropping a message of" << frames.size() << "frames: can0 takes at most" << frameLimit
                   << "of one message";
        return;
    }
    const CanErrors errors(canDevice);
    for (const vek_frame_t &frame : frames) {
        const QCanBusFrame canFrame = s_canFrame(frame);
        QThread::msleep(pauseBeforeFrame);
        canDevice->writeFrame(canFrame);
    }
    if (errors.count > 0) {
        qWarning() << "Lost" << errors.count << "of" << frames.size()
                   << "frames of one message, can0 says:" << errors.last;
    }
}
