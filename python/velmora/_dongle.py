"""The dongle as Python sees it."""
from __future__ import annotations

import atexit
import ctypes
import os
import threading
import time
import weakref
from collections import deque
from ctypes import byref, c_int64, c_size_t
from typing import Any, Deque, Dict, Iterable, Iterator, List, NamedTuple, Optional, Union

import numpy as np
from numpy.typing import NDArray

from . import _errors, _library
from ._library import RECORD, SLICE, check, every, lib, milliseconds, waiting

RAW, PROCESSED, BATTERY, RESPONSE, EVENT = 1, 2, 3, 4, 5
"""What a record is: its member kind. Skip others."""
MULTI, FIRST, ESTIMATED, DAMAGED_COUNTER = 1, 2, 4, 8
"""A raw packet's flags."""
CONNECTED, DISCONNECTED, RESTARTED, GONE, OVERRUN = 1, 2, 3, 4, 5
"""An event's code. Skip others."""
ALL = -1
"""Target of Dongle.send: all headsets."""

_ALLOW_UNPROVED = 1
_KNOWN_TEXTS = 1
_CHUNK = 1024  # records that are allocated together
_KEPT = 4096  # events and processed data that wait for the program


class Port(NamedTuple):
    """A serial port of this machine."""

    path: str
    description: str
    usb_serial: str
    usb_vendor: int
    usb_product: int
    usable: bool  #: ports(): it may be opened and nobody is seen to hold it. find(): it has a dongle
    text: str  #: why, for people


class Found(NamedTuple):
    """A headset that a scan found."""

    address: str  #: 12 hexadecimal digits
    name: str
    option: int
    headset: int  #: its number in all records


class Headset(NamedTuple):
    """A headset that the dongle has met."""

    address: str  #: empty when nobody reported it and only its data is known
    name: str
    number: int  #: its number in all records, the same for an address as long as the dongle is open
    index: int  #: its index at the dongle, 0 to 15; -1 while it is not connected
    connected: bool


class Block(NamedTuple):
    """One packet of raw samples."""

    headset: int  #: the headset's number
    channel: int  #: what column 0 of samples is: the packet's channel, or 0 for a packet of several
    sample: int  #: number of its first sample on the headset's time line, on which all its channels share one zero
    samples: NDArray[np.int16]  #: shape (samples, channels), in the headset's own unit; a view, not a copy
    lost: int  #: packets of this channel lost directly before this one, by the line or by a full queue
    time: int  #: when its last byte arrived: nanoseconds of now()
    flags: int  #: MULTI, FIRST, ESTIMATED, DAMAGED_COUNTER


class Event(NamedTuple):
    """Something happened."""

    code: int  #: CONNECTED, DISCONNECTED, RESTARTED, GONE, OVERRUN
    headset: int  #: its number, -1 for the dongle as a whole
    address: str
    time: int  #: nanoseconds of now()


class Battery(NamedTuple):
    """A battery report. What the figures mean belongs to the headset's firmware."""

    level: int  #: 0 to 255
    value: int  #: 0 to 6,300 in steps of 100
    time: int  #: nanoseconds of now()


class Processed(NamedTuple):
    """Processed data. What it means belongs to the headset's firmware."""

    headset: int
    small: bytes  #: values 1 to 4 and the selector
    values: List[int]  #: eight numbers, 0 to 16,777,215 each
    time: int  #: nanoseconds of now()


class Response(NamedTuple):
    """A headset's response to a command."""

    headset: int
    index: int
    code: int
    frame: bytes  #: 8 or 16 bytes, as they came
    time: int  #: nanoseconds of now()


class Moment(NamedTuple):
    """The same moment on two clocks, in nanoseconds."""

    time: int  #: of now()
    utc: int  #: since 1970-01-01 UTC


class Statistics(NamedTuple):
    """Counts since the dongle was opened; velmora.h says what each means."""

    bytes: int
    stray_bytes: int
    damaged_headers: int
    incomplete_frames: int
    texts: int
    raw: int
    processed: int
    battery: int
    responses: int
    events: int
    queue_capacity: int
    queue_largest: int
    queue_dropped: int
    commands: int


