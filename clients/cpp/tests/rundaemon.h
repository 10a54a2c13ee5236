// The real daemon on a virtual CAN bus.
#pragma once

#include <QByteArray>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

// The bus behind sim/canbus; what is written to it and read from it are frames of the VEK protocol.
class VirtualBus
{
public:
    VirtualBus();
    ~VirtualBus();
    VirtualBus(const VirtualBus &) = delete;
    VirtualBus &operator=(const VirtualBus &) = delete;

    QString folder() const { return m_folder.path(); }

    // Whether a device has connected; the one that came last is the one that hears.
    bool takeDevice();

    void say(quint32 mac, quint32 cmd, const QByteArray &hexPayload);

    // The frames that the device has written since the last call, as "5 3 b0 04".
    QStringList heard();

private:
    QTemporaryDir m_folder;
    int m_listener = -1;
    int m_device = -1;
};

// One daemon, which can be ended and started again. VORBEL_DAEMON and VORBEL_SIM_PLUGINS come from the build.
class RunDaemon
{
public:
    ~RunDaemon() { stop(); }

    // Returns when it listens and hears the bus; false if it never does.
    bool start();
    void stop();

    VirtualBus bus;

private:
    QProcess m_process;
};
