"""Builds the extension module with CMake; everything else is in pyproject.toml."""

import os
import re
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent


class CMakeBuild(build_ext):
    def build_extension(self, extension):
        module = Path(self.get_ext_fullpath(extension.name)).resolve()
        build = Path(self.build_temp).resolve()
        options = {
            "CMAKE_BUILD_TYPE": "Release",
            "TALVIK_BUILD_PYTHON": "ON",
            "TALVIK_BUILD_TOOLS": "OFF",
            "TALVIK_BUILD_TESTS": "OFF",
            "TALVIK_BUILD_EXAMPLES": "OFF",
            "TALVIK_PYTHON_OUTPUT_DIRECTORY": module.parent,
            "Python3_EXECUTABLE": sys.executable,
        }
        defined = [f"-D{name}={value}" for name, value in options.items()]
        more = os.environ.get("CMAKE_ARGS", "").split()
        subprocess.run(["cmake", "-S", ROOT, "-B", build, *defined, *more], check=True)
        jobs = str(self.parallel or len(os.sched_getaffinity(0)))
        subprocess.run(
            ["cmake", "--build", build, "--target", "talvik_python", "-j", jobs], check=True
        )


# The header is where the version is written.
version = re.search(r'#define TALVIK_VERSION "([0-9.]+)"', (ROOT / "include/talvik.hpp").read_text())
setup(
    version=version[1],
    ext_modules=[Extension("talvik._core", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
)
