// The boundary between Qt's network and the handlers of what comes over it.
#pragma once

#include <QDebug>

#include <exception>
#include <type_traits>

namespace Vorbel
{

// Wraps a functor so that an exception ends the functor and nothing else, with a critical line that says what
// was thrown. Qt's network and WebSocket libraries carry no unwind tables: an exception that passes through
// them, out of an application's slot say, leaks what they held and leaves the socket half handled, even when
// it is caught further up.
template <typename Functor>
auto contained(Functor functor)
{
    // The return type lets connect() see which arguments of a signal the functor takes.
    return [functor](auto &&...arguments) -> std::invoke_result_t<const Functor &, decltype(arguments)...> {
        try {
            functor(std::forward<decltype(arguments)>(arguments)...);
        } catch (const std::exception &exception) {
            qCritical("vorbel: an exception ended the handling of a message: %s", exception.what());
        }
    };
}

} // namespace Vorbel
