#include "vorbel/membercheck_p.h"

#include "vorbel/memberkinds_p.h"
#include "vorbel/words_p.h"

#include <QHash>
#include <QSet>

#include <algorithm>

namespace Vorbel
{

namespace
{

class MemberCheck
{
public:
    MemberCheck(const QJsonObject &node, const Leaf &leaf) : m_node(node), m_leaf(leaf) {}

    QVector<Found> run()
    {
        checkKinds();
        checkBits();
        checkLimits();
        checkArrangement();
        checkEffects();
        checkLabels();
        checkGathering();
        return m_found;
    }

private:
    void tell(const char *code, const QString &message) { m_found.append({QLatin1String(code), message}); }

    void checkKinds()
    {
        for (auto member = m_node.begin(); member != m_node.end(); ++member) {
            const MemberKind *known = memberKind(member.key());
            if (!known || (member.value().isObject() && !known->isMap)) {
                continue; // or it is a node of that name
            }
            const Found found = misfit("member", member.key(), known->kind, member.value());
            if (found.isProblem()) {
                m_found << found;
            }
        }
        const QJsonValue scale = m_node.value(QLatin1String("scale"));
        if (scale.isDouble() && scale.toDouble() == 0) {
            tell("member-range", QStringLiteral("\"scale\" is 0: all fields would mean the same"));
        }
    }

    void checkBits()
    {
        const auto bits = m_members.bits;
        const int width = 8 * m_leaf.width();
        if (bits && width > 0 &&
            (bits->lowest < 0 || bits->count < 1 || bits->lowest + bits->count > width)) {
            tell("member-range", QStringLiteral("\"bits\" is %1: the reading has the bits 0 to %2")
                                     .arg(quoted(m_node.value(QLatin1String("bits")).toVariant()))
                                     .arg(width - 1));
        }
    }

    void checkLimits()
    {
        checkOrder(m_members.bounds, "\"min\" is above \"max\"");
        checkOrder(m_members.warn, "the low end of \"warn\" is above the high one");
        checkOrder(m_members.alarm, "the low end of \"alarm\" is above the high one");
    }

    void checkOrder(const Limits &limits, const char *words)
    {
        if (limits.low > limits.high) {
            tell("member-range",
                 QStringLiteral("%1: %2 and %3")
                     .arg(QLatin1String(words), numberText(limits.low), numberText(limits.high)));
        }
    }

    // What puts the bits of a reading in order needs to know them.
    void checkArrangement()
    {
        const int width = m_leaf.width();
        if (m_members.isArranged() && m_leaf.hasFormat() && !m_leaf.isWhole()) {
            tell("member-conflict",
                 QStringLiteral("%1 needs whole numbers for readings, without a factor and \"@asBool\"")
                     .arg(listed(arrangingNames())));
        } else if (m_members.isFloat && (width == 1 || width == 2)) {
            tell("member-conflict", QStringLiteral("\"float\" needs 4 bytes, the format \"%1\" has %2")
                                        .arg(m_leaf.format)
                                        .arg(width));
        }
        if (m_members.isFloat && (m_members.bits || m_members.isSigned)) {
            tell("member-conflict",
                 QStringLiteral(
                     "\"float\" takes all bits as they are: \"bits\" and \"signed\" do not go with it"));
        }
    }

    QStringList arrangingNames() const
    {
        QStringList names;
        const QVector<QPair<QString, bool>> all{{"bits", m_members.bits.has_value()},
                                                {"swapped", m_members.swapped},
                                                {"signed", m_members.isSigned},
                                                {"float", m_members.isFloat}};
        for (const auto &each : all) {
            if (each.second) {
                names << each.first;
            }
        }
        return names;
    }

    void checkEffects()
    {
        if (m_members.swapped && m_leaf.width() == 1) {
            tell("no-effect", QStringLiteral("\"swapped\" has no effect on a single byte"));
        }
        if (m_members.initial && m_leaf.hasFormat() && !m_leaf.isPart()) {
            tell("no-effect",
                 QStringLiteral("\"initial\" has no effect without \"bits\" that leave others over"));
        }
    }

    void checkLabels()
    {
        QStringList repeated;
        QSet<QString> names;
        for (const QString &label : m_members.labels) {
            if (names.contains(label) && !repeated.contains(label)) {
                repeated << label;
            }
            names.insert(label);
        }
        if (!repeated.isEmpty()) {
            tell("member-conflict",
                 QStringLiteral("%1 in \"labels\" stands for several fields").arg(listed(repeated)));
        }
    }

    void checkGathering()
    {
        if (m_members.when && (m_leaf.observe || m_leaf.flushSize != 0)) {
            tell("member-conflict",
                 QStringLiteral("\"when\" does not go with \"@observe\" or \"@flushSize\": these would take "
                                "readings that do not count with those that do"));
        }
    }

    const QJsonObject &m_node;
    const Leaf &m_leaf;
    const Members &m_members = m_leaf.members;
    QVector<Found> m_found;
};

using Leaves = QHash<QString, const Leaf *>;

// Whether what a leaf's selector depends on leads back to where it came by.
bool s_isInCircle(const Leaf *leaf, const Leaves &leaves)
{
    QSet<QString> asked;
    while (leaf && leaf->members.when) {
        const QString path = leaf->members.when->path;
        if (asked.contains(path)) {
            return true;
        }
        asked.insert(path);
        leaf = leaves.value(path);
    }
    return false;
}

Found s_selectorProblem(const Leaf &leaf, const Leaves &leaves)
{
    const QString path = leaf.members.when->path;
    const Leaf *selector = leaves.value(path);
    if (!selector) {
        return {"unknown-when", QStringLiteral("\"when\" names %1, which is no leaf").arg(quoted(path))};
    }
    if (s_isInCircle(&leaf, leaves)) {
        return {"unknown-when", QStringLiteral("\"when\" names %1, and that leads back").arg(path)};
    }
    if (selector->cmd != leaf.cmd || selector->mac != leaf.mac) {
        return {"when-elsewhere",
                QStringLiteral("\"when\" names %1, which is read from other frames").arg(path)};
    }
    if (selector->observe || selector->flushSize != 0 || selector->width() == 0) {
        return {"when-elsewhere",
                QStringLiteral("\"when\" names %1, which is not in every message").arg(path)};
    }
    return {};
}

} // namespace

QVector<Found> memberProblems(const QJsonObject &node, const Leaf &leaf)
{
    return MemberCheck(node, leaf).run();
}

QVector<Problem> selectorProblems(const QVector<Leaf> &leaves)
{
    Leaves byPath;
    for (const Leaf &leaf : leaves) {
        byPath.insert(leaf.path(), &leaf);
    }
    QVector<Problem> problems;
    for (const Leaf &leaf : leaves) {
        const Found found = leaf.members.when ? s_selectorProblem(leaf, byPath) : Found();
        if (found.isProblem()) {
            problems.append({leaf.path(), found.code, found.message});
        }
    }
    return problems;
}

} // namespace Vorbel
