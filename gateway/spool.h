// What waits for the broker's acknowledgement.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>

#include <chrono>
#include <map>

namespace Gateway
{

// A message of MQTT as it stands in the spool.
struct SpooledMessage {
    QByteArray topic; // empty of what cannot be read
    QByteArray payload;
    bool isRetained = false;
};

// A queue of messages that outlives the process, and of which none is written to flash needlessly: each is a
// file, which begins in a quick folder, which is memory, and is moved to a lasting one when it stays for some
// seconds. When that is full, it stays where it is; and what the quick one does not take, either, is kept
// here until it does.
class Spool
{
public:
    // Of a message, from 1 on: higher than that of any before it, as long as this object lives.
    using Number = quintptr;

    // With what lies in both folders, which may be one.
    Spool(const QString &quickFolder, const QString &lastingFolder);

    Number append(const SpooledMessage &message);

    // The first message behind a number; 0 if there is none.
    Number following(Number number) const;

    SpooledMessage message(Number number) const;

    // The last retained message for a topic; 0 if it is not there.
    Number retained(const QByteArray &topic) const;

    // Does nothing if it is gone.
    void remove(Number number);

    // Removes messages behind a number, the oldest first, until no more than `bytes` are left. How many of
    // them were for `topic`.
    int giveUp(qint64 bytes, Number behind, const QByteArray &topic);

    // Writes what could not be written yet, and moves what is older than some seconds, or everything, to the
    // lasting folder. Empty, or where something could not be written.
    QString settle(bool everything = false);

    // How many files were damaged when it was made, and are gone.
    int damaged() const { return m_damaged; }

    // What it takes of the disk, in bytes, and how many messages there are. What is not written counts as
    // if it were.
    qint64 bytes() const { return m_bytes; }
    int count() const { return static_cast<int>(m_entries.size()); }

private:
    using Clock = std::chrono::steady_clock;

    struct Entry {
        bool isQuick = false;
        qint64 room = 0; // bytes of the disk
        Clock::time_point since;
        QByteArray unwritten; // the content, while there is no file
    };

    const QString &folderOf(const Entry &entry) const;
    QString pathOf(Number number, const Entry &entry) const;
    QByteArray contentOf(Number number, const Entry &entry) const;
    void load(const QString &folder, bool isQuick);
    void remember(Number number, const Entry &entry, const SpooledMessage &message);
    bool settle(Number number, Entry &entry, bool isDue) const;
    bool move(Number number, Entry &entry, bool isToQuick) const;

    const QString m_quickFolder;
    const QString m_lastingFolder;
    int m_damaged = 0;
    std::map<Number, Entry> m_entries;
    Number m_last = 0;
    QHash<QByteArray, Number> m_retained; // the last one of each topic that there was
    qint64 m_bytes = 0;
};

} // namespace Gateway
