// The bridge: everything the daemon does, in one object on one event loop.
//
//   main.h             this contract
//   main_startup.cpp   construction, teardown, the one-second supervision tick
//   main_websocket.cpp clients: greeting, broadcasting, what they send
//   main_serial.cpp    the serial CAN adapter
//   main_socketcan.cpp the SocketCAN interface
//   main.cpp           the entry point
//
// All of it runs on the thread that constructed it; every connection is direct, so each event is handled to
// its end before the next. The only thing that blocks is the pause before each frame written to SocketCAN.
#pragma once

#include "schema/schemaconverter.h"
#include "service/vek_frame.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QSerialPort>
#include <QString>
#include <QTimer>
#include <QVariant>
#include <QWebSocketServer>

class QCanBusDevice;
class QWebSocket;

class Main : public QObject
{
    Q_OBJECT

public:
    // Reads VORBEL_SOURCE, starts the supervision timer and listens on port 10443. Touches neither link: the
    // first attempt comes with the first tick, one second later. If the port is not available, a warning says
    // so and the object carries on without clients.
    explicit Main(QObject *parent);
    ~Main() override;

    // Selects the first port whose description begins with "VEK", opens and configures it. False when there
    // is none (silently) or when it does not open (with a warning). DTR follows 200 ms later; while that
    // or the baud rate fails, they are tried again each second (with a warning).
    bool openSerialPort();

    // Lowers DTR, writes what is pending and closes the port. For embedders: the daemon has no orderly
    // shutdown and never calls it.
    void closeSerialPort();

    // Connects canDevice's incoming frames to the converter; does nothing unless the source is SocketCAN.
    void startRead();

    // Broadcasts to all clients, in the order in which they connected: `value` as a MessagePack binary
    // message, `text` as a text message. A client that leaves unread more than 16 MiB, and more than
    // three times the largest message on its way, is dropped; of many that together leave 96 MiB unread,
    // those that leave most.
    void sendToWebSocket(const QVariant &value);
    void sendTextToWebSocket(const QString &text);

    // Tells all clients, as JSON, which device this is. The environment is read again for every hello.
    void sendHelloMessage();

private:
    enum Source : qint32 { SourceNone = 0, SourceSerialPort = 1, SourceSocketCan = 2 };

    static Source sourceFromEnvironment();
    void connectSignals();
    void listen();
    void superviseLinks();
    void superviseListener();
    void superviseClients();

    void acceptClient();
    void forgetClient(QWebSocket *client);
    void receiveText(const QString &message);
    void receiveBinary(const QByteArray &message);
    template <typename Send>
    void broadcast(Send send);
    void flushClients();
    qint64 unreadAllowed() const;
    void dropSlowestClients();

    void superviseSerialPort();
    bool serialPortIsReplaced() const;
    void resumeSerialPort();
    void dropUnwritten();
    void tellUnheard();
    void raiseTerminalReady();
    void readSerialPort();
    void writeToSerialPort(const QVariant &value);

    void superviseSocketCan();
    bool canInterfaceIsReplaced() const;
    void readSocketCan();
    void writeToSocketCan(const QVariant &value);

    void insertFrame(quint16 identifier, const QByteArray &payload);

    SchemaConverter converter;
    QSerialPort serialPort;
    QCanBusDevice *canDevice = nullptr; // made and replaced by the supervision tick; outlives Main
    QWebSocketServer server;
    QList<QWebSocket *> clients; // in order of connection; deleted when they disconnect, or with Main
    QString portDescription;     // of the serial port last selected, for the log
    Source source;
    QTimer timer;
    QMetaObject::Connection canReading; // of canDevice's frames to this object
    QByteArray portLocation;            // device node of the serial port last selected
    QTimer terminalReadyTimer;          // from opening the serial port until DTR is raised
    bool baudRateIsSet = false;         // whether it has been set since the serial port was opened
    bool terminalIsReady = false;       // whether DTR has been raised since the serial port was opened
    int serialErrors = 0;               // how many ticks in a row have found an error it is used on after
    qint64 unheard = 0;                 // bytes dropped since the last tick: DTR was not told
    unsigned canInterfaceIndex = 0;     // the kernel's number of "can0" when canDevice was connected
    qint64 largestMessage = 0;          // in bytes, of those that may be on their way to a client
    qint64 unreadByAll = 0;             // bytes waiting for all clients together after the last broadcast
};
