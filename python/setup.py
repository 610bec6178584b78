"""Makes a wheel that carries the shared library, which has to be built before:

    cmake --preset linux && cmake --build --preset linux --target velmora_wheel_library
    pip install ./python

VELMORA_LIBRARY names another library; with build/windows/velmora.dll the wheel is one for Windows. The wheel's name says which system it is for and which glibc it needs at least.
"""
import os
import pathlib
import re
import shutil
import subprocess
import sysconfig

from setuptools import Distribution, setup
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
        package = pathlib.Path(self.build_lib) / "velmora"
        shutil.copyfile(LIBRARY, package / name)
        for licences in LIBRARY.parent / "licences", LIBRARY.parent / "packaging/licences":
            if licences.is_dir():
                shutil.copytree(licences, package / "licences", dirs_exist_ok=True)


class Binary(Distribution):
    def has_ext_modules(self):  # the package belongs to one system
        return True


class Wheel(bdist_wheel):
    def get_tag(self):
        return "py3", "none", platform()


setup(version=VERSION, distclass=Binary, cmdclass={"build_py": Build, "bdist_wheel": Wheel})
