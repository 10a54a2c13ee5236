#include "service/typedarrays.h"

void registerTypedArrays()
{
    registerType<signed char>(17);
    registerType<unsigned char>(18);
    registerType<short>(19);
    registerType<unsigned short>(20);
    registerType<int>(21);
    registerType<unsigned int>(22);
    registerType<float>(23);
}
