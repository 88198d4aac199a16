"""libkel as the author of a satellite meets it: installed, found by CMake and by pkg-config, the examples built with it.
And what all that is installed is hardened with."""
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]


def run(*command, **environment):
    done = subprocess.run([str(word) for word in command], env={**os.environ, **environment}, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    assert done.returncode == 0, f"{' '.join(map(str, command))} failed:\n{done.stdout}"
    return done.stdout


class AnInstalledLibrary(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(tempfile.mkdtemp(prefix="kel-test-"))
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        cls.prefix = cls.folder / "prefix"
        run(os.environ["CMAKE"], "--install", os.environ["KEL_BUILD"], "--component", "libkel", "--prefix", cls.prefix)
        cls.library_folder = next(cls.prefix.rglob("libkel.so")).parent
        # Away from the tree, so that nothing but the prefix can supply what they include.
        shutil.copytree(SOURCE / "examples", cls.folder / "examples")

    def check_programs(self, build):
        for example in ("recorder", "player"):
            # Everything that the program needs of the library is looked up at once.
            self.assertIn(f"usage: {example} [DIRECTORY]", run(build / example, "--help", LD_BIND_NOW="1"))

    def test_builds_the_examples_through_find_package(self):
        build = self.folder / "build"
        run(os.environ["CMAKE"], "-S", self.folder / "examples", "-B", build, f"-DCMAKE_PREFIX_PATH={self.prefix}",
            f"-DCMAKE_CXX_COMPILER={os.environ['CXX']}")
        run(os.environ["CMAKE"], "--build", build)
        self.check_programs(build)

    def test_builds_the_examples_with_the_flags_of_pkg_config(self):
        build = self.folder / "by-hand"
        build.mkdir()
        flags = run("pkg-config", "--cflags", "--libs", "kel", PKG_CONFIG_PATH=str(self.library_folder / "pkgconfig"))
        for example in ("recorder", "player"):
            run(os.environ["CXX"], "-std=c++17", self.folder / "examples" / f"{example}.cc", "-o", build / example,
                *flags.split(), f"-Wl,-rpath,{self.library_folder}")
        self.check_programs(build)

    def test_has_its_headers_in_one_folder_and_still_where_they_were(self):
        headers = [f"kel/{file.name}" for file in (self.prefix / "include" / "kel").glob("*.h")]
        self.assertIn("kel/KelResult.h", headers)
        former = [f"foundation/{name}.h" for name in "Export Locks Log StdString Thread ThreadSafety".split()] + [
            f"rpc/{name}.h" for name in "KelDelegate KelDirectoryFinder KelException KelSatellite VUtil Variant".split()]
        both = self.folder / "both.cc"
        both.write_text("".join(f"#include <{header}>\n" for header in headers + former))
        flags = run("pkg-config", "--cflags", "kel", PKG_CONFIG_PATH=str(self.library_folder / "pkgconfig"))
        run(os.environ["CXX"], "-std=c++17", "-Wall", "-Werror", "-fsyntax-only", *flags.split(), both)

    def test_carries_its_version_in_its_name(self):
        dynamic = run("readelf", "--dynamic", self.library_folder / "libkel.so")
        self.assertIn("Library soname: [libkel.so.1]", dynamic)


class WhatIsInstalled(unittest.TestCase):
    def test_is_hardened(self):
        folder = pathlib.Path(tempfile.mkdtemp(prefix="kel-test-"))
        self.addCleanup(shutil.rmtree, folder)
        run(os.environ["CMAKE"], "--install", os.environ["KEL_BUILD"], "--prefix", folder)
        optimised = os.environ["KEL_BUILD_TYPE"] in ("Release", "RelWithDebInfo", "MinSizeRel")
        for name in ("KelDirectory", "YarCrashReporter", "libkel.so"):
            with self.subTest(name):
                file = next(folder.rglob(name)).resolve()
                said = run("readelf", "-W", "--file-header", "--segments", "--dynamic", "--symbols", file)
                self.assertRegex(said, r"Type:\s+DYN ")
                self.assertRegex(said, r"GNU_RELRO")
                self.assertRegex(said, r"\(FLAGS_1\)\s+Flags: NOW" + ("" if name == "libkel.so" else " PIE"))
                self.assertIn("UND __stack_chk_fail@", said)
                self.assertRegex(said, r"UND __\w+_chk@" if optimised else "")


if __name__ == "__main__":
    unittest.main()
