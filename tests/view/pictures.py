"""Pictures of the page at work: pictures.py VELMORA VELMORA_DONGLE FOLDER"""
import os
import sys
import time

from chromium import Chromium
from programs import Setting

SIZES = ((1280, 800), (360, 740), (2560, 1440))
SCENES = {
    "four": ("--headsets", "4", "--channels", "8", "--rate", "250", "--packing", "single", "--lose", "0.02",
             "--battery-interval", "2000", "--headset", "3:disconnect-after=9000,rejoin-after=3000"),
    "sixteen": ("--headsets", "16", "--channels", "16", "--rate", "125", "--packing", "single", "--lose", "0.01",
                "--battery-interval", "2000", "--headset", "6:disconnect-after=9000,rejoin-after=60000"),
}


def main(velmora, dongle, folder):
    with Chromium() as browser:
        for name, scene in SCENES.items():
            with Setting(os.path.abspath(velmora), os.path.abspath(dongle)) as setting:
                setting.plug("--quiet", *scene)
                page = browser.page()
                page.size(*SIZES[0])
                page.scheme("light")
                page.open(setting.serve("record", "--view", "-o", "take", "--mark", "b=blink", "--mark", "t=talk",
                                        "--max-loss", "100", "--rate", scene[scene.index("--rate") + 1]))
                page.sees("velmora.state().time > 11", "some seconds of data", 60)
                page.press("b")
                page.sees("velmora.state().time > 14", "some more")
                for scheme in ("light", "dark"):
                    page.scheme(scheme)
                    for width, height in SIZES:
                        page.size(width, height, width < 500)
                        time.sleep(0.7)
                        page.picture(os.path.join(folder, f"{name}-{width}x{height}-{scheme}.png"))


main(*sys.argv[1:])
