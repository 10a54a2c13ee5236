/* Device enumeration as QSerialPortInfo asks for it, answered from the folder of virtual ports.
 *
 * Only the calls that QtSerialPort makes are here, with libudev's own signatures and ownership: what a *_new
 * call returns is freed by the matching *_unref, everything else belongs to the object it was asked from.
 */
#define _GNU_SOURCE
#include "sim.h"

#include <dirent.h>
#include <libudev.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

struct udev {
    int unused;
};

struct udev_list_entry {
    struct udev_list_entry *next;
    char name[NAME_LIMIT];
};

struct udev_enumerate {
    struct udev_list_entry *first;
};

struct udev_device {
    char port[NAME_LIMIT];
    char node[PATH_LIMIT];
    char value[256]; /* of the property asked for last */
};

struct udev *udev_new(void)
{
    return calloc(1, sizeof(struct udev));
}

struct udev *udev_unref(struct udev *udev)
{
    free(udev);
    return NULL;
}

struct udev_enumerate *udev_enumerate_new(struct udev *udev)
{
    (void)udev;
    return calloc(1, sizeof(struct udev_enumerate));
}

static void free_entries(struct udev_list_entry *entry)
{
    while (entry) {
        struct udev_list_entry *next = entry->next;
        free(entry);
        entry = next;
    }
}

struct udev_enumerate *udev_enumerate_unref(struct udev_enumerate *enumerate)
{
    if (enumerate) {
        free_entries(enumerate->first);
        free(enumerate);
    }
    return NULL;
}

int udev_enumerate_add_match_subsystem(struct udev_enumerate *enumerate, const char *subsystem)
{
    (void)enumerate;
    return strcmp(subsystem, "tty") == 0 ? 0 : -1;
}

static int prepend(struct udev_enumerate *enumerate, const char *name)
{
    struct udev_list_entry *entry = calloc(1, sizeof *entry);
    if (!entry) {
        return -1;
    }
    memcpy(entry->name, name, strnlen(name, NAME_LIMIT - 1));
    entry->next = enumerate->first;
    enumerate->first = entry;
    return 0;
}

static int is_port(const struct dirent *entry)
{
    return entry->d_name[0] != '.' && strlen(entry->d_name) < NAME_LIMIT;
}

/* Last first, for a list that grows at its head; by bytes, as udev orders device paths. */
static int by_name_descending(const struct dirent **left, const struct dirent **right)
{
    return strcmp((*right)->d_name, (*left)->d_name);
}

/* A scan that finds nothing at all makes QSerialPortInfo look for the machine's real ports by other means.
 * The list therefore ends with an entry without a name, which is gone by the time anybody opens it. */
int udev_enumerate_scan_devices(struct udev_enumerate *enumerate)
{
    char folder[PATH_LIMIT];
    struct dirent **entries = NULL;
    const int count =
        sim_path(folder, "ports", "", NULL) ? scandir(folder, &entries, is_port, by_name_descending) : 0;
    int result = prepend(enumerate, "");
    for (int i = 0; i < count; ++i) {
        result |= prepend(enumerate, entries[i]->d_name);
        free(entries[i]);
    }
    free(entries);
    return result;
}

struct udev_list_entry *udev_enumerate_get_list_entry(struct udev_enumerate *enumerate)
{
    return enumerate->first;
}

struct udev_list_entry *udev_list_entry_get_next(struct udev_list_entry *entry)
{
    return entry->next;
}

const char *udev_list_entry_get_name(struct udev_list_entry *entry)
{
    return entry->name;
}

struct udev_device *udev_device_new_from_syspath(struct udev *udev, const char *name)
{
    (void)udev;
    char folder[PATH_LIMIT];
    if (!*name || !sim_path(folder, "ports", name, NULL) || access(folder, F_OK) != 0) {
        return NULL;
    }
    struct udev_device *device = calloc(1, sizeof *device);
    if (device) {
        snprintf(device->port, sizeof device->port, "%s", name);
        sim_path(device->node, "dev", name, NULL);
    }
    return device;
}

struct udev_device *udev_device_unref(struct udev_device *device)
{
    free(device);
    return NULL;
}

const char *udev_device_get_devnode(struct udev_device *device)
{
    return device->node;
}

const char *udev_device_get_sysname(struct udev_device *device)
{
    return device->port;
}

/* QSerialPortInfo asks the parent for nothing but its driver, and drops ports without a parent; the device
 * itself serves as one. */
struct udev_device *udev_device_get_parent(struct udev_device *device)
{
    return device;
}

const char *udev_device_get_driver(struct udev_device *device)
{
    (void)device;
    return "vorbel_sim";
}

/* The text is good until the next property is asked for, which is all that QSerialPortInfo needs. */
const char *udev_device_get_property_value(struct udev_device *device, const char *key)
{
    return sim_read(device->port, key, device->value, sizeof device->value) ? device->value : NULL;
}
