"""velmora: work with wearable multi-channel sensor headsets through their USB dongle.

    import velmora

    with velmora.open() as dongle:           # finds the dongle
        dongle.connect()                     # all headsets that a scan finds
        for block in dongle.blocks():        # block.samples: int16, shape (samples, channels)
            print(block.headset, block.sample, block.samples.mean(axis=0))

Failures are exceptions, all of them velmora.Error, but for what belongs to Python itself: MemoryError when there is no
memory left, TypeError for a time or a path of a wrong type, KeyboardInterrupt.
"""
from ._dongle import (ALL, BATTERY, CONNECTED, DAMAGED_COUNTER, DISCONNECTED, ESTIMATED, EVENT, FIRST, GONE, MULTI,
                      OVERRUN, PROCESSED, RAW, RESPONSE, RESTARTED, Battery, Block, ChannelStatistics, Dongle, Event,
                      Found, Headset, Moment, Port, Processed, Response, Statistics, find, now, open, ports, version)
from ._errors import (Busy, Cancelled, Closed, Error, Forbidden, Gone, Held, Invalid, NotADongle, NotAddressable,
                      NotConnected, NotFound, Restarted, Timeout)
from ._library import RECORD

__all__ = [
    "ALL", "BATTERY", "Battery", "Block", "Busy", "CONNECTED", "Cancelled", "ChannelStatistics", "Closed",
    "DAMAGED_COUNTER", "DISCONNECTED", "Dongle", "ESTIMATED", "EVENT", "Error", "Event", "FIRST", "Forbidden", "Found",
    "GONE", "Gone", "Headset", "Held", "Invalid", "MULTI", "Moment", "NotADongle", "NotAddressable", "NotConnected",
    "NotFound", "OVERRUN", "PROCESSED", "Port", "Processed", "RAW", "RECORD", "RESPONSE", "RESTARTED", "Response",
    "Restarted", "Statistics", "Timeout", "find", "now", "open", "ports", "version",
]
