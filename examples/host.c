/* A complete host: finds the dongle, connects the first headset, sends a command, collects for five seconds,
 * disconnects. Usage: host [PORT], for example: host COM5. What the library noticed on its way: kxsdk.log. */
#include <stdio.h>

#include "VelmoraSDK.h"

#ifdef _WIN32
#include <windows.h>
static void wait_seconds(int seconds) {
    Sleep((DWORD)seconds * 1000);
}
#else
#include <unistd.h>
static void wait_seconds(int seconds) {
    sleep((unsigned)seconds);
}
#endif

/* Written on the library's link thread, read here after collection has ended. */
static volatile long packets, zero_packets, battery_reports;

static void on_raw_data(int device, int channel, int* samples, int count) {
    int i = 0;
    (void)device;
    (void)channel;
    while (i < count && samples[i] == 0) {
        ++i;
    }
    ++packets;
    zero_packets += i == count; /* most likely the substitute of a lost packet */
}

static void on_battery(int device, unsigned int level, unsigned int value) {
    printf("headset %d: battery %u, %u\n", device, level, value);
    ++battery_reports;
}

static void on_event(unsigned int code, unsigned int value) {
    printf("event %u, value %u\n", code, value);
}

static int run(const char* port) {
    DeviceInfo headset;
    if (port == NULL) {
        port = SDK_CheckPort(); /* valid until its next call */
    }
    if (port[0] == '\0' || !SDK_ConnectPort(port)) {
        fprintf(stderr, "no dongle: is it plugged in, not in use elsewhere, and may this user open its port?\n");
        return 1;
    }
    if (!SDK_ScanDevices() || !SDK_GetScanDevice(0, &headset)) {
        fprintf(stderr, "no headset: is it switched on and near, and is this the dongle's port?\n");
        return 1;
    }
    printf("connecting %s (%s)\n", headset.name, headset.address);
    if (!SDK_ConnectDevice(headset.address, headset.option) || !SDK_StartDataCollection()) {
        fprintf(stderr, "no connection: is the headset still on and near, and not connected elsewhere?\n");
        return 1;
    }
    SDK_SendCommand(0, 0x01); /* to all; the codes are the headset's */
    wait_seconds(5);
    SDK_DisconnectPort(); /* while collecting: so the dongle is told to drop the headset */
    printf("%ld packets, %ld of them zeros, %ld battery reports\n", packets, zero_packets, battery_reports);
    return packets > 0 ? 0 : 1;
}

int main(int argc, char** argv) {
    int result;
    SDK_SetRawDataCallback(on_raw_data);
    SDK_SetBattInfoCallback(on_battery);
    SDK_SetEventCallback(on_event);
    if (!SDK_Init()) {
        return 1;
    }
    printf("VelmoraSDK %s\n", SDK_GetVersion());
    result = run(argc > 1 ? argv[1] : NULL);
    SDK_Cleanup();
    return result;
}
