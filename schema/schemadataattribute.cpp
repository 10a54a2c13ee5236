#include "schema/schemadataattribute.h"

#include "msgpack/msgpack.h"
#include "schema/gathering.h"
#include "schema/heldmap.h"

#include <QtEndian>

#include <algorithm>
#include <cstring>

SchemaDataAttribute::SchemaDataAttribute(const QVariant &definition, const QStringList &path)
    : SchemaDataAttribute(SchemaPath(path), heldMap(definition))
{
}

SchemaDataAttribute::SchemaDataAttribute(const SchemaPath &path, const QVariantMap &options) : m_path(path)
{
    const auto option = [&options](const QString &name) {
        return options.value(name);
    };
    const auto low16 = [](const QVariant &value) {
        return static_cast<quint16>(value.toInt());
    };

    const QByteArray formatName = option(QStringLiteral("@format")).toByteArray();
    m_format = formatName.isEmpty() ? char(0) : formatName.at(0);
    m_flushSize = option(QStringLiteral("@flushSize")).toInt();
    m_skip = option(QStringLiteral("@skip")).toInt();
    m_endpoint = VEKEndpoint(low16(option(QStringLiteral("@mac"))), low16(option(QStringLiteral("@cmd"))),
                             option(QStringLiteral("@fragmentation")).toBool());
    m_asBool = option(QStringLiteral("@asBool")).toBool();
    m_mask = options.value(QStringLiteral("@mask"), allBits).toInt();
    m_observe = option(QStringLiteral("@observe")).toBool() && m_flushSize == 0;
    m_factor = options.value(QStringLiteral("@factor"), 1.0F).toFloat();
}

bool SchemaDataAttribute::insert(const QByteArray &payload, GatheringRoom *room)
{
    if (isFull()) {
        return false;
    }
    decode(payload, room);
    if (m_observe) {
        observeChange();
    }
    return m_count > 0;
}

void SchemaDataAttribute::clear(GatheringRoom *room)
{
    if (room) {
        room->giveBack(m_taken);
    }
    m_taken = 0;
    m_count = 0;
    m_data = QVariant();
}

// "Q" and "q" read what "S" and "s" read, but unmasked. "c" differs from "C" only in the type of its arrays,
// which has neither a text form nor a MessagePack packer; clients rely on both differences.
void SchemaDataAttribute::decode(const QByteArray &payload, GatheringRoom *room)
{
    switch (m_format) {
    case 'C':
        return decodeNumber<unsigned char>(payload, m_mask, room);
    case 'c':
        return decodeNumber<unsigned char, char>(payload, m_mask, room);
    case 'S':
        return decodeNumber<unsigned short>(payload, m_mask, room);
    case 's':
        return decodeNumber<short>(payload, m_mask, room);
    case 'Q':
        return decodeNumber<unsigned short>(payload, allBits, room);
    case 'q':
        return decodeNumber<short>(payload, allBits, room);
    case 'I':
        return decodeNumber<unsigned int>(payload, m_mask, room);
    case 'i':
        return decodeNumber<int>(payload, m_mask, room);
    case 'f':
        return decodeNumber<float>(payload, allBits, room);
    case 'p':
        return decodePacked(payload);
    default:
        return;
    }
}

// Masked while it is still without sign: the mask 255 makes 255 of the bytes FF FF read as "s".
template <typename Reading, typename Element>
void SchemaDataAttribute::decodeNumber(const QByteArray &payload, int mask, GatheringRoom *room)
{
    using Bits = typename QIntegerForSizeof<Reading>::Unsigned;
    if (m_skip < 0 || payload.size() - static_cast<qint64>(sizeof(Bits)) < m_skip) {
        return;
    }
    auto bits = qFromLittleEndian<Bits>(payload.constData() + m_skip);
    bits = static_cast<Bits>(bits & static_cast<Bits>(mask));
    Reading reading;
    std::memcpy(&reading, &bits, sizeof reading);
    scale<Reading, Element>(reading, room);
}

// Whether readings are scaled is asked of the quotient, not of the factor.
template <typename Reading, typename Element>
void SchemaDataAttribute::scale(Reading reading, GatheringRoom *room)
{
    const float scale = 1.0F / m_factor;
    if (scale == 1.0F) {
        store<Reading, Element>(reading, room);
    } else {
        store<float>(static_cast<float>(reading) * scale, room);
    }
}

template <typename Reading, typename Element>
void SchemaDataAttribute::store(Reading reading, GatheringRoom *room)
{
    const bool append = m_flushSize > 0;
    const bool hasPlace = !append || m_count * static_cast<qint64>(sizeof(Element)) < m_taken;
    if (hasPlace || grow<Element>(room)) {
        m_count = static_cast<int>(appendOrSet_variant<Reading, Element>(m_data, reading, append, m_asBool));
    }
}

// Makes place for further readings in the array, which is not full, by taking room for it. Returns false if
// there is none.
template <typename Element>
bool SchemaDataAttribute::grow(GatheringRoom *room)
{
    constexpr qint64 width = sizeof(Element);
    constexpr qint64 takenAtFirst = 16;
    const qint64 taken = std::min(std::max(2 * m_taken, takenAtFirst), m_flushSize * width);
    if (room && !room->take(taken - m_taken, m_path)) {
        return false;
    }
    heldVector<Element>(m_data).reserve(static_cast<int>(taken / width));
    m_taken = taken;
    return true;
}

// An empty payload ends a packed value. The payloads before it ought to be gathered until then, but are not:
// they have never outlived their frame, and a packed value is only ever read from what is already held.
void SchemaDataAttribute::decodePacked(const QByteArray &payload)
{
    if (!payload.isEmpty()) {
        return;
    }
    const QVariant message = MsgPack::unpack(m_data.value<QByteArray>());
    if (const QVariant *value = heldAt(heldMap(message), path())) {
        m_data = *value;
        m_count = 1;
    }
}

// The comparison is QVariant's.
void SchemaDataAttribute::observeChange()
{
    m_changed = m_lastValue != m_data;
    if (m_data.isValid()) {
        m_lastValue = m_data;
    }
    if (!m_changed) {
        clear();
    }
}
