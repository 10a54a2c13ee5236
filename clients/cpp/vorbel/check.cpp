#include "vorbel/check.h"

#include "vorbel/bits_p.h"
#include "vorbel/kinds_p.h"
#include "vorbel/membercheck_p.h"
#include "vorbel/schema.h"
#include "vorbel/single_p.h"
#include "vorbel/wire.h"
#include "vorbel/words_p.h"

#include <QHash>
#include <QMap>

#include <algorithm>
#include <cmath>

namespace Vorbel
{

namespace
{

constexpr int frameBytes = 8;
constexpr int fdFrameBytes = 64;

// Options by themselves

struct OptionKind {
    const char *name;
    Kind kind;
};

constexpr double bits31 = 2147483647.0;
constexpr double bits32 = 4294967295.0;
constexpr OptionKind kinds[] = {
    {"@mac", wholeNumber(0, 63)}, {"@cmd", wholeNumber(0, 31)},
    {"@format", aText},           {"@skip", wholeNumber(0, 65535)},
    {"@factor", aNumber},         {"@mask", wholeNumber(-bits31 - 1, bits32)},
    {"@asBool", aTruth},          {"@flushSize", wholeNumber(0, bits31)},
    {"@observe", aTruth},         {"@fragmentation", aTruth},
};

const OptionKind *s_kind(const QString &name)
{
    const auto *kind = std::find_if(std::begin(kinds), std::end(kinds), [&name](const OptionKind &each) {
        return name == QLatin1String(each.name);
    });
    return kind == std::end(kinds) ? nullptr : kind;
}

bool s_isOption(const QString &name)
{
    return s_kind(name) != nullptr;
}

bool s_hasReciprocal(double factor)
{
    return factor != 0 && std::isfinite(factor) && std::isfinite(single(1 / factor));
}

Found s_optionProblem(const QString &name, const QJsonValue &value)
{
    Found found = misfit("option", name, s_kind(name)->kind, value);
    if (!found.isProblem() && name == QLatin1String("@factor") &&
        !s_hasReciprocal(single(value.toDouble()))) {
        return {QStringLiteral("option-range"),
                QStringLiteral("\"@factor\" is %1: readings are divided by it in single precision")
                    .arg(quoted(value.toVariant()))};
    }
    return found;
}

QString s_optionInOtherLetters(const QString &name)
{
    for (const OptionKind &kind : kinds) {
        if (name.compare(QLatin1String(kind.name), Qt::CaseInsensitive) == 0) {
            return QLatin1String(kind.name);
        }
    }
    return QString();
}

// The leaf that the faultless options of a node make.
Leaf s_faultlessLeaf(const QStringList &names, const QJsonObject &node, bool &isFaultless)
{
    QJsonObject faultless = node;
    isFaultless = true;
    for (const OptionKind &kind : kinds) {
        const QJsonValue value = node.value(QLatin1String(kind.name));
        if (!value.isUndefined() && s_optionProblem(QLatin1String(kind.name), value).isProblem()) {
            isFaultless = false;
            faultless.remove(QLatin1String(kind.name));
        }
    }
    return leafOf(names, faultless);
}

// One node

class NodeCheck
{
public:
    NodeCheck(const QJsonObject &node, const Leaf &leaf, QVector<Problem> &problems)
        : m_node(node), m_leaf(leaf), m_path(leaf.path()), m_problems(problems)
    {
    }

    void run()
    {
        checkUnknownOptions();
        if (!isLeaf(m_node)) {
            checkBranch();
            return;
        }
        checkOptions();
        checkFormat();
        checkPlace();
        checkEffects();
        checkMembers();
        checkNodes();
    }

private:
    void tell(const char *code, const QString &message)
    {
        m_problems.append({m_path, QLatin1String(code), message});
    }

    void checkUnknownOptions()
    {
        for (auto member = m_node.begin(); member != m_node.end(); ++member) {
            const QString name = member.key();
            if (name.startsWith(QLatin1Char('@')) && !s_isOption(name) && !member.value().isObject()) {
                tell("unknown-option", QStringLiteral("\"%1\" is no option%2; the daemon ignores it")
                                           .arg(name, suggestion(name, optionNames())));
            }
        }
    }

