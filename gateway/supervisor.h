// Who started the process, and may end it.
#pragma once

#include <QObject>
#include <QSocketNotifier>
#include <QTimer>

#include <functional>

namespace Gateway
{

// Tells systemd, if it asked for that, that the service runs and that its event loop goes on, and hears the
// signals that ask it to end. There is one in a process.
class Supervisor : public QObject
{
    Q_OBJECT

public:
    // Keeps signals for the one that comes; before the process has a second thread.
    static void blockSignals();

    // `end` is called for SIGTERM and SIGINT.
    explicit Supervisor(const std::function<void()> &end);
    ~Supervisor() override;

private:
    void hearSignals(const std::function<void()> &end);
    void beginWatchdog();

    int m_signals = -1; // a descriptor
    QTimer m_ready;
    QTimer m_alive;
};

} // namespace Gateway
