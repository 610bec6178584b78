"""The page in a browser, against virtual dongles: browser_test.py VELMORA VELMORA_DONGLE [TEST...]"""
import csv
import math
import os
import shutil
import signal as signal_numbers
import subprocess
import sys
import time

from chromium import Chromium
from programs import Setting, eventually

PERIOD = 1024  # samples after which the virtual headset's signal repeats
PACKET = 112


def signal(number, device, channel):
    """What the virtual headset sends as its sample `number`."""
    wave = round(8000 * math.sin(2 * math.pi * (number * (channel + 1) % 256) / 256))
    return wave + 8 * (number % PERIOD) + 512 * device + 32 * channel


def channels(page):
    return page.run("velmora.channels()")


def close(value, wanted):
    return abs(value - wanted) <= 1  # of the two languages' roundings


# The trace of a strip at samples of the screen: where it has to be, what is there, and the sample's value. Pixels of the
# trace are opaque, shades are not.
TRACE = """(async () => {
    const [address, number] = %s;
    dispatchEvent(new Event("resize"));  // a whole new picture: paused, its scale may have been about to change
    for (let i = 0; i < 3; ++i) await new Promise(requestAnimationFrame);
    const end = Math.max(...velmora.ends(address));
    const card = [...document.querySelectorAll(".card")].find((one) => one.headset.address === address);
    const canvas = card.querySelector("canvas");
    const pixels = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height).data;
    const at = (x, y) => [...pixels.slice(4 * (y * canvas.width + x), 4 * (y * canvas.width + x) + 4)];
    const found = [];
    for (let sample = Math.max(0, end - %d); sample < end; sample += 5) {
        const place = velmora.place(address, number, sample);
        if (!place.onScreen) continue;
        const y = place.top + place.height / 2 - (place.value - place.centre) * (place.height / 2 - 0.5) / place.span;
        let nearest = 1e9;
        for (let dx = -3; dx <= 3; ++dx) {
            for (let dy = -6; dy <= 6; ++dy) {
                const [px, py] = [Math.round(place.x) + dx, Math.round(y) + dy];
                if (px >= 0 && px < canvas.width && py >= place.top && py < place.top + place.height &&
                    at(px, py)[3] > 100) {
                    nearest = Math.min(nearest, Math.hypot(px + 0.5 - place.x, py + 0.5 - y));
                }
            }
        }
        const corner = at(Math.min(Math.round(place.x), canvas.width - 1), Math.ceil(place.top) + 1);
        found.push({ sample, nearest, value: place.value, corner });
    }
    return found;
})()"""


def trace(page, channel, samples=6000):
    return page.run(TRACE % (f"[{channel['address']!r}, {channel['channel']}]", samples))


def account(folder):
    """Packets that a host has read, and those that were lost on purpose, of each headset and channel."""
    whole, lost = {}, {}
    with open(os.path.join(folder, "account"), encoding="ascii", newline="") as file:
        for line in csv.DictReader(file):
            if line["kind"] == "raw":
                key = line["headset"], int(line["channel"])
                counts = whole if line["outcome"] == "whole" else lost
                counts[key] = counts.get(key, 0) + 1
    return whole, lost


def viewing(browser, setting, dongle, *options):
    setting.plug(*dongle, "--quiet")
    page = browser.page()
    page.open(setting.serve("view", *options))
    return page


