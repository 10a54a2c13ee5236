#include "gateway/spool.h"

#include "gateway/savedfile.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <array>

namespace Gateway
{

namespace
{

// What is acknowledged sooner is never written to flash.
constexpr std::chrono::seconds quickTime{3};

// How Paho's keys begin, with a 5 before the hyphen for MQTT 5, and one of our own.
constexpr char waiting[] = "c";
constexpr char onItsWay[] = "s";
constexpr char orphaned[] = "o";

constexpr int checksumWidth = 8;

// What a disk takes at least for a file; the memory that Paho takes for one is not much less.
constexpr qint64 blockSize = 4096;

qint64 s_room(qint64 size)
{
    return (size + checksumWidth + blockSize - 1) / blockSize * blockSize;
}

bool s_begins(const std::string &key, const char *prefix)
{
    return key.rfind(std::string(prefix) + '-', 0) == 0 || key.rfind(std::string(prefix) + "5-", 0) == 0;
}

bool s_isVersion5(const std::string &key)
{
    return key.find("5-") == 1;
}

quint64 s_number(const std::string &key)
{
    return QByteArray::fromStdString(key.substr(key.find('-') + 1)).toULongLong();
}

// Takes bytes from the front of a packet; a packet that is too short gives none.
class Packet
{
public:
    explicit Packet(const QByteArray &bytes) : m_bytes(bytes) {}

    QByteArray take(int count)
    {
        QByteArray taken = m_bytes.mid(m_at, count);
        m_at += count;
        return taken;
    }

    int takeNumber(int width)
    {
        int number = 0;
        for (const char byte : take(width)) {
            number = number << 8 | static_cast<unsigned char>(byte);
        }
        return number;
    }

    // Seven bits a byte, the lowest first, as long as the highest bit is set.
    int takeLength()
    {
        int length = 0;
        for (int shift = 0; shift <= 21; shift += 7) {
            const int byte = takeNumber(1);
            length |= (byte & 0x7f) << shift;
            if (byte < 0x80) {
                break;
            }
        }
        return length;
    }

