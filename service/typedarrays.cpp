#include "service/typedarrays.h"

void registerTypedArrays() {}
