/*
 * velmora: work with wearable multi-channel sensor headsets through their USB dongle.
 *
 * The library for new programs: all headsets of a dongle, several dongles in one process, every packet with its place
 * in time, every loss counted, calls that tell why they failed and that can be ended. This one header is the whole
 * interface. It compiles as C99 and as C++ and needs nothing but the library itself; velmora.hpp puts C++20 on top.
 *
 * The interface is 0.x: it can still change until it has met a real dongle. What is marked UNPROVED below follows the
 * dongle's protocol but was only ever tried with the virtual dongle (velmora-dongle).
 *
 * CALLING ORDER
 *   1. velmora_find or velmora_ports   which port is the dongle on (optional: a host may know)
 *   2. velmora_open                    starts the handle's reading thread; sends nothing
 *   3. velmora_scan                    which headsets are there (optional: a host may know their addresses)
 *   4. velmora_connect                 one call for all headsets wanted
 *   5. velmora_start                   opens the gate for data
 *   6. velmora_read                    again and again; velmora_send and velmora_request as needed
 *   7. velmora_stop, velmora_drop_all  so that the headsets are free for the next program
 *   8. velmora_close, velmora_destroy
 *
 * RESULTS
 *   Functions that can fail return a velmora_status: VELMORA_OK (0) or the reason. Those with a velmora_error argument
 *   also fill it, when it is not null, with a text for people: what happened and what to do about it. Outputs are
 *   written as each function says and are left alone otherwise. No C++ exception leaves the library.
 *   Later versions add status values, record kinds, events and flags. A host treats an unknown status as a failure and
 *   skips records whose kind or event code it does not know.
 *
 * HANDLES AND THREADS
 *   A process may have any number of handles, one for each dongle. They share nothing. Each owns one thread, which
 *   reads the port all the time, whether the host reads or not, and holds up to ten seconds of a full line for it.
 *   Every function may be called from any thread, and calls on one handle may overlap, with these exceptions:
 *     - velmora_read: one at a time; a second one gets VELMORA_BUSY.
 *     - velmora_scan, velmora_connect, velmora_drop, velmora_drop_all, velmora_reopen: one of these at a time; a second
 *       one gets VELMORA_BUSY. They may overlap velmora_read, velmora_send and everything else.
 *     - velmora_request: one at a time for each headset; a second one gets VELMORA_BUSY.
 *     - velmora_destroy: nobody may be inside any call on that handle, and nobody may call anything on it afterwards.
 *   velmora_close may overlap everything; the calls that it finds inside end with VELMORA_CLOSED.
 *   Nothing but velmora_ports, velmora_find, velmora_open, velmora_reopen, velmora_close and the calls with a time-out
 *   blocks for longer than a command takes to go out: those before it, a `command_gap_ms` behind each, and up to one
 *   second for the port to take it.
 *
 * CANCELLING
 *   Every call with a time-out, and velmora_find, takes a velmora_cancel, which may be null; velmora_send and
 *   velmora_drop_all, which wait for the port alone, take none. Raising it ends, within 50 milliseconds, each call that
 *   was given it, also when the port is gone, with VELMORA_CANCELLED; it stays raised until it is reset, so a call that
 *   has not begun to wait yet is ended too. One object can be given to several calls; a call is ended by its own object
 *   alone. velmora_cancel_raise may be called from a signal handler.
 *
 * TIME
 *   All times are int64_t nanoseconds of one clock: CLOCK_MONOTONIC on Linux, QueryPerformanceCounter on Windows. These
 *   are the clocks that Python's time.monotonic_ns (Linux) and time.perf_counter_ns and .NET's Stopwatch read.
 *   velmora_start pairs it with UTC. CLOCK_MONOTONIC stands still while the machine is suspended,
 *   QueryPerformanceCounter may go on; the dongle usually loses its power then, and the handle tells VELMORA_GONE. A
 *   recording that must go on after that starts anew.
 *   Time-outs are in milliseconds. Negative: no limit; 0: do not wait.
 *
 * STRUCTS
 *   No struct has padding; all members are at their natural alignment, in the machine's byte order, so that NumPy and
 *   .NET can read them as they lie. Members named "reserved" are zero. Structs that the host fills in or hands over
 *   alone begin with their size: set it to sizeof(the struct); less than 8 is VELMORA_INVALID, and of a velmora_error
 *   nothing is then written. Lists take the distance between two elements in bytes ("stride", at least the size of the
 *   struct and a multiple of 8). Both let a host built with an older header work with a newer library, and the other
 *   way round: what its structs have beyond the library's becomes zero. Texts end with a zero byte and are UTF-8.
 *
 * FORK
 *   A process that forks keeps its handles in the parent. The child must not use them, not even to close them: it has
 *   their memory but not their threads. But it has their ports open, and with them the lock on each: until it ends, or
 *   starts another program, which does not inherit them, a port that the parent closes stays VELMORA_HELD.
 */
