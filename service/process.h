// What the process sets up for itself before anything else.
#pragma once

// A write to a closed socket is an error for the writer, not the end of the process.
void ignoreBrokenPipes();

// Raises the soft limit of open descriptors to the hard one: the usual 1,024 would cap the clients.
void raiseDescriptorLimit();

// Keeps Qt off GLib's event loop, which triples the system calls per event; a QT_NO_GLIB that is set already
// stays as it is. Before the application object is made.
void preferPlainEventLoop();
