#include "vorbel/ownership_p.h"

#include "vorbel/paths.h"
#include "vorbel/plain_p.h"
#include "vorbel/schema.h"
#include "vorbel/wire.h"

namespace Vorbel
{

namespace
{

constexpr int usual = 3; // a silence is usual where there was one of a third of it before

std::shared_ptr<const NameTree> s_namesOf(const QJsonObject &node, int depth = 0)
{
    auto names = std::make_shared<NameTree>();
    names->isLeaf = isLeaf(node);
    names->waitsForChange = node.value(QLatin1String("@observe")).toVariant().toBool();
    if (depth < nestingLimit) {
        for (const QString &name : nodeNames(node)) {
            names->members.insert(name, s_namesOf(node.value(name).toObject(), depth + 1));
        }
    }
    return names;
}

const QVariantMap &s_members(const QVariant &map)
{
    return *static_cast<const QVariantMap *>(map.constData());
}

const NameTree *s_member(const NameTree *node, const QString &name)
{
    const auto member = node->members.constFind(name);
    return member == node->members.cend() ? nullptr : member->get();
}

// Whether a message has a value that a schema does not have.
bool s_hasStranger(const NameTree *node, const QVariant &value)
{
    if (!node || !isMap(value)) {
        return !node || !node->isLeaf;
    }
    const QVariantMap &members = s_members(value);
    for (auto member = members.cbegin(); member != members.cend(); ++member) {
        if (s_hasStranger(s_member(node, member.key()), member.value())) {
            return true;
        }
    }
    return false;
}

// The names that lead to the first of them.
QStringList s_stranger(const NameTree *node, const QVariant &value)
{
    if (!node || !isMap(value)) {
        return QStringList();
    }
    const QVariantMap &members = s_members(value);
    auto member = members.cbegin();
    while (!s_hasStranger(s_member(node, member.key()), member.value())) {
        ++member;
    }
    return QStringList(member.key()) + s_stranger(s_member(node, member.key()), member.value());
}

// Whether a message, of which the schema has all, has a value that does not wait for a change.
bool s_comesWithEveryFrame(const NameTree &node, const QVariant &value)
{
    if (!isMap(value)) {
        return !node.waitsForChange;
    }
    const QVariantMap &members = s_members(value);
    for (auto member = members.cbegin(); member != members.cend(); ++member) {
        if (s_comesWithEveryFrame(*node.members.value(member.key()), member.value())) {
            return true;
        }
    }
    return false;
}

} // namespace

Ownership::Ownership(const QJsonObject &schema, int silentAfter, double tickSeconds, Tell tell)
    : m_names(s_namesOf(schema)),
      m_silentAfter(silentAfter),
      m_tickSeconds(tickSeconds),
      m_tell(std::move(tell))
{
}

void Ownership::begin()
{
    m_isSent = true;
    m_isConfirmed = m_isListening = false;
    forgetRhythm();
}

void Ownership::confirm()
{
    m_isConfirmed = true;
}

void Ownership::resume()
{
    m_isListening = m_isOwned;
}

void Ownership::heard(const QVariant &values)
{
    if (!m_isConfirmed || !(m_isOwned || m_isSilent)) {
        return;
    }
    if (s_hasStranger(m_names.get(), values)) {
        heardStranger(s_stranger(m_names.get(), values));
    } else {
        heardOwn(values);
    }
}

void Ownership::tick()
{
    ++m_silence;
    if (m_isOwned && isUnusual(m_silence)) {
        m_isSilent = true;
        disown(VorbelClient::Silent,
               QStringLiteral("none of its values has come for %1 s").arg(m_silence * m_tickSeconds));
    }
}

void Ownership::forgetRhythm()
{
    m_silence = m_longest = m_regular = 0;
}

bool Ownership::isUnusual(int silence) const
{
    return m_silentAfter > 0 && m_regular >= 2 && silence >= m_silentAfter && silence >= usual * m_longest;
}

void Ownership::heardStranger(const QStringList &names)
{
    m_isSilent = false;
    const QString path = joinPath(names);
    disown(VorbelClient::Replaced, QStringLiteral("a value comes that it does not have, ") +
                                       (path.isEmpty() ? QStringLiteral("one without a name") : path));
}

void Ownership::heardOwn(const QVariant &values)
{
    const bool isKept = m_isListening;
    const bool isBack = m_isSilent;
    m_isListening = m_isSilent = false;
    followRhythm(values);
    if (isKept) {
        tell(VorbelClient::Kept, QStringLiteral("its values come"));
    } else if (isBack) {
        m_isOwned = true;
        tell(VorbelClient::Heard, QStringLiteral("its values come again"));
    }
}

void Ownership::followRhythm(const QVariant &values)
{
    const bool isKnown = m_regular > 1 && m_silence == 0; // in this tick: looking once will do
    if (isKnown || !s_comesWithEveryFrame(*m_names, values)) {
        return;
    }
    if (m_regular > 0) {
        m_longest = qMax(m_longest, m_silence);
    }
    ++m_regular;
    m_silence = 0;
}

void Ownership::disown(VorbelClient::SchemaState state, const QString &reason)
{
    m_isOwned = m_isListening = false;
    tell(state, reason);
}

// Whoever is told may set another schema, which is the end of this object.
void Ownership::tell(VorbelClient::SchemaState state, const QString &reason)
{
    const Tell tell = m_tell;
    tell(state, reason);
}

} // namespace Vorbel
