// One leaf of the schema: where a value sits in the payloads of one endpoint, how its bytes are read and
// scaled, and the readings gathered so far.
//
// The converter makes the attributes from the leaves of a schema and owns them in its table; it feeds them
// payloads, asks whether they are ready, takes their value and clears them. A plain value, not for sharing
// between threads. An attribute that gathers holds at most "@flushSize" elements of 1 to 4 bytes; that number
// is chosen by the client, and nothing is reserved for it in advance. What the attributes of a schema hold
// together is bounded by their GatheringRoom.
#pragma once

#include "schema/gatheringroom.h"
#include "schema/schemapath.h"
#include "schema/vekendpoint.h"

#include <QByteArray>
#include <QStringList>
#include <QVariant>

class SchemaDataAttribute
{
public:
    // For Qt's containers. All fields are zero, empty or null, and the factor is 1. The mask is 0 as well,
    // which makes it read-only, unlike an attribute made from an empty option map.
    SchemaDataAttribute() = default;

    // From a leaf's option map and the member names that lead to it from the schema's root. Missing options
    // take their defaults, values that do not convert read as 0 or false, other members are ignored. Throws
    // std::runtime_error("Bad type") when `definition` does not hold a QVariantMap.
    SchemaDataAttribute(const QVariant &definition, const QStringList &path);

    // The same for path and options as the schema holds them.
    SchemaDataAttribute(const SchemaPath &path, const QVariantMap &options);

    char format() const { return m_format; }      // first byte of "@format", 0 for none
    int flushSize() const { return m_flushSize; } // readings to an array; 0 or less for single values
    int skip() const { return m_skip; }           // byte offset in the payload, as the schema gave it
    float factor() const { return m_factor; }     // readings are divided by it, written values multiplied
    VEKEndpoint endpoint() const { return m_endpoint; }
    QStringList path() const { return m_path.names(); }
    const SchemaPath &schemaPath() const { return m_path; }
    int count() const { return m_count; }    // readings held
    QVariant data() const { return m_data; } // the readings held: one value, or a QVector

    bool isEmpty() const { return m_data.isNull(); }

    // A full attribute takes no payloads. With a negative flush size it is full from the start.
    bool isFull() const { return m_flushSize > 0 ? m_count >= m_flushSize : m_count > m_flushSize; }

    bool isReadyToFlush() const { return isFull() && (m_changed || !m_observe); }

    // True when readings lose bits on the way in ("@asBool", "@mask"), so that they cannot be written back.
    bool isReadOnly() const { return m_asBool || m_mask != allBits; }

    // Decodes one frame's payload. True when the attribute holds a reading afterwards; false too when it was
    // already full or, when observing, has seen no change. A payload too short for offset and width carries
    // no reading. Throws std::runtime_error("Bad type") when an empty payload ends a packed value ("p") that
    // is no map; the attribute is unchanged then.
    //
    // A gathering attribute takes its memory out of `room`, which has to be the same for all calls. A reading
    // that finds no room is dropped; what was gathered stays, and gathering continues with the next reading
    // that finds room. Without `room` there is no bound but "@flushSize".
    bool insert(const QByteArray &payload, GatheringRoom *room = nullptr);

    // Drops the readings and gives back their room. When observing, what the next reading is compared with
    // stays.
    void clear(GatheringRoom *room = nullptr);

    // True when both were made from one leaf of one schema.
    bool isCopyOf(const SchemaDataAttribute &other) const { return m_path.isSharedWith(other.m_path); }

private:
    static constexpr int allBits = -1;

    void decode(const QByteArray &payload, GatheringRoom *room);
    template <typename Reading, typename Element = Reading>
    void decodeNumber(const QByteArray &payload, int mask, GatheringRoom *room);
    template <typename Reading, typename Element>
    void scale(Reading reading, GatheringRoom *room);
    template <typename Reading, typename Element = Reading>
    void store(Reading reading, GatheringRoom *room);
    template <typename Element>
    bool grow(GatheringRoom *room);
    void decodePacked(const QByteArray &payload);
    void observeChange();

    // Ordered to leave no padding: a schema can have very many of these.
    char m_format = 0;
    bool m_asBool = false;
    bool m_observe = false;
    bool m_changed = false;
    VEKEndpoint m_endpoint;
    int m_flushSize = 0;
    int m_skip = 0;
    int m_mask = 0;
    float m_factor = 1.0F;
    int m_count = 0;
    qint64 m_taken = 0; // bytes of room that the array takes
    SchemaPath m_path;
    QVariant m_data;
    QVariant m_lastValue; // observing: the last value decoded, outlives clear()
};
