/* Shows all headsets of a dongle, one line a second for each. Survives restarts and unplugging of the dongle, ends on
 * Ctrl-C. Usage: many_headsets [PORT] */
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include "velmora/velmora.h"

enum { MOST = 64, BATCH = 256, SCAN_TIME = 30000, CONNECT_TIME = 200000 }; /* times in milliseconds */
#define SECOND INT64_C(1000000000)

static velmora_cancel* interrupted;
static velmora_error error = {sizeof(velmora_error), VELMORA_OK, 0, 0, ""};

static void on_interrupt(int number) {
    (void)number;
    velmora_cancel_raise(interrupted);
}

/* The path of the first dongle; null when there is none. */
static const char* find(void) {
    static velmora_port ports[MOST];
    size_t count = 0, i;
    velmora_find(NULL, ports, sizeof ports[0], MOST, &count, interrupted, &error);
    for (i = 0; i < count && i < MOST; ++i) {
        if (ports[i].status == VELMORA_OK) {
            return ports[i].path;
        }
    }
    return NULL;
}

/* Scans, and connects all that was found with one call. */
static velmora_status connect_all(velmora_dongle* dongle) {
    velmora_found found[16];
    velmora_wanted wanted[16];
    size_t count = 0, i;
    velmora_status status =
        velmora_scan(dongle, NULL, found, sizeof found[0], 16, &count, SCAN_TIME, interrupted, &error);
    if (status != VELMORA_OK) {
        return status;
    }
    count = count < 16 ? count : 16;
    printf("%u headsets found\n", (unsigned)count);
    memset(wanted, 0, sizeof wanted);
    for (i = 0; i < count; ++i) {
        memcpy(wanted[i].address, found[i].address, sizeof wanted[i].address);
        wanted[i].option = found[i].option;
    }
    return count == 0 ? VELMORA_NOT_FOUND
                      : velmora_connect(dongle, wanted, sizeof wanted[0], count, 0, CONNECT_TIME, interrupted, &error);
}

static void show(velmora_dongle* dongle, const unsigned long* packets, const unsigned long* lost) {
    velmora_headset headsets[MOST];
    size_t count = 0, i;
    velmora_headsets(dongle, headsets, sizeof headsets[0], MOST, &count);
    for (i = 0; i < count && i < MOST; ++i) {
        printf("%s %-16s %-9s %8lu packets, %lu lost\n", headsets[i].address, headsets[i].name,
               headsets[i].connected ? "connected" : "away", packets[i], lost[i]);
    }
    fflush(stdout);
}

/* Reads until the headsets have to be connected again, or for good. */
static velmora_status collect(velmora_dongle* dongle) {
    static velmora_record records[BATCH];
    static unsigned long packets[MOST], lost[MOST];
    int64_t next = velmora_now() + SECOND;
    for (;;) {
        size_t got = 0, i;
        velmora_status status = velmora_read(dongle, records, sizeof records[0], BATCH, BATCH, 100, interrupted, &got);
        for (i = 0; i < got; ++i) {
            const velmora_record* record = &records[i];
            if (record->kind == VELMORA_RAW && record->headset >= 0 && record->headset < MOST) {
                packets[record->headset] += 1;
                lost[record->headset] += record->lost + record->dropped;
            } else if (record->kind == VELMORA_EVENT && record->code == VELMORA_EVENT_RESTARTED) {
                return VELMORA_RESTARTED;
            }
        }
        if (status != VELMORA_OK && status != VELMORA_TIMEOUT) {
            return status; /* VELMORA_GONE or VELMORA_CANCELLED */
        }
        if (velmora_now() >= next) {
            show(dongle, packets, lost);
            next += SECOND;
        }
    }
}

int main(int argc, char** argv) {
    velmora_dongle* dongle = NULL;
    const char* path;
    velmora_status status = velmora_cancel_create(&interrupted);
    signal(SIGINT, on_interrupt);
    path = argc > 1 ? argv[1] : find();
    if (status != VELMORA_OK || path == NULL || velmora_open(path, NULL, &dongle, &error) != VELMORA_OK) {
        fprintf(stderr, "%s\n", error.text);
        return 1;
    }
    velmora_start(dongle, NULL, NULL);
    while (status != VELMORA_CANCELLED) {
        status = velmora_reopen(dongle, -1, interrupted, &error); /* returns at once unless the dongle is gone */
        if (status == VELMORA_OK) {
            status = connect_all(dongle);
        }
        if (status != VELMORA_OK && error.text[0] != '\0') {
            fprintf(stderr, "%s\n", error.text);
        }
        if (status == VELMORA_OK || status == VELMORA_NOT_CONNECTED || status == VELMORA_BUSY) {
            status = collect(dongle); /* BUSY: headsets are connected that an ended program left */
        }
    }
    velmora_drop_all(dongle, VELMORA_ALLOW_UNPROVED, NULL); /* for the next program; fails when unplugged */
    velmora_destroy(dongle);
    return 0;
}