class ChannelStatistics(NamedTuple):
    """Counts of one channel since start()."""

    packets: int
    lost: int  #: by the line
    repeated: int
    damaged_counters: int
    dropped: int  #: by the full queue
    rate: float  #: samples per second over the last minute; 0 until there is enough


def version() -> str:
    """The shared library's version."""
    return lib.velmora_version().decode()


def now() -> int:
    """The present on the clock of all records, in nanoseconds: time.monotonic_ns() on Linux, time.perf_counter_ns() on
    Windows."""
    return lib.velmora_now()


def _text(value: bytes) -> str:
    return value.decode("utf-8", "replace")


def _port(port: Any) -> Port:
    return Port(_text(port.path), _text(port.description), _text(port.usb_serial), port.usb_vendor, port.usb_product,
                port.status == _errors.OK, _text(port.text))


def ports() -> List[Port]:
    """The machine's serial ports. Opens none of them."""
    return [_port(port) for port in every(_library.Port, lambda *room: lib.velmora_ports(*room, None))]


def find(all_ports: bool = False) -> List[Port]:
    """Looks for dongles on USB serial ports, or on all ports. Takes about a second when a port stays silent.

    Returns every port; those with a dongle, at least one, are usable. Raises NotFound when there is none.
    """
    options, found, count = _library.FindOptions(), (_library.Port * 512)(), c_size_t()
    options.flags = int(all_ports)
    waiting(lambda *end: lib.velmora_find(options, found, ctypes.sizeof(_library.Port), 512, byref(count), *end))
    return [_port(port) for port in found[: count.value]]


