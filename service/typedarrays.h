// Registration of the typed numeric arrays with Qt's type system and with the MessagePack codec.
#pragma once

// Registers QVector of signed char, unsigned char, short, unsigned short, int, unsigned int and float, in
// this order, as extension types 17 to 23. Once per process, on the main thread, before any value exists.
void registerTypedArrays();
