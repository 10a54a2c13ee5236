#include "schema/schemadataattribute.h"

#include "msgpack/msgpack.h"
#include "schema/gathering.h"
#include "schema/heldmap.h"

#include <QtEndian>

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

bool SchemaDataAttribute::insert(const QByteArray &payload)
{
    if (isFull()) {
        return false;
    }
    decode(payload);
    if (m_observe) {
        observeChange();
    }
    return m_count > 0;
}

void SchemaDataAttribute::clear()
{
    m_count = 0;
    m_data = QVariant();
}

// "Q" and "q" read what "S" and "s" read, but unmasked. "c" differs from "C" only in the type of its arrays,
// which has neither a text form nor a MessagePack packer; clients rely on both differences.
void SchemaDataAttribute::decode(const QByteArray &payload)
{
    switch (m_format) {
    case 'C':
        return decodeNumber<unsigned char>(payload, m_mask);
    case 'c':
        return decodeNumber<unsigned char, char>(payload, m_mask);
    case 'S':
        return decodeNumber<unsigned short>(payload, m_mask);
    case 's':
        return decodeNumber<short>(payload, m_mask);
    case 'Q':
        return decodeNumber<unsigned short>(payload, allBits);
    case 'q':
        return decodeNumber<short>(payload, allBits);
    case 'I':
        return decodeNumber<unsigned int>(payload, m_mask);
    case 'i':
        return decodeNumber<int>(payload, m_mask);
    case 'f':
        return decodeNumber<float>(payload, allBits);
    case 'p':
        return decodePacked(payload);
    default:
        return;
    }
}

// Masked while it is still without sign: the mask 255 makes 255 of the bytes FF FF read as "s".
template <typename Reading, typename Element>
void SchemaDataAttribute::decodeNumber(const QByteArray &payload, int mask)
{
    using Bits = typename QIntegerForSizeof<Reading>::Unsigned;
    if (m_skip < 0 || payload.size() - static_cast<qint64>(sizeof(Bits)) < m_skip) {
        return;
    }
    auto bits = qFromLittleEndian<Bits>(payload.constData() + m_skip);
    bits = static_cast<Bits>(bits & static_cast<Bits>(mask));
    Reading reading;
    std::memcpy(&reading, &bits, sizeof reading);
    store<Reading, Element>(reading);
}

// Whether readings are scaled is asked of the quotient, not of the factor.
template <typename Reading, typename Element>
void SchemaDataAttribute::store(Reading reading)
{
    const bool append = m_flushSize > 0;
    const float scale = 1.0F / m_factor;
    const unsigned long size =
        scale == 1.0F
            ? appendOrSet_variant<Reading, Element>(m_data, reading, append, m_asBool)
            : appendOrSet_variant<float>(m_data, static_cast<float>(reading) * scale, append, m_asBool);
    m_count = static_cast<int>(size);
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
