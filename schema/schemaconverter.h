// Converts between frame payloads and named values by a JSON schema.
#pragma once

#include "schema/vekendpoint.h"
#include "service/vek_frame.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QList>
#include <QObject>
#include <QVariant>

class SchemaConverter : public QObject
{
    Q_OBJECT

public:
    explicit SchemaConverter(QObject *parent = nullptr);

    void loadSchema(const QJsonDocument &document);

    int insertFrame(const VEKEndpoint &endpoint, const QByteArray &payload);
    QVariant takeVariantToSend(bool force);

    QByteArray toFrame(const QVariant &value);
    QList<vek_frame_t> toVEKFrames(const QVariant &value);

signals:
    void variantToSend();
};
