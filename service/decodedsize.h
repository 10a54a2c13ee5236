// What a client's message takes in memory once it is decoded, estimated in one pass over its bytes.
//
// A message of a few MiB can decode into a hundred times its size: a byte of MessagePack, or two of JSON, may
// be a container of its own. Whoever decodes asks here first and refuses what is too large, instead of
// running out of memory.
//
// The results are in bytes and never less than what decoding takes at its peak, with the containers of Qt
// 5.15 and glibc's allocator on 64-bit machines; malformed input gives some number. Pure functions, for any
// thread.
#pragma once

#include <QByteArray>

// For MsgPack::unpack(message).
qint64 unpackedSize(const QByteArray &message);

// For QJsonDocument::fromJson(text), and a SchemaConverter that loads the document while it exists.
qint64 parsedSize(const QByteArray &text);