#ifndef VELMORA_VELMORA_H
#define VELMORA_VELMORA_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#if defined(VELMORA_BUILD)
#define VELMORA_PUBLIC __declspec(dllexport)
#else
#define VELMORA_PUBLIC __declspec(dllimport)
#endif
#else
#define VELMORA_PUBLIC __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------ results */

typedef int32_t velmora_status;

enum {
    VELMORA_OK = 0,
    VELMORA_TIMEOUT = 1,          /* the time given was not enough */
    VELMORA_CANCELLED = 2,        /* the call's velmora_cancel is raised */
    VELMORA_BUSY = 3,             /* another call has the handle's attention, or headsets are connected */
    VELMORA_CLOSED = 4,           /* velmora_close was called */
    VELMORA_GONE = 5,             /* the dongle was unplugged or its port hung up; see velmora_reopen */
    VELMORA_RESTARTED = 6,        /* the dongle restarted during the call; all headsets are disconnected */
    VELMORA_NOT_FOUND = 7,        /* no such port, no dongle, or no such headset */
    VELMORA_FORBIDDEN = 8,        /* the system does not let this user open the port */
    VELMORA_HELD = 9,             /* another program holds the port */
    VELMORA_NOT_A_DONGLE = 10,    /* the port opened, but nothing answered as a dongle does */
    VELMORA_NOT_CONNECTED = 11,   /* the headset is not connected, or the attempt to connect it failed */
    VELMORA_NOT_ADDRESSABLE = 12, /* the protocol has no text that reaches this index alone */
    VELMORA_INVALID = 13,         /* an argument is wrong; the error text says which */
    VELMORA_NO_MEMORY = 14,
    VELMORA_FAILED = 15 /* the system refused something; see velmora_error.system_code */
};

/* Why a call failed. The host sets `size` and owns the struct; the call fills in the rest, also when it succeeds. */
typedef struct velmora_error {
    uint32_t size;         /* sizeof(velmora_error), set by the host */
    velmora_status status; /* what the call returned */
    int32_t system_code;   /* errno or GetLastError() where the system refused something; 0 otherwise */
    uint32_t reserved;
    char text[496]; /* one or two English sentences for people: what happened, what to do. Empty when it succeeded */
} velmora_error;

/* The library's version, "0.1.0". Valid for the life of the process. */
VELMORA_PUBLIC const char* velmora_version(void);

/* A short English name of a status, "time-out"; "unknown status" for others. Valid for the life of the process. */
VELMORA_PUBLIC const char* velmora_status_text(velmora_status status);

/* The present, on the clock of all records. */
VELMORA_PUBLIC int64_t velmora_now(void);

/* ------------------------------------------------------------------------------------------------ cancelling */

/* Ends calls that wait. Opaque; see CANCELLING above. */
typedef struct velmora_cancel velmora_cancel;

/* Makes one, not raised. VELMORA_INVALID for a null argument, VELMORA_FAILED when the system has no event left. */
VELMORA_PUBLIC velmora_status velmora_cancel_create(velmora_cancel** cancel);

/* Raises it; harmless when it is raised already or null. Any thread, and safe inside a signal handler. */
VELMORA_PUBLIC void velmora_cancel_raise(velmora_cancel* cancel);

/* Makes it usable again. Calls that it has ended or is ending stay ended. Null does nothing. */
VELMORA_PUBLIC void velmora_cancel_reset(velmora_cancel* cancel);

/* Frees it; no call may be using it. Null does nothing. */
VELMORA_PUBLIC void velmora_cancel_destroy(velmora_cancel* cancel);

/* ------------------------------------------------------------------------------------------------ ports */

enum { VELMORA_PORT_USB = 1 /* velmora_port.flags: the port belongs to a USB device */ };