    void checkBranch()
    {
        static const QStringList unsignedNames{"mac", "cmd", "format"};
        QStringList known;
        QStringList withoutSign;
        for (auto member = m_node.begin(); member != m_node.end(); ++member) {
            if (member.value().isObject()) {
                continue;
            }
            if (s_isOption(member.key())) {
                known << member.key();
            }
            if (unsignedNames.contains(member.key().toLower())) {
                withoutSign << member.key();
            }
        }
        if (!known.isEmpty()) {
            tell("options-without-mac",
                 QStringLiteral(
                     "has %1 but no \"@mac\": without it this is no leaf, and its options are ignored")
                     .arg(listed(known)));
        }
        if (!withoutSign.isEmpty()) {
            tell("leaf-without-signs",
                 QStringLiteral("has %1 but no \"@mac\": the names of options begin with \"@\"")
                     .arg(listed(withoutSign)));
        }
    }

    void checkOptions()
    {
        for (auto member = m_node.begin(); member != m_node.end(); ++member) {
            const QString name = member.key();
            if (s_isOption(name)) {
                tellOf(s_optionProblem(name, member.value()));
                continue;
            }
            const QString meant = s_optionInOtherLetters(QLatin1Char('@') + name);
            if (!meant.isNull() && !member.value().isObject()) {
                tell("option-without-sign",
                     QStringLiteral("\"%1\" has no meaning for the daemon (did you mean \"%2\"?)")
                         .arg(name, meant));
            }
        }
        if (!m_node.contains(QLatin1String("@cmd"))) {
            tell("no-cmd", QStringLiteral("\"@cmd\" is missing, which counts as 0"));
        }
    }

    void tellOf(const Found &found)
    {
        if (found.isProblem()) {
            m_problems.append({m_path, found.code, found.message});
        }
    }

    void checkFormat()
    {
        const QJsonValue format = m_node.value(QLatin1String("@format"));
        if (format.isUndefined()) {
            tell("no-format",
                 QStringLiteral("\"@format\" is missing: the daemon neither reads nor writes such a leaf"));
        } else if (format.isString() && !m_leaf.hasFormat()) {
            tell("unknown-format",
                 QStringLiteral(
                     "\"@format\" is %1: it must be one of %2; the daemon neither reads nor writes any other")
                     .arg(quoted(format.toString()), formats().join(QLatin1Char(' '))));
        } else if (format.toString().size() > 1) {
            tell("long-format", QStringLiteral("only the first character of \"@format\" counts: %1 is \"%2\"")
                                    .arg(quoted(format.toString()), QString(m_leaf.format)));
        }
    }

    void checkPlace()
    {
        const int end = m_leaf.skip + m_leaf.width();
        if (m_leaf.width() == 0 || end <= frameBytes || m_leaf.fragmentation) {
            return;
        }
        if (end > fdFrameBytes) {
            tell("beyond-any-frame",
                 QStringLiteral("needs %1 bytes: no frame is that long, and it is not written without "
                                "\"@fragmentation\"")
                     .arg(end));
        } else {
            tell("beyond-frame",
                 QStringLiteral("needs %1 bytes, a CAN frame has %2: it is read from CAN FD frames only, "
                                "and written only with \"@fragmentation\": true")
                     .arg(end)
                     .arg(frameBytes));
        }
    }

    void checkEffects()
    {
        if (m_leaf.format == QLatin1Char('c') && m_leaf.flushSize > 0 && !m_leaf.isScaled()) {
            tell("unreadable-array",
                 QStringLiteral("\"c\" with \"@flushSize\" makes every message that carries it "
                                "unreadable for all clients: use \"C\", which reads the same"));
        }
        if (m_leaf.format == QLatin1Char('p')) {
            checkPacked();
        } else if (m_leaf.observe && m_leaf.flushSize != 0) {
            tell("no-effect", QStringLiteral("\"@observe\" has no effect beside \"@flushSize\""));
        }
        if (m_leaf.hasFormat() && m_leaf.isMasked() && !m_leaf.takesMask()) {
            tell("no-effect",
                 QStringLiteral(
                     "\"@mask\" is not applied by the format \"%1\" and only makes the leaf read-only")
                     .arg(QString(m_leaf.format)));
        }
    }

