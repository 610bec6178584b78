"""Records all headsets into one .npz file. Usage: record_npz.py FILE SECONDS [PORT]

For each headset the file holds its samples as float32 of shape (samples, channels), NaN where packets were lost, under
its address, its first packet's time under ADDRESS_utc (nanoseconds since 1970), and its sample rate under ADDRESS_rate.
Ctrl-C ends a recording early. All of it is held in memory until then.
"""
import sys
import time

import numpy as np

import velmora


def matrix(blocks):
    """The blocks of one headset at their places in time."""
    begin = min(block.sample for block in blocks)
    end = max(block.sample + len(block.samples) for block in blocks)
    channels = max(block.channel + block.samples.shape[1] for block in blocks)
    samples = np.full((end - begin, channels), np.nan, np.float32)
    for block in blocks:
        first = block.sample - begin
        samples[first : first + len(block.samples), block.channel : block.channel + block.samples.shape[1]] = block.samples
    return samples


def save(file, dongle, recorded, moment):
    arrays, by_headset = {}, {}
    for block in recorded:
        by_headset.setdefault(block.headset, []).append(block)
    for headset in dongle.headsets():
        blocks = by_headset.get(headset.number)
        if blocks:
            rates = [channel.rate for channel in dongle.channel_statistics(headset.number).values()]
            arrays[headset.address] = matrix(blocks)
            arrays[headset.address + "_utc"] = moment.utc + blocks[0].time - moment.time
            arrays[headset.address + "_rate"] = np.mean(rates)
    np.savez(file, **arrays)
    for address in sorted(name for name in arrays if "_" not in name):
        samples = arrays[address]
        print(f"{address}: {samples.shape[0]} samples of {samples.shape[1]} channels, "
              f"{100 * np.isnan(samples).mean():.2f} % lost")


def main(file, seconds, port=None):
    batches, moment = [], None
    dongle = velmora.open(port)
    try:
        with dongle:
            dongle.connect()
            moment = dongle.start()
            end = time.monotonic() + float(seconds)
            try:
                while time.monotonic() < end:
                    batches.append(dongle.read(timeout=0.2))
            except (KeyboardInterrupt, velmora.Error) as reason:
                print(f"ended early: {str(reason) or 'Ctrl-C'}", file=sys.stderr)
            try:
                dongle.stop()
                batches.append(dongle.read(timeout=0))
                while batches[-1]:
                    batches.append(dongle.read(timeout=0))
            except (KeyboardInterrupt, velmora.Error):
                pass  # a dongle that is gone has nothing left, and who presses Ctrl-C twice wants no more
    finally:  # also when a Ctrl-C ended the closing
        if moment:
            save(file, dongle, [block for batch in batches for block in batch], moment)


if __name__ == "__main__":
    try:
        main(*sys.argv[1:])
    except KeyboardInterrupt:
        pass
    except velmora.Error as error:
        sys.exit(str(error))
