#include "vorbel/schema.h"

#include "vorbel/jsontext_p.h"
#include "vorbel/paths.h"
#include "vorbel/plain_p.h"
#include "vorbel/single_p.h"
#include "vorbel/wire.h"

#include <QFile>
#include <QJsonDocument>
#include <QTextCodec>

namespace Vorbel
{

namespace
{

constexpr qint64 allBits = -1;
constexpr qint64 allBitsUnsigned = 0xffffffff;

struct Format {
    char letter;
    qint8 width;    // bytes
    bool takesMask; // whether "@mask" is applied to readings
    bool isWhole;   // whether readings are whole numbers
    bool hasSign;   // whether they are below 0 as well
};

constexpr Format knownFormats[] = {
    {'C', 1, true, true, false},   {'c', 1, true, true, false},  {'S', 2, true, true, false},
    {'s', 2, true, true, true},    {'Q', 2, false, true, false}, {'q', 2, false, true, true},
    {'I', 4, true, true, false},   {'i', 4, true, true, true},   {'f', 4, false, false, true},
    {'p', 0, false, false, false},
};

const Format *s_format(QChar letter)
{
    for (const Format &format : knownFormats) {
        if (letter == QLatin1Char(format.letter)) {
            return &format;
        }
    }
    return nullptr;
}

void s_addLeaves(const QStringList &names, const QJsonObject &node, QMap<QString, Leaf> &found)
{
    if (isLeaf(node)) {
        found.insert(joinPath(names), leafOf(names, node));
    }
    if (names.size() < nestingLimit) {
        for (const QString &name : nodeNames(node)) {
            s_addLeaves(names + QStringList(name), node.value(name).toObject(), found);
        }
    }
}

ParsedSchema s_notJson(const QString &message)
{
    return {QJsonObject(), {{QString(), QStringLiteral("not-json"), message}}};
}

} // namespace

QString Leaf::path() const
{
    return joinPath(names);
}

bool Leaf::hasFormat() const
{
    return s_format(format) != nullptr;
}

int Leaf::width() const
{
    const Format *known = s_format(format);
    return known ? known->width : 0;
}

bool Leaf::takesMask() const
{
    const Format *known = s_format(format);
    return known && known->takesMask;
}

bool Leaf::isMasked() const
{
    return mask != allBits && mask != allBitsUnsigned;
}

double Leaf::singleFactor() const
{
    return single(factor);
}

bool Leaf::isScaled() const
{
    return singleFactor() != 1;
}

bool Leaf::isReadOnly() const
{
    return asBool || isMasked() || members.readonly;
}

bool Leaf::hasSign() const
{
    const Format *known = s_format(format);
    return known && known->hasSign;
}

bool Leaf::isWhole() const
{
    const Format *known = s_format(format);
    return known && known->isWhole && !isScaled() && !asBool;
}

bool Leaf::isArranged() const
{
    return members.isArranged() && isWhole();
}

bool Leaf::isSingle() const
{
    constexpr int widthOfSingle = 4;
    const bool isOwn = format == QLatin1Char('f') && !isScaled();
    return isOwn || (members.isFloat && isWhole() && width() == widthOfSingle);
}

BitRange Leaf::bits() const
{
    const BitRange all{0, 8 * width()};
    const BitRange range = members.bits.value_or(all);
    const bool areThere = range.lowest >= 0 && range.count > 0 && range.lowest + range.count <= all.count;
    return areThere ? range : all;
}

bool Leaf::isPart() const
{
    return isArranged() && bits().count < 8 * width();
}

QStringList optionNames()
{
    return {"@mac",  "@cmd",    "@format",    "@skip",    "@factor",
            "@mask", "@asBool", "@flushSize", "@observe", "@fragmentation"};
}

QStringList formats()
{
    QStringList letters;
    for (const Format &format : knownFormats) {
        letters << QString(QLatin1Char(format.letter));
    }
    return letters;
}

bool isLeaf(const QJsonObject &node)
{
    return node.contains(QLatin1String("@mac"));
}

bool hasNode(const QJsonObject &node, const QString &name)
{
    const QJsonValue member = node.value(name);
    return member.isObject() && !(isLeaf(node) && isMember(name, member));
}

QStringList nodeNames(const QJsonObject &node)
{
    QStringList names;
    for (auto member = node.begin(); member != node.end(); ++member) {
        if (member.value().isObject() && hasNode(node, member.key())) {
            names << member.key();
        }
    }
    return names;
}

Leaf leafOf(const QStringList &names, const QJsonObject &node)
{
    const auto option = [&node](const char *name, const QVariant &absent) {
        const QJsonValue value = node.value(QLatin1String(name));
        return value.isUndefined() ? absent : value.toVariant();
    };
    Leaf leaf;
    leaf.names = names;
    leaf.mac = option("@mac", leaf.mac).toInt();
    leaf.cmd = option("@cmd", leaf.cmd).toInt();
    const QString format = option("@format", QString()).toString();
    leaf.format = format.isEmpty() ? QChar() : format.at(0);
    leaf.skip = option("@skip", leaf.skip).toInt();
    leaf.factor = option("@factor", leaf.factor).toDouble();
    leaf.mask = option("@mask", leaf.mask).toLongLong();
    leaf.asBool = option("@asBool", leaf.asBool).toBool();
    leaf.flushSize = option("@flushSize", leaf.flushSize).toInt();
    leaf.observe = option("@observe", leaf.observe).toBool();
    leaf.fragmentation = option("@fragmentation", leaf.fragmentation).toBool();
    leaf.members = membersOf(node);
    return leaf;
}

QMap<QString, Leaf> leaves(const QJsonObject &schema)
{
    QMap<QString, Leaf> found;
    s_addLeaves(QStringList(), schema, found);
    return found;
}

bool ParsedSchema::isReadable() const
{
    return problems.isEmpty() || problems.first().code == QLatin1String("repeated-name");
}

ParsedSchema parseSchema(const QString &text)
{
    const JsonText read = readJson(text);
    if (!read.error.isNull()) {
        return s_notJson(QStringLiteral("is no JSON: ") + read.error);
    }
    if (!isMap(read.value)) {
        return {QJsonObject(),
                {{QString(), QStringLiteral("not-an-object"),
                  QStringLiteral("is no JSON object: the daemon would take it for an empty schema")}}};
    }
    ParsedSchema parsed{QJsonObject::fromVariantMap(read.value.toMap()), {}};
    for (const QString &path : read.repeated) {
        parsed.problems.append({path, QStringLiteral("repeated-name"),
                                QStringLiteral("is there twice; only the last one would count")});
    }
    return parsed;
}

ParsedSchema readSchema(const QString &fileName)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly)) {
        return s_notJson(QStringLiteral("%1 cannot be read: %2").arg(fileName, file.errorString()));
    }
    QTextCodec::ConverterState state; // which skips the byte order mark that some editors begin a file with
    const QByteArray bytes = file.readAll();
    const QString text =
        QTextCodec::codecForName("UTF-8")->toUnicode(bytes.constData(), bytes.size(), &state);
    if (state.invalidChars > 0 || state.remainingChars > 0) {
        return s_notJson(QStringLiteral("%1 is no text in UTF-8").arg(fileName));
    }
    return parseSchema(text);
}

QString schemaText(const QJsonObject &schema)
{
    return QString::fromUtf8(QJsonDocument(schema).toJson(QJsonDocument::Compact));
}

} // namespace Vorbel