def test_shows_every_packet_and_every_loss(browser, setting):
    """From the first packet on: the page is there before the headsets are."""
    setting.plug("--headsets", "2", "--channels", "4", "--rate", "250", "--packing", "single", "--lose-every", "23",
                 "--scan-duration", "3000", "--battery-interval", "1000", "--account", "account", "--quiet")
    page = browser.page()
    page.size(1280, 800)
    page.open(setting.serve("view"))
    page.sees("!document.getElementById('empty').hidden", "that it waits for headsets")
    page.sees("velmora.channels().length === 8", "all channels")
    page.press("]")
    page.press("]")
    page.sees("velmora.channels().every((one) => one.packets > 25)", "data", 60)
    page.sees("/lost [1-9]/.test(document.querySelector('.loss').textContent)", "the share of losses")
    page.sees("document.querySelector('.rate').textContent === '250/s'", "the rate")
    page.sees("/bat. \\d+/.test(document.querySelector('.battery').textContent)", "the battery")
    setting.dongle.end()
    gone = "/is gone/.test(document.getElementById('banner').textContent)"
    page.sees(gone, "that the dongle is gone")
    latecomer = browser.page()
    latecomer.open(setting.address())
    latecomer.sees(gone, "what happened before this page came")
    page.to_front()
    whole, lost = account(setting.folder)
    for channel in channels(page):
        key = channel["address"], channel["channel"]
        assert channel["packets"] == whole[key], f"{key}: {channel['packets']} packets of {whole[key]}"
        assert channel["missing"] in (lost.get(key, 0), lost.get(key, 0) - 1), (channel["missing"], lost)  # or the last
    eventually(lambda: all(one["drawn"] == one["packets"] * PACKET for one in channels(page)), "that all is drawn")
    page.press(" ")  # what is on the screen stays there
    shaded = 0
    for channel in channels(page):
        points = trace(page, channel)
        assert len(points) > 200, len(points)
        in_gap = [point for point in points if any(gap["from"] + 10 < point["sample"] < gap["to"] - 10
                                                   for gap in channel["gaps"])]
        drawn = [point for point in points if not any(gap["from"] - 10 <= point["sample"] <= gap["to"] + 10
                                                      for gap in channel["gaps"])]
        device = int(channel["address"][-1])
        start = next((n for n in range(PERIOD) if all(
            close(point["value"], signal(point["sample"] + n, device, channel["channel"])) for point in drawn)), None)
        assert start is not None, f"not the signal of {channel['address']}, channel {channel['channel']}: {drawn[:5]}"
        near = sum(point["nearest"] < 5 for point in drawn)
        assert near > 0.98 * len(drawn), f"{near} of {len(drawn)} points are on the strip"
        for gap in channel["gaps"]:
            assert gap["kind"] == "lost" and (gap["to"] - gap["from"]) % PACKET == 0, gap
        for point in in_gap:
            red, green, blue, opaque = point["corner"]
            assert 30 < opaque < 200 and red > green + 30 and red > blue + 30, point
            shaded += 1
        assert sum(point["corner"][3] > 0 for point in drawn) < 0.1 * len(drawn), "shaded where nothing is lost"
    assert shaded > 0, "no loss was on the screen"
    print(f"  {sum(whole.values())} packets drawn, {shaded} points of losses found shaded")
    assert not page.errors, page.errors


def test_pauses_and_goes_on(browser, setting):
    page = viewing(browser, setting, ["--headsets", "1", "--channels", "1", "--rate", "20000"], "--clients", "1")
    page.sees("velmora.channels().some((one) => one.drawn > 50000)", "data")
    page.press("[")
    page.press("[")
    page.press(" ")
    page.sees("velmora.state().paused && document.getElementById('state').textContent === 'paused'")
    picture = "document.querySelector('canvas').toDataURL()"
    before, packets = page.run(picture), channels(page)[0]["packets"]
    page.sees(f"velmora.channels()[0].packets > {packets + 5}", "data behind the pause")
    assert page.run(picture) == before, "paused, and yet it moves"
    anew = f"(async () => {{ dispatchEvent(new Event('resize')); await new Promise(requestAnimationFrame); return {picture}; }})()"
    stays = page.run(anew)
    page.sees(f"velmora.channels()[0].packets > {packets + 1300}", "more data than a channel keeps")
    assert page.run(anew) == stays, "what is kept is not what was on the screen"
    another = browser.page()
    another.open(setting.address())
    another.sees("/As many look on as may/.test(document.getElementById('banner').textContent)", "why it gets nothing")
    page.to_front()
    page.run("document.getElementById('pause').click()")
    eventually(lambda: page.run(picture) != before, "that it goes on")
    drawn = channels(page)[0]["drawn"]
    page.sees(f"velmora.channels()[0].drawn > {drawn + 20000}", "new data on the screen")
    assert page.run("velmora.state().skipped") == 0
    assert not page.errors, page.errors