/* A serial port of this machine. What the system does not tell is empty or 0. */
typedef struct velmora_port {
    char path[256];        /* for velmora_open: /dev/ttyUSB0, COM5 */
    char description[128]; /* the device's own name, as its maker gave it */
    char usb_serial[128];  /* the device's USB serial number */
    uint16_t usb_vendor;   /* USB vendor and product identification */
    uint16_t usb_product;
    uint32_t flags;        /* VELMORA_PORT_... */
    velmora_status status; /* velmora_ports: VELMORA_OK (this user may open it and nobody is seen to hold it),
                              VELMORA_FORBIDDEN, VELMORA_HELD or VELMORA_FAILED. velmora_find: see there */
    int32_t system_code;   /* the system's code that belongs to `status`, or 0 */
    char text[240];        /* why, for people: which group may open the port, who holds it. For VELMORA_OK empty, or
                              what velmora_find says of the dongle */
} velmora_port;

/*
 * Lists the serial ports. Opens none of them; takes a few milliseconds for each.
 *   ports     room for `capacity` elements, `stride` bytes apart; may be null when capacity is 0
 *   count     out: how many ports there are; beyond `capacity` they are only counted
 * On Linux the holder of a port is looked up among this user's processes; another user's shows itself only when the
 * port is opened. VELMORA_OK, also without any port; VELMORA_INVALID for a null `count` or a list that is not as
 * described above, VELMORA_FAILED, VELMORA_NO_MEMORY.
 */
VELMORA_PUBLIC velmora_status velmora_ports(velmora_port* ports, size_t stride, size_t capacity, size_t* count,
                                            velmora_error* error);

enum { VELMORA_FIND_ALL_PORTS = 1 /* velmora_find_options.flags: ping every serial port, not only those on USB */ };

typedef struct velmora_find_options {
    uint32_t size;  /* sizeof(velmora_find_options) */
    uint32_t flags; /* VELMORA_FIND_..., or 0 */
    uint32_t reserved[6];
} velmora_find_options;

/*
 * Looks for dongles: sends "AT+PING" to the USB serial ports, all at the same time, twice if needed, and waits for
 * "AT+OK" up to 500 milliseconds each time, also amid the data of headsets that an ended program left connected. Ports
 * that somebody is seen to hold are left alone. Line settings are put back as they were found.
 *   options   null: the defaults
 *   ports     as for velmora_ports; every port is listed, whether it was pinged or not. `status` is VELMORA_OK for a
 *             dongle; VELMORA_NOT_A_DONGLE, VELMORA_FORBIDDEN, VELMORA_HELD, VELMORA_FAILED, VELMORA_NOT_FOUND for one
 *             that went away meanwhile, VELMORA_CANCELLED for one that had not answered by then, VELMORA_NO_MEMORY, or
 *             VELMORA_INVALID for one that was not to be pinged; `text` says why, and of a dongle how soon it answered
 *   count     out: how many ports there are
 * VELMORA_OK when there is at least one dongle, VELMORA_NOT_FOUND when there is none (the error text names each port
 * that was tried), VELMORA_CANCELLED, with `ports` and `count` filled in by all three; VELMORA_INVALID, VELMORA_FAILED,
 * VELMORA_NO_MEMORY. Takes about one second when a port stays silent.
 */
VELMORA_PUBLIC velmora_status velmora_find(const velmora_find_options* options, velmora_port* ports, size_t stride,
                                           size_t capacity, size_t* count, velmora_cancel* cancel,
                                           velmora_error* error);

/* ------------------------------------------------------------------------------------------------ handle */

/* A dongle that is or was open. */
typedef struct velmora_dongle velmora_dongle;

/*
 * A line for a host's log file: what the handle sends and what the dongle says. `text` is valid during the call. Called
 * on the handle's reading thread and on threads inside calls on the handle, one at a time; it must return soon, must
 * not call the library, and must not throw: what it throws on the reading thread ends the line as an unplugging does.
 */
typedef void (*velmora_log_function)(void* context, int64_t time, const char* text);

