"""Makes a wheel that carries the shared library, which has to be built before:

    cmake --preset linux && cmake --build --preset linux --target velmora_wheel_library
    pip install ./python

VELMORA_WHEEL_LIBRARY names another library; with build/windows/velmora.dll the wheel is one for Windows. The wheel's name
says which system it is for and which glibc it needs at least.
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
LIBRARY = pathlib.Path(os.environ.get("VELMORA_WHEEL_LIBRARY") or ROOT / "build/linux/wheel/libvelmora.so").resolve()


WINDOWS = LIBRARY.suffix == ".dll"
# On Windows one folder has the licences of all products; these are of what is inside every DLL.
LICENCES = LIBRARY.parent / ("packaging/licences" if WINDOWS else "licences")
INSIDE = ("libstdc++*", "GPL-3*", "mingw-w64*")


def platform():
    """The wheel's system. A library that needs more of it than glibc would only load on machines like this one."""
    if not LIBRARY.exists():
        raise SystemExit(f"{LIBRARY} is missing: build velmora_wheel_library first, or name it in VELMORA_WHEEL_LIBRARY")
    if WINDOWS:
        return "win_amd64"
    table = subprocess.run(["objdump", "-T", str(LIBRARY)], capture_output=True, text=True, check=True).stdout
    if "GLIBCXX_" in table:
        raise SystemExit(f"{LIBRARY} needs the system's libstdc++: take the one that velmora_wheel_library makes")
    glibc = max(tuple(map(int, numbers)) for numbers in re.findall(r"GLIBC_(\d+)\.(\d+)", table))
    return "manylinux_{}_{}_".format(*glibc) + sysconfig.get_platform().replace("linux-", "")


class Build(build_py):
    def run(self):
        platform()
        package = pathlib.Path(self.build_lib) / "velmora"
        shutil.rmtree(package, ignore_errors=True)  # it may hold another system's library
        super().run()
        shutil.copyfile(LIBRARY, package / ("velmora.dll" if WINDOWS else "libvelmora.so"))
        (package / "licences").mkdir()
        for pattern in INSIDE:
            for licence in LICENCES.glob(pattern):
                shutil.copy(licence, package / "licences")


class Binary(Distribution):
    def has_ext_modules(self):  # the package belongs to one system
        return True


class Wheel(bdist_wheel):
    def get_tag(self):
        return "py3", "none", platform()


setup(version=VERSION, distclass=Binary, cmdclass={"build_py": Build, "bdist_wheel": Wheel})
