/* A library to preload that makes system calls fail, one kind at a time.
 *
 * The file named by the environment variable VORBEL_SIM_FAULTS holds one struct fault_order. It is mapped
 * when the program starts, so that whoever orders a fault and the program see it at once, and each sees the
 * other's numbers.
 *
 * A call is known by the descriptor that it is made on and by the kernel's name for it:
 *
 *   listener   a TCP socket that the program made itself
 *   client     one that it accepted
 *   can        a raw CAN socket
 *   interface  the socket by which the number of a network interface is asked for
 *   serial     the device node of a serial port, open or by its path
 *   lock       the file that says who uses a serial port, open or by its path
 *   wakeup     the eventfd of an event loop
 *   loop       none: ppoll, and the making of eventfds
 *
 * Only calls by way of the C library are seen, which are all that Qt and the daemon make. Calls that are not
 * ordered to fail are handed to the library behind this one, such as that of the virtual adapters. The
 * library serves programs that use their descriptors from one thread.
 */
#pragma once

#include <stdint.h>

enum { FAULT_ORDERS = 2 };

struct fault_order {
    char descriptor[16]; /* one of those above */
    char call[16];       /* such as "read" */
    uint32_t detail;  /* the request of ioctl, the command of fcntl, level << 16 | name of a socket option; 0:
                         any */
    uint32_t peer;    /* on clients: the port at their end; 0: any */
    int32_t error;    /* the errno */
    int32_t skip;     /* how many such calls succeed first; counted down here */
    int32_t times;    /* how many fail then; counted down here; 0: no fault is ordered */
    int32_t injected; /* counted here: those that have failed */
};
