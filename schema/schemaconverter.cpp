#include "schema/schemaconverter.h"

#include "msgpack/linelimit.h"
#include "msgpack/msgpack.h"
#include "schema/debuglog.h"
#include "schema/heldmap.h"
#include "schema/numericconversion.h"

#include <QFile>

#include <algorithm>
#include <cstring>

namespace
{

// What one message's values may add to its payloads in all. With "@skip" a few bytes from a client claim 64
// kB of payload, and as many leaves as it likes can do so.
constexpr int payloadGrowthMax = 4 * 1024 * 1024;

// What the conversion of one message has left: room in its payloads, and lines of each kind in the log.
struct Conversion {
    int room = payloadGrowthMax;
    LineLimit unknownKeys{QtWarningMsg, "Key: ... does not exist in the schema"};
    LineLimit readOnly{QtWarningMsg, "Attribute ... is readonly"};
    LineLimit outside{QtWarningMsg, "Attribute ... is outside of the payload"};
    LineLimit tooLarge{QtWarningMsg, "Attribute ... makes the payloads of one message too large"};
    LineLimit overflows{QtWarningMsg, "Invalid numeric conversion. Number overflow"};
    LineLimit placed{QtDebugMsg, "insertToByteArray"};
    LineLimit prepared{QtDebugMsg, "Preparing CAN frame ..., with its bytes"};
    LineLimit trimmed{QtWarningMsg, "Cannot send more than 8 bytes of data through CAN"};
};

bool s_convertsToMap(const QVariant &value)
{
    return value.canConvert(QMetaType::QVariantMap);
}

// Copies next to each other would all take in and hand over the same at the same time, and writing a value
// to its place in the map twice in a row changes nothing: one serves for all. A copy after the attribute of
// another leaf decodes for itself: that leaf, inside the first one, may have overwritten the place of the
// copy's value in between, and clients rely on which comes last.
void s_addAttribute(QList<SchemaDataAttribute> &attributes, const SchemaDataAttribute &attribute)
{
    if (attributes.isEmpty() || !attribute.isCopyOf(attributes.last())) {
        attributes.append(attribute);
    }
}

// Every member of a leaf adds a copy of the leaf's attribute, before what is in that member is looked at.
void s_buildSchema(QMap<VEKEndpoint, QList<SchemaDataAttribute>> &schema, const QVariantMap &node,
                   const SchemaPath &path)
{
    const bool isLeaf = node.contains(QStringLiteral("@mac"));
    const SchemaDataAttribute attribute = isLeaf ? SchemaDataAttribute(path, node) : SchemaDataAttribute();
    for (auto member = node.cbegin(); member != node.cend(); ++member) {
        if (isLeaf) {
            s_addAttribute(schema[attribute.endpoint()], attribute);
        }
        if (s_convertsToMap(*member)) {
            s_buildSchema(schema, heldMap(*member), SchemaPath(path, member.key()));
        }
    }
}

// The place for `path` in nested maps under `root`. Whatever stands in the way of a map is replaced by one.
// Recursion ends with the nesting that QJsonDocument allows a schema.
QVariant &s_slot(QVariant &root, const SchemaPath &path)
{
    if (path.isRoot()) {
        return root;
    }
    QVariant &parent = s_slot(root, path.parent());
    if (parent.userType() != QMetaType::QVariantMap) {
        parent = QVariantMap();
    }
    return (*static_cast<QVariantMap *>(parent.data()))[path.name()];
}

// One leaf of a client's value, and what the schema says of it.
struct Leaf {
    const QString &name;
    const QVariant &value;
    const SchemaDataAttribute &attribute;
};

// Takes what a leaf adds to the payloads from their room. Returns false, with a warning, if there is not as
// much.
bool s_takeRoom(int growth, const Leaf &leaf, Conversion &conversion)
{
    if (growth <= conversion.room) {
        conversion.room -= growth;
        return true;
    }
    if (conversion.tooLarge.takeLine()) {
        qWarning() << "Attribute" << leaf.name << "makes the payloads of one message too large"
                   << "and cannot be written to.";
    }
    return false;
}

// Returns false, with a warning, if the leaf's offset is none that a payload can have.
bool s_checkOffset(const Leaf &leaf, Conversion &conversion)
{
    const bool isWithin = leaf.attribute.skip() >= 0 && leaf.attribute.skip() <= PAYLOAD_OFFSET_MAX;
    if (!isWithin && conversion.outside.takeLine()) {
        qWarning() << "Attribute" << leaf.name << "is outside of the payload (because of its option: @skip)"
                   << "and cannot be written to.";
    }
    return isWithin;
}

// A scaled "f" is cut to a whole number too before it is stored: devices are set up for that.
template <typename Stored, typename Scaled>
void s_place(QByteArray &payload, const Leaf &leaf, Conversion &conversion)
{
    if (!s_checkOffset(leaf, conversion)) {
        return;
    }
    const int end = leaf.attribute.skip() + static_cast<int>(sizeof(Stored));
    if (!s_takeRoom(std::max(0, end - payload.size()), leaf, conversion)) {
        return;
    }
    const float factor = leaf.attribute.factor();
    const QVariant value = factor == 1.0F ? leaf.value
                                          : convert_to_qvariant_numeric<Scaled>(factor * leaf.value.toFloat(),
                                                                                &conversion.overflows);
    insertToByteArray<Stored>(payload, leaf.attribute.skip(), value, &conversion.placed);
}

void s_append(QByteArray &payload, const Leaf &leaf, Conversion &conversion)
{
    const QByteArray packed = MsgPack::pack(QVariantMap{{leaf.name, leaf.value}});
    if (s_takeRoom(packed.size(), leaf, conversion)) {
        payload.append(packed);
    }
}

// Signedness makes no difference on the way out. "F" and "P" are not formats.
void s_placeByFormat(QByteArray &payload, const Leaf &leaf, Conversion &conversion)
{
    switch (leaf.attribute.format()) {
    case 'C':
    case 'c':
        return s_place<char, signed char>(payload, leaf, conversion);
    case 'S':
    case 's':
    case 'Q':
    case 'q':
        return s_place<short, short>(payload, leaf, conversion);
    case 'I':
    case 'i':
        return s_place<int, int>(payload, leaf, conversion);
    case 'f':
        return s_place<float, int>(payload, leaf, conversion);
    case 'p':
        return s_append(payload, leaf, conversion);
    default:
        return;
    }
}

void s_writeLeaf(QByteArray &payload, const Leaf &leaf, Conversion &conversion)
{
    if (!leaf.attribute.isReadOnly()) {
        if (leaf.value.isValid()) {
            s_placeByFormat(payload, leaf, conversion);
        }
    } else if (conversion.readOnly.takeLine()) {
        qWarning() << "Attribute" << leaf.name
                   << "is readonly (because it is configured with one of the options: @asBool, @mask)"
                   << "and cannot be written to.";
    }
}

void s_logUnknownKey(const QString &key, Conversion &conversion)
{
    if (conversion.unknownKeys.takeLine()) {
        qWarning() << "Key:" << key << "does not exist in the schema";
    }
}

// Fills `frames` with the payloads for `values`. The entry of an endpoint is made by the first leaf that is
// reached, whether or not it then writes anything, and has that leaf's fragmentation flag for good.
void s_toFrame(QMap<VEKEndpoint, QByteArray> &frames, const QVariantMap &values,
               const QVariantMap &schemaNode, Conversion &conversion)
{
    for (auto member = values.cbegin(); member != values.cend(); ++member) {
        const QVariant node = schemaNode.value(member.key());
        if (!s_convertsToMap(node)) {
            s_logUnknownKey(member.key(), conversion);
            continue;
        }
        const SchemaDataAttribute attribute(SchemaPath(), heldMap(node));
        if (attribute.format() != 'p' && s_convertsToMap(*member)) {
            s_toFrame(frames, heldMap(*member), heldMap(node), conversion);
        } else {
            s_writeLeaf(frames[attribute.endpoint()], Leaf{member.key(), *member, attribute}, conversion);
        }
    }
}

void s_logFrame(const vek_frame_t &frame, int remaining, Conversion &conversion)
{
    if (!isDebugLogged() || !conversion.prepared.takeLine()) {
        return;
    }
    const std::uint16_t header = vek_frame_header(frame);
    const std::uint16_t length = vek_header_dlc(header);
    qDebug() << "Preparing CAN frame MAC:" << vek_header_mac(header) << "CMD:" << vek_header_cmd(header)
             << "RTR:" << vek_header_rtr(header) << "DLC:" << length << "toSend:" << remaining;
    qDebug() << QByteArray(reinterpret_cast<const char *>(frame.data), length).toHex();
}

void s_logTrimming(Conversion &conversion)
{
    if (conversion.trimmed.takeLine()) {
        qWarning() << "Cannot send more than 8 bytes of data through CAN without fragmentation. The frame "
                      "was trimmed to 8 bytes.";
    }
}

// Cuts a payload into sealed frames. The record is not cleared between fragments: behind the bytes of a
// shorter last one stand the bytes of the fragment before, under the checksum, as receivers have always seen
// it.
void s_appendFrames(QList<vek_frame_t> &frames, const VEKEndpoint &endpoint, const QByteArray &payload,
                    Conversion &conversion)
{
    const int total = payload.size();
    vek_frame_t frame{};
    for (int remaining = total; remaining > 0; remaining -= VEK_FRAME_DATA_SIZE) {
        const int length = std::min(remaining, VEK_FRAME_DATA_SIZE);
        vek_frame_set_header(&frame,
                             vek_header_make(endpoint.mac, endpoint.cmd, static_cast<unsigned>(length)));
        std::memcpy(frame.data, payload.constData() + (total - remaining), static_cast<std::size_t>(length));
        s_logFrame(frame, remaining, conversion);
        vek_frame_set_valid(&frame);
        frames.append(frame);
        if (total > VEK_FRAME_DATA_SIZE && !endpoint.fragmentation) {
            s_logTrimming(conversion);
            return;
        }
    }
}

// toFrame logs this line and so does toVEKFrames for it: the line stands twice in the log then.
void s_logConversion(const QVariant &value)
{
    if (isDebugLogged()) {
        qDebug().noquote() << "Converting binary data into a frame" << debugText(value);
    }
}

} // namespace