typedef struct velmora_open_options {
    uint32_t size;            /* sizeof(velmora_open_options) */
    uint32_t flags;           /* 0 */
    uint32_t queue_capacity;  /* records that the handle holds for the host before it drops raw packets, 16 to
                                 1,000,000; 0: 8,704, which is ten seconds of a full line and 2.8 MB. Some more are kept
                                 for all other records, half of them for events alone */
    uint32_t command_gap_ms;  /* least time between two commands, 1 to 1,000 milliseconds; 0: 20. A dongle that gets a
                                 command directly behind another can take two short ones for one long one */
    velmora_log_function log; /* null: no log */
    void* log_context;        /* passed to `log` */
    uint32_t reserved[4];
} velmora_open_options;

/*
 * Opens the dongle's port at 2,000,000 baud for this process alone, asks its driver for low latency where it offers
 * that, and starts the reading thread. Sends nothing, and does not check that a dongle is there.
 *   path      as velmora_ports and velmora_find give it; copied
 *   options   null: the defaults
 *   dongle    out: the handle, null unless the result is VELMORA_OK
 * VELMORA_NOT_FOUND, VELMORA_FORBIDDEN, VELMORA_HELD, VELMORA_FAILED, VELMORA_INVALID, VELMORA_NO_MEMORY.
 *
 * A program that ended without velmora_drop_all leaves its headsets connected to the dongle, where they go on sending.
 * The handle infers that from data that arrives within two seconds of opening: such headsets are listed as connected,
 * without an address. When the dongle then reports an address that the handle has not met for that index, the headset
 * keeps its number and is told once more as connected. A scan may not find such headsets. See VELMORA_ALLOW_UNPROVED at
 * velmora_drop_all.
 */
VELMORA_PUBLIC velmora_status velmora_open(const char* path, const velmora_open_options* options,
                                           velmora_dongle** dongle, velmora_error* error);

/*
 * Opens the port again after VELMORA_GONE and waits for the dongle to be plugged in again. A dongle with a USB serial
 * number is known again by that alone, on whatever port it appears; one without is looked for under its old path. The
 * handle keeps its headset numbers, its queue and whether it was started; the headsets have to be connected anew.
 * VELMORA_OK, also when the port is open; VELMORA_TIMEOUT, with the reason of the last attempt in `error`;
 * VELMORA_CANCELLED, VELMORA_BUSY, VELMORA_CLOSED, VELMORA_INVALID for a null handle, VELMORA_FAILED,
 * VELMORA_NO_MEMORY.
 */
VELMORA_PUBLIC velmora_status velmora_reopen(velmora_dongle* dongle, int32_t timeout_ms, velmora_cancel* cancel,
                                             velmora_error* error);

/*
 * Ends all calls that are inside, the reading thread and the port. Sends nothing: headsets stay connected to the dongle
 * (see velmora_drop_all). Afterwards velmora_read still delivers what is queued; statistics and the headset list stay
 * readable; everything else answers VELMORA_CLOSED. Returns when the thread has ended, within 100 milliseconds. A
 * second call does nothing. Null does nothing.
 */
VELMORA_PUBLIC void velmora_close(velmora_dongle* dongle);

/* Closes and frees the handle. Nobody may be inside a call on it. Null does nothing. */
VELMORA_PUBLIC void velmora_destroy(velmora_dongle* dongle);

/* ------------------------------------------------------------------------------------------------ headsets */

/* A headset that a scan found. 80 bytes. */
typedef struct velmora_found {
    char address[16]; /* 12 hexadecimal digits in the letter case received */
    char name[56];    /* as advertised; longer names are cut */
    int32_t option;   /* 0 or 1 as the dongle reported: pass it to velmora_connect */
    int32_t headset;  /* the number that it has in all records, see velmora_headset */
} velmora_found;

typedef void (*velmora_found_function)(void* context, const velmora_found* headset);

typedef struct velmora_scan_options {
    uint32_t size;                   /* sizeof(velmora_scan_options) */
    uint32_t flags;                  /* 0 */
    velmora_found_function on_found; /* called for each headset as it is reported, on the thread that called
                                        velmora_scan; null: not wanted. It must not call the library on this handle,
                                        except velmora_cancel_raise */
    void* context;                   /* passed to `on_found` */
    uint32_t reserved[4];
} velmora_scan_options;

