#include "gateway/spool.h"

#include "gateway/savedfile.h"

#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QIODevice>

#include <algorithm>
#include <array>

namespace Gateway
{

namespace
{

// What is acknowledged sooner is never written to flash.
constexpr std::chrono::seconds quickTime{3};

// How the names of its files begin; the number follows.
constexpr char prefix[] = "message-";

// Files that cannot be written in one go, before the others are left for the next one.
constexpr int failuresMax = 10;

constexpr int checksumWidth = 8;

// What a disk takes at least for a file.
constexpr qint64 blockSize = 4096;

qint64 s_room(qint64 size)
{
    return (size + checksumWidth + blockSize - 1) / blockSize * blockSize;
}

QByteArray s_packed(const SpooledMessage &message)
{
    QByteArray content;
    QDataStream stream(&content, QIODevice::WriteOnly);
    stream.setVersion(QDataStream::Qt_5_15);
    stream << message.topic << message.isRetained << message.payload;
    return content;
}

SpooledMessage s_unpacked(const QByteArray &content)
{
    SpooledMessage message;
    QDataStream stream(content);
    stream.setVersion(QDataStream::Qt_5_15);
    stream >> message.topic >> message.isRetained >> message.payload;
    return message;
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

// Of what stands before it in a file: a machine that lost its power leaves files half written, or empty.
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
    m_last = m_entries.empty() ? 0 : m_entries.rbegin()->first;
}

void Spool::load(const QString &folder, bool isQuick)
{
    // Without a filter of names, which would cost a third of a megabyte: it takes regular expressions.
    for (const QFileInfo &file : QDir(folder).entryInfoList(QDir::Files)) {
        if (!file.fileName().startsWith(prefix)) {
            continue; // another's
        }
        bool isWhole = false;
        const Number number = file.fileName().mid(sizeof prefix - 1).toULongLong(&isWhole);
        if (!isWhole) {
            QFile::remove(file.filePath()); // half written when the process ended
            continue;
        }
        const QByteArray content = s_load(file.filePath());
        if (content.isNull()) {
            QFile::remove(file.filePath());
            m_damaged += m_entries.count(number) > 0 ? 0 : 1;
            continue;
        }
        remove(number);
        remember(number, {isQuick, s_room(content.size()), {}, {}}, s_unpacked(content));
    }
}

void Spool::remember(Number number, const Entry &entry, const SpooledMessage &message)
{
    m_entries[number] = entry;
    m_bytes += entry.room;
    if (message.isRetained) {
        Number &last = m_retained[message.topic];
        last = std::max(last, number);
    }
}

Spool::Number Spool::append(const SpooledMessage &message)
{
    const QByteArray content = s_packed(message);
    const Number number = ++m_last;
    Entry entry{m_quickFolder != m_lastingFolder, s_room(content.size()), Clock::now(), {}};
    if (!s_save(pathOf(number, entry), content)) {
        entry.unwritten = content;
    }
    remember(number, entry, message);
    return number;
}

Spool::Number Spool::following(Number number) const
{
    const auto found = m_entries.upper_bound(number);
    return found == m_entries.end() ? 0 : found->first;
}

SpooledMessage Spool::message(Number number) const
{
    const auto found = m_entries.find(number);
    return found == m_entries.end() ? SpooledMessage() : s_unpacked(contentOf(number, found->second));
}

Spool::Number Spool::retained(const QByteArray &topic) const
{
    const Number number = m_retained.value(topic);
    return m_entries.count(number) > 0 ? number : 0;
}

void Spool::remove(Number number)
{
    const auto found = m_entries.find(number);
    if (found == m_entries.end()) {
        return;
    }
    QFile::remove(pathOf(number, found->second));
    m_bytes -= found->second.room;
    m_entries.erase(found);
}

int Spool::giveUp(qint64 bytes, Number behind, const QByteArray &topic)
{
    int count = 0;
    for (Number number = following(behind); number != 0 && m_bytes > bytes; number = following(number)) {
        count += message(number).topic == topic ? 1 : 0;
        remove(number);
    }
    return count;
}

QString Spool::settle(bool everything)
{
    QString trouble;
    int failures = 0;
    for (auto &[number, entry] : m_entries) {
        const bool isDue = everything || Clock::now() - entry.since >= quickTime;
        if (settle(number, entry, isDue)) {
            continue;
        }
        if (trouble.isEmpty()) {
            trouble = "cannot write to " + (isDue ? m_lastingFolder : m_quickFolder);
        }
        if (++failures == failuresMax) {
            break; // a disk that is full is full for the others, too
        }
    }
    return trouble;
}

// Whether it is where it should be.
bool Spool::settle(Number number, Entry &entry, bool isDue) const
{
    const bool isToMove = entry.isQuick && isDue;
    if (!isToMove && entry.unwritten.isEmpty()) {
        return true;
    }
    const bool isSettled = move(number, entry, entry.isQuick && !isDue);
    if (!isSettled && isToMove && !entry.unwritten.isEmpty()) {
        move(number, entry, true); // there may be room at least there
    }
    return isSettled;
}

bool Spool::move(Number number, Entry &entry, bool isToQuick) const
{
    const QByteArray content = contentOf(number, entry);
    const Entry moved{isToQuick, entry.room, entry.since, {}};
    if (content.isNull() || !s_save(pathOf(number, moved), content)) {
        return false;
    }
    if (entry.isQuick != isToQuick) {
        QFile::remove(pathOf(number, entry));
    }
    entry = moved;
    return true;
}

const QString &Spool::folderOf(const Entry &entry) const
{
    return entry.isQuick ? m_quickFolder : m_lastingFolder;
}

QString Spool::pathOf(Number number, const Entry &entry) const
{
    return folderOf(entry) + '/' + prefix + QString::number(number);
}

// Null if the file is damaged, or gone.
QByteArray Spool::contentOf(Number number, const Entry &entry) const
{
    return entry.unwritten.isEmpty() ? s_load(pathOf(number, entry)) : entry.unwritten;
}

} // namespace Gateway
