"""Builds the extension module zor._zor with CMake and puts the project's shared
libraries beside it, found through the module's run path ($ORIGIN), so that a wheel
installs and imports without the build tree. The version is the CMake project's.

The CMake build folder is build/python-package (ZOR_PYTHON_BUILD_DIR overrides it); a
second build reuses it.
"""
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent


def project_version():
    text = (ROOT / "CMakeLists.txt").read_text(encoding="utf-8")
    found = re.search(r"project\(ZorStlRegistration\s+VERSION\s+([0-9.]+)", text)
    if not found:
        raise RuntimeError("CMakeLists.txt names no project version")
    return found.group(1)


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = Path(os.environ.get("ZOR_PYTHON_BUILD_DIR", ROOT / "build" / "python-package")).resolve()
        stage = build / "stage"
        configure = [
            "cmake", "-S", str(ROOT), "-B", str(build),
            "-DCMAKE_BUILD_TYPE=Release",
            f"-DPython_EXECUTABLE={sys.executable}",
            "-DZOR_BUILD_TESTS=OFF", "-DZOR_BUILD_BENCHMARKS=OFF", "-DZOR_BUILD_EXAMPLES=OFF",
            "-DZOR_BUILD_TOOLS=OFF", "-DZOR_BUILD_PYTHON=ON",
            # The libraries go into the package folder itself, beside the module.
            "-DCMAKE_INSTALL_LIBDIR=zor", "-DZOR_PYTHON_INSTALL_DIR=.",
        ]
        if shutil.which("ninja") and not (build / "CMakeCache.txt").exists():
            configure += ["-G", "Ninja"]
        subprocess.check_call(configure)
        jobs = str(os.cpu_count() or 1)
        subprocess.check_call(["cmake", "--build", str(build), "--target", "_zor", "--parallel", jobs])
        shutil.rmtree(stage, ignore_errors=True)
        for component in ("runtime", "python"):
            subprocess.check_call(
                ["cmake", "--install", str(build), "--prefix", str(stage), "--component", component, "--strip"]
            )

        package = Path(self.get_ext_fullpath(ext.name)).resolve().parent
        package.mkdir(parents=True, exist_ok=True)
        built = stage / "zor"
        # A library is loaded by its soname, the versioned link: keep that name with the
        # file's content, and no copies under the other names (a wheel keeps no links).
        linked = {os.path.realpath(p) for p in built.iterdir() if p.is_symlink()}
        for path in sorted(built.iterdir()):
            if not path.name.endswith(".so") and ".so." not in path.name:
                continue  # the Python files come from the source tree
            if not path.is_symlink() and str(path.resolve()) in linked:
                continue
            shutil.copyfile(path.resolve(), package / path.name)
            shutil.copymode(path.resolve(), package / path.name)


setup(
    version=project_version(),
    ext_modules=[Extension("zor._zor", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    zip_safe=False,
)
