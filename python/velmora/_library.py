"""The shared library: where it is, its functions and structs as velmora.h declares them, and calls that wait."""
from __future__ import annotations

import atexit
import ctypes
import operator
import os
import re
import sys
import threading
import time
import warnings
import weakref
from ctypes import POINTER, c_char, c_char_p, c_double, c_int32, c_int64, c_size_t, c_uint8, c_uint16, c_uint32
from ctypes import c_uint64, c_void_p
from pathlib import Path
from typing import Any, Callable, Dict, Iterator, List, Optional, Set, Tuple

import numpy as np

from . import _errors

SLICE = 0.05
"""Seconds that a wait goes on before Python looks for a Ctrl-C."""
FIND_ALL_PORTS = ALLOW_UNPROVED = KNOWN_TEXTS = 1
CHANNELS = 17
VERSION = "0.1."
"""What the library's version begins with."""


class _Struct(ctypes.Structure):
    def __init__(self) -> None:
        super().__init__()
        if self._fields_[0][0] == "size":
            self.size = ctypes.sizeof(self)


class ErrorDetail(_Struct):
    _fields_ = [("size", c_uint32), ("status", c_int32), ("system_code", c_int32), ("reserved", c_uint32),
                ("text", c_char * 496)]


class Port(_Struct):
    _fields_ = [("path", c_char * 256), ("description", c_char * 128), ("usb_serial", c_char * 128),
                ("usb_vendor", c_uint16), ("usb_product", c_uint16), ("flags", c_uint32), ("status", c_int32),
                ("system_code", c_int32), ("text", c_char * 240)]


class FindOptions(_Struct):
    _fields_ = [("size", c_uint32), ("flags", c_uint32), ("reserved", c_uint32 * 6)]


class OpenOptions(_Struct):
    _fields_ = [("size", c_uint32), ("flags", c_uint32), ("queue_capacity", c_uint32), ("command_gap_ms", c_uint32),
                ("log", c_void_p), ("log_context", c_void_p), ("reserved", c_uint32 * 4)]


class Found(_Struct):
    _fields_ = [("address", c_char * 16), ("name", c_char * 56), ("option", c_int32), ("headset", c_int32)]


class Wanted(_Struct):
    _fields_ = [("address", c_char * 16), ("option", c_int32), ("status", c_int32), ("headset", c_int32),
                ("index", c_int32)]


class Headset(_Struct):
    _fields_ = [("address", c_char * 16), ("name", c_char * 56), ("number", c_int32), ("index", c_int32),
                ("connected", c_int32), ("reserved", c_uint32)]


class Statistics(_Struct):
    _fields_ = [("size", c_uint32), ("reserved", c_uint32)] + [(name, c_uint64) for name in (
        "bytes", "stray_bytes", "damaged_headers", "incomplete_frames", "texts", "raw", "processed", "battery",
        "responses", "events", "queue_capacity", "queue_largest", "queue_dropped", "commands")]


class ChannelStatistics(_Struct):
    _fields_ = [("packets", c_uint64), ("lost", c_uint64), ("repeated", c_uint64), ("damaged_counters", c_uint64),
                ("dropped", c_uint64), ("rate", c_double)]


class HeadsetStatistics(_Struct):
    _fields_ = [("size", c_uint32), ("headset", c_int32), ("channels", ChannelStatistics * CHANNELS)]


RECORD = np.dtype([
    ("kind", "u2"), ("flags", "u2"), ("headset", "i2"), ("index", "i2"), ("time", "i8"), ("sample", "i8"),
    ("lost", "u4"), ("dropped", "u4"), ("channel", "u2"), ("channels", "u2"), ("count", "u2"), ("counter", "u1"),
    ("code", "u1"), ("bytes", "u1", 16), ("values", "u4", 8), ("samples", "i2", 112), ("reserved", "u4", 2)])
"""The library's record, 320 bytes. velmora.h says what each member means."""


def _candidates() -> Iterator[str]:
    chosen = os.environ.get("VELMORA_LIBRARY")
    if chosen:
        yield chosen
        return
    here = Path(__file__).resolve().parent
    name, preset = ("velmora.dll", "windows") if sys.platform == "win32" else ("libvelmora.so", "linux")
    for path in (here / name, here.parent.parent / "build" / preset / name):
        if path.exists():
            yield str(path)
    yield "velmora.dll" if sys.platform == "win32" else "libvelmora.so.0"


def _load() -> ctypes.CDLL:
    failures = []
    for candidate in _candidates():
        try:
            return ctypes.CDLL(candidate)
        except OSError as failure:
            failures.append(str(failure))
    raise ImportError("velmora's shared library cannot be loaded; build it, or name it in VELMORA_LIBRARY: "
                      + "; ".join(failures))


lib = _load()

