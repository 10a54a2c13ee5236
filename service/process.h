// What the process asks of its C library and of the kernel.
#pragma once

// A write to a closed socket is an error for the writer, not the end of the process.
void ignoreBrokenPipes();

// Raises the soft limit of open descriptors to the hard one: the usual 1,024 would cap the clients.
void raiseDescriptorLimit();

// Keeps Qt off GLib's event loop, which triples the system calls per event; a QT_NO_GLIB that is set already
// stays as it is. Before the application object is made.
void preferPlainEventLoop();

// Gives memory that was freed back to the system when there is much of it. The C library keeps it by itself:
// one large schema or message, or one client that did not read, would otherwise stay in the process's size
// for years. Cheap enough for every supervision tick.
void releaseFreeMemory();
