// The typed arrays that the daemon sends: extension types 17 to 23, whose payload is the elements one after
// another, little-endian, in their natural width.
#pragma once

#include <QByteArray>
#include <QVariant>
#include <QVector>

namespace Vorbel
{

// Bytes of an element of an extension type; 0 if it is none of the arrays.
int elementWidth(int extensionType);

// Lets the codec read the arrays from now on, in the whole process; without effect but the first time. What
// is decoded by others, such as the daemon, must not call it: for them these types are unknown ones.
void registerArrays();

} // namespace Vorbel