    void checkPacked()
    {
        tell("write-only",
             QStringLiteral("\"p\" is only for writing: the daemon never reads a value of this format"));
        if (!m_leaf.fragmentation) {
            tell("packed-cut",
                 QStringLiteral(
                     "a packed value of more than 8 bytes is cut without \"@fragmentation\": true"));
        }
        if (m_leaf.asBool) {
            tell("no-effect",
                 QStringLiteral("\"@asBool\" has no effect on \"p\" but to make the leaf read-only"));
        }
        const QVector<QPair<QString, bool>> withoutEffect{{"@skip", m_leaf.skip != 0},
                                                          {"@factor", m_leaf.isScaled()},
                                                          {"@flushSize", m_leaf.flushSize != 0},
                                                          {"@observe", m_leaf.observe}};
        for (const auto &option : withoutEffect) {
            if (option.second) {
                tell("no-effect", QStringLiteral("\"%1\" has no effect on \"p\"").arg(option.first));
            }
        }
    }

    void checkMembers()
    {
        for (const Found &found : memberProblems(m_node, m_leaf)) {
            tellOf(found);
        }
    }

    void checkNodes()
    {
        const QStringList names = nodeNames(m_node);
        if (!std::all_of(names.cbegin(), names.cend(), s_isOption)) {
            tell("leaf-in-leaf",
                 QStringLiteral("holds further nodes inside of a leaf: their values and its own "
                                "replace one another"));
        }
    }

