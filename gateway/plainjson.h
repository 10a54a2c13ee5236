// Values as texts of JSON, and back.
#pragma once

#include "gateway/leaftree.h"

#include <QByteArray>
#include <QString>
#include <QVariant>

namespace Gateway
{

// Appends a value as the daemon sends it: maps as objects, typed arrays and lists as arrays, numbers with the
// digits that their leaf justifies, without one with the fewest that are the same in their precision, what is
// no finite number as null. No spaces. `node` is the value's place in the schema; null if it has none.
void appendJson(QByteArray &text, const QVariant &value, const LeafTree *node = nullptr);

// The same alone.
QByteArray plainJson(const QVariant &value);

// What a reading means by its leaf; itself if that is null.
QByteArray meantJson(const QVariant &reading, const std::shared_ptr<const Vorbel::Leaf> &leaf);

// A value that was read, or why it is none.
struct ReadJson {
    QVariant value;
    QString error; // empty if there is one
};

// The one value of JSON in a text, be it an object, an array or a bare one.
ReadJson readPlainJson(const QByteArray &text);

} // namespace Gateway
