// What a client's message takes in memory once it is decoded, told from its bytes in one pass over them.
//
// A message of a few MiB can decode into a hundred times its size: a byte of MessagePack, or two of JSON, may
// be a container of its own. Whoever decodes asks here first and refuses what is too large, instead of
// finding out.
//
// The results are bytes, and never less than what decoding takes at its peak, as Qt 5.15's containers and
// glibc's allocator have it on 64-bit machines; bytes that are no such format give some number. Pure
// functions, for any thread.
#pragma once

#include <QByteArray>

// For MsgPack::unpack(message).
qint64 unpackedSize(const QByteArray &message);

// For QJsonDocument::fromJson(text) and a SchemaConverter that loads the document while that is there.
qint64 parsedSize(const QByteArray &text);
