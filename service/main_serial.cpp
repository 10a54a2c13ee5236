#include "service/main.h"

#include "service/recordscanner.h"

#include <QSerialPortInfo>

#include <sys/stat.h>

namespace
{

constexpr qint32 baudRate = 1000000;
constexpr int terminalReadyDelay = 200;  // ms from opening until DTR is raised
constexpr int terminalReadyRetry = 1000; // ms until that is tried again, if it fails

// How many ticks in a row may find an error before what is to be written is given up.
constexpr int serialErrorsAllowed = 2;

// What may wait for an adapter that takes nothing any more: over ten seconds of the line at its full rate.
constexpr qint64 unwrittenLimit = 1024 * 1024;

// The first port that describes itself as a VEK adapter; a null info when there is none.
QSerialPortInfo s_findAdapter()
{
    const auto ports = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo &port : ports) {
        if (port.description().startsWith(QLatin1String("VEK"))) {
            return port;
        }
    }
    return QSerialPortInfo();
}

} // namespace

bool Main::openSerialPort()
{
    const QSerialPortInfo adapter = s_findAdapter();
    if (adapter.isNull()) {
        return false;
    }
    qDebug() << "Found" << adapter.description() << adapter.portName();
    serialPort.setPort(adapter);
    portDescription = adapter.description();
    portLocation = adapter.systemLocation().toLocal8Bit();
    serialPort.setBaudRate(baudRate, QSerialPort::AllDirections);
    if (!serialPort.open(QIODevice::ReadWrite)) {
        qWarning() << "bool Main::openSerialPort()"
                   << "error" << serialPort.errorString();
        return false;
    }
    // Opening has set it already; adapters have always been sent it twice, the second time when they are
    // open.
    baudRateIsSet = serialPort.setBaudRate(baudRate, QSerialPort::AllDirections);
    serialPort.setRequestToSend(true);
    serialPort.setDataTerminalReady(false);
    terminalReadyTimer.start(terminalReadyDelay);
    return true;
}

// Whatever came at another baud rate would be no records.
void Main::raiseTerminalReady()
{
    baudRateIsSet = baudRateIsSet || serialPort.setBaudRate(baudRate, QSerialPort::AllDirections);
    terminalIsReady = baudRateIsSet && serialPort.setDataTerminalReady(true);
    if (!terminalIsReady && serialPort.isOpen() && !serialPortIsReplaced()) {
        qWarning() << "The adapter is not heard, its line cannot be set:" << serialPort.errorString();
        serialPort.clearError();
        terminalReadyTimer.start(terminalReadyRetry);
    }
}

void Main::closeSerialPort()
{
    serialPort.setDataTerminalReady(false);
    serialPort.flush();
    serialPort.close();
}

void Main::superviseSerialPort()
{
    if (serialPort.isOpen() && serialPort.error() != QSerialPort::ReadError && !serialPortIsReplaced()) {
        tellUnheard();
        resumeSerialPort();
        return;
    }
    if (serialPort.isOpen()) {
        qDebug() << "Close SerialPort";
    }
    serialPort.close();
    serialPort.clearError();
    serialErrors = 0;
    unheard = 0; // the rest of an adapter that was pulled
    terminalIsReady = false;
    terminalReadyTimer.stop();
    openSerialPort();
    sendHelloMessage();
}

// A pulled adapter need not show as an error: after another failure Qt may have turned its notifications off,
// and the port stays open and deaf. What tells is the device node, which is gone or belongs to a new device.
bool Main::serialPortIsReplaced() const
{
    struct stat opened {
    };
    struct stat present {
    };
    return fstat(serialPort.handle(), &opened) != 0 || stat(portLocation.constData(), &present) != 0 ||
           opened.st_dev != present.st_dev || opened.st_ino != present.st_ino;
}

// Other errors than ReadError are no reason to open the port again: most have passed when the tick comes. But
// after a read that failed with EIO or EAGAIN, Qt reads no more until it is asked for more than it has.
void Main::resumeSerialPort()
{
    const QSerialPort::SerialPortError error = serialPort.error();
    if (error != QSerialPort::ResourceError && error != QSerialPort::WriteError) {
        serialErrors = 0;
        return;
    }
    qWarning() << "The serial port is used on after an error:" << serialPort.errorString();
    if (++serialErrors > serialErrorsAllowed) {
        dropUnwritten();
    }
    serialPort.clearError();
    serialPort.peek(serialPort.bytesAvailable() + 1);
}

// Qt tries a write that fails again and again, at full speed; and what was to be done seconds ago is not to
// be done later.
void Main::dropUnwritten()
{
    if (serialPort.bytesToWrite() > 0) {
        qWarning() << "Dropping" << serialPort.bytesToWrite() << "bytes that the serial port does not take";
        serialPort.clear(QSerialPort::Output);
    }
}

// What an adapter sends while it does not tell its modem lines cannot be told from leftovers.
void Main::tellUnheard()
{
    if (unheard > 0) {
        qWarning() << "Dropped" << unheard
                   << "bytes of an adapter that does not say whether its DTR is raised";
    }
    unheard = 0;
}

// DTR low is the gate: until it is raised, the adapter's bytes are leftovers from before it was opened.
// One look at all that is buffered and one skip, however many records it holds; a partial record stays in
// the port's buffer until the rest of it arrives.
void Main::readSerialPort()
{
    if (!serialPort.isDataTerminalReady()) {
        const QByteArray dropped = serialPort.readAll();
        unheard += terminalIsReady ? dropped.size() : 0;
        return;
    }
    const QByteArray buffered = serialPort.peek(serialPort.bytesAvailable());
    const int consumed = scanRecords(buffered.constData(), buffered.size(), [this](const vek_frame_t &frame) {
        const std::uint16_t header = vek_frame_header(frame);
        insertFrame(header, QByteArray(reinterpret_cast<const char *>(frame.data), vek_payload_size(header)));
    });
    serialPort.skip(consumed);
    flushClients();
}

void Main::writeToSerialPort(const QVariant &value)
{
    const QByteArray records = converter.toFrame(value);
    // A closed port may still have what its adapter did not take. It is never sent: opening clears it.
    if (serialPort.isOpen() && serialPort.bytesToWrite() > unwrittenLimit) {
        qWarning() << "Dropping a message of" << records.size() << "bytes: the serial port leaves"
                   << serialPort.bytesToWrite() << "bytes unwritten";
        return;
    }
    serialPort.write(records.constData(), records.size());
}