def test_goes_on_with_channels_that_came_in_a_pause(browser, setting):
    page = viewing(browser, setting, ["--headsets", "2", "--channels", "2", "--rate", "50", "--packing", "single"])
    page.sees("document.getElementById('empty').hidden", "the headsets")
    page.press(" ")
    page.sees("velmora.channels().length === 4", "data in the pause")
    page.press(" ")
    page.sees("[...document.querySelectorAll('.names')].every((one) => one.children.length === 2)", "all strips")
    page.sees("velmora.channels().every((one) => one.drawn > 100)", "their data")
    assert page.run("velmora.state().link === 'open' && document.getElementById('banner').hidden")
    assert not page.errors, page.errors


def test_chooses_headsets_channels_scale_and_time(browser, setting):
    page = viewing(browser, setting, ["--headsets", "3", "--channels", "8", "--rate", "250"])
    page.sees("velmora.channels().length === 24 && velmora.channels().every((one) => one.span > 0)", "all channels")
    page.press("2")
    page.sees("[...document.querySelectorAll('.card')].map((one) => one.hidden).join() === 'false,true,false'")
    page.press("0")
    page.sees("[...document.querySelectorAll('.card')].every((one) => !one.hidden)")
    page.run("document.querySelectorAll('.channels input')[5].click()")
    page.sees("document.querySelector('.names').children.length === 7")
    page.press("+")
    page.sees("document.getElementById('gain').value === '2000' && velmora.channels()[0].span === 2000")
    page.press("a")
    page.sees("document.getElementById('gain').value === '0' && velmora.channels()[0].span > 4000")
    page.press("[")
    page.sees("document.getElementById('seconds').value === '5'")
    page.run("document.getElementById('seconds').focus()")
    page.press("]")
    page.sees("document.getElementById('seconds').value === '10'", "keys while a list has the focus")
    page.press("?")
    page.sees("document.getElementById('help').open")
    assert not page.errors, page.errors


def test_marks_reach_the_recording_and_every_page(browser, setting):
    setting.plug("--headsets", "2", "--channels", "4", "--rate", "250", "--quiet")
    pages = [browser.page(), browser.page()]
    pages[0].open(setting.serve("record", "--view", "-o", "take", "--rate", "250", "--mark", "b=blink", "--mark", "t=talk"))
    pages[0].sees("document.getElementById('state').textContent.includes('recording')")
    pages[1].open(setting.velmora.says(r"one more browser: (\S+)"))
    for page in pages:
        page.sees("velmora.channels().some((one) => one.packets > 3)", "data")
    pages[0].run("document.getElementById('gain').focus()")
    pages[0].press("b")
    pages[1].run("document.querySelectorAll('#marks button')[1].click()")
    for page in pages:
        page.sees("['mark: blink', 'mark: talk'].every((one) => document.getElementById('log-list').textContent.includes(one))")
    ends = [{(one["address"], one["channel"]) for one in channels(page)} for page in pages]
    assert ends[0] == ends[1] and len(ends[0]) == 8
    assert setting.velmora.end() == 0
    for page in pages:
        page.sees("/the recording has ended/.test(document.getElementById('banner').textContent)")
    for number in (1, 2):
        with open(os.path.join(setting.folder, f"take-A1B2C3D4E50{number}.edf"), "rb") as file:
            recording = file.read()
        assert recording.count(b"\x14blink\x14") == 1 and recording.count(b"\x14talk\x14") == 1
    assert "skipped" not in setting.velmora.text()


def test_says_that_velmora_is_silent_and_goes_on(browser, setting):
    page = viewing(browser, setting, ["--headsets", "1", "--channels", "4", "--rate", "250"])
    page.sees("velmora.channels().some((one) => one.packets > 3)", "data")
    setting.velmora.process.send_signal(signal_numbers.SIGSTOP)
    page.sees("/Nothing comes/.test(document.getElementById('banner').textContent)", "the silence")
    setting.velmora.process.send_signal(signal_numbers.SIGCONT)
    page.sees("document.getElementById('banner').hidden && velmora.state().link === 'open'", "that it goes on")
    assert not page.errors, page.errors


