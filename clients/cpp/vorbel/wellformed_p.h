// Whether the bytes of a message are one value of the kind that clients take.
//
// One pass, before anything is decoded: the codec makes the most of whatever it gets, since its other user
// has to, and warns in the log. A client rather knows what is wrong, and that decoding cannot fail.
#pragma once

#include <QByteArray>
#include <QString>

namespace Vorbel
{

// What is wrong with a message, for people; null if nothing is. Needs no stack for nested values.
QString malformation(const QByteArray &message);

} // namespace Vorbel