class Dongle:
    """An open dongle; open() makes it. Used in a with statement it is closed at the end.

    Any thread may call anything; one thread reads at a time, another waits for its turn. Times to wait are in seconds,
    None has no limit. Every wait ends within 0.1 s of Ctrl-C; what had arrived by then is delivered by the next read.
    """

    def __init__(self, path: str, queue_capacity: int = 0, command_gap: float = 0.0) -> None:
        self._handle = _library.Handle()
        self._may_leave_headsets = self._started = False
        self._reading = threading.Lock()
        self._chunk: NDArray[Any] = np.empty(0, RECORD)
        self._given = self._filled = 0
        self._got = c_size_t()  # what the last call of the library put behind _filled
        self._blocks: List[Block] = []
        self._events: Deque[Event] = deque(maxlen=_KEPT)
        self._processed: Deque[Processed] = deque(maxlen=_KEPT)
        self._battery: Dict[int, Battery] = {}
        self._restarted = False
        self.path = path  #: of the port
        options = _library.OpenOptions()
        options.queue_capacity, options.command_gap_ms = queue_capacity, milliseconds(command_gap)
        handle = self._handle  # held by the call, whatever becomes of this object meanwhile
        waiting(lambda _, detail: lib.velmora_open(os.fsencode(path), options, byref(handle.pointer), detail))
        _open_dongles.add(self)

    def __enter__(self) -> Dongle:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Lets the dongle drop the headsets that connect() asked for, and closes it. What has arrived can still be read,
        then reading raises Closed. A second call does nothing."""
        _open_dongles.discard(self)
        try:
            if self._may_leave_headsets:
                self._may_leave_headsets = False
                lib.velmora_drop_all(self._handle.pointer, _ALLOW_UNPROVED, None)
        finally:
            lib.velmora_close(self._handle.pointer)

    def reopen(self, timeout: Optional[float] = None) -> None:
        """After Gone: waits for the dongle to be plugged in again, known by its USB serial number, and opens it. Numbers
        of headsets stay; the headsets have to be connected anew."""
        handle, limit = self._handle, milliseconds(timeout)
        waiting(lambda *end: lib.velmora_reopen(handle.pointer, limit, *end))

    # -------------------------------------------------------------------------------------------- headsets

    def scan(self, timeout: Optional[float] = 30.0) -> List[Found]:
        """Lets the dongle look for headsets, up to some 20 seconds. Raises Busy while headsets are connected."""
        handle, found, count, limit = self._handle, (_library.Found * 256)(), c_size_t(), milliseconds(timeout)
        waiting(lambda *end: lib.velmora_scan(handle.pointer, None, found, ctypes.sizeof(_library.Found), 256,
                                              byref(count), limit, *end))
        return [Found(_text(one.address), _text(one.name), one.option, one.headset) for one in found[: count.value]]

    def connect(self, wanted: Union[None, str, Found, Iterable[Union[str, Found]]] = None,
                timeout: Optional[float] = 200.0) -> List[Headset]:
        """Connects headsets, all with one command, and returns those connected.

        wanted: what scan() found, or addresses, one or many; None: scans and takes all. Raises NotFound for none,
        NotConnected when one of them did not connect; headsets() tells which did.
        """
        if wanted is None:
            wanted = self.scan()
        chosen = [wanted] if isinstance(wanted, (str, Found)) else list(wanted)
        if not chosen:
            raise _library.failure(_errors.NOT_FOUND, "There is no headset to connect: is it switched on and near?")
        handle, elements, limit = self._handle, (_library.Wanted * len(chosen))(), milliseconds(timeout)
        for element, one in zip(elements, chosen):
            address, element.option = (one, 0) if isinstance(one, str) else (one.address, one.option)
            element.address = address.replace(":", "").encode()
        self._may_leave_headsets = True
        status = waiting(lambda *end: lib.velmora_connect(handle.pointer, elements, ctypes.sizeof(_library.Wanted),
                                                          len(elements), 0, limit, *end))
        if status != _errors.OK:
            missing = ", ".join(_text(one.address) for one in elements if one.status != _errors.OK)
            raise _library.failure(status, f"Not connected: {missing}. Is it switched on, near, and free?")
        numbers = {element.headset for element in elements}
        return [headset for headset in self.headsets() if headset.number in numbers]

    def headsets(self) -> List[Headset]:
        """The headsets that the dongle has met, by number; also those that are not connected any more."""
        listed = every(_library.Headset, lambda *room: lib.velmora_headsets(self._handle.pointer, *room))
        return [Headset(_text(one.address), _text(one.name), one.number, one.index, bool(one.connected))
                for one in listed]

    def drop(self, headset: Union[str, Headset], timeout: Optional[float] = 5.0) -> None:
        """Lets the dongle drop one headset, given itself or by its address."""
        address = headset if isinstance(headset, str) else headset.address
        handle, limit = self._handle, milliseconds(timeout)
        waiting(lambda *end: lib.velmora_drop(handle.pointer, address.encode(), limit, *end))

    def drop_all(self, allow_unproved: bool = False) -> None:
        """Lets the dongle drop all headsets. allow_unproved: also those that an ended program may have left."""
        detail = _library.ErrorDetail()
        check(lib.velmora_drop_all(self._handle.pointer, _ALLOW_UNPROVED * allow_unproved, detail), detail)

    # -------------------------------------------------------------------------------------------- commands

    def send(self, target: Union[int, Headset], command: int, payload: bytes = b"", known_texts: bool = False) -> None:
        """Sends a command to a headset, given itself or by its index at the dongle, or to ALL. payload: 0 to 4, 8, 10, 11
        or 12 bytes. Raises NotAddressable for indices that the protocol cannot reach alone, unless known_texts."""
        detail = _library.ErrorDetail()
        check(lib.velmora_send(self._handle.pointer, self._index(target), command, bytes(payload), len(payload),
                               _KNOWN_TEXTS * known_texts, detail), detail)

    def request(self, target: Union[int, Headset], command: int, payload: bytes = b"", timeout: Optional[float] = 1.0,
                known_texts: bool = False) -> Response:
        """Sends a command to one headset and waits for its response. Raises Timeout when none comes."""
        handle, index, data, limit = self._handle, self._index(target), bytes(payload), milliseconds(timeout)
        response = np.zeros(1, RECORD)
        waiting(lambda *end: lib.velmora_request(handle.pointer, index, command, data, len(data),
                                                 _KNOWN_TEXTS * known_texts, response.ctypes.data, limit, *end))
        one = response[0]
        return Response(int(one["headset"]), int(one["index"]), int(one["code"]),
                        one["bytes"][: one["count"]].tobytes(), int(one["time"]))

    def _index(self, target: Union[int, Headset]) -> int:
        if isinstance(target, int):
            return target
        for headset in self.headsets():
            if headset.number == target.number and headset.connected:
                return headset.index
        raise _library.failure(_errors.NOT_CONNECTED, f"{target.name or target.address} is not connected.")

    # -------------------------------------------------------------------------------------------- data

    def start(self) -> Moment:
        """Opens the gate for data and begins all time lines anew. Reading does it by itself when it has not been done."""
        moment, utc = c_int64(), c_int64()
        check(lib.velmora_start(self._handle.pointer, byref(moment), byref(utc)))
        self._started = True
        return Moment(moment.value, utc.value)

    def stop(self) -> None:
        """Closes the gate. What has arrived can still be read."""
        check(lib.velmora_stop(self._handle.pointer))

    def records(self, timeout: Optional[float] = None, at_least: int = 1) -> NDArray[Any]:
        """What arrived, as the library's records lie in memory: a structured array of dtype RECORD, never a copy. It stays
        valid and unchanged as long as it is held.

        Waits until there are at_least records (1,024 at most count) or the time is over, and returns fewer then, or none.
        Raises Gone and Closed when nothing more will come.
        """
        with self._reading:
            self._read(timeout, at_least)
        taken = self._chunk[self._given:self._filled]  # from here on nothing that Ctrl-C could end
        self._given = self._filled
        return taken

    def _read(self, timeout: Optional[float], at_least: int) -> None:
        """Puts records behind _filled. Whatever moment Ctrl-C ends it at, the next call knows what has arrived."""
        if not self._started:
            self.start()
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            self._filled += self._got.value
            self._got.value = 0
            if self._filled == len(self._chunk):
                if self._given < self._filled:
                    return
                self._chunk, self._given, self._filled = np.empty(_CHUNK, RECORD), 0, 0
            left = SLICE if deadline is None else min(SLICE, max(0.0, deadline - time.monotonic()))
            status = lib.velmora_read(self._handle.pointer, self._chunk.ctypes.data + self._filled * RECORD.itemsize,
                                      RECORD.itemsize, len(self._chunk) - self._filled,
                                      max(0, at_least - (self._filled - self._given)), milliseconds(left), None,
                                      byref(self._got))
            there = self._filled + self._got.value - self._given
            if there >= at_least or (there and status not in (_errors.OK, _errors.TIMEOUT)):
                break
            if status not in (_errors.OK, _errors.TIMEOUT):
                check(status)
            if deadline is not None and time.monotonic() >= deadline:
                break
        self._filled += self._got.value
        self._got.value = 0

    def read(self, timeout: Optional[float] = None, at_least: int = 1) -> List[Block]:
        """The packets of raw samples that arrived, oldest first; none when the time is over. events(), processed() and
        battery have what came between them. Raises Restarted, Gone and Closed.

        at_least: records to wait for. A program that wakes less often needs less processor time.
        """
        deadline = None if timeout is None else time.monotonic() + timeout
        while not self._blocks:
            self._receive(None if deadline is None else max(0.0, deadline - time.monotonic()), at_least)
            if deadline is not None and time.monotonic() >= deadline:
                break
        fresh: List[Block] = []
        blocks = self._blocks
        self._blocks = fresh
        return blocks

    def blocks(self, timeout: Optional[float] = None, batch: float = 0.05) -> Iterator[Block]:
        """Packets of raw samples, one after the other, for ever.

        batch: seconds that packets are gathered before the first of them is passed on; 0 passes each on as it arrives
        and needs more processor time. timeout: raises Timeout when there was no packet for so long.
        """
        last = time.monotonic()
        while True:
            while self._blocks:
                block = self._blocks[0]
                del self._blocks[0]
                yield block
                last = time.monotonic()
            if timeout is not None and time.monotonic() - last > timeout:
                raise _library.failure(_errors.TIMEOUT, f"No data for {timeout:g} s: is the headset still on and near?")
            self._receive(batch or SLICE, _CHUNK if batch else 1)

    def events(self) -> List[Event]:
        """The events that read() and blocks() have met since the last call, oldest first."""
        return [self._events.popleft() for _ in range(len(self._events))]

    def processed(self) -> List[Processed]:
        """The processed data that read() and blocks() have met since the last call, oldest first."""
        return [self._processed.popleft() for _ in range(len(self._processed))]

    @property
    def battery(self) -> Dict[int, Battery]:
        """The last battery report of each headset, by its number, that read() and blocks() have met."""
        return dict(self._battery)

    def _receive(self, timeout: Optional[float], at_least: int) -> None:
        """Waits for records and sorts them by what they are."""
        if self._restarted:
            self._restarted = False
            raise _library.failure(_errors.RESTARTED, "The dongle restarted: connect its headsets again.")
        with self._reading:
            self._read(timeout, at_least)
            self._sort()

    def _sort(self) -> None:
        filled = self._filled
        records = self._chunk[self._given:filled]
        columns = [records[name].tolist() for name in (
            "kind", "headset", "channel", "sample", "count", "channels", "lost", "dropped", "time", "flags", "code")]
        samples, restarted = records["samples"], self._restarted
        blocks: List[Block] = []
        events: List[Event] = []
        processed: List[Processed] = []
        battery: Dict[int, Battery] = {}
        for row, (kind, headset, channel, sample, count, channels, lost, dropped, moment, flags, code) in enumerate(
                zip(*columns)):
            if kind == RAW:
                blocks.append(Block(headset, channel, sample, samples[row, : count * channels].reshape(count, channels),
                                    lost + dropped, moment, flags))
            elif kind == EVENT:
                address = records["bytes"][row].tobytes().rstrip(b"\0").decode("ascii", "replace")
                events.append(Event(code, headset, address, moment))
                restarted |= code == RESTARTED
            elif kind == BATTERY:
                level, value = records["values"][row, :2].tolist()
                battery[headset] = Battery(level, value, moment)
            elif kind == PROCESSED:
                processed.append(Processed(headset, records["bytes"][row, :5].tobytes(),
                                           records["values"][row].tolist(), moment))
        # All at once: Ctrl-C acts where something is called, so it finds these records given or not given.
        self._blocks += blocks
        self._events += events
        self._processed += processed
        self._battery |= battery
        self._restarted = restarted
        self._given = filled

    # -------------------------------------------------------------------------------------------- statistics

    def statistics(self) -> Statistics:
        """Counts of the line and the queue since the dongle was opened."""
        counts = _library.Statistics()
        check(lib.velmora_get_statistics(self._handle.pointer, counts))
        return Statistics(*(getattr(counts, name) for name in Statistics._fields))

    def channel_statistics(self, headset: int) -> Dict[int, ChannelStatistics]:
        """Counts since start() of a headset's channels that had packets; 16 stands for packets of several channels."""
        counts = _library.HeadsetStatistics()
        check(lib.velmora_get_headset_statistics(self._handle.pointer, headset, counts))
        return {number: ChannelStatistics(*(getattr(channel, name) for name in ChannelStatistics._fields))
                for number, channel in enumerate(counts.channels) if channel.packets}


def open(path: Optional[str] = None, *, queue_capacity: int = 0, command_gap: float = 0.0) -> Dongle:
    """Opens the dongle at the port `path`, or the first that find() finds.

    queue_capacity: records held for the program, 0 for ten seconds of a full line. command_gap: least time between two
    commands in seconds, 0 for 0.02.
    """
    if path is None:
        path = next(port.path for port in find() if port.usable)
    return Dongle(path, queue_capacity, command_gap)


_open_dongles: "weakref.WeakSet[Dongle]" = weakref.WeakSet()


def _close_all() -> None:
    for dongle in list(_open_dongles):
        dongle.close()


atexit.register(_close_all)