def test_says_that_the_dongle_restarts_and_goes_on(browser, setting):
    page = viewing(browser, setting, ["--headsets", "2", "--channels", "4", "--rate", "250", "--restart-after", "6000",
                                      "--connect-duration", "1000"])
    page.sees("velmora.channels().some((one) => one.packets > 3)", "data")
    page.sees("/restarted/.test(document.getElementById('banner').textContent)", "the restart", 60)
    page.sees("document.getElementById('banner').hidden", "that it goes on", 60)
    page.sees("velmora.channels().every((one) => one.gaps.some((gap) => gap.kind === 'away'))", "when they were away", 60)
    latecomer = browser.page()
    latecomer.open(setting.address())
    latecomer.sees("velmora.channels().length === 8", "data")
    assert "restarted" not in latecomer.run("document.getElementById('log-list').textContent"), "what is long past"
    setting.velmora.end()
    page.sees("/has ended/.test(document.getElementById('banner').textContent)", "the end")


def luminance(colour):
    parts = [int(part) / 255 for part in colour[colour.index("(") + 1:colour.index(")")].split(",")[:3]]
    red, green, blue = ((part / 12.92 if part <= 0.03928 else ((part + 0.055) / 1.055) ** 2.4) for part in parts)
    return 0.2126 * red + 0.7152 * green + 0.0722 * blue


def test_is_readable_in_light_and_dark_and_at_every_width(browser, setting):
    setting.plug("--headsets", "16", "--channels", "8", "--rate", "100", "--quiet")
    page = browser.page()
    page.open(setting.serve("record", "--view", "-o", "take", "--rate", "100", "--mark", "b=blink"))
    page.sees("velmora.channels().length === 128", "all channels", 60)
    grounds = set()
    for scheme in ("light", "dark"):
        page.scheme(scheme)
        ground = page.run("getComputedStyle(document.body).backgroundColor")
        grounds.add(ground)
        for what in ("h1", ".title h2", ".title .figures", ".chips button", ".clock", "footer", ".names b"):
            ink = page.run(f"getComputedStyle(document.querySelector({what!r})).color")
            light, dark = sorted((luminance(ink), luminance(ground)), reverse=True)
            assert (light + 0.05) / (dark + 0.05) > 4.5, f"{what} in {scheme}: {ink} on {ground}"
    assert len(grounds) == 2, "light and dark look the same"
    for width, height in ((360, 740), (1280, 800), (2560, 1440)):
        page.size(width, height, width < 500)
        page.sees(f"document.documentElement.scrollWidth <= {width}", f"that all fits into {width}")
        outside = page.run("""[...document.querySelectorAll("header button, header select")].filter((one) => {
            const box = one.getBoundingClientRect();
            return box.width < 20 || box.right > innerWidth || box.left < 0;
        }).length""")
        assert outside == 0, f"{outside} controls are cut at {width}"
    page.sees("document.querySelector('main').getBoundingClientRect().bottom <= innerHeight", "all headsets on a wall")
    assert not page.errors, page.errors


def test_example_clients(_, setting):
    setting.plug("--headsets", "2", "--channels", "4", "--rate", "4000", "--quiet")
    setting.serve("view")
    examples = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../examples")
    commands = [[sys.executable, f"{examples}/view_client.py"]]
    node = shutil.which("node")
    if node and subprocess.run([node, "--experimental-websocket", "-e", "new WebSocket"], capture_output=True,
                               check=False).stderr.find(b"TypeError") >= 0:
        commands.append([node, "--experimental-websocket", f"{examples}/view_client.mjs"])
    else:
        print("  no Node.js that has WebSocket: the client in JavaScript is not run")
    for command in commands:
        client = subprocess.Popen([*command, setting.address()], stdout=subprocess.PIPE, text=True)
        try:
            lines = [client.stdout.readline() for _ in range(6)]
            assert "headset 1: A1B2C3D4E502 XAI-02\n" in lines, lines
            assert any(line.startswith("headset 0, channel ") and line.endswith(" ...\n") for line in lines), lines
        finally:
            client.kill()
            client.wait()


def main(velmora, dongle, *chosen):
    tests = {name: test for name, test in globals().items() if name.startswith("test_")}
    failed = []
    with Chromium() as browser:
        for name, test in tests.items():
            if chosen and name not in chosen:
                continue
            began = time.monotonic()
            with Setting(os.path.abspath(velmora), os.path.abspath(dongle)) as setting:
                try:
                    test(browser, setting)
                    result = "passed"
                except Exception as error:  # the others have their turn
                    result = f"FAILED: {type(error).__name__}: {error}"
                    failed.append(name)
            print(f"{name}: {result} ({time.monotonic() - began:.1f} s)", flush=True)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
