/*
 * VelmoraSDK: work with wearable multi-channel sensor headsets through their USB dongle.
 *
 * This one header is the whole interface. It compiles as C99 and as C++ and needs nothing but the library itself.
 *
 * CALLING ORDER
 *   1. SDK_Set...Callback        any time, also before SDK_Init; null disables a callback
 *   2. SDK_Init                  log file and internal callbacks
 *   3. SDK_CheckPort             find the dongle (optional: a host may know its port)
 *   4. SDK_ConnectPort           open the dongle's port
 *   5. SDK_ScanDevices           then SDK_GetScanDevicesCount and SDK_GetScanDevice
 *   6. SDK_ConnectDevice         starts the link thread; from now on events and data arrive
 *   7. SDK_StartDataCollection   opens the gate: data callbacks are called
 *      SDK_SendCommand, SDK_SendCommandWithPayload
 *   8. SDK_DisconnectPort        while collection is still on, so that the headsets are told (see there)
 *   9. SDK_Cleanup
 *
 * RESULTS
 *   Functions that return int return 1 for success and 0 for failure, unless they say otherwise. There are no error
 *   codes. The log file "kxsdk.log" in the process's current directory names a port that could not be opened ("Failed
 *   to open"), a search without a result ("No any TZDongle found.") and a start of collection without a connection
 *   ("No device connected"), but not why; of a scan or connection that failed it says only that it was begun, of one
 *   that was refused nothing. A host tells its users the possible reasons itself: each function names them. No C++
 *   exception leaves a function, with the exception named at the list getters.
 *
 * THREADS
 *   Every function may be called from any thread. SDK_CheckPort, SDK_ScanDevices, SDK_ConnectDevice,
 *   SDK_DisconnectPort and SDK_Cleanup block; how long is said at each. Port and life-cycle functions (SDK_Init,
 *   SDK_Cleanup, SDK_ConnectPort, SDK_DisconnectPort, SDK_CheckPort) are not meant to run against each other: call them
 *   from one thread, or one after the other.
 *
 *   Callbacks run on threads of the library: data, battery and most events on the link thread, the "connected" events
 *   of SDK_ConnectDevice on a thread that lives during that call. They hold up the stream while they run: at full line
 *   rate the operating system's buffer for the port fills within a fraction of a second. Copy what you need and return.
 *   A C++ exception that leaves a callback is caught as far as the platform's runtime can see it, and costs that one
 *   call.
 *   A thread may end inside a callback: a host calls pthread_exit, or an interpreter that shuts down ends the threads
 *   that call into it. On Linux its stack is unwound: locks are given back and the link thread counts as ended, without
 *   event 5; the connection itself lasts until SDK_Cleanup. A connection thread that ends so makes SDK_ConnectDevice
 *   return 0. On Windows nothing is unwound: a lock that was held stays taken, the link thread counts as alive, and a
 *   connection thread leaves its SDK_ConnectDevice without an end. The process makes no connection any more;
 *   SDK_Cleanup still returns, after about 1 second, 11 with commands queued.
 *
 * INSIDE A CALLBACK
 *   Safe in the data and battery callbacks: SDK_StartDataCollection, SDK_StopDataCollection, SDK_SendCommand,
 *   SDK_SendCommandWithPayload, SDK_DisconnectDevice, the getters, the setters, SDK_GetVersion, SDK_Cleanup and
 *   SDK_DisconnectPort. These last two then do not wait for the link thread, on which they run, to end; but commands
 *   still queued cannot leave meanwhile and cost them their whole wait of about 10 seconds.
 *   The event callback runs while the library holds its event lock, which is not re-entrant: inside it use only
 *   SDK_StartDataCollection, SDK_StopDataCollection, SDK_SendCommand, SDK_SendCommandWithPayload, the setters and
 *   SDK_GetVersion, and signal another thread for the rest. SDK_ConnectDevice is refused there at once, with every
 *   code. SDK_ScanDevices is refused at once while the connection lasts, but not when another thread is ending it, and
 *   with code 5 that is so. Such a scan runs on a port that is about to be closed: it holds up the end of the link
 *   thread, so that the thread that is ending the connection waits its whole second and then closes the port, which
 *   fails the scan. It succeeds only if the dongle reports the end of its scan before that.
 *   The list getters, SDK_DisconnectDevice and SDK_ConnectDevice use the list lock, which SDK_ScanDevices holds for a
 *   whole scan.
 */
#ifndef VELMORA_SDK_H
#define VELMORA_SDK_H

#include <stdint.h>