/*
 * Lets the dongle look for headsets, each of which is told once.
 *   options    null: the defaults
 *   found      room for `capacity` elements, `stride` bytes apart; may be null when capacity is 0
 *   count      out: how many were reported; beyond `capacity` they are only counted. Set whatever the result is
 *   timeout_ms a dongle takes up to 20 seconds (UNPROVED)
 * VELMORA_OK when the dongle said that the scan is over; VELMORA_TIMEOUT and VELMORA_CANCELLED leave it scanning: what
 * it still reports is ignored, and the next scan is not ended by it, as long as the dongle ends each scan. What a
 * dongle makes of a scan or a connect while it is still at one that was given up is UNPROVED. VELMORA_BUSY while
 * headsets are connected, or another call has the dongle; VELMORA_RESTARTED, VELMORA_GONE, VELMORA_CLOSED,
 * VELMORA_INVALID, VELMORA_FAILED when the port refused the command, VELMORA_NO_MEMORY.
 */
VELMORA_PUBLIC velmora_status velmora_scan(velmora_dongle* dongle, const velmora_scan_options* options,
                                           velmora_found* found, size_t stride, size_t capacity, size_t* count,
                                           int32_t timeout_ms, velmora_cancel* cancel, velmora_error* error);

/* One headset of a velmora_connect. 32 bytes. */
typedef struct velmora_wanted {
    char address[16];      /* in: 12 hexadecimal digits without ':', in the letter case that the scan gave */
    int32_t option;        /* in: the option of the scan, otherwise 0 */
    velmora_status status; /* out: VELMORA_OK; VELMORA_NOT_CONNECTED when the attempt ended without it; what
                              velmora_connect returned when it did not come to its end */
    int32_t headset;       /* out, when VELMORA_OK: the headset's number in all records */
    int32_t index;         /* out, when VELMORA_OK: its index at the dongle, for velmora_send */
} velmora_wanted;

/* Flags of velmora_connect and velmora_drop_all. */
enum { VELMORA_ALLOW_UNPROVED = 1 };

/*
 * Connects headsets, all with one command. The dongle carries up to 16.
 *   wanted     `count` elements, 1 to 32, `stride` bytes apart
 *   flags      0, or VELMORA_ALLOW_UNPROVED: connect more headsets while some are connected. UNPROVED: a dongle may
 *              ignore it or drop those that it has; without the flag the call then answers VELMORA_BUSY
 * VELMORA_OK when the dongle said that the attempt is over and all are connected; VELMORA_NOT_CONNECTED when it is over
 * and some are not (`wanted` tells which); VELMORA_TIMEOUT and VELMORA_CANCELLED leave the dongle at it: headsets that
 * connect later are told by events. VELMORA_RESTARTED, VELMORA_GONE, VELMORA_CLOSED, VELMORA_INVALID, VELMORA_FAILED
 * when the port refused the command, VELMORA_NO_MEMORY.
 * A dongle takes a few seconds for each headset, and up to 100 seconds for one that is not there (UNPROVED).
 * A dongle that was left at it still owes the end of that attempt. It is not taken for the end of the next one, unless
 * all of that one's headsets are connected. A dongle that never sends it lets the next connect, if a headset is
 * missing, end with VELMORA_TIMEOUT instead of VELMORA_NOT_CONNECTED; velmora_drop_all, a restart and an unplugging
 * make an end of it.
 */
VELMORA_PUBLIC velmora_status velmora_connect(velmora_dongle* dongle, velmora_wanted* wanted, size_t stride,
                                              size_t count, uint32_t flags, int32_t timeout_ms, velmora_cancel* cancel,
                                              velmora_error* error);

/*
 * Lets the dongle drop one headset and waits for its report.
 *   address   as velmora_headsets gives it; copied
 * VELMORA_OK; VELMORA_NOT_FOUND when no headset of that address is connected; VELMORA_TIMEOUT when the dongle did not
 * report it; VELMORA_BUSY, VELMORA_CANCELLED, VELMORA_RESTARTED, VELMORA_GONE, VELMORA_CLOSED, VELMORA_INVALID,
 * VELMORA_FAILED when the port refused the command, VELMORA_NO_MEMORY.
 */
VELMORA_PUBLIC velmora_status velmora_drop(velmora_dongle* dongle, const char* address, int32_t timeout_ms,
                                           velmora_cancel* cancel, velmora_error* error);

