/* Preloaded into the gateway, whose library for MQTT then does not take what is to be acknowledged: as long
 * as the file named by the environment variable VORBEL_PAHO_FAULT is there, with the code that stands in it.
 */
#define _GNU_SOURCE
#include <MQTTAsync.h>
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* 0 if there is none. */
static int fault(void)
{
    int code = 0;
    const char *path = getenv("VORBEL_PAHO_FAULT");
    FILE *file = path ? fopen(path, "r") : NULL;
    if (file) {
        if (fscanf(file, "%d", &code) != 1) {
            code = 0;
        }
        fclose(file);
    }
    return code;
}

int MQTTAsync_sendMessage(MQTTAsync handle, const char *topic, const MQTTAsync_message *message,
                          MQTTAsync_responseOptions *response)
{
    const int code = message->qos > 0 ? fault() : 0;
    if (code != 0) {
        return code;
    }
    __typeof__(&MQTTAsync_sendMessage) next;
    void *symbol = dlsym(RTLD_NEXT, "MQTTAsync_sendMessage");
    memcpy(&next, &symbol, sizeof next);
    return next(handle, topic, message, response);
}
