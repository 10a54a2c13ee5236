#include "schema/schemaconverter.h"

#include "msgpack/msgpack.h"
#include "schema/debuglog.h"
#include "schema/heldmap.h"
#include "schema/numericconversion.h"

#include <QFile>

#include <algorithm>
#include <cstring>

namespace
{

// What the offsets of one message's values may add to its payloads in all. With "@skip" a few bytes from a
// client claim 64 kB of payload, and as many leaves as it likes can do so.
constexpr int payloadGrowthMax = 4 * 1024 * 1024;

bool s_convertsToMap(const QVariant &value)
{
    return value.canConvert(QMetaType::QVariantMap);
}

// Every member of a leaf adds a copy of the leaf's attribute. Only some of them decode (see indexStreams),
// but where leaves stand inside of leaves, the copies behind those decide who is the last to write to a place
// in the value map, and clients rely on the outcome.
void s_buildSchema(QMap<VEKEndpoint, QList<SchemaDataAttribute>> &schema, const QVariantMap &node,
                   const SchemaPath &path)
{
    const bool isLeaf = node.contains(QStringLiteral("@mac"));
    const SchemaDataAttribute attribute = isLeaf ? SchemaDataAttribute(path, node) : SchemaDataAttribute();
    for (auto member = node.cbegin(); member != node.cend(); ++member) {
        if (isLeaf) {
            schema[attribute.endpoint()].append(attribute);
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

void s_take(QVariant &values, SchemaDataAttribute &attribute, bool force)
{
    if (!attribute.isEmpty() && (force || attribute.isReadyToFlush())) {
        s_slot(values, attribute.schemaPath()) = attribute.data();
        attribute.clear();
    }
}

// One leaf of a client's value, and what the schema says of it.
struct Leaf {
    const QString &name;
    const QVariant &value;
    const SchemaDataAttribute &attribute;
};

// Whether the leaf's `width` bytes may be placed in `payload`. If so, what they add to it is taken from
// `room`.
bool s_fits(const QByteArray &payload, const Leaf &leaf, int width, int &room)
{
    const int offset = leaf.attribute.skip();
    if (offset < 0 || offset > PAYLOAD_OFFSET_MAX) {
        qWarning() << "Attribute" << leaf.name << "is outside of the payload (because of its option: @skip)"
                   << "and cannot be written to.";
        return false;
    }
    const int growth = std::max(0, offset + width - payload.size());
    if (growth > room) {
        qWarning() << "Attribute" << leaf.name << "makes the payloads of one message too large"
                   << "and cannot be written to.";
        return false;
    }
    room -= growth;
    return true;
}

// A scaled "f" is cut to a whole number too before it is stored: devices are set up for that.
template <typename Stored, typename Scaled>
void s_place(QByteArray &payload, const Leaf &leaf, int &room)
{
    if (!s_fits(payload, leaf, sizeof(Stored), room)) {
        return;
    }
    const float factor = leaf.attribute.factor();
    const QVariant value =
        factor == 1.0F ? leaf.value : convert_to_qvariant_numeric<Scaled>(factor * leaf.value.toFloat());
    insertToByteArray<Stored>(payload, leaf.attribute.skip(), value);
}

// Signedness makes no difference on the way out. "F" and "P" are not formats.
void s_placeByFormat(QByteArray &payload, const Leaf &leaf, int &room)
{
    switch (leaf.attribute.format()) {
    case 'C':
    case 'c':
        return s_place<char, signed char>(payload, leaf, room);
    case 'S':
    case 's':
    case 'Q':
    case 'q':
        return s_place<short, short>(payload, leaf, room);
    case 'I':
    case 'i':
        return s_place<int, int>(payload, leaf, room);
    case 'f':
        return s_place<float, int>(payload, leaf, room);
    case 'p':
        payload.append(MsgPack::pack(QVariantMap{{leaf.name, leaf.value}}));
        return;
    default:
        return;
    }
}

void s_writeLeaf(QByteArray &payload, const Leaf &leaf, int &room)
{
    if (leaf.attribute.isReadOnly()) {
        qWarning() << "Attribute" << leaf.name
                   << "is readonly (because it is configured with one of the options: @asBool, @mask)"
                   << "and cannot be written to.";
    } else if (leaf.value.isValid()) {
        s_placeByFormat(payload, leaf, room);
    }
}

// Fills `frames` with the payloads for `values`. The entry of an endpoint is made by the first leaf that is
// reached, whether or not it then writes anything, and has that leaf's fragmentation flag for good. `room` is
// what offsets may still add to all payloads.
void s_toFrame(QMap<VEKEndpoint, QByteArray> &frames, const QVariantMap &values,
               const QVariantMap &schemaNode, int &room)
{
    for (auto member = values.cbegin(); member != values.cend(); ++member) {
        const QVariant node = schemaNode.value(member.key());
        if (!s_convertsToMap(node)) {
            qWarning() << "Key:" << member.key() << "does not exist in the schema";
            continue;
        }
        const SchemaDataAttribute attribute(SchemaPath(), heldMap(node));
        if (attribute.format() != 'p' && s_convertsToMap(*member)) {
            s_toFrame(frames, heldMap(*member), heldMap(node), room);
        } else {
            s_writeLeaf(frames[attribute.endpoint()], Leaf{member.key(), *member, attribute}, room);
        }
    }
}

void s_logFrame(const vek_frame_t &frame, int remaining)
{
    if (!isDebugLogged()) {
        return;
    }
    const std::uint16_t header = vek_frame_header(frame);
    const std::uint16_t length = vek_header_dlc(header);
    qDebug() << "Preparing CAN frame MAC:" << vek_header_mac(header) << "CMD:" << vek_header_cmd(header)
             << "RTR:" << vek_header_rtr(header) << "DLC:" << length << "toSend:" << remaining;
    qDebug() << QByteArray(reinterpret_cast<const char *>(frame.data), length).toHex();
}

// Cuts a payload into sealed frames. The record is not cleared between fragments: behind the bytes of a
// shorter last one stand the bytes of the fragment before, under the checksum, as receivers have always seen
// it.
void s_appendFrames(QList<vek_frame_t> &frames, const VEKEndpoint &endpoint, const QByteArray &payload)
{
    const int total = payload.size();
    vek_frame_t frame{};
    for (int remaining = total; remaining > 0; remaining -= VEK_FRAME_DATA_SIZE) {
        const int length = std::min(remaining, VEK_FRAME_DATA_SIZE);
        vek_frame_set_header(&frame,
                             vek_header_make(endpoint.mac, endpoint.cmd, static_cast<unsigned>(length)));
        std::memcpy(frame.data, payload.constData() + (total - remaining), static_cast<std::size_t>(length));
        s_logFrame(frame, remaining);
        vek_frame_set_valid(&frame);
        frames.append(frame);
        if (total > VEK_FRAME_DATA_SIZE && !endpoint.fragmentation) {
            qWarning()
                << "Cannot send more than 8 bytes of data through CAN without fragmentation. The frame "
                   "was trimmed to 8 bytes.";
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

// Of copies that stand behind one another only the first decodes. They all would take in and give away the
// same at the same time, and writing a value to its place in the map twice in a row changes nothing; the
// others stay empty for good. A copy behind the attribute of another leaf decodes for itself: that leaf,
// inside of the first one, may have written over the place of the copy's value in between.
void SchemaConverter::indexStreams()
{
    streams.reserve(schema.size());
    for (auto entry = schema.begin(); entry != schema.end(); ++entry) {
        Stream &stream = streams[entry.key().order()];
        stream.endpoint = entry.key();
        const SchemaDataAttribute *previous = nullptr;
        for (SchemaDataAttribute &attribute : *entry) {
            if (!previous || !attribute.isCopyOf(*previous)) {
                stream.decoders.append(&attribute);
            }
            previous = &attribute;
        }
    }
}

int SchemaConverter::insertFrame(const VEKEndpoint &endpoint, const QByteArray &payload)
{
    const auto stream = streams.find(endpoint.order());
    if (stream == streams.end()) {
        return 2;
    }
    bool becameReady = false;
    for (SchemaDataAttribute *attribute : qAsConst(stream->decoders)) {
        if (attribute->isFull()) {
            continue;
        }
        attribute->insert(payload);
        if (attribute->isReadyToFlush() && !becameReady) {
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

// Where paths collide, the later write wins: by key order of the endpoints, then by the order of their lists.
QVariant SchemaConverter::takeVariantToSend(bool force)
{
    QVariant values;
    if (force) {
        for (QList<SchemaDataAttribute> &attributes : schema) {
            for (SchemaDataAttribute &attribute : attributes) {
                s_take(values, attribute, force);
            }
        }
    } else {
        for (const Stream *stream : qAsConst(ready)) {
            for (SchemaDataAttribute *attribute : stream->decoders) {
                s_take(values, *attribute, force);
            }
        }
    }
    ready.clear();
    return values;
}

QList<vek_frame_t> SchemaConverter::toVEKFrames(const QVariant &value)
{
    s_logConversion(value);
    QMap<VEKEndpoint, QByteArray> payloads;
    int room = payloadGrowthMax;
    s_toFrame(payloads, heldMap(value), schemaDocument, room);

    QList<vek_frame_t> frames;
    for (auto entry = payloads.cbegin(); entry != payloads.cend(); ++entry) {
        s_appendFrames(frames, entry.key(), *entry);
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
