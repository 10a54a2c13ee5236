// A CAN bus over a local socket, for programs that ask Qt SerialBus for the plugin "socketcan".
//
// The other end is the program that plays the bus; it listens on VORBEL_SIM_DIR/can/socket (SOCK_SEQPACKET:
// one message, one frame). Messages, all in the machine's byte order:
//
//   bus to device, 72 bytes   the kernel's struct canfd_frame; the payload is an FD one when CANFD_FDF is set
//   bus to device, shorter    an error report: 32-bit QCanBusDevice::CanBusError and a UTF-8 text
//   device to bus, 80 bytes   64-bit CLOCK_MONOTONIC nanoseconds of the write and the struct canfd_frame
//
// The file VORBEL_SIM_DIR/can/mode may hold a word that changes what the device does: "absent" (it cannot be
// created), "refuse" (it fails to connect and reports an error), "refuse-silently" (it fails to connect and
// reports none), "full" (it takes no frame, as an interface whose queue is full).
#pragma once

#include <QCanBusDevice>
#include <QCanBusFactory>
#include <QSocketNotifier>

#include <memory>

class VirtualCanBus : public QCanBusDevice
{
    Q_OBJECT

public:
    ~VirtualCanBus() override;

    bool writeFrame(const QCanBusFrame &frame) override;
    QString interpretErrorFrame(const QCanBusFrame &frame) override;

protected:
    bool open() override;
    void close() override;

private:
    bool connectSocket();
    void readMessages();

    int descriptor = -1;
    std::unique_ptr<QSocketNotifier> notifier;
};

class VirtualCanBusFactory : public QObject, public QCanBusFactoryV2
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "org.qt-project.Qt.QCanBusFactory" FILE "canbus.json")
    Q_INTERFACES(QCanBusFactoryV2)

public:
    QList<QCanBusDeviceInfo> availableDevices(QString *errorMessage) const override;
    QCanBusDevice *createDevice(const QString &interfaceName, QString *errorMessage) const override;
};
