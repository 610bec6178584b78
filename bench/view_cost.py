#!/usr/bin/python3
"""What drawing the live view costs in a headless Chromium: bench/view_cost.py [SECONDS] [BUILD_FOLDER]

One headset of 16 channels at 1,000 samples a second, on a page of 1,280 by 800. Of 100 pictures 95 take less than what is
printed.
"""
import pathlib
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests/view"))  # which drive a browser as well

from chromium import Chromium  # noqa: E402
from programs import Setting  # noqa: E402


def main(seconds="20", folder=ROOT / "build/linux"):
    folder = pathlib.Path(folder)
    with Chromium() as browser, Setting(folder / "tools/cli/velmora", folder / "dongle/velmora-dongle") as setting:
        setting.plug("--headsets", "1", "--channels", "16", "--rate", "1000", "--quiet")
        page = browser.page()
        page.size(1280, 800)
        page.open(setting.serve("view"))
        page.sees("velmora.channels().length === 16", "all channels")
        time.sleep(3)
        page.run("velmora.restartFigures()")
        time.sleep(float(seconds))
        figures = page.run("velmora.figures()")
        print(f"drawing {figures['costP95']:.2f} ms, from picture to picture {figures['pauseP95']:.1f} ms; "
              f"{figures['frames']} pictures, {page.run('velmora.state().skipped')} packets left out")


if __name__ == "__main__":
    main(*sys.argv[1:])
