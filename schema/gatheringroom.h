// How much the arrays of one schema may gather together.
#pragma once

#include "schema/schemapath.h"

#include <QtGlobal>

// "@flushSize" is chosen by the client, and whatever the bus sends goes into the arrays: without a bound, a
// few leaves that never fill up take all the memory there is.
//
// The room is counted in bytes of the arrays' blocks as they grow, including space for readings still to
// come, so it is what the arrays really take: 65 MiB when the room is used up by one array or by a thousand,
// and 49 MiB by tens of thousands (an array has a header of 24 bytes). Blocks double, but not beyond
// "@flushSize": arrays whose full sizes add up to no more than the room always get it.
class GatheringRoom
{
public:
    static constexpr qint64 bytesMax = 64 * 1024 * 1024;

    explicit GatheringRoom(qint64 bytes = bytesMax) : m_left(bytes) {}

    qint64 left() const { return m_left; }

    // Takes `bytes` for the array of the leaf at `leaf` and returns true, or takes nothing and returns false
    // if that is more than is left. The first time, a warning says so.
    bool take(qint64 bytes, const SchemaPath &leaf)
    {
        if (bytes > m_left) {
            warnOnce(leaf);
            return false;
        }
        m_left -= bytes;
        return true;
    }

    void giveBack(qint64 bytes) { m_left += bytes; }

private:
    void warnOnce(const SchemaPath &leaf);

    qint64 m_left;
    bool m_warned = false;
};
