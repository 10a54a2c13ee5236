#include "vorbel/vorbelclient.h"

#include "vorbel/paths.h"
#include "vorbel/plain_p.h"
#include "vorbel/vorbelclient_p.h"
#include "vorbel/wire.h"

using namespace Vorbel;

QVariantMap Values::flat() const
{
    return flatten(nested);
}

QMap<QString, Meant> Values::meant() const
{
    return meanings ? meanings->flat(nested) : Meanings().flat(nested);
}

QVariantMap Values::meantMap() const
{
    QVariantMap map;
    const QMap<QString, Meant> all = meant();
    for (auto each = all.cbegin(); each != all.cend(); ++each) {
        map.insert(map.cend(), each.key(), QVariant::fromValue(each.value()));
    }
    return map;
}

QDateTime Values::time() const
{
    return QDateTime::fromMSecsSinceEpoch(arrival);
}

QVariantList WriteResult::problemList() const
{
    QVariantList list;
    for (const Problem &each : problems) {
        list << QVariant::fromValue(each);
    }
    return list;
}

QVariantList WriteResult::writtenList() const
{
    QVariantList list;
    for (const Written &each : written) {
        list << QVariant::fromValue(each);
    }
    return list;
}

VorbelClient::VorbelClient(QObject *parent) : VorbelClient(QStringLiteral("localhost"), parent) {}

VorbelClient::VorbelClient(const QString &address, QObject *parent)
    : QObject(parent), m_private(std::make_unique<VorbelClientPrivate>(this, address))
{
    qRegisterMetaType<VorbelClient::SchemaState>();
    qRegisterMetaType<Vorbel::Meant>();
    qRegisterMetaType<Vorbel::Members>();
    qRegisterMetaType<Vorbel::Limits>();
    qRegisterMetaType<Vorbel::Values>();
    qRegisterMetaType<Vorbel::WriteResult>();
}

VorbelClient::~VorbelClient() = default;

QString VorbelClient::address() const
{
    return m_private->address;
}

void VorbelClient::setAddress(const QString &address)
{
    if (address != m_private->address) {
        m_private->changeAddress(address);
    }
}

void VorbelClient::setSslConfiguration(const QSslConfiguration &configuration)
{
    m_private->tls = configuration;
}

void VorbelClient::setPauses(int first, int longest)
{
    m_private->firstPause = qMax(1, first);
    m_private->longestPause = qMax(m_private->firstPause, longest);
}

void VorbelClient::setPatience(int milliseconds)
{
    m_private->patience = milliseconds;
}

void VorbelClient::setInterval(int milliseconds)
{
    m_private->interval = qMax(1, milliseconds);
}

void VorbelClient::setSilentAfter(int milliseconds)
{
    m_private->silentAfter = milliseconds;
}

bool VorbelClient::isChecking() const
{
    return m_private->isChecking;
}

void VorbelClient::setChecking(bool checking)
{
    m_private->isChecking = checking;
}

bool VorbelClient::isActive() const
{
    return m_private->state != Closed;
}

void VorbelClient::setActive(bool active)
{
    active ? open() : close();
}

VorbelClient::State VorbelClient::state() const
{
    return m_private->state;
}

QString VorbelClient::trouble() const
{
    return m_private->trouble;
}

QString VorbelClient::deviceType() const
{
    return m_private->deviceType;
}

QString VorbelClient::deviceId() const
{
    return m_private->deviceId;
}

QJsonObject VorbelClient::schema() const
{
    return m_private->schema;
}

bool VorbelClient::setSchema(const QJsonObject &schema)
{
    return m_private->setSchema({schema, {}}, false);
}

bool VorbelClient::loadSchema(const QString &fileName)
{
    return m_private->setSchema(readSchema(fileName), false);
}

bool VorbelClient::clearSchema()
{
    return m_private->setSchema({}, true);
}

QVector<Problem> VorbelClient::schemaProblems() const
{
    return m_private->schemaProblems;
}

QString VorbelClient::schemaError() const
{
    return m_private->schemaError;
}

bool VorbelClient::ownsSchema() const
{
    return m_private->ownership && m_private->ownership->isOwned();
}

QVariant VorbelClient::latest() const
{
    return m_private->latest;
}

QVariant VorbelClient::value(const QString &path) const
{
    return valueAt(m_private->latest, splitPath(path));
}

Meant VorbelClient::meant(const QString &path) const
{
    return m_private->meant(splitPath(path));
}

Members VorbelClient::members(const QString &path) const
{
    const auto leaf = m_private->meanings->leaf(joinPath(splitPath(path)));
    return leaf ? leaf->members : Members();
}

std::shared_ptr<const Meanings> VorbelClient::meanings() const
{
    return m_private->meanings;
}

QVariant VorbelClient::readable(const QVariant &value) const
{
    return isArray(value) ? QVariant(elements(value)) : value;
}

WriteResult VorbelClient::write(const QVariantMap &values)
{
    return m_private->write(values);
}

WriteResult VorbelClient::set(const QString &path, const QVariant &value)
{
    return m_private->set(splitPath(path), value);
}

WriteResult VorbelClient::deliver(const QVariantMap &values)
{
    return m_private->deliver(values);
}

quint64 VorbelClient::confirm()
{
    return m_private->confirm();
}

void VorbelClient::open()
{
    m_private->open();
}

void VorbelClient::close()
{
    m_private->close();
}
