/* What the two halves of the preloaded library share: where the state of the virtual adapters lives.
 *
 * The folder named by the environment variable VORBEL_SIM_DIR is written by whoever plays the hardware:
 *
 *   ports/NAME/        one folder per plugged adapter; the port's name as the program under test sees it
 *     ID_MODEL ...     its udev properties, one file each, without a trailing newline
 *     fail-read ...    decimal errno with which read, write or open fails while the file exists
 *   dev/NAME           symbolic link to the pty that stands for the device node
 *   history/NAME       written here: what the program did to the port, see tty.c
 *
 * An adapter is plugged in when the folder and the link appear, and unplugged when they disappear and the pty
 * hangs up. Nothing is cached: every call looks again.
 *
 * The library serves programs that use serial ports from one thread.
 */
#pragma once

#include <stddef.h>

enum { NAME_LIMIT = 64, PATH_LIMIT = 512 };

/* Writes "DIR/folder/name" (and "/leaf", unless that is null) to the PATH_LIMIT bytes at `path`. False when
 * there is no DIR or the path does not fit. */
int sim_path(char *path, const char *folder, const char *name, const char *leaf);

/* Reads at most size - 1 bytes of ports/port/leaf into `text`, terminates them with a zero byte and returns
 * true; false when there is no such file. Leaves errno alone. */
int sim_read(const char *port, const char *leaf, char *text, size_t size);
