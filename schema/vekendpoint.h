// The key of one stream of VEK frames.
//
// The links make one from the header of every received frame, the schema has one for every leaf; maps keyed
// by it find the leaves that a frame concerns. A plain value, copied freely.
#pragma once

#include <QtGlobal>

struct VEKEndpoint {
    quint16 mac = 0;            // node address; a frame header carries its low 6 bits
    quint16 cmd = 0;            // command number; a frame header carries its low 5 bits
    bool fragmentation = false; // payloads over 8 bytes may be split over several frames

    constexpr VEKEndpoint() = default;
    constexpr VEKEndpoint(quint16 macAddress, quint16 command, bool mayFragment)
        : mac(macAddress), cmd(command), fragmentation(mayFragment)
    {
    }

    // cmd in the high half and mac in the low half of one signed number, so a cmd of 0x8000 or more sorts
    // before every smaller one. The flag takes no part: the links never know it, and still have to find the
    // entries of schemas that set it. In a map, the key inserted first stays, and so does that key's flag.
    constexpr qint32 order() const
    {
        return static_cast<qint32>(static_cast<quint32>(cmd) << 16 | static_cast<quint32>(mac));
    }
};

constexpr bool operator<(const VEKEndpoint &a, const VEKEndpoint &b)
{
    return a.order() < b.order();
}

Q_DECLARE_TYPEINFO(VEKEndpoint, Q_PRIMITIVE_TYPE);
