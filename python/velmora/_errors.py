"""The exceptions of this package: one family, one class for each reason that the library gives."""
from __future__ import annotations

from typing import Dict, Type


class Error(Exception):
    """Something failed. Its text says what happened and what to do about it.

    status: the library's number of the reason. system_code: errno or GetLastError(), or 0.
    """

    def __init__(self, text: str, status: int, system_code: int = 0) -> None:
        super().__init__(text)
        self.status = status
        self.system_code = system_code


class Timeout(Error, TimeoutError):
    """The time given was not enough."""


class Cancelled(Error):
    """The call was ended from outside."""


class Busy(Error):
    """Another call has the dongle's attention, or headsets are connected already."""


class Closed(Error):
    """The dongle was closed."""


class Gone(Error):
    """The dongle was unplugged or its port hung up; see Dongle.reopen."""


class Restarted(Error):
    """The dongle restarted, all headsets are disconnected. The dongle stays open: connect again."""


class NotFound(Error):
    """No such port, no dongle, or no such headset."""


class Forbidden(Error):
    """The system does not let this user open the port."""


class Held(Error):
    """Another program holds the port."""


class NotADongle(Error):
    """The port opened, but nothing answered as a dongle does."""


class NotConnected(Error):
    """The headset is not connected, or the attempt to connect it failed."""


class NotAddressable(Error):
    """The protocol has no text that reaches this index alone."""


class Invalid(Error, ValueError):
    """An argument is wrong."""


(OK, TIMEOUT, CANCELLED, BUSY, CLOSED, GONE, RESTARTED, NOT_FOUND, FORBIDDEN, HELD, NOT_A_DONGLE, NOT_CONNECTED,
 NOT_ADDRESSABLE, INVALID, NO_MEMORY, FAILED) = range(16)
BY_STATUS: Dict[int, Type[Error]] = {
    TIMEOUT: Timeout, CANCELLED: Cancelled, BUSY: Busy, CLOSED: Closed, GONE: Gone, RESTARTED: Restarted,
    NOT_FOUND: NotFound, FORBIDDEN: Forbidden, HELD: Held, NOT_A_DONGLE: NotADongle, NOT_CONNECTED: NotConnected,
    NOT_ADDRESSABLE: NotAddressable, INVALID: Invalid,
}
TEXTS: Dict[int, str] = {
    CLOSED: "The dongle is closed, or belongs to the process that this one was forked from: open it again.",
    GONE: "The dongle was unplugged, or its port hung up: plug it in again and call reopen(), then connect().",
    RESTARTED: "The dongle restarted: connect its headsets again.",
}
"""Where the library gives a status alone."""
