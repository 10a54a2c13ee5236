/// @file
/// What a schema may say, and reading one.
#pragma once

#include "vorbel/members.h"
#include "vorbel/problem.h"

#include <QChar>
#include <QJsonObject>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVector>

namespace Vorbel
{

/// One value that a schema describes, with the daemon's defaults for the options that are absent.
struct Leaf {
    /// The names that lead to it.
    QStringList names;
    /// "@mac": the node's address.
    int mac = 0;
    /// "@cmd": the command's number.
    int cmd = 0;
    /// The first character of "@format"; null if there is none.
    QChar format;
    /// "@skip": the offset in the payload, in bytes.
    int skip = 0;
    /// "@factor", as the schema has it.
    double factor = 1;
    /// "@mask": the bits of a reading that are kept.
    qint64 mask = -1;
    /// "@asBool": whether readings are true or false.
    bool asBool = false;
    /// "@flushSize": how many readings an array has; 0 for single values.
    int flushSize = 0;
    /// "@observe": whether a value comes only when it has changed.
    bool observe = false;
    /// "@fragmentation": whether long payloads go out in several frames.
    bool fragmentation = false;
    /// What its readings mean to people.
    Members members;

    /// The names joined by dots.
    QString path() const;
    /// Whether the format is one that the daemon knows.
    bool hasFormat() const;
    /// Bytes in the payload; 0 where the format has no width.
    int width() const;
    /// Whether readings of its format are masked.
    bool takesMask() const;
    /// Whether its mask keeps bits out.
    bool isMasked() const;
    /// The factor as the daemon has it, in single precision.
    double singleFactor() const;
    /// Whether it has a factor other than 1.
    bool isScaled() const;
    /// Whether readings lose bits on the way in, so that the daemon refuses to write them back, or whether no
    /// client shall.
    bool isReadOnly() const;
    /// Whether readings are below 0 as well.
    bool hasSign() const;
    /// Whether readings are whole numbers, as they are on the bus.
    bool isWhole() const;
    /// Whether the field has to be taken out of the reading. Members that do not apply are without effect.
    bool isArranged() const;
    /// Whether the field is a number of single precision that may hold any fraction.
    bool isSingle() const;
    /// The bits of the field, within the reading in the order of its bytes.
    BitRange bits() const;
    /// Whether the reading has bits beside the field.
    bool isPart() const;
};

/// The names of all options.
QStringList optionNames();

/// All formats, one character each.
QStringList formats();

/// Whether a node of a schema is a leaf.
bool isLeaf(const QJsonObject &node);

/// Whether a node holds one of that name: an object that is not what a leaf has for people.
bool hasNode(const QJsonObject &node, const QString &name);

/// The names of all nodes that a node holds.
QStringList nodeNames(const QJsonObject &node);

/// The leaf that a node's options and members make; an option of another type is converted, as the daemon
/// does it.
Leaf leafOf(const QStringList &names, const QJsonObject &node);

/// All leaves by path, down to nestingLimit.
QMap<QString, Leaf> leaves(const QJsonObject &schema);

/// A schema that was read, and what keeps it from being one as it stands.
struct ParsedSchema {
    /// The document; empty if it is no JSON object. Of a name that occurs twice it has the last.
    QJsonObject schema;

    /// "not-json", "not-an-object" or, any number of times, "repeated-name".
    QVector<Problem> problems;

    /// Whether there is a document.
    bool isReadable() const;
};

/// The schema in a text of JSON.
ParsedSchema parseSchema(const QString &text);

/// The schema in a file of JSON in UTF-8. A file that cannot be read is reported as "not-json".
ParsedSchema readSchema(const QString &fileName);

/// The text message that carries a schema.
QString schemaText(const QJsonObject &schema);

} // namespace Vorbel