    const QJsonObject &m_node;
    const Leaf &m_leaf;
    const QString m_path;
    QVector<Problem> &m_problems;
};

// The leaves of one node and command

QString s_frameName(const Leaf &leaf)
{
    return QStringLiteral("mac %1, cmd %2").arg(leaf.mac).arg(leaf.cmd);
}

// The bits of the payload that a leaf reads.
QVector<int> s_bits(const Leaf &leaf)
{
    const qint64 mask = (leaf.takesMask() ? leaf.mask : -1) & (leaf.isArranged() ? qint64(maskOf(leaf)) : -1);
    QVector<int> bits;
    for (int bit = 0; bit < 8 * leaf.width(); ++bit) {
        if (mask >> bit & 1) {
            bits << leaf.skip * 8 + bit;
        }
    }
    return bits;
}

QString s_sharedBytes(const Leaf &one, const Leaf &other)
{
    const QVector<int> bits = s_bits(one);
    QVector<int> shared;
    for (const int bit : s_bits(other)) {
        if (std::any_of(bits.cbegin(), bits.cend(), [bit](int each) { return each / 8 == bit / 8; })) {
            shared << bit / 8;
        }
    }
    return shared.first() == shared.last()
               ? QStringLiteral("byte %1").arg(shared.first())
               : QStringLiteral("bytes %1 to %2").arg(shared.first()).arg(shared.last());
}

QString s_overlap(const Leaf &leaf, const Leaf &other)
{
    const bool areWritable = !leaf.isReadOnly() && !other.isReadOnly();
    return QStringLiteral("overlaps %1: both use %2 of %3%4")
        .arg(other.path(), s_sharedBytes(leaf, other), s_frameName(leaf),
             areWritable ? QStringLiteral("; written together, one destroys the other") : QString());
}

// Whether no frame has a value of both.
bool s_areApart(const Leaf &one, const Leaf &other)
{
    const auto &first = one.members.when;
    const auto &second = other.members.when;
    return first && second && first->path == second->path && first->is != second->is;
}

using Users = QHash<int, QVector<const Leaf *>>; // of the bits of a payload

// The first that uses bits of a leaf in the same frames; null if none does.
const Leaf *s_otherUser(const Users &users, const Leaf &leaf, const QVector<int> &bits)
{
    for (const int bit : bits) {
        for (const Leaf *user : users.value(bit)) {
            if (!s_areApart(*user, leaf)) {
                return user;
            }
        }
    }
    return nullptr;
}

// Each leaf that uses bits of one before it is told once.
void s_checkOverlaps(const QVector<Leaf> &leaves, QVector<Problem> &problems)
{
    Users users;
    for (const Leaf &leaf : leaves) {
        const QVector<int> bits = s_bits(leaf);
        const Leaf *other = s_otherUser(users, leaf, bits);
        if (other) {
            problems.append({leaf.path(), QStringLiteral("overlap"), s_overlap(leaf, *other)});
        }
        for (const int bit : bits) {
            if (!other || !users.contains(bit)) {
                users[bit].append(&leaf);
            }
        }
    }
}

void s_checkFragmentation(const QVector<Leaf> &leaves, QVector<Problem> &problems)
{
    const Leaf &first = leaves.first();
    for (const Leaf &leaf : leaves) {
        if (leaf.fragmentation != first.fragmentation) {
            problems.append(
                {leaf.path(), QStringLiteral("mixed-fragmentation"),
                 QStringLiteral("\"@fragmentation\" differs from that of %1, also %2: in each message the "
                                "first leaf by name decides for all")
                     .arg(first.path(), s_frameName(leaf))});
            return;
        }
    }
}

// `leaves` are in the order of their names, as the daemon goes along them.
void s_checkSharedFrames(const QVector<Leaf> &leaves, QVector<Problem> &problems)
{
    QMap<QPair<int, int>, QVector<Leaf>> byFrame;
    for (const Leaf &leaf : leaves) {
        byFrame[{leaf.cmd, leaf.mac}].append(leaf);
    }
    for (const QVector<Leaf> &together : qAsConst(byFrame)) {
        s_checkOverlaps(together, problems);
        s_checkFragmentation(together, problems);
    }
}

// The whole document

class SchemaCheck
{
public:
    QVector<Problem> run(const QJsonObject &schema, bool clear)
    {
        visit(QStringList(), schema);
        if (m_isTooDeep) {
            tell("too-deep", QStringLiteral("is nested more than %1 deep").arg(nestingLimit));
        }
        if (m_leaves.isEmpty() && !clear) {
            tell("no-leaf",
                 QStringLiteral("has no leaf, that is, no object with \"@mac\": the daemon would forget all "
                                "values, for all its clients"));
        }
        m_problems += selectorProblems(m_leaves);
        s_checkSharedFrames(m_placed, m_problems);
        return m_problems;
    }

private:
    void tell(const char *code, const QString &message)
    {
        m_problems.append({QString(), QLatin1String(code), message});
    }

    void visit(const QStringList &names, const QJsonObject &node)
    {
        if (names.size() > nestingLimit) {
            m_isTooDeep = true;
            return;
        }
        bool isFaultless = false;
        const Leaf leaf = s_faultlessLeaf(names, node, isFaultless);
        NodeCheck(node, leaf, m_problems).run();
        if (isLeaf(node)) {
            m_leaves << leaf;
            if (isFaultless && leaf.hasFormat()) { // only then its place is certain
                m_placed << leaf;
            }
        }
        for (const QString &name : nodeNames(node)) {
            visit(names + QStringList(name), node.value(name).toObject());
        }
    }

    QVector<Problem> m_problems;
    QVector<Leaf> m_leaves;
    QVector<Leaf> m_placed;
    bool m_isTooDeep = false;
};

} // namespace

QVector<Problem> check(const QJsonObject &schema, bool clear)
{
    return SchemaCheck().run(schema, clear);
}

QVector<Problem> checkText(const QString &text, bool clear)
{
    const ParsedSchema parsed = parseSchema(text);
    return parsed.isReadable() ? parsed.problems + check(parsed.schema, clear) : parsed.problems;
}

} // namespace Vorbel
