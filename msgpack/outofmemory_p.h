// The codec throws nothing, not even when memory runs out.
#pragma once

#include <new>

namespace MsgPackPrivate
{

// Logs that `who` has run out of memory.
void warnOutOfMemory(const char *who);

// What `call` returns; a neutral result, with a warning, if the memory that it needs is not available. All
// that it had taken is free again when the warning is written.
template <class Call>
auto withinMemory(const char *who, Call call) -> decltype(call())
{
    try {
        return call();
    } catch (const std::bad_alloc &) {
        warnOutOfMemory(who);
        return {};
    }
}

} // namespace MsgPackPrivate
