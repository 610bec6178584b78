"""The dongle as Python sees it."""
from __future__ import annotations

import ctypes
import os
import threading
import time
from ctypes import byref, c_int64, c_size_t, c_void_p
from typing import Any, Dict, Iterable, Iterator, List, NamedTuple, Optional, Tuple, Union

import numpy as np
from numpy.typing import NDArray

from . import _errors, _library
from ._library import (ALLOW_UNPROVED, FIND_ALL_PORTS, KNOWN_TEXTS, RECORD, SLICE, check, every, lib, milliseconds,
                       number, octets, waiting)

RAW, PROCESSED, BATTERY, RESPONSE, EVENT = 1, 2, 3, 4, 5
"""What a record is: its member kind. Skip others."""
MULTI, FIRST, ESTIMATED, DAMAGED_COUNTER = 1, 2, 4, 8
"""A raw packet's flags."""
CONNECTED, DISCONNECTED, RESTARTED, GONE, OVERRUN = 1, 2, 3, 4, 5
"""An event's code. Skip others."""
ALL = -1
"""Target of Dongle.send: all headsets."""

_CHUNK = 1024  # records that are allocated together
_KEPT = 4096  # events, and processed data, that wait for the program


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
    options.flags = FIND_ALL_PORTS * bool(all_ports)
    waiting(lambda *end: lib.velmora_find(options, found, ctypes.sizeof(_library.Port), 512, byref(count), *end))
    return [_port(port) for port in found[: count.value]]


class _Log(NamedTuple):
    """The newest things of a kind, and how many there were in all."""

    count: int = 0
    newest: List[Any] = []

    def and_also(self, more: List[Any]) -> _Log:
        return _Log(self.count + len(more), (self.newest + more)[-_KEPT:]) if more else self


class _State(NamedTuple):
    """What was read. It is never changed, only replaced, by whoever has the turn to read: one store hands something
    over, so whatever moment a Ctrl-C takes, it is handed over or it is not."""

    chunk: NDArray[Any]
    given: int  #: of the chunk's records, those that have been handed out, or sorted into what follows
    filled: int  #: of the chunk's records, those that are there
    got: c_size_t  #: and those that the library puts behind them: it writes here
    blocks: _Log
    events: _Log
    processed: _Log
    battery: Dict[int, Battery]
    restarts: int


def _deadline(timeout: Optional[float]) -> Optional[float]:
    return None if timeout is None else time.monotonic() + timeout


def _sorted(state: _State) -> _State:
    """The state, whose blocks have all been handed out, with its records sorted by what they are."""
    records = state.chunk[state.given : state.filled]
    columns = [records[name].tolist() for name in (
        "kind", "headset", "channel", "sample", "count", "channels", "lost", "dropped", "time", "flags", "code")]
    samples, restarts = records["samples"], state.restarts
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
            restarts += code == RESTARTED
        elif kind == BATTERY:
            level, value = records["values"][row, :2].tolist()
            battery[headset] = Battery(level, value, moment)
        elif kind == PROCESSED:
            processed.append(Processed(headset, records["bytes"][row, :5].tobytes(), records["values"][row].tolist(),
                                       moment))
    return state._replace(given=state.filled, blocks=_Log(state.blocks.count + len(blocks), blocks),
                          events=state.events.and_also(events), processed=state.processed.and_also(processed),
                          battery={**state.battery, **battery}, restarts=restarts)