#if defined(_WIN32)
#if defined(VELMORA_SDK_BUILD)
#define VELMORA_API __declspec(dllexport)
#else
#define VELMORA_API __declspec(dllimport)
#endif
#else
#define VELMORA_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The version that this header describes; SDK_GetVersion tells that of the library. */
#define VELMORA_SDK_VERSION "1.06"
#define VELMORA_SDK_VERSION_MAJOR 1
#define VELMORA_SDK_VERSION_MINOR 6

/*
 * A headset as the host sees it. The host owns the record, the library fills it. 108 bytes without padding; the layout
 * is fixed. Texts end with a zero byte.
 */
typedef struct DeviceInfo {
    char address[32]; /* Bluetooth address: 12 hexadecimal digits without ':', in the letter case received */
    char name[64];    /* name that the scan reported; empty in the connected list */
    int32_t option;   /* scan list: 0 or 1 as the dongle reported; connected list: the option passed by the host */
    int32_t index;    /* always 0 in both lists; a headset's number arrives with event 2 */
    int32_t state;    /* always 0 in both lists; events tell whether a headset is there */
} DeviceInfo;

/* ------------------------------------------------------------------------------------------------ callbacks */

/*
 * Processed data of a headset. Thread: link thread. Only while data collection is on.
 *   device   always 0, whichever headset sent it
 *   value1 .. value4   bytes 4, 6, 8 and 7 of the headset's frame; value4 is 0 unless the frame's selector byte is 8.
 *            Their meaning belongs to the headset's firmware
 *   values   eight numbers, each 0 to 16,777,215; owned by the library, valid only during the call
 */
typedef void (*PostDataCallback)(int device, unsigned char value1, unsigned char value2, unsigned char value3,
                                 unsigned char value4, unsigned int* values);

/*
 * Raw samples of a headset. Thread: link thread. Only while data collection is on.
 *   device   the headset's index at the dongle, 0 to 15
 *   channel  0 to 15: samples of that channel. Negative, -n: zeros in place of a lost packet of n channels, see below;
 *            samples of a headset never come that way
 *   samples  signed 16-bit values, sign-extended, in the headset's own unit; owned by the library, valid only during
 *            the call
 *   count    number of values in samples: 112 for a single-channel packet; 112 / n (integer division) in each of the n
 *            calls for a packet of n channels; n * 112 with channel -n
 *
 * A single-channel packet is one call. A packet of n channels is n calls, for channels 0 to n-1 in this order.
 *
 * One or two lost packets are replaced by zeros, so that the sample clock goes on; longer losses are only logged. A
 * single-channel packet is replaced by one call with 112 zeros of its channel. A packet of n channels is replaced by
 * ONE call with channel -n and n * 112 zeros, whatever n is. It stands for one packet, that is for 112 / n samples of
 * each of the n channels, and not for the count it announces. A packet of exact zeros is thus most likely a substitute;
 * the log names each loss ("Lost data chan"). A loss across the packet counter's wrap from 255 to 0 counts one less
 * than it is, so a single packet lost there is not replaced. The first multi-channel packet after the start of
 * collection is held back, and usually its substitute delivered in front of the second.
 *
 * Headset 1 sends packets of 5 channels. 112 / 5 is 22, so each packet brings 22 samples of each channel (the packet's
 * last two places are not used). Its packets have the counters 10, 11, 12 and 14; the one with 13 is lost:
 *   packet 10   no call: it is the first and held back
 *   packet 11   (1, -5, 560 zeros, 560)   for packet 10: 22 samples of each of the 5 channels
 *               (1, 0, samples, 22) (1, 1, samples, 22) (1, 2, samples, 22) (1, 3, samples, 22) (1, 4, samples, 22)
 *   packet 12   the same five calls, with its own samples
 *   packet 14   (1, -5, 560 zeros, 560)   for packet 13: 22 samples of each of the 5 channels
 *               the five calls
 * A host that counts samples adds 22 to each of the channels 0 to 4 at a call with channel -5: 112 / 5, and neither 560
 * nor 112. Had 12 and 13 been lost, that call would have come twice; had 11 been lost as well, not at all.
 */
typedef void (*RawDataCallback)(int device, int channel, int* samples, int count);

/*
 * Battery report. Thread: link thread. Only while data collection is on.
 *   device   the headset's index at the dongle, 0 to 15
 *   level    0 to 255, as the headset sent it
 *   value    0 to 6,300 in steps of 100, the headset's second battery figure
 */
typedef void (*BattInfoCallback)(int device, unsigned int level, unsigned int value);

/* The codes of EventCallback. */
enum {
    SDK_EVENT_DISCONNECTED = 1,
    SDK_EVENT_CONNECTED = 2,
    SDK_EVENT_RESTARTED = 3,
    SDK_EVENT_LINK_STARTED = 4,
    SDK_EVENT_LINK_STOPPING = 5
};

