"""Makes a wheel that carries the shared library, which has to be built before:

    cmake --preset linux && cmake --build --preset linux --target velmora_wheel_library
    pip install ./python                 # a new build of Windows's: VELMORA_LIBRARY=build/windows/velmora.dll

The wheel's name says which system it is for and which glibc it needs at least.
"""
import os
import pathlib
import re
import shutil
import subprocess
import sysconfig

from setuptools import setup
from setuptools.command.build_py import build_py
from wheel.bdist_wheel import bdist_wheel

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent
VERSION = re.search(r"set\(VELMORA_VERSION (\S+)\)", (ROOT / "cmake/versions.cmake").read_text()).group(1)
LIBRARY = pathlib.Path(os.environ.get("VELMORA_LIBRARY") or ROOT / "build/linux/wheel/libvelmora.so").resolve()


def platform():
    if LIBRARY.suffix == ".dll":
        return "win_amd64"
    machine = sysconfig.get_platform().replace("linux-", "")
    table = subprocess.run(["objdump", "-T", str(LIBRARY)], capture_output=True, text=True, check=True).stdout
    glibc = max(tuple(map(int, numbers)) for numbers in re.findall(r"GLIBC_(\d+)\.(\d+)", table))
    return "manylinux_{}_{}_".format(*glibc) + machine


class Build(build_py):
    def run(self):
        super().run()
        if not LIBRARY.exists():
            raise SystemExit(f"{LIBRARY} is missing: build velmora_wheel_library first, or name it in VELMORA_LIBRARY")
        name = "velmora.dll" if LIBRARY.suffix == ".dll" else "libvelmora.so"
        shutil.copyfile(LIBRARY, pathlib.Path(self.build_lib) / "velmora" / name)


class Wheel(bdist_wheel):
    def finalize_options(self):
        super().finalize_options()
        self.root_is_pure = False

    def get_tag(self):
        return "py3", "none", platform()


setup(version=VERSION, cmdclass={"build_py": Build, "bdist_wheel": Wheel})