class Dongle:
    """An open dongle; open() makes it. Used in a with statement it is closed at the end.

    Any thread may call anything; one thread reads at a time, another waits for its turn, as long as it would wait for
    data. Times to wait are in seconds, None has no limit. Every call that waits, for a headset, for the dongle or for its
    port, ends within 0.1 s of Ctrl-C, and with Closed when another thread closes the dongle; what had arrived by then is
    delivered by the next read. Failures are velmora.Error: each call can raise Closed and Gone, and Invalid for arguments
    that are wrong. Only what belongs to Python itself is not: MemoryError when there is no memory left, and TypeError for
    a time or a path of a wrong type.

    A process that was forked from this one cannot use it: calls raise Closed there, and closing does nothing.
    """

    def __init__(self, path: str, queue_capacity: int = 0, command_gap: float = 0.0) -> None:
        self._handle = _library.Handle()
        self._started = False
        self._reader: Optional[object] = None
        self._choosing = threading.Lock()  # of the reader; never held for long
        self._state = _State(np.empty(0, RECORD), 0, 0, c_size_t(), _Log(), _Log(), _Log(), {}, 0)
        self._known = dict.fromkeys(("blocks", "events", "processed", "restarts"), 0)  # how many the program was given
        self.path = path  #: of the port
        options = _library.OpenOptions()
        options.queue_capacity = number("queue_capacity", queue_capacity, 0, 2**32 - 1)
        options.command_gap_ms = milliseconds(command_gap)
        handle = self._handle  # held by the call, whatever becomes of this object meanwhile
        waiting(lambda _, detail: lib.velmora_open(os.fsencode(path), options, byref(handle.pointer), detail))
        handle.open = True

    def __enter__(self) -> Dongle:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    @property
    def _pointer(self) -> c_void_p:
        if self._handle.pointer is None:
            raise _library.failure(_errors.CLOSED)
        return self._handle.pointer

    def close(self) -> None:
        """Lets the dongle drop the headsets that connect() asked for, and closes it, which ends the calls of other
        threads with Closed. What has arrived can still be read, then reading raises Closed. A second call does nothing.

        Takes a moment, 3 s at most when the port takes no commands; a Ctrl-C closes it without waiting for that. At the
        interpreter's end it is done by itself, and also, with a ResourceWarning, when nobody has the dongle any more.
        """
        self._handle.close()

    def reopen(self, timeout: Optional[float] = None) -> None:
        """After Gone: waits for the dongle to be plugged in again, known by its USB serial number, and opens it. Numbers
        of headsets stay; the headsets have to be connected anew. Raises Timeout, and Busy beside another thread's call."""
        handle, limit = self._handle, milliseconds(timeout)
        waiting(lambda *end: lib.velmora_reopen(handle.pointer, limit, *end), handle)

    # -------------------------------------------------------------------------------------------- headsets

    def scan(self, timeout: Optional[float] = 30.0) -> List[Found]:
        """Lets the dongle look for headsets, up to some 20 seconds. Raises Busy while headsets are connected, and
        beside another thread's scan, connect, drop or reopen; Timeout, and Restarted when the dongle does meanwhile."""
        handle, found, count, limit = self._handle, (_library.Found * 256)(), c_size_t(), milliseconds(timeout)
        waiting(lambda *end: lib.velmora_scan(handle.pointer, None, found, ctypes.sizeof(_library.Found), 256,
                                              byref(count), limit, *end), handle)
        return [Found(_text(one.address), _text(one.name), one.option, one.headset) for one in found[: count.value]]

    def connect(self, wanted: Union[None, str, Found, Headset, Iterable[Union[str, Found, Headset]]] = None,
                timeout: Optional[float] = 200.0) -> List[Headset]:
        """Connects headsets, all with one command, and returns those connected.

        wanted: what scan() found, headsets, or addresses of 12 hexadecimal digits, with ':' between them or without; one
        or up to 32. None: scans and takes all. Raises NotFound for none, NotConnected when one of them did not connect:
        the others are, and headsets() tells which. Also Busy, Timeout and Restarted, as scan().
        """
        if wanted is None:
            wanted = self.scan()
        chosen = [wanted] if isinstance(wanted, (str, Found, Headset)) else list(wanted)
        if not chosen:
            raise _library.failure(_errors.NOT_FOUND, "There is no headset to connect: is it switched on and near?")
        handle, elements, limit = self._handle, (_library.Wanted * len(chosen))(), milliseconds(timeout)
        for element, one in zip(elements, chosen):
            element.address, element.option = _library.address(one), getattr(one, "option", 0)
        handle.may_leave_headsets = True
        status = waiting(lambda *end: lib.velmora_connect(handle.pointer, elements, ctypes.sizeof(_library.Wanted),
                                                          len(elements), 0, limit, *end),
                         handle, (_errors.NOT_CONNECTED,))
        if status != _errors.OK:
            missing = ", ".join(_text(one.address) for one in elements if one.status != _errors.OK)
            raise _library.failure(status, f"Not connected: {missing}. Is it switched on, near, and free?")
        numbers = {element.headset for element in elements}
        return [headset for headset in self.headsets() if headset.number in numbers]

    def headsets(self) -> List[Headset]:
        """The headsets that the dongle has met, by number; also those that are not connected any more."""
        listed = every(_library.Headset, lambda *room: lib.velmora_headsets(self._pointer, *room))
        return [Headset(_text(one.address), _text(one.name), one.number, one.index, bool(one.connected))
                for one in listed]

    def drop(self, headset: Union[str, Found, Headset], timeout: Optional[float] = 5.0) -> None:
        """Lets the dongle drop one headset, given itself or by its address. Raises NotFound when it is not connected,
        and Busy, Timeout and Restarted, as scan()."""
        handle, address, limit = self._handle, _library.address(headset), milliseconds(timeout)
        waiting(lambda *end: lib.velmora_drop(handle.pointer, address, limit, *end), handle)

    def drop_all(self, allow_unproved: bool = False) -> None:
        """Lets the dongle drop all headsets. allow_unproved: also those that an ended program may have left, without
        which it raises Busy when none is known to be connected."""
        handle, flags = self._handle, ALLOW_UNPROVED * bool(allow_unproved)
        waiting(lambda _, detail: lib.velmora_drop_all(handle.pointer, flags, detail), handle)

    # -------------------------------------------------------------------------------------------- commands

    def send(self, target: Union[int, Headset], command: int, payload: bytes = b"", known_texts: bool = False) -> None:
        """Sends a command, 0 to 255, to a headset, given itself or by its index at the dongle, 0 to 15, or to ALL.
        payload: 0 to 4, 8, 10, 11 or 12 bytes. Raises NotAddressable for indices that the protocol cannot reach alone,
        unless known_texts, and Timeout when the port takes nothing for a second."""
        handle, text = self._handle, self._command(target, command, payload, known_texts)
        waiting(lambda _, detail: lib.velmora_send(handle.pointer, *text, detail), handle)

    def request(self, target: Union[int, Headset], command: int, payload: bytes = b"", timeout: Optional[float] = 1.0,
                known_texts: bool = False) -> Response:
        """Sends a command to one headset, as send() does, and waits for its response. Raises Timeout when none comes,
        NotConnected when the headset leaves meanwhile, Busy beside another request to it, and Restarted."""
        handle, text, limit = self._handle, self._command(target, command, payload, known_texts), milliseconds(timeout)
        response = np.zeros(1, RECORD)
        waiting(lambda *end: lib.velmora_request(handle.pointer, *text, response.ctypes.data, limit, *end), handle)
        one = response[0]
        return Response(int(one["headset"]), int(one["index"]), int(one["code"]),
                        one["bytes"][: one["count"]].tobytes(), int(one["time"]))

    def _command(self, target: Union[int, Headset], command: int, payload: bytes, known_texts: bool) -> Tuple[Any, ...]:
        """What the library's two functions for commands take in the middle."""
        data = octets(payload)
        return self._index(target), number("command", command, 0, 255), data, len(data), KNOWN_TEXTS * bool(known_texts)

    def _index(self, target: Union[int, Headset]) -> int:
        if not isinstance(target, Headset):
            return number("target", target, ALL, 15)
        for headset in self.headsets():
            if headset.number == target.number and headset.connected:
                return headset.index
        raise _library.failure(_errors.NOT_CONNECTED, f"{target.name or target.address} is not connected.")

    # -------------------------------------------------------------------------------------------- data

    def start(self) -> Moment:
        """Opens the gate for data and begins all time lines anew. Reading does it by itself when it has not been done."""
        moment, utc = c_int64(), c_int64()
        check(lib.velmora_start(self._pointer, byref(moment), byref(utc)))
        self._started = True
        return Moment(moment.value, utc.value)

    def stop(self) -> None:
        """Closes the gate. What has arrived can still be read."""
        check(lib.velmora_stop(self._pointer))

    def records(self, timeout: Optional[float] = None, at_least: int = 1) -> NDArray[Any]:
        """What arrived, as the library's records lie in memory: a structured array of dtype RECORD, never a copy. It stays
        valid and unchanged as long as it is held.

        Waits until there are at_least records, or the time is over, and returns fewer then, or none. Memory is allocated
        for 1,024 at once: at its end there are fewer, too. Raises Gone and Closed when there are none and none will come.
        """
        deadline, me = _deadline(timeout), object()
        try:
            if not self._take_turn(me, deadline):
                return np.empty(0, RECORD)
            self._read(deadline, at_least)
            state = self._state
            taken, given = state.chunk[state.given : state.filled], state._replace(given=state.filled)
            self._state = given  # from here on nothing is called that a Ctrl-C could end
            return taken
        finally:
            if self._reader is me:
                self._reader = None

    def read(self, timeout: Optional[float] = None, at_least: int = 1) -> List[Block]:
        """The packets of raw samples that arrived, oldest first; none when the time is over. events(), processed() and
        battery have what came between them. Raises Restarted, Gone and Closed, after what came before that.

        at_least: records to wait for. A program that wakes less often needs less processor time.
        """
        deadline, me = _deadline(timeout), object()
        try:
            if not self._take_turn(me, deadline):
                return []
            self._gather(deadline, at_least)
            return self._news("blocks")
        finally:
            if self._reader is me:
                self._reader = None

    def blocks(self, timeout: Optional[float] = None, batch: float = 0.05) -> Iterator[Block]:
        """Packets of raw samples, one after the other, for ever. Raises Restarted, Gone and Closed, as read() does.

        batch: seconds that packets are gathered before the first of them is passed on; 0 passes each on as it arrives
        and needs more processor time. timeout: raises Timeout when there was no packet for so long.
        """
        last = time.monotonic()
        while True:
            now = time.monotonic()
            over = timeout is not None and now - last >= timeout
            until = now + (batch or SLICE) if timeout is None else min(now + (batch or SLICE), max(now, last + timeout))
            block, me = None, object()
            try:
                if self._take_turn(me, until):
                    self._gather(until, _CHUNK if batch else 1)
                    log, known = self._state.blocks, self._known["blocks"]
                    if known < log.count:
                        block = log.newest[known - log.count]
                        self._known["blocks"] = known + 1  # as in records()
            finally:
                if self._reader is me:
                    self._reader = None
            if block is not None:
                yield block
                last = time.monotonic()
            elif over:
                raise _library.failure(_errors.TIMEOUT, f"No data for {timeout:g} s: is the headset still on and near?")

    def events(self) -> List[Event]:
        """The events that read() and blocks() have met since the last call, oldest first; of more than 4,096 the newest."""
        return self._news("events")

    def processed(self) -> List[Processed]:
        """The processed data that read() and blocks() have met since the last call, oldest first; of more than 4,096 the
        newest."""
        return self._news("processed")

    @property
    def battery(self) -> Dict[int, Battery]:
        """The last battery report of each headset, by its number, that read() and blocks() have met."""
        return dict(self._state.battery)

    def _news(self, kind: str) -> List[Any]:
        log = getattr(self._state, kind)
        news = log.count - self._known[kind]
        if news <= 0:
            return []
        self._known[kind] = log.count  # as in records()
        return log.newest[-news:]

    def _take_turn(self, me: object, deadline: Optional[float]) -> bool:
        """Waits to be the one who reads, until the deadline, and says whether that is so. A plain store ends the turn:
        unlike the release of a lock it is no call, so a Ctrl-C cannot end it, nor take away what is being returned."""
        self._pointer  # a forked child would wait for its parent's threads
        while True:
            with self._choosing:
                if self._reader is None:
                    self._reader = me
                    return True
            left = SLICE / 10 if deadline is None else deadline - time.monotonic()
            if left <= 0:
                return False
            time.sleep(min(SLICE / 10, left))

    def _read(self, deadline: Optional[float], at_least: int) -> None:
        """Puts records behind those that are there. Whatever moment Ctrl-C ends it at, the next call knows what has
        arrived."""
        at_least = number("at_least", at_least, 0, 2**31 - 1)
        if not self._started:
            self.start()
        while True:
            state = self._absorbed()
            if state.filled == len(state.chunk):
                if state.given < state.filled:
                    return
                state = state._replace(chunk=np.empty(_CHUNK, RECORD), given=0, filled=0)
                self._state = state
            left = SLICE if deadline is None else min(SLICE, max(0.0, deadline - time.monotonic()))
            there = state.filled - state.given
            status = lib.velmora_read(self._pointer, state.chunk.ctypes.data + state.filled * RECORD.itemsize,
                                      RECORD.itemsize, len(state.chunk) - state.filled, max(0, at_least - there),
                                      milliseconds(left), None, byref(state.got))
            there += state.got.value
            more = status in (_errors.OK, _errors.TIMEOUT)
            if not more and not there:
                check(status)
            if not more or there >= at_least or (deadline is not None and time.monotonic() >= deadline):
                break
        self._absorbed()

    def _absorbed(self) -> _State:
        """The state, where what the library has put behind the records is one of them."""
        state = self._state
        if state.got.value:
            state = state._replace(filled=state.filled + state.got.value, got=c_size_t())
            self._state = state
        return state

    def _gather(self, deadline: Optional[float], at_least: int) -> None:
        """Waits for blocks, and sorts the records that come meanwhile by what they are."""
        while self._state.blocks.count == self._known["blocks"]:
            restarts = self._state.restarts
            if restarts > self._known["restarts"]:
                self._known["restarts"] = restarts
                raise _library.failure(_errors.RESTARTED)
            self._read(deadline, at_least)
            came = self._state.filled > self._state.given
            self._state = _sorted(self._state)
            if not came and (at_least == 0 or (deadline is not None and time.monotonic() >= deadline)):
                break

    # -------------------------------------------------------------------------------------------- statistics

    def statistics(self) -> Statistics:
        """Counts of the line and the queue since the dongle was opened."""
        counts = _library.Statistics()
        check(lib.velmora_get_statistics(self._pointer, counts))
        return Statistics(*(getattr(counts, name) for name in Statistics._fields))

    def channel_statistics(self, headset: int) -> Dict[int, ChannelStatistics]:
        """Counts since start() of a headset's channels that had packets; 16 stands for packets of several channels. Raises
        NotFound for a number that no headset has."""
        counts = _library.HeadsetStatistics()
        status = lib.velmora_get_headset_statistics(self._pointer, number("headset", headset, 0, 2**31 - 1), counts)
        if status == _errors.NOT_FOUND:
            raise _library.failure(status, f"No headset has the number {headset}: headsets() lists those that were met.")
        check(status)
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