/*
 * Something happened. Thread: link thread; for code 2 also the connection thread during SDK_ConnectDevice. The event
 * lock is held meanwhile: a callback that blocks makes every other raiser of events spin.
 *   code 1   a headset disconnected (value 0)
 *   code 2   a headset connected (value: its index at the dongle)
 *   code 3   reserved: the dongle restarted. No host receives it; see SDK_ConnectDevice for what happens instead
 *   code 4   the link thread has started (value 0)
 *   code 5   the link thread is stopping, because the connection is being ended (value 0). The thread that ends it
 *            waits meanwhile, about a second at most, and then closes the port
 */
typedef void (*EventCallback)(unsigned int code, unsigned int value);

/*
 * Set a callback; null disables it. May be called at any time, also before SDK_Init and while data flows: a call that
 * is being made meanwhile still reaches the old callback. The library keeps only the pointer.
 */
VELMORA_API void SDK_SetPostDataCallback(PostDataCallback callback);
VELMORA_API void SDK_SetRawDataCallback(RawDataCallback callback);
VELMORA_API void SDK_SetBattInfoCallback(BattInfoCallback callback);
VELMORA_API void SDK_SetEventCallback(EventCallback callback);

/* ------------------------------------------------------------------------------------------------ life cycle */

/*
 * Opens the log file "kxsdk.log" in the current directory, for appending, and makes the library call the host's
 * callbacks. Returns 1, also when the library is already initialised (nothing happens then); 0 when it failed.
 * The other functions work without it, but no callback is ever called and log lines go to the standard error output. A
 * log file that cannot be opened is no failure: the library then works without one. Logging ends when main returns.
 */
VELMORA_API int SDK_Init(void);

/*
 * Disconnects all headsets, ends the link thread, closes the port. Does nothing unless SDK_Init was called. A later
 * SDK_Init works again. Blocks until commands still waiting have left (at most about 10 seconds) and the link thread
 * has ended (at most about 1 second). Call it before the program ends, so that the headsets are told. A program that
 * does not is not harmed: it ends with its own exit code, also while data flows, and also when that ends the link
 * thread inside a callback (see THREADS).
 */
VELMORA_API void SDK_Cleanup(void);

/*
 * The version of the library, "1.06"; "Unknown" if it could not be copied. Owned by the library, valid until the next
 * call of this function.
 */
VELMORA_API const char* SDK_GetVersion(void);

/* ------------------------------------------------------------------------------------------------ dongle port */

/*
 * Searches COM1 to COM98 in this order for a dongle. Returns its device path, for example \\.\COM5, or an empty text
 * when none answered, when the port is already open, or on failure. Owned by the library, valid until the next call of
 * this function.
 * Blocks: at once for ports that do not exist, up to about 5 seconds for each port that opens and does not answer.
 * On Linux COM1 to COM32 are /dev/ttyUSB0 to 31, COM33 to COM64 /dev/ttyACM0 to 31, COM65 to COM98 /dev/ttyS0 to 33.
 */
VELMORA_API const char* SDK_CheckPort(void);

/*
 * Opens the dongle's port at 2,000,000 baud. Starts no thread and sends nothing.
 *   portName  a port name such as COM5, or a result of SDK_CheckPort. On Linux also a device path (/dev/ttyACM0) or the
 *             name of a device file. Copied; at most 59 characters
 * Returns 0 for null, when a port is already open, or when the port cannot be opened or set up. A port that opened but
 * refused its settings stays taken until SDK_DisconnectPort, so after a 0 call SDK_DisconnectPort before another try.
 */
VELMORA_API int SDK_ConnectPort(const char* portName);

/*
 * Closes the dongle's port. While data collection is on it first disconnects all headsets and ends the link thread (as
 * SDK_Cleanup). With collection off the port is closed without a word to the dongle: headsets stay connected to it, the
 * link thread runs on without a port, and a new SDK_ConnectDevice is refused. So call it while collection is on, or
 * call SDK_Cleanup. The connected list is not changed.
 */
VELMORA_API void SDK_DisconnectPort(void);

/* ------------------------------------------------------------------------------------------------ headsets */

/*
 * Lets the dongle look for headsets and replaces the scan list by what it found. Blocks for the whole scan, about 20
 * seconds when the dongle is silent, and holds the list lock meanwhile: the list functions of other threads wait.
 * Returns 1 when the dongle reported the end of its scan. Returns 0, with the scan list unchanged, when it did not, and
 * at once when the port is closed, headsets are connected, or a scan or connection is under way. On a line that is
 * gone, because the dongle was unplugged or another thread closes the port, it returns 0 at once.
 */
