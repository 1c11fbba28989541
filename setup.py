"""Has CMake build the compiled part of the Python module; pyproject.toml says everything else."""

import os
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext


class CMakeBuild(build_ext):
    def build_extension(self, extension):
        source = Path(__file__).resolve().parent
        build = Path(self.build_temp).resolve()
        options = ["-DCMAKE_BUILD_TYPE=Release", "-DKELPA_PYTHON_REQUIRED=ON",
                   f"-DPython3_EXECUTABLE={sys.executable}"]
        for part in ("BUILD_SHARED_LIBS", "BUILD_TESTING", "KELPA_TOOL", "KELPA_BENCH"):
            options.append(f"-D{part}=OFF")
        try:
            import pybind11  # pip's comes with what CMake looks for; Debian's is found anyway
            options.append(f"-Dpybind11_DIR={pybind11.get_cmake_dir()}")
        except ImportError:
            pass
        build.mkdir(parents=True, exist_ok=True)
        subprocess.run(["cmake", "-S", source, "-B", build, *options], check=True)
        processors = str(len(os.sched_getaffinity(0)))
        subprocess.run(["cmake", "--build", build, "--target", "kelpa_python",
                        "--parallel", processors], check=True)
        target = Path(self.get_ext_fullpath(extension.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        for built in (build / "python" / "kelpa").glob("_native*.so"):
            shutil.copy2(built, target)


setup(ext_modules=[Extension("kelpa._native", sources=[])], cmdclass={"build_ext": CMakeBuild})
