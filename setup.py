"""Builds the Python package through the project's CMake (target filelib_python)."""
import os
import pathlib
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = pathlib.Path(__file__).resolve().parent


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = pathlib.Path(self.build_temp).resolve() / "cmake"
        subprocess.run(["cmake", "-S", str(ROOT), "-B", str(build), "-DCMAKE_BUILD_TYPE=Release",
                        "-DBUILD_TESTING=OFF", "-DFILELIB_BUILD_TOOL=OFF", "-DFILELIB_BUILD_PYTHON=ON",
                        "-DPython3_EXECUTABLE=" + sys.executable], check=True)
        subprocess.run(["cmake", "--build", str(build), "--target", "filelib_python",
                        "-j", str(os.cpu_count() or 1)], check=True)
        built = build / "python" / "filelib" / pathlib.Path(self.get_ext_filename(ext.name)).name
        target = pathlib.Path(self.get_ext_fullpath(ext.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        self.copy_file(str(built), str(target))


# Apart from the CMake build tree (build/) that the README's commands use.
(ROOT / "build" / "pip").mkdir(parents=True, exist_ok=True)
setup(options={"build": {"build_base": "build/pip"}, "egg_info": {"egg_base": "build/pip"}}, packages=["filelib"], package_dir={"": "python"},
      ext_modules=[Extension("filelib._filelib", sources=[])], cmdclass={"build_ext": CMakeBuild})
