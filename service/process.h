// What the process asks of its C library and of the kernel.
#pragma once

// A write to a closed socket is an error for the writer, not the end of the process.
void ignoreBrokenPipes();

// Raises the soft limit on open descriptors to the hard one: the usual 1,024 would limit the clients.
void raiseDescriptorLimit();

// Keeps Qt off GLib's event loop, which triples the system calls per event; QT_NO_GLIB stays as it is if it
// is already set. To be called before the application object is made.
void preferPlainEventLoop();

// Returns freed memory to the system when there is much of it. Left to itself, the C library keeps it: one
// large schema or message, or one client that did not read, would add to the size of the process for years.
// Cheap enough for every supervision tick.
void releaseFreeMemory();
