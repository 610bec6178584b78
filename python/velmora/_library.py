"""The shared library: where it is, its functions and structs as velmora.h declares them, and calls that wait."""
from __future__ import annotations

import atexit
import ctypes
import os
import sys
import threading
import weakref
from ctypes import POINTER, c_char, c_char_p, c_double, c_int32, c_int64, c_size_t, c_uint8, c_uint16, c_uint32
from ctypes import c_uint64, c_void_p
from pathlib import Path
from typing import Callable, Iterator, List

import numpy as np

from . import _errors

SLICE = 0.05
"""Seconds that a wait goes on before Python looks for a Ctrl-C."""


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
    _fields_ = [("size", c_uint32), ("headset", c_int32), ("channels", ChannelStatistics * 17)]


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

if not lib.velmora_version().startswith(b"0.1."):
    raise ImportError(f"this package needs velmora 0.1, and found {lib.velmora_version().decode()}")


def failure(status: int, text: str = "", system_code: int = 0) -> Exception:
    if status == _errors.NO_MEMORY:
        return MemoryError(text)
    kind = _errors.BY_STATUS.get(status, _errors.Error)
    return kind(text or lib.velmora_status_text(status).decode(), status, system_code)


def check(status: int, detail: ErrorDetail | None = None) -> None:
    if status != _errors.OK:
        raise failure(status, detail.text.decode("utf-8", "replace"), detail.system_code) if detail else failure(status)


class Cancel:
    """Ends calls that wait. It lives as long as a call uses it, because the call holds it."""

    def __init__(self) -> None:
        self.pointer = c_void_p()
        check(lib.velmora_cancel_create(ctypes.byref(self.pointer)))
        _cancels.add(self)

    def cancel(self) -> None:
        if self.pointer:
            lib.velmora_cancel_raise(self.pointer)

    def __del__(self, destroy: Callable[[c_void_p], None] = lib.velmora_cancel_destroy) -> None:
        # While this runs a weak reference still finds the object, and the end of the program cancels all it finds.
        pointer, self.pointer = self.pointer, None
        destroy(pointer)


class Handle:
    """An open dongle of the library. Freed when nobody holds it any more, so never while a call is inside."""

    def __init__(self) -> None:
        self.pointer = c_void_p()

    def __del__(self, destroy: Callable[[c_void_p], None] = lib.velmora_destroy) -> None:
        destroy(self.pointer)


_cancels: "weakref.WeakSet[Cancel]" = weakref.WeakSet()


def _cancel_all() -> None:
    for cancel in list(_cancels):
        cancel.cancel()


atexit.register(_cancel_all)


def waiting(call: Callable[..., int]) -> int:
    """The status of call(cancel, detail), which waits for the dongle, and so runs on a thread of its own: Ctrl-C ends it
    at once. Raises for every status but OK and NOT_CONNECTED, about which the call's own results say more."""
    cancel, detail, done, status = Cancel(), ErrorDetail(), threading.Event(), []  # type: ignore[var-annotated]

    def work() -> None:
        try:
            status.append(call(cancel.pointer, detail))
        except BaseException as error:  # an argument that ctypes does not take
            status.append(error)
        done.set()

    try:
        threading.Thread(target=work, name="velmora", daemon=True).start()
        while not done.wait(SLICE):
            pass
    except BaseException:
        cancel.cancel()
        done.wait(2 * SLICE)
        raise
    if isinstance(status[0], BaseException):
        raise status[0]
    if status[0] != _errors.NOT_CONNECTED:
        check(status[0], detail)
    return status[0]


def milliseconds(seconds: float | None) -> int:
    return -1 if seconds is None else min(max(0, round(seconds * 1000)), 2**31 - 1)


def every(kind: type, call: Callable[..., int]) -> List[_Struct]:
    """All elements of one of the library's lists; call(elements, stride, capacity, count)."""
    capacity = 64
    while True:
        elements, count = (kind * capacity)(), c_size_t()
        check(call(elements, ctypes.sizeof(kind), capacity, ctypes.byref(count)))
        if count.value <= capacity:
            return list(elements[: count.value])
        capacity = count.value
