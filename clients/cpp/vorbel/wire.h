/// @file
/// Values to and from the bytes of binary messages.
///
/// Importing this header changes nothing; the first call of Vorbel::decode() registers the readers of the
/// typed arrays with the codec, for the whole process. All functions may be called from any thread.
#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

/// What a client of the Vorbel daemon is made of.
namespace Vorbel
{

/// How deep maps and arrays may be nested, in schemas and in messages: what every client can decode.
constexpr int nestingLimit = 500;

/// How many bytes the daemon takes in one message, be it a schema or values.
constexpr int sentBytesMax = 4 * 1024 * 1024;

/// How many values a message may hold, maps and names included. A schema as large as the daemon takes has a
/// fifth of that; beyond it, a message is taken for an attempt on the client's memory.
constexpr int valuesMax = 1000000;

/// A message that was read: a value, or why it is none.
struct Decoded {
    /// QVariantMap, nested as the schema is, with the values at its leaves: uint, int, float, bool, and
    /// QVector of signed char, unsigned char, short, unsigned short, int, unsigned int or float for readings
    /// that were gathered. A message without a map around it gives the bare value. The name of an integer's
    /// type says nothing about the schema: positive ones are unsigned.
    QVariant value;

    /// Why the message cannot be decoded, for people; empty when it could.
    QString error;

    /// Whether there is a value.
    bool isDecoded() const { return error.isEmpty(); }
};

/// The value in a binary message of the daemon.
///
/// Undecodable, with an error, are bytes that are no single complete value; arrays whose payload ends within
/// an element; keys that are no texts; extensions that are no arrays; values nested deeper than nestingLimit,
/// and more of them than valuesMax. Nothing past the end of the message is read, and nothing is allocated
/// because a length was announced. Malformed UTF-8 is replaced.
Decoded decode(const QByteArray &message);

/// A message to send: bytes, or why there are none.
struct Encoded {
    /// The binary message.
    QByteArray message;

    /// Why the values cannot be sent, for people; empty when they can.
    QString error;

    /// Whether there is a message.
    bool isEncoded() const { return error.isEmpty(); }
};

/// The binary message for values: maps (QVariantMap, QVariantHash, QJsonObject), lists, texts, byte arrays,
/// numbers, true, false and nil (an invalid variant or null), nested up to nestingLimit and with no more than
/// sentBytesMax. Anything else, such as a typed array, which the daemon would take for the value before it,
/// is an error.
Encoded encode(const QVariant &values);

/// Whether a value is one of the typed arrays that decode() makes.
bool isArray(const QVariant &value);

/// The elements of a typed array as numbers, for those that do not know their types, such as scripts; empty
/// for any other value.
QVariantList elements(const QVariant &array);

} // namespace Vorbel
