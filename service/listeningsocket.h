// Socket options of the WebSocket listener.
#pragma once

#include <QtGlobal>

// Sets, on a listening TCP socket, what every socket accepted from it inherits (Linux, tcp(7)):
// messages leave without waiting for the acknowledgement of the one before, and a peer that vanished without
// a word is detected within 25 seconds, whether or not there is something to send to it. Options that the
// system refuses are logged as warnings; the socket stays usable.
void prepareListeningSocket(qintptr descriptor);

// Whether there is room for one more socket of the same kind, in the process and in the system: makes one and
// closes it again.
bool hasRoomForSocketLike(qintptr descriptor);
