// The boundary between the event loop and the handlers.
#pragma once

#include <QDebug>

#include <exception>
#include <type_traits>
#include <utility>

// Wraps a functor so that an exception ends the functor and nothing else: one critical line says what was
// thrown, and the wrapped call returns. What the functor was handling is lost; what comes after it is not.
//
// Every handler of Main is passed to connect() in this wrapper, and every frame that a link hands on has its
// own. It must stay that way: Qt's network, WebSocket, serial and CAN libraries carry no unwind tables. An
// exception that passes through them leaks what they held, leaves the socket half handled and silences a
// serial port for good, even when it is caught further up.
template <typename Functor>
auto contained(Functor functor)
{
    // The return type lets connect() see which arguments of a signal the functor takes.
    return [functor](auto &&...arguments) -> std::invoke_result_t<const Functor &, decltype(arguments)...> {
        try {
            functor(std::forward<decltype(arguments)>(arguments)...);
        } catch (const std::exception &exception) {
            qCritical() << "Input dropped, its conversion failed:" << exception.what();
        }
    };
}
