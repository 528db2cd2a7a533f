"""Builds what setuptools can't by itself: the native module and its libraries, with CMake.

`pip install .` needs a C++20 compiler, CMake, Ninja and the libraries that README.md names. Whether the relay
engine is built follows what is installed; TAVRIN_CMAKE_ARGS adds arguments to CMake's configuration, such as
-DSARNET_RELAY=OFF.
"""

from __future__ import annotations

import os
import shlex
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent


class CMakeBuild(build_ext):
    """Configures, builds and installs into the wheel the component "wheel" of the CMake project."""

    def build_extension(self, ext: Extension) -> None:
        folder = Path(self.build_temp).resolve() / "cmake"
        target = Path(self.build_lib).resolve()
        # No path of this machine goes into the binaries, in log lines or anywhere else.
        flags = f"-ffile-prefix-map={ROOT}=. -ffile-prefix-map={folder}=."
        configure = [
            "cmake", "-S", str(ROOT), "-B", str(folder), "-G", "Ninja",
            "-DCMAKE_BUILD_TYPE=Release",
            f"-DCMAKE_C_FLAGS={flags}", f"-DCMAKE_CXX_FLAGS={flags}",
            f"-DPython3_EXECUTABLE={sys.executable}",
            "-DTAVRIN_BUILD_TESTS=OFF", "-DTAVRIN_WARNINGS_ARE_ERRORS=OFF",
            *shlex.split(os.environ.get("TAVRIN_CMAKE_ARGS", "")),
        ]  # fmt: skip
        if shutil.which("ccache"):
            configure += ["-DCMAKE_C_COMPILER_LAUNCHER=ccache", "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"]
        install = [
            "cmake",
            "--install",
            str(folder),
            "--prefix",
            str(target),
            "--component",
            "wheel",
            "--strip",
        ]
        for command in (configure, ["cmake", "--build", str(folder)], install):
            subprocess.run(command, check=True)
        shutil.copy2(ROOT / "python" / "_tavrin_video.pyi", target)
        shutil.copytree(ROOT / "web", target / "tavrin_media_relay" / "web", dirs_exist_ok=True)


setup(
    ext_modules=[Extension("_tavrin_video", sources=[], py_limited_api=True)],
    cmdclass={"build_ext": CMakeBuild},
    options={"bdist_wheel": {"py_limited_api": "cp311"}},
)
