/* The header is C99, and the library is used from C as here. Returns what went wrong, null if nothing did. */
#include "velmora/velmora.h"

#include <string.h>

const char* use_velmora_from_c(void) {
    velmora_error error = {sizeof(velmora_error), VELMORA_OK, 0, 0, ""};
    velmora_dongle* dongle = (velmora_dongle*)&error;
    velmora_cancel* cancel = NULL;
    size_t count = 0;
    if (velmora_open("COM250", NULL, &dongle, &error) != VELMORA_NOT_FOUND || dongle != NULL) {
        return "a port that is not there";
    }
    if (error.status != VELMORA_NOT_FOUND || strstr(error.text, "COM250") == NULL) {
        return "the text of an error";
    }
    if (velmora_cancel_create(&cancel) != VELMORA_OK || cancel == NULL) {
        return "a cancel object";
    }
    velmora_cancel_raise(cancel);
    if (velmora_find(NULL, NULL, sizeof(velmora_port), 0, &count, cancel, NULL) == VELMORA_OK) {
        return "a search that was cancelled before it began";
    }
    velmora_cancel_destroy(cancel);
    if (velmora_ports(NULL, sizeof(velmora_port), 0, &count, &error) != VELMORA_OK || error.text[0] != '\0') {
        return "the list of ports";
    }
    if (velmora_read(NULL, NULL, 0, 0, 0, 0, NULL, &count) != VELMORA_INVALID ||
        velmora_scan(NULL, NULL, NULL, 0, 0, &count, 0, NULL, &error) != VELMORA_INVALID) {
        return "a null handle";
    }
    velmora_close(NULL);
    velmora_destroy(NULL);
    return strcmp(velmora_status_text(VELMORA_TIMEOUT), "time-out") == 0 ? NULL : "a status's name";
}
