// The codec's version, as MsgPack::version() reports it.
#pragma once

#define MSGPACK_MAJOR 0
#define MSGPACK_MINOR 1
#define MSGPACK_PATCH 0
