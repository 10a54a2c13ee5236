// The members of leaves for people, one by one.
#pragma once

#include "vorbel/kinds_p.h"
#include "vorbel/members.h"

namespace Vorbel
{

struct MemberKind {
    const char *name;
    Kind kind;
    void (*take)(Members &members, const QJsonValue &value); // a value that the kind takes
    bool isMap = false; // to the daemon a node, though one without leaves
};

// The one of that name; null if there is none.
const MemberKind *memberKind(const QString &name);

} // namespace Vorbel
