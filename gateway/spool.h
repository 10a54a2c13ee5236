// Where Paho keeps what the broker has not acknowledged.
#pragma once

#include <mqtt/exception.h>
#include <mqtt/iclient_persistence.h>

#include <QByteArray>
#include <QString>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace Gateway
{

// A message of MQTT as it stands in the spool.
struct SpooledMessage {
    QByteArray topic;
    QByteArray payload;
    bool isRetained = false;
};

// Files that outlive the process, each with one message or what belongs to it, and none of them written to
// flash needlessly: they begin in a quick folder, which is memory, and what is not acknowledged for some
// seconds is moved to a lasting one. When that is full, they stay where they are; and what the quick one does
// not take, either, is kept here until it does.
//
// All functions may be called from any thread: Paho calls those of its interface from its own.
class Spool : public mqtt::iclient_persistence
{
public:
    // With what lies in both folders, which may be one.
    Spool(const QString &quickFolder, const QString &lastingFolder);

    // Writes what could not be written yet, and moves what is older than some seconds, or everything, to the
    // lasting folder. Empty, or why something could not be written.
    QString settle(bool everything = false);

    // How many files were damaged when it was made, and are gone.
    int damaged() const { return m_damaged; }

    // What it takes of the disk, in bytes, and how many messages there are. What is not written counts as
    // if it were.
    qint64 bytes() const;
    int count() const;

    // Takes messages out, the oldest first, until no more than `bytes` are in it; of those that are on their
    // way none. It has nothing to do with them from then on; the client must not be there. How many of them
    // were for `topic`.
    int giveUp(qint64 bytes, const QByteArray &topic);

    // While a connection is made: a broker that has forgotten the session makes Paho forget what was on its
    // way before it was acknowledged. This keeps it.
    void setConnecting(bool isConnecting) { m_isConnecting = isConnecting; }

    // What was kept so goes to `publish` again, the oldest first, until it is not taken. What was taken is
    // forgotten here.
    void republish(const std::function<bool(const SpooledMessage &)> &publish);

    void open(const std::string &clientId, const std::string &serverURI) override;
    void close() override;
    void clear() override;
    bool contains_key(const std::string &key) override;
    mqtt::string_collection keys() const override;
    void put(const std::string &key, const std::vector<mqtt::string_view> &parts) override;
    // Throws of what is not there, or damaged.
    std::string get(const std::string &key) const override;
    void remove(const std::string &key) override;

private:
    using Clock = std::chrono::steady_clock;

    struct Entry {
        bool isQuick = false;
        qint64 room = 0; // bytes of the disk
        Clock::time_point since;
        QByteArray unwritten; // the content, while there is no file
    };

    const QString &folderOf(const Entry &entry) const;
    QString pathOf(const std::string &key, const Entry &entry) const;
    QByteArray contentOf(const std::string &key, const Entry &entry) const;
    void load(const QString &folder, bool isQuick);
    QByteArray read(const std::string &key) const;
    void write(const std::string &key, const QByteArray &content);
    void drop(const std::string &key);
    void keepOrphan(const std::string &key);
    std::vector<std::string> keysLike(const char *prefix) const;

    const QString m_quickFolder;
    const QString m_lastingFolder;
    int m_damaged = 0;
    std::atomic<bool> m_isConnecting{false};
    mutable std::mutex m_mutex; // guards what follows
    std::map<std::string, Entry> m_entries;
    qint64 m_bytes = 0;
    quint64 m_orphans = 0;
};

} // namespace Gateway
