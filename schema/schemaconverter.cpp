#include "schema/schemaconverter.h"

SchemaConverter::SchemaConverter(QObject *parent) : QObject(parent) {}

void SchemaConverter::loadSchema(const QJsonDocument &) {}

int SchemaConverter::insertFrame(const VEKEndpoint &, const QByteArray &)
{
    return 2;
}

QVariant SchemaConverter::takeVariantToSend(bool)
{
    return QVariant();
}

QByteArray SchemaConverter::toFrame(const QVariant &)
{
    return QByteArray();
}

QList<vek_frame_t> SchemaConverter::toVEKFrames(const QVariant &)
{
    return QList<vek_frame_t>();
}
