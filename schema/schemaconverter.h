// Converts between the payloads of frames and named values, by a schema that a client sent.
//
// The links feed in received payloads and get sealed frames to send; the WebSocket endpoint brings schemas,
// and values in both directions. For one thread only, that of its owner.
//
// Values are QVariantMaps nested as the schema is nested, with the leaves' values at the leaves' places.
// Memory: the schema document, an attribute per leaf (several where leaves lie within leaves), the 64 MiB
// that the attributes may gather together, and, during a conversion, the payloads and frames that it yields:
// 4 MiB of payload at most.
//
// Log: one conversion writes at most 1,000 lines of each kind, and then one that says how many more there
// were.
#pragma once

#include "schema/schemadataattribute.h"
#include "schema/vekendpoint.h"
#include "service/vek_frame.h"

#include <QByteArray>
#include <QHash>
#include <QJsonDocument>
#include <QList>
#include <QMap>
#include <QObject>
#include <QVariant>
#include <QVector>

class SchemaConverter : public QObject
{
    Q_OBJECT

public:
    explicit SchemaConverter(QObject *parent = nullptr);

    // Replaces the schema; what the old one's attributes had gathered is dropped unsent. A document that is
    // not an object gives an empty schema, which knows no frame and no value.
    void loadSchema(const QJsonDocument &document);

    // loadSchema with the contents of a file; no effect if the file cannot be opened.
    void loadSchemaFromFile(const QString &path);

    // Writes the schema document to the debug log.
    void dump();

    // Offers a received payload to the attributes of its endpoint and emits variantToSend at the end if one
    // of them became ready. Returns 1, or 2 if the schema does not know the endpoint. Throws
    // std::runtime_error("Bad type") as SchemaDataAttribute::insert does; nothing is emitted then, and values
    // that were ready can still be taken.
    int insertFrame(const VEKEndpoint &endpoint, const QByteArray &payload);

    // Hands over the values of all ready attributes and clears these; with `force`, of all that hold
    // anything. Returns an invalid QVariant if there is none.
    QVariant takeVariantToSend(bool force);

    // The sealed frames for a client's value: in the order of the endpoints, each endpoint's fragments in
    // theirs. Members that the schema lacks or that cannot be written are skipped with a warning. Throws
    // std::runtime_error("Bad type") unless `value` holds a QVariantMap, or if a part of it converts to one
    // without being one.
    QList<vek_frame_t> toVEKFrames(const QVariant &value);

    // The same frames as records of VEK_FRAME_SIZE bytes back to back, as the serial adapter takes them.
    QByteArray toFrame(const QVariant &value);

signals:
    // There is something to take with takeVariantToSend(false). At most once per frame, as the last thing
    // that insertFrame does: a handler may take, load another schema or insert more frames.
    void variantToSend();

private:
    // What the frames of one endpoint concern.
    struct Stream {
        VEKEndpoint endpoint;
        QList<SchemaDataAttribute> *attributes;
    };

    void indexStreams();
    void rememberReady(Stream *stream);
    void take(QVariant &values, SchemaDataAttribute &attribute, bool force);

    QVariantMap schemaDocument;
    QMap<VEKEndpoint, QList<SchemaDataAttribute>> schema;

    // Made from `schema` and pointing into it, by VEKEndpoint::order(): a frame pays for what it concerns,
    // whatever else the schema holds. Both change only when a schema is loaded, and together.
    QHash<qint32, Stream> streams;

    // The streams with a ready attribute, in key order: all that takeVariantToSend(false) has to visit.
    QVector<Stream *> ready;

    GatheringRoom room; // of the attributes in `schema`
};