VELMORA_API int SDK_ScanDevices(void);

/* Number of headsets in the scan list and in the connected list. */
VELMORA_API int SDK_GetScanDevicesCount(void);
VELMORA_API int SDK_GetConnectedDevicesCount(void);

/*
 * Copies one record of the scan list or the connected list.
 * The connected list is what the host connected, not what is there now: its records come with SDK_ConnectDevice and go
 * with SDK_DisconnectDevice, and with nothing else. A headset that drops out (event 1), SDK_DisconnectPort and
 * SDK_Cleanup leave it as it is; connecting an address again adds a second record. A host that reconnects calls
 * SDK_DisconnectDevice for each old record first.
 *   index  0 to count - 1
 *   out    filled by the library; untouched when the result is 0
 * Returns 0 for a null out or an index outside the list. The count and getter functions wait for the list lock. They
 * let C++ exceptions out: std::system_error if the platform fails to take that lock, std::bad_alloc for want of memory.
 */
VELMORA_API int SDK_GetScanDevice(int index, DeviceInfo* out);
VELMORA_API int SDK_GetConnectedDevice(int index, DeviceInfo* out);

/*
 * Connects one headset and, on success, appends it to the connected list and starts the link thread.
 *   address  12 hexadecimal digits; ':' are removed. Copied. It must be shorter than 32 characters: a longer one ends
 *            the process when the record is read
 *   option   number sent behind the address when not 0: pass the option of the scan record
 * Blocks until the dongle reports the end of its attempt (100 seconds when it stays silent). Returns 0 for null, when
 * the port is closed, headsets are already connected, a scan or connection is under way, or no headset was reported
 * connected; at once when the line is gone, as SDK_ScanDevices. It is also refused, after about 1 second, while the
 * link thread of an earlier connection has not ended because a callback of the host holds it up.
 * A connection lasts until SDK_Cleanup, or SDK_DisconnectPort while collecting. Dropping every headset with
 * SDK_DisconnectDevice, or losing them (event 1), does not end it: until then scans and further connections are
 * refused. If the dongle restarts, data stops without any event: the link thread is stuck for good, keeps one core busy
 * and the event lock taken. SDK_Cleanup still returns, after about 1 second, 11 with commands queued; but no new
 * connection is made in this process. Save, clean up, and start the process anew.
 */
VELMORA_API int SDK_ConnectDevice(const char* address, int option);

/*
 * Asks the dongle to drop one headset and removes it from the connected list; the link thread goes on.
 *   address  exactly as SDK_GetConnectedDevice shows it (no ':' are removed here)
 * The order leaves with the queued commands. Returns 1 when a record with that address was removed, also when no order
 * could be queued because the port is closed or no link thread runs; 0 otherwise or for null. Waits for the list lock.
 */
VELMORA_API int SDK_DisconnectDevice(const char* address);

/* ------------------------------------------------------------------------------------------------ data and commands */

/*
 * Opens and closes the gate between the stream and the data callbacks. Nothing is sent to the headsets. Starting also
 * forgets the packet counters, so that the first packet of a channel reports no loss (but see RawDataCallback for
 * multi-channel packets). SDK_StartDataCollection returns 0 when there is no connection; SDK_StopDataCollection always
 * returns 1.
 */
VELMORA_API int SDK_StartDataCollection(void);
VELMORA_API int SDK_StopDataCollection(void);

/*
 * Queues a command for a headset.
 *   target   the headset's index at the dongle; 0 means all. 10, 11 and 12 are all sent as 11, and 13 and more as 1
 *   command  command code of the headset's firmware
 * Returns 1 when it was queued, 0 when there is no connection. A queued command leaves after some 31 reads of the
 * port: about 0.6 seconds on a quiet line, sooner on a busy one, one command at a time. Whether it arrived is not told.
 */
VELMORA_API int SDK_SendCommand(unsigned int target, unsigned char command);

/*
 * Queues a command with a payload.
 *   payload  payloadLength bytes, copied; not read when the length is 0
 *   payloadLength  0 to 4, 8, 10, 11 or 12; other lengths queue nothing. With 4 and 12 the payload's last byte takes
 *            the place of the command code, which is not sent
 * Always returns 0, also when the command was queued. Without a connection, or with a null payload and a length above
 * 0, nothing is queued.
 */
VELMORA_API int SDK_SendCommandWithPayload(unsigned int target, unsigned char command, unsigned char* payload,
                                           unsigned char payloadLength);

#ifdef __cplusplus
}
#endif

#endif