SchemaConverter::SchemaConverter(QObject *parent) : QObject(parent) {}

void SchemaConverter::loadSchema(const QJsonDocument &document)
{
    ready.clear();
    streams.clear();
    schema.clear();
    room = GatheringRoom();
    schemaDocument.clear(); // before there is another one: both can be large
    schemaDocument = document.toVariant().toMap();
    s_buildSchema(schema, schemaDocument, SchemaPath());
    indexStreams();
}

void SchemaConverter::loadSchemaFromFile(const QString &path)
{
    QFile file(path);
    if (file.open(QIODevice::ReadOnly)) {
        loadSchema(QJsonDocument::fromJson(file.readAll()));
    }
}

void SchemaConverter::dump()
{
    qDebug().noquote() << debugText(schemaDocument);
}

void SchemaConverter::indexStreams()
{
    streams.reserve(schema.size());
    for (auto entry = schema.begin(); entry != schema.end(); ++entry) {
        streams.insert(entry.key().order(), Stream{entry.key(), &*entry});
    }
}

int SchemaConverter::insertFrame(const VEKEndpoint &endpoint, const QByteArray &payload)
{
    const auto stream = streams.find(endpoint.order());
    if (stream == streams.end()) {
        return 2;
    }
    bool becameReady = false;
    for (SchemaDataAttribute &attribute : *stream->attributes) {
        if (attribute.isFull()) {
            continue;
        }
        attribute.insert(payload, &room);
        if (attribute.isReadyToFlush() && !becameReady) {
            becameReady = true;
            rememberReady(&*stream); // now: a later attribute may throw
        }
    }
    if (becameReady) {
        emit variantToSend(); // last: a handler may load another schema
    }
    return 1;
}