/*
 * Lets the dongle drop all headsets. The dongle does not answer that, so they count as disconnected when the command is
 * written, and an event says so for each.
 *   flags     0, or VELMORA_ALLOW_UNPROVED: send it also when no headset is known to be connected, to free headsets
 *             that an ended program left. UNPROVED; without the flag the call then answers VELMORA_BUSY
 * Further results: VELMORA_BUSY while another call has the dongle; VELMORA_TIMEOUT when the port took nothing for a
 * second, VELMORA_FAILED when it refused the command; VELMORA_GONE, VELMORA_CLOSED, VELMORA_INVALID, VELMORA_NO_MEMORY.
 */
VELMORA_PUBLIC velmora_status velmora_drop_all(velmora_dongle* dongle, uint32_t flags, velmora_error* error);

/* A headset that a scan found, that connected, or that sent data. 88 bytes. */
typedef struct velmora_headset {
    char address[16];  /* empty when nobody reported it: only its data is known */
    char name[56];     /* of the last scan that found it; may be empty */
    int32_t number;    /* its number in all records, from 0; the same for an address as long as the handle lives */
    int32_t index;     /* its index at the dongle, 0 to 15; -1 while it is not connected */
    int32_t connected; /* 1 or 0 */
    uint32_t reserved;
} velmora_headset;

/*
 * Lists the headsets that the handle has met, by number; those that are not connected (any more) are in it as well.
 *   headsets  room for `capacity` elements, `stride` bytes apart; may be null when capacity is 0
 *   count     out: how many there are; beyond `capacity` they are only counted
 * VELMORA_OK, VELMORA_INVALID.
 */
VELMORA_PUBLIC velmora_status velmora_headsets(velmora_dongle* dongle, velmora_headset* headsets, size_t stride,
                                               size_t capacity, size_t* count);

/* ------------------------------------------------------------------------------------------------ records */

/* What a record is. Skip those you do not know. */
enum {
    VELMORA_RAW = 1,       /* a packet of raw samples */
    VELMORA_PROCESSED = 2, /* processed data */
    VELMORA_BATTERY = 3,
    VELMORA_RESPONSE = 4, /* a headset's response to a command, also to one nobody waits for */
    VELMORA_EVENT = 5
};

/* velmora_record.code of an event. Skip those you do not know. */
enum {
    VELMORA_EVENT_CONNECTED = 1,    /* a headset connected; bytes: its address, as text. Empty: inferred from data */
    VELMORA_EVENT_DISCONNECTED = 2, /* a headset left, or was dropped; bytes: its address, as text */
    VELMORA_EVENT_RESTARTED = 3,    /* the dongle restarted; all headsets are disconnected (an event for each comes
                                       first). The handle goes on: connect again. A restart in the middle of a data
                                       frame is told up to a second late */
    VELMORA_EVENT_GONE = 4,         /* the dongle was unplugged or its port hung up (likewise); values[0]: the system's
                                       code, or 0. See velmora_reopen */
    VELMORA_EVENT_OVERRUN = 5       /* the queue is full: packets are being dropped. Told once, until the queue has
                                       been half empty; the packets behind say how many are missing */
};

/* velmora_record.flags */
enum {
    VELMORA_FLAG_MULTI = 1,     /* raw: a packet of several channels, interleaved */
    VELMORA_FLAG_FIRST = 2,     /* raw: the channel's first packet since the start or since its headset connected */
    VELMORA_FLAG_ESTIMATED = 4, /* raw: the counter alone does not tell how many packets were lost before this one;
                                   `lost` and `sample` are taken from the clock */
    VELMORA_FLAG_DAMAGED_COUNTER =
        8 /* raw: by the clock the packet's counter cannot be right; it was placed behind its forerunner. Should the
             next one agree with it, that one's `lost` makes up for it. Or the forerunner's was wrong and had put that
             packet too far ahead: `sample` then steps back to where it belongs, `lost` tells what is missing behind the
             packet before that one, and what the forerunner's `lost` says was not lost */
};

/*
 * One thing that arrived: 320 bytes without padding. Members that a kind does not use are zero.
 */