_list = [c_size_t, c_size_t, POINTER(c_size_t)]
_end = [c_void_p, POINTER(ErrorDetail)]
for _name, _result, _arguments in (
    ("version", c_char_p, []),
    ("status_text", c_char_p, [c_int32]),
    ("now", c_int64, []),
    ("cancel_create", c_int32, [POINTER(c_void_p)]),
    ("cancel_raise", None, [c_void_p]),
    ("cancel_destroy", None, [c_void_p]),
    ("ports", c_int32, [POINTER(Port), *_list, POINTER(ErrorDetail)]),
    ("find", c_int32, [POINTER(FindOptions), POINTER(Port), *_list, *_end]),
    ("open", c_int32, [c_char_p, POINTER(OpenOptions), POINTER(c_void_p), POINTER(ErrorDetail)]),
    ("reopen", c_int32, [c_void_p, c_int32, *_end]),
    ("close", None, [c_void_p]),
    ("destroy", None, [c_void_p]),
    ("scan", c_int32, [c_void_p, c_void_p, POINTER(Found), *_list, c_int32, *_end]),
    ("connect", c_int32, [c_void_p, POINTER(Wanted), c_size_t, c_size_t, c_uint32, c_int32, *_end]),
    ("drop", c_int32, [c_void_p, c_char_p, c_int32, *_end]),
    ("drop_all", c_int32, [c_void_p, c_uint32, POINTER(ErrorDetail)]),
    ("headsets", c_int32, [c_void_p, POINTER(Headset), *_list]),
    ("send", c_int32, [c_void_p, c_int32, c_uint8, c_char_p, c_size_t, c_uint32, POINTER(ErrorDetail)]),
    ("request", c_int32, [c_void_p, c_int32, c_uint8, c_char_p, c_size_t, c_uint32, c_void_p, c_int32, *_end]),
    ("start", c_int32, [c_void_p, POINTER(c_int64), POINTER(c_int64)]),
    ("stop", c_int32, [c_void_p]),
    ("read", c_int32, [c_void_p, c_void_p, c_size_t, c_size_t, c_size_t, c_int32, c_void_p, POINTER(c_size_t)]),
    ("get_statistics", c_int32, [c_void_p, POINTER(Statistics)]),
    ("get_headset_statistics", c_int32, [c_void_p, c_int32, POINTER(HeadsetStatistics)]),
):
    _function = getattr(lib, "velmora_" + _name)
    _function.restype, _function.argtypes = _result, _arguments

if not lib.velmora_version().startswith(VERSION.encode()):
    raise ImportError(f"this package needs velmora {VERSION}x, and found {lib.velmora_version().decode()}")


def failure(status: int, text: str = "", system_code: int = 0) -> Exception:
    if status == _errors.NO_MEMORY:
        return MemoryError(text)
    text = text or _errors.TEXTS.get(status) or lib.velmora_status_text(status).decode()
    return _errors.BY_STATUS.get(status, _errors.Error)(text, status, system_code)


def check(status: int, detail: ErrorDetail | None = None) -> None:
    if status != _errors.OK:
        raise failure(status, detail.text.decode("utf-8", "replace"), detail.system_code) if detail else failure(status)


def number(name: str, value: Any, least: int, most: int) -> int:
    """The value as a whole number of that range; ctypes would cut others. Raises Invalid."""
    try:
        whole = operator.index(value)
    except TypeError:
        whole = least - 1
    if not least <= whole <= most:
        raise failure(_errors.INVALID, f"{name} is {value!r}: it has to be a whole number from {least:,} to {most:,}.")
    return whole


def address(value: Any) -> bytes:
    """The address of whatever has one, or is one, as the library takes it. Raises Invalid."""
    text = getattr(value, "address", value)
    plain = text.replace(":", "") if isinstance(text, str) else ""
    if not re.fullmatch("[0-9A-Fa-f]{12}", plain):
        raise failure(_errors.INVALID, f"{text!r} is no address: it has to be 12 hexadecimal digits.")
    return plain.encode()


def octets(value: Any) -> bytes:
    """The bytes of a payload. Raises Invalid."""
    try:
        if not isinstance(value, (int, str)):  # of which bytes() makes zeros, or nothing
            return bytes(value)
    except (TypeError, ValueError):
        pass
    raise failure(_errors.INVALID, f"The payload is {value!r}: it has to be bytes.")


def milliseconds(seconds: Optional[float]) -> int:
    return -1 if seconds is None else round(1000 * min(max(0, seconds), 2e6))


class Cancel:
    """Ends a call that waits."""

    def __init__(self) -> None:
        self.pointer = c_void_p()
        check(lib.velmora_cancel_create(ctypes.byref(self.pointer)))

    def cancel(self) -> None:
        lib.velmora_cancel_raise(self.pointer)

    def __del__(self, destroy: Callable[[c_void_p], None] = lib.velmora_cancel_destroy) -> None:
        destroy(self.pointer)