    QByteArray rest() const { return m_bytes.mid(m_at); }

private:
    const QByteArray m_bytes;
    int m_at = 0;
};

// MQTT 3.1.1, 3.3: a PUBLISH packet of QoS 1; in 5, properties come before the payload.
SpooledMessage s_published(const QByteArray &bytes, bool isVersion5)
{
    constexpr int retained = 1;
    constexpr int identifierWidth = 2;
    Packet packet(bytes);
    const int flags = packet.takeNumber(1);
    packet.takeLength();
    const QByteArray topic = packet.take(packet.takeNumber(2));
    packet.take(identifierWidth);
    if (isVersion5) {
        packet.take(packet.takeLength());
    }
    return {topic, packet.rest(), (flags & retained) != 0};
}

// CRC-32 as zlib has it, a byte at a time.
constexpr std::array<quint32, 256> s_crcTable()
{
    constexpr quint32 polynomial = 0xedb88320;
    std::array<quint32, 256> table{};
    for (quint32 byte = 0; byte < table.size(); ++byte) {
        quint32 rest = byte;
        for (int bit = 0; bit < 8; ++bit) {
            rest = rest >> 1 ^ (rest & 1 ? polynomial : 0);
        }
        table[byte] = rest;
    }
    return table;
}

// Of what stands before it in a file: Paho trusts what it reads, and a machine that lost its power leaves
// files half written, or empty.
QByteArray s_checksum(const QByteArray &content)
{
    static constexpr std::array<quint32, 256> table = s_crcTable();
    quint32 rest = ~0U;
    for (const char byte : content) {
        rest = rest >> 8 ^ table[(rest ^ static_cast<unsigned char>(byte)) & 0xff];
    }
    return QByteArray::number(~rest, 16).rightJustified(checksumWidth, '0');
}

bool s_save(const QString &path, const QByteArray &content)
{
    return saveFile(path, content + s_checksum(content)).isEmpty();
}

// What was saved; null if it is damaged, or not there.
QByteArray s_load(const QString &path)
{
    QFile file(path);
    const QByteArray all = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    const QByteArray content = all.left(all.size() - checksumWidth);
    return all.size() > checksumWidth && all.endsWith(s_checksum(content)) ? content : QByteArray();
}

} // namespace

Spool::Spool(const QString &quickFolder, const QString &lastingFolder)
    : m_quickFolder(quickFolder), m_lastingFolder(lastingFolder)
{
    QDir().mkpath(quickFolder);
    QDir().mkpath(lastingFolder);
    load(lastingFolder, false);
    if (quickFolder != lastingFolder) {
        load(quickFolder, true); // of what was being moved, this one is whole
    }
    for (const std::string &key : keysLike(orphaned)) {
        m_orphans = std::max(m_orphans, s_number(key));
    }
}

void Spool::load(const QString &folder, bool isQuick)
{
    for (const QFileInfo &file : QDir(folder).entryInfoList(QDir::Files)) {
        const std::string key = file.fileName().toStdString();
        if (key.find('-') == std::string::npos) {
            continue; // another's
        }
        if (key.find('.') != std::string::npos) {
            QFile::remove(file.filePath()); // half written when the process ended
            continue;
        }
        drop(key);
        const QByteArray content = s_load(file.filePath());
        if (content.isNull()) {
            QFile::remove(file.filePath());
            ++m_damaged;
            continue;
        }
        m_entries[key] = {isQuick, s_room(content.size()), {}, {}};
        m_bytes += m_entries[key].room;
    }
}

QString Spool::settle(bool everything)
{
    const std::lock_guard lock(m_mutex);
    for (auto &[key, entry] : m_entries) {
        const bool isDue = everything || Clock::now() - entry.since >= quickTime;
        const bool isToMove = entry.isQuick && isDue;
        if (!isToMove && entry.unwritten.isEmpty()) {
            continue;
        }
        const Entry settled{entry.isQuick && !isDue, entry.room, entry.since, {}};
        if (!s_save(pathOf(key, settled), contentOf(key, entry))) {
            return "cannot write to " + folderOf(settled);
        }
        if (isToMove) {
            QFile::remove(pathOf(key, entry));
        }
        entry = settled;
    }
    return {};
}

qint64 Spool::bytes() const
{
    const std::lock_guard lock(m_mutex);
    return m_bytes;
}

int Spool::count() const
{
    const std::lock_guard lock(m_mutex);
    return static_cast<int>(m_entries.size());
}

int Spool::giveUp(qint64 bytes, const QByteArray &topic)
{
    const std::lock_guard lock(m_mutex);
    int count = 0;
    for (const std::string &key : keysLike(waiting)) {
        if (m_bytes <= bytes) {
            break;
        }
        count += read(key).contains(topic + '\0') ? 1 : 0;
        drop(key);
    }
    return count;
}

void Spool::republish(const std::function<bool(const SpooledMessage &)> &publish)
{
    std::unique_lock lock(m_mutex);
    for (const std::string &key : keysLike(orphaned)) {
        const SpooledMessage message = s_published(read(key), s_isVersion5(key));
        lock.unlock();                                                    // Paho puts it in here again
        const bool isTaken = message.topic.isEmpty() || publish(message); // none: damaged since
        lock.lock();
        if (!isTaken) {
            return;
        }
        drop(key);
    }
}

void Spool::open(const std::string & /*clientId*/, const std::string & /*serverURI*/) {}

void Spool::close() {}

// Paho calls it for a session that is to begin clean, which none of ours is.
void Spool::clear() {}

bool Spool::contains_key(const std::string &key)
{
    const std::lock_guard lock(m_mutex);
    return m_entries.count(key) > 0;
}

mqtt::string_collection Spool::keys() const
{
    const std::lock_guard lock(m_mutex);
    mqtt::string_collection keys;
    for (const auto &[key, entry] : m_entries) {
        if (!s_begins(key, orphaned)) {
            keys.push_back(key);
        }
    }
    return keys;
}

void Spool::put(const std::string &key, const std::vector<mqtt::string_view> &parts)
{
    QByteArray content;
    for (const mqtt::string_view &part : parts) {
        content.append(part.data(), static_cast<int>(part.size()));
    }
    const std::lock_guard lock(m_mutex);
    write(key, content);
}

std::string Spool::get(const std::string &key) const
{
    const std::lock_guard lock(m_mutex);
    const QByteArray content = read(key);
    if (content.isNull()) {
        throw mqtt::persistence_exception(MQTTCLIENT_PERSISTENCE_ERROR);
    }
    return content.toStdString();
}

void Spool::remove(const std::string &key)
{
    const std::lock_guard lock(m_mutex);
    if (m_isConnecting && s_begins(key, onItsWay)) {
        keepOrphan(key);
    } else {
        drop(key);
    }
}

const QString &Spool::folderOf(const Entry &entry) const
{
    return entry.isQuick ? m_quickFolder : m_lastingFolder;
}

QString Spool::pathOf(const std::string &key, const Entry &entry) const
{
    return folderOf(entry) + '/' + QString::fromStdString(key);
}

// Null if the file is damaged, or gone.
QByteArray Spool::contentOf(const std::string &key, const Entry &entry) const
{
    return entry.unwritten.isEmpty() ? s_load(pathOf(key, entry)) : entry.unwritten;
}

QByteArray Spool::read(const std::string &key) const
{
    const auto found = m_entries.find(key);
    return found == m_entries.end() ? QByteArray() : contentOf(key, found->second);
}

// Paho would keep what is not taken here, too, but only until the next connection is made with another client
// of its own.
void Spool::write(const std::string &key, const QByteArray &content)
{
    drop(key);
    Entry entry{m_quickFolder != m_lastingFolder, s_room(content.size()), Clock::now(), {}};
    if (!s_save(pathOf(key, entry), content)) {
        entry.unwritten = content;
    }
    m_entries[key] = entry;
    m_bytes += entry.room;
}

void Spool::drop(const std::string &key)
{
    const auto found = m_entries.find(key);
    if (found == m_entries.end()) {
        return;
    }
    QFile::remove(pathOf(key, found->second));
    m_bytes -= found->second.room;
    m_entries.erase(found);
}

// Under another name, which takes no room on a disk that is full.
void Spool::keepOrphan(const std::string &key)
{
    const auto found = m_entries.find(key);
    if (found == m_entries.end()) {
        return;
    }
    const Entry entry = found->second;
    const std::string version = s_isVersion5(key) ? "5-" : "-";
    const std::string orphan = orphaned + version + std::to_string(++m_orphans);
    QFile::rename(pathOf(key, entry), pathOf(orphan, entry));
    m_entries.erase(found);
    m_entries.emplace(orphan, entry);
}

// In the order of their numbers.
std::vector<std::string> Spool::keysLike(const char *prefix) const
{
    std::vector<std::string> keys;
    for (const auto &[key, entry] : m_entries) {
        if (s_begins(key, prefix)) {
            keys.push_back(key);
        }
    }
    std::sort(keys.begin(), keys.end(), [](const std::string &left, const std::string &right) {
        return s_number(left) < s_number(right);
    });
    return keys;
}

} // namespace Gateway