typedef struct velmora_record {
    uint16_t kind;     /* VELMORA_RAW and so on */
    uint16_t flags;    /* VELMORA_FLAG_..., 0 for other kinds than raw */
    int16_t headset;   /* the headset's number, see velmora_headset; -1 for events of the dongle as a whole */
    int16_t index;     /* its index at the dongle when this arrived, 0 to 15; -1 likewise */
    int64_t time;      /* when its last byte was read from the port */
    int64_t sample;    /* raw: number of its first sample on the headset's time line. 0 is the first sample of the
                          headset's first packet after velmora_start; all its channels share that zero. Can be negative
                          for the first packet of another channel */
    uint32_t lost;     /* raw: packets of this channel that the line lost since the channel's record before this one */
    uint32_t dropped;  /* raw: and those that the full queue dropped */
    uint16_t channel;  /* raw: 0 to 15; 0 for a packet of several channels */
    uint16_t channels; /* raw: channels in this packet: 1, or 1 to 15 with VELMORA_FLAG_MULTI */
    uint16_t count;    /* raw: samples of each channel, 112 / channels rounded down; response: bytes used, 8 or 16 */
    uint8_t counter;   /* raw: the packet counter as it came, 0 to 255 */
    uint8_t code;      /* event: VELMORA_EVENT_...; response: the command code */
    uint8_t bytes[16]; /* response: the frame as it came. processed: [0] to [3] values 1 to 4, [4] the selector; value 4
                          is 0 unless the selector is 8. event: see there */
    uint32_t values[8];   /* processed: eight numbers, 0 to 16,777,215 each. battery: [0] level 0 to 255, [1] second
                             figure, 0 to 6,300 in steps of 100. event: see there. Their meaning belongs to the
                             headset's firmware */
    int16_t samples[112]; /* raw: in the headset's own unit. With VELMORA_FLAG_MULTI interleaved: sample 0 of channels 0
                             to channels - 1, then sample 1 of each, and so on; what is left over is 0 */
    uint32_t reserved[2];
} velmora_record;

/* ------------------------------------------------------------------------------------------------ commands */

/* velmora_send, target: all headsets. */
enum { VELMORA_ALL = -1 };

/*
 * Flags of velmora_send and velmora_request. VELMORA_KNOWN_TEXTS sends what VelmoraSDK sends for an index that the
 * protocol cannot reach alone: 0 goes to all headsets, 10 and 12 to "11", 13 to 15 to "1".
 */
enum { VELMORA_KNOWN_TEXTS = 1 };

/*
 * Sends a command to one headset or to all. Waits while the command before it is less than `command_gap_ms` old.
 *   target    VELMORA_ALL, or an index at the dongle. The protocol has a text for 1 to 9, and one that 10, 11 and 12
 *             share: it is sent for 11, and may reach the headsets at 10 and 12 as well. For 0, 10 and 12 to 15 the
 *             call answers VELMORA_NOT_ADDRESSABLE unless `flags` says otherwise
 *   command   command code of the headset's firmware
 *   payload   `length` bytes, copied; not read when length is 0
 *   length    0 to 4, 8, 10, 11 or 12; VELMORA_INVALID for others. With 4 and 12 the payload's last byte takes the
 *             place of the command code, which is not sent
 * VELMORA_OK when the port took it; whether it arrived is not told. VELMORA_GONE, VELMORA_CLOSED, VELMORA_TIMEOUT when
 * the port took nothing for a second, VELMORA_FAILED when it refused the command.
 */
VELMORA_PUBLIC velmora_status velmora_send(velmora_dongle* dongle, int32_t target, uint8_t command,
                                           const uint8_t* payload, size_t length, uint32_t flags, velmora_error* error);

/*
 * Sends a command to one headset and waits for its response: the first from that index, after the command was written,
 * whose code is the code byte that went out (with 4 and 12 bytes of payload that is the last of them). The protocol has
 * no sequence numbers: a late answer to an earlier request of the same code cannot be told from it.
 *   index     0 to 15, as `target` above; VELMORA_ALL is VELMORA_INVALID
 *   response  out, when VELMORA_OK: the response record, which is also queued for velmora_read. May be null
 * Further results: VELMORA_TIMEOUT, VELMORA_CANCELLED, VELMORA_BUSY, VELMORA_RESTARTED, and VELMORA_NOT_CONNECTED when
 * the headset left meanwhile.
 */
VELMORA_PUBLIC velmora_status velmora_request(velmora_dongle* dongle, int32_t index, uint8_t command,
                                              const uint8_t* payload, size_t length, uint32_t flags,
                                              velmora_record* response, int32_t timeout_ms, velmora_cancel* cancel,
                                              velmora_error* error);

/* ------------------------------------------------------------------------------------------------ data */