void SchemaConverter::rememberReady(Stream *stream)
{
    const auto orderedBefore = [](Stream *a, Stream *b) {
        return a->endpoint < b->endpoint;
    };
    const auto place = std::lower_bound(ready.begin(), ready.end(), stream, orderedBefore);
    if (place == ready.end() || *place != stream) {
        ready.insert(place, stream);
    }
}

void SchemaConverter::take(QVariant &values, SchemaDataAttribute &attribute, bool force)
{
    if (!attribute.isEmpty() && (force || attribute.isReadyToFlush())) {
        s_slot(values, attribute.schemaPath()) = attribute.data();
        attribute.clear(&room);
    }
}

// Where paths collide, the later write wins: by key order of the endpoints, then by the order of their lists.
QVariant SchemaConverter::takeVariantToSend(bool force)
{
    QVariant values;
    if (force) {
        for (QList<SchemaDataAttribute> &attributes : schema) {
            for (SchemaDataAttribute &attribute : attributes) {
                take(values, attribute, force);
            }
        }
    } else {
        for (const Stream *stream : qAsConst(ready)) {
            for (SchemaDataAttribute &attribute : *stream->attributes) {
                take(values, attribute, force);
            }
        }
    }
    ready.clear();
    return values;
}

QList<vek_frame_t> SchemaConverter::toVEKFrames(const QVariant &value)
{
    s_logConversion(value);
    Conversion conversion;
    QMap<VEKEndpoint, QByteArray> payloads;
    s_toFrame(payloads, heldMap(value), schemaDocument, conversion);

    QList<vek_frame_t> frames;
    for (auto entry = payloads.cbegin(); entry != payloads.cend(); ++entry) {
        s_appendFrames(frames, entry.key(), *entry, conversion);
    }
    if (isDebugLogged()) {
        qDebug() << "Converted VEK frames:" << frames.size();
    }
    return frames;
}

QByteArray SchemaConverter::toFrame(const QVariant &value)
{
    s_logConversion(value);
    const QList<vek_frame_t> frames = toVEKFrames(value);
    QByteArray records;
    records.reserve(frames.size() * VEK_FRAME_SIZE);
    for (const vek_frame_t &frame : frames) {
        records.append(reinterpret_cast<const char *>(&frame), VEK_FRAME_SIZE);
    }
    if (isDebugLogged()) {
        qDebug() << "Converted size:" << records.size();
    }
    return records;
}