_inside: Dict[Cancel, Optional[Handle]] = {}
"""The calls that wait, each with its handle. They are held here, so that whoever cancels them finds them whole."""
_handles: Set[weakref.ref[Handle]] = set()
"""All handles. A plain set, because another thread may add one while it is copied, which a WeakSet does not bear."""


class Handle:
    """A dongle of the library. Freed when nobody holds it any more, so never while a call is inside."""

    def __init__(self) -> None:
        self.pointer: Optional[c_void_p] = c_void_p()  # None when it is for others, or nobody, to free
        self.process = os.getpid()
        self.open = False  # a program has it, and has not closed it
        self.may_leave_headsets = False  # at the dongle, should the program end now
        _handles.add(weakref.ref(self, _handles.discard))

    def cancel(self) -> None:
        for cancel in list(_inside):
            if _inside.get(cancel) is self:
                cancel.cancel()

    def drop(self, pointer: c_void_p) -> None:
        """Frees the headsets that were asked for, as soon as the call that has the dongle's attention has ended."""
        until = time.monotonic() + 3  # more than a command takes to go out
        while self.may_leave_headsets:
            busy = lib.velmora_drop_all(pointer, ALLOW_UNPROVED, None) == _errors.BUSY
            self.may_leave_headsets = busy and time.monotonic() < until
            if self.may_leave_headsets:
                time.sleep(SLICE / 10)

    def close(self) -> None:
        self.open, pointer = False, self.pointer
        if not pointer:
            return
        try:
            self.cancel()
            if self.may_leave_headsets:
                waiting(lambda *_: self.drop(pointer) or _errors.OK)
        finally:
            lib.velmora_close(pointer)

    def __del__(self, warn: Callable[..., None] = warnings.warn,
                destroy: Callable[[c_void_p], None] = lib.velmora_destroy,
                process: Callable[[], int] = os.getpid) -> None:
        # Nobody is inside. This may be any thread at any moment, so nothing here takes a lock or begins a thread. At the
        # interpreter's end _leave may find the handle again, and closes what it finds; a forked child has a mere copy.
        pointer, self.pointer = self.pointer, None
        if not pointer or _leaving or self.process != process():
            return
        try:
            if self.open:
                self.drop(pointer)
        finally:
            destroy(pointer)
        if self.open:
            warn("a velmora.Dongle was not closed", ResourceWarning)


_leaving = False


def _leave() -> None:
    """The interpreter ends: so do all calls and dongles, whatever becomes of one of them."""
    global _leaving
    _leaving = True
    for cancel in list(_inside):
        cancel.cancel()
    for reference in list(_handles):
        handle = reference()
        try:
            if handle is not None:
                handle.close()
        except BaseException:
            pass


def _forget() -> None:
    """In a forked child: what it has of the library's objects belongs to its parent, and is not even freed."""
    for cancel in _inside:
        cancel.pointer = None
    for handle in filter(None, [reference() for reference in list(_handles)]):
        handle.pointer, handle.open = None, False
    _inside.clear()


atexit.register(_leave)
if hasattr(os, "register_at_fork"):
    os.register_at_fork(after_in_child=_forget)


def waiting(call: Callable[..., int], handle: Optional[Handle] = None, passes: Tuple[int, ...] = ()) -> int:
    """The status of call(cancel, detail), which waits for the dongle, and so runs on a thread of its own: Ctrl-C ends it
    at once, and closing the handle does. Raises for every status but OK and those that the caller lets pass."""
    cancel, detail, done, status = Cancel(), ErrorDetail(), threading.Event(), []  # type: ignore[var-annotated]

    def work() -> None:
        _inside[cancel] = handle
        try:
            closed = handle is not None and not handle.open
            status.append(_errors.CLOSED if closed else call(cancel.pointer, detail))
        except BaseException as error:  # an argument that ctypes does not take
            status.append(error)
        _inside.pop(cancel, None)
        done.set()

    try:
        try:
            threading.Thread(target=work, name="velmora", daemon=True).start()
        except RuntimeError:  # at the interpreter's end no thread begins any more
            work()
        while not done.wait(SLICE):
            pass
    except BaseException:
        cancel.cancel()
        done.wait(2 * SLICE)
        raise
    if isinstance(status[0], BaseException):
        raise status[0]
    if status[0] == _errors.CANCELLED and handle is not None and not handle.open:
        raise failure(_errors.CLOSED)
    if status[0] not in passes:
        check(status[0], detail)
    return status[0]


def every(kind: type, call: Callable[..., int]) -> List[_Struct]:
    """All elements of one of the library's lists; call(elements, stride, capacity, count)."""
    capacity = 64
    while True:
        elements, count = (kind * capacity)(), c_size_t()
        check(call(elements, ctypes.sizeof(kind), capacity, ctypes.byref(count)))
        if count.value <= capacity:
            return list(elements[: count.value])
        capacity = count.value
