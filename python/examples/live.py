"""Shows the mean and the rate of every channel, once a second, until Ctrl-C. Usage: live.py [PORT]"""
import sys
import time

import velmora


def show(dongle, names, sums):
    for number, channels in sorted(sums.items()):
        for channel, (total, count) in sorted(channels.items()):
            statistics = dongle.channel_statistics(number)
            rate = statistics.get(channel, statistics.get(16)).rate  # 16: packets of several channels
            print(f"{names.get(number, number)} channel {channel:2}: mean {total / count:9.1f}, {rate:7.1f} samples/s")
    print(flush=True)


def main(port=None):
    with velmora.open(port) as dongle:
        names = {headset.number: headset.name or headset.address for headset in dongle.connect()}
        sums, next_time = {}, time.monotonic() + 1
        for block in dongle.blocks(timeout=10):
            channels = sums.setdefault(block.headset, {})
            for column, total in enumerate(block.samples.sum(axis=0, dtype=int)):
                before, count = channels.get(block.channel + column, (0, 0))
                channels[block.channel + column] = before + total, count + len(block.samples)
            if time.monotonic() >= next_time:
                show(dongle, names, sums)
                sums, next_time = {}, next_time + 1


if __name__ == "__main__":
    try:
        main(*sys.argv[1:])
    except KeyboardInterrupt:
        pass
    except velmora.Error as error:
        sys.exit(str(error))