/*
 * Opens the gate for raw packets, processed data and battery reports, between two packets; responses and events pass
 * always. Nothing is sent to the headsets. Forgets all time lines: sample numbers begin anew. What is queued stays.
 *   time      out: the moment, on the records' clock. May be null
 *   utc       out: the same moment in nanoseconds since 1970-01-01 UTC, as the system's clock has it. May be null
 * A second call starts anew. VELMORA_CLOSED.
 */
VELMORA_PUBLIC velmora_status velmora_start(velmora_dongle* dongle, int64_t* time, int64_t* utc);

/* Closes the gate, between two packets. What is queued stays readable. VELMORA_CLOSED. */
VELMORA_PUBLIC velmora_status velmora_stop(velmora_dongle* dongle);

/*
 * Takes records from the queue, oldest first.
 *   records    room for `capacity` records, `stride` bytes apart
 *   stride     sizeof(velmora_record) or more, a multiple of 8
 *   capacity   at least 1
 *   min        how many to wait for: 0 does not wait; more than `capacity` counts as `capacity`. A host that wakes less
 *              often needs less processor time
 *   timeout_ms the longest wait
 *   got        out: how many were taken. Always set; records are delivered whatever the result is
 * VELMORA_OK with at least `min` records, or with fewer when no more will come; VELMORA_TIMEOUT with fewer than `min`;
 * VELMORA_CANCELLED whenever `cancel` is raised, with as many as there are. VELMORA_GONE and VELMORA_CLOSED when the
 * queue is empty and nothing more will come. VELMORA_BUSY for a second reader; VELMORA_INVALID.
 */
VELMORA_PUBLIC velmora_status velmora_read(velmora_dongle* dongle, velmora_record* records, size_t stride,
                                           size_t capacity, size_t min, int32_t timeout_ms, velmora_cancel* cancel,
                                           size_t* got);

/* ------------------------------------------------------------------------------------------------ statistics */

/* Counts since velmora_open. */
typedef struct velmora_statistics {
    uint32_t size; /* sizeof(velmora_statistics), set by the host */
    uint32_t reserved;
    uint64_t bytes;             /* read from the port */
    uint64_t stray_bytes;       /* that belong to no text and no frame, on the line or in a headset's stream */
    uint64_t damaged_headers;   /* data headers that were found not to fit what followed */
    uint64_t incomplete_frames; /* headset frames whose rest never came */
    uint64_t texts;             /* texts of the dongle */
    uint64_t raw;               /* records made while started, queued or dropped */
    uint64_t processed;
    uint64_t battery;
    uint64_t responses;
    uint64_t events;
    uint64_t queue_capacity; /* of velmora_open_options */
    uint64_t queue_largest;  /* records that were in the queue at most */
    uint64_t queue_dropped;  /* records dropped because it was full */
    uint64_t commands;       /* written by velmora_send and velmora_request */
} velmora_statistics;

/* VELMORA_OK, also when the handle is closed; VELMORA_INVALID. */
VELMORA_PUBLIC velmora_status velmora_get_statistics(velmora_dongle* dongle, velmora_statistics* statistics);

/* Counts since velmora_start of one channel, or of a headset's packets of several channels. 48 bytes. */
typedef struct velmora_channel_statistics {
    uint64_t packets;          /* received */
    uint64_t lost;             /* by the line, as the counters and the clock tell */
    uint64_t repeated;         /* received twice, with the same samples; the second was left out */
    uint64_t damaged_counters; /* packets whose counter could not be right */
    uint64_t dropped;          /* by the full queue */
    double rate;               /* samples per second, least squares over the last minute; 0 until there is enough */
} velmora_channel_statistics;

enum { VELMORA_CHANNELS = 17 /* 16 channels, and [16] for packets of several channels */ };

typedef struct velmora_headset_statistics {
    uint32_t size;   /* sizeof(velmora_headset_statistics), set by the host */
    int32_t headset; /* the headset's number */
    velmora_channel_statistics channels[VELMORA_CHANNELS];
} velmora_headset_statistics;

/* VELMORA_OK, VELMORA_NOT_FOUND for a number that no headset has, VELMORA_INVALID. */
VELMORA_PUBLIC velmora_status velmora_get_headset_statistics(velmora_dongle* dongle, int32_t headset,
                                                             velmora_headset_statistics* statistics);

#ifdef __cplusplus
}
#endif

#endif
