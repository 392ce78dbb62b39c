"""What `cmake --install` gives can be moved, used and linked, and the sources can be part of another project.

SHOTMENTOR_BUILD names the build that is installed.
"""

import os
import pathlib
import re
import shlex
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("SHOTMENTOR_BUILD", ""))
CONSUMER = ROOT / "Tests" / "Packaging" / "consumer"
WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-Wconversion", "-Wshadow", "-Werror"]
SERVICES = ["bt_send_msgs", "__ui_get_preset_info", "User_Spec_Get_Value", "__dlog_print"]


def run(*command, code=0, **options):
    done = subprocess.run(
        [str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **options
    )
    if done.returncode != code:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}")
    return done.stdout


def start(*command, folder):
    """Starts a host or a camera, and returns it with the URL that it listens on."""
    process = subprocess.Popen(
        [str(word) for word in command], cwd=folder, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True
    )
    line = process.stdout.readline()
    return process, line.rpartition("listening on ")[2].strip()


def stop(process):
    process.terminate()
    process.wait()
    process.stdout.close()


class Installed(unittest.TestCase):
    """One installation for all tests, moved to another folder after it was made."""

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="shotmentor-")
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        run("cmake", "--install", BUILD, "--prefix", cls.folder / "first")
        cls.prefix = cls.folder / "second place"
        (cls.folder / "first").rename(cls.prefix)

    def setUp(self):
        self.work = pathlib.Path(tempfile.mkdtemp(dir=self.folder))

    def phone(self, *arguments, code=0):
        return run(self.prefix / "bin" / "shotmentor-phone", *arguments, code=code)

    def pkg_config(self, *arguments):
        environment = {**os.environ, "PKG_CONFIG_PATH": str(self.prefix / "lib" / "pkgconfig")}
        return run("pkg-config", *arguments, "shotmentor", env=environment)

    def talk_to(self, process, url):
        self.addCleanup(stop, process)
        return self.phone("--connect", url, "list")


class Tools(Installed):
    def test_run_from_wherever_the_prefix_is_moved(self):
        camera = self.prefix / "bin" / "shotmentor-camera"
        process, url = start(camera, "--store", self.work / "store", folder=self.work)
        self.assertIn("CUSTOM1", self.talk_to(process, url))

    def test_find_the_camera_that_refuses_memory_beside_them(self):
        camera = self.prefix / "bin" / "shotmentor-camera"
        process, url = start(camera, "--store", self.work / "store", "--refuse-allocation", "1", folder=self.work)
        self.addCleanup(stop, process)
        self.phone("--connect", url, "--timeout", "0.3", "list", code=4)


class Library(Installed):
    def test_is_the_object_that_was_built(self):
        installed = self.prefix / "lib" / "libshotmentor.so.1"
        self.assertEqual(installed.read_bytes(), (BUILD / "Src" / "libshotmentor.so.1").read_bytes())

    def test_is_linked_through_pkg_config_by_a_host_in_c(self):
        words = shlex.split(self.pkg_config("--cflags", "--libs"))
        example = self.prefix / "share" / "doc" / "libshotmentor-dev" / "examples" / "host.c"
        run("cc", "-std=c11", *WARNINGS, example, *words, "-o", self.work / "host")
        exported = run("nm", "--dynamic", "--defined-only", self.work / "host")
        for service in SERVICES:
            self.assertIn(f" T {service}\n", exported)

    def test_comes_with_phones_to_copy_and_the_description_that_they_are_made_of(self):
        share = self.prefix / "share"
        for name in ("phone.py", "phone.mjs"):
            installed = share / "doc" / "libshotmentor-dev" / "examples" / name
            self.assertEqual(installed.read_bytes(), (ROOT / "Examples" / name).read_bytes())
        description = share / "shotmentor" / "shotmentor.ksy"
        self.assertEqual(description.read_bytes(), (ROOT / "Protocol" / "shotmentor.ksy").read_bytes())

    def build_consumer(self, *options, code=0):
        configured = run("cmake", "-S", CONSUMER, "-B", self.work / "build", *options, code=code)
        if code == 0:
            run("cmake", "--build", self.work / "build", "--parallel")
        return configured

    def listen(self):
        return start(self.work / "build" / "consumer", "socket", folder=self.work)

    def test_is_linked_through_find_package_by_a_host_in_cpp17(self):
        self.build_consumer(f"-DCMAKE_PREFIX_PATH={self.prefix}")
        process, url = self.listen()
        self.assertIn("TITLE", self.talk_to(process, f"unix:{self.work}/socket").upper())
        self.assertEqual(url, "unix:socket")

    def test_refuses_a_project_that_needs_another_major_version(self):
        project = (CONSUMER / "CMakeLists.txt").read_text().replace("ShotMentor 1.0", "ShotMentor 2.0")
        (self.work / "CMakeLists.txt").write_text(project)
        shutil.copy(CONSUMER / "host.cpp", self.work)
        configured = run(
            "cmake", "-S", self.work, "-B", self.work / "build", f"-DCMAKE_PREFIX_PATH={self.prefix}", code=1
        )
        self.assertIn('requested version "2.0"', configured)

    def check_as_part(self, way):
        self.build_consumer(f"-DSHOTMENTOR_BY={way}", f"-DSHOTMENTOR_SOURCES={ROOT}")
        built = {path.name for path in (self.work / "build").rglob("*") if path.is_file()}
        self.assertIn("libshotmentor.so", {name for name in built if name.endswith(".so")})
        self.assertFalse({name for name in built if "gtest" in name or "camera" in name or "phone" in name})
        run("cmake", "--install", self.work / "build", "--prefix", self.work / "prefix")
        installed = {path.name for path in (self.work / "prefix").rglob("*") if path.is_file()}
        self.assertEqual(installed, {"consumer"})
        process, _ = self.listen()
        self.assertIn("TITLE", self.talk_to(process, f"unix:{self.work}/socket").upper())

    def test_is_built_as_a_subdirectory_of_another_project_without_desk_and_tests(self):
        self.check_as_part("subdirectory")

    def test_is_built_by_fetchcontent_without_desk_and_tests(self):
        self.check_as_part("fetched")


class Version(Installed):
    """It stands in CMakeLists.txt, and everything that names it agrees."""

    def setUp(self):
        super().setUp()
        self.version = re.search(r"^project\(shotmentor VERSION (\S+) ", (ROOT / "CMakeLists.txt").read_text(), re.M)[1]

    def test_is_that_of_the_header(self):
        source = self.work / "version.c"
        source.write_text(
            "#include <stdio.h>\n"
            "#include <ADE_ShotMentor_Version.h>\n"
            'int main(void) { printf("%d.%d.%d %s", SHOTMENTOR_VERSION_MAJOR, SHOTMENTOR_VERSION_MINOR,\n'
            "                        SHOTMENTOR_VERSION_PATCH, SHOTMENTOR_VERSION); }\n"
        )
        run("cc", f"-I{self.prefix}/include/shotmentor", source, "-o", self.work / "version")
        self.assertEqual(run(self.work / "version"), f"{self.version} {self.version}")

    def test_begins_with_the_number_of_the_soname(self):
        major = self.version.partition(".")[0]
        file = self.prefix / "lib" / f"libshotmentor.so.{self.version}"
        self.assertTrue(file.is_file() and not file.is_symlink())
        self.assertIn(f"Library soname: [libshotmentor.so.{major}]", run("readelf", "--dynamic", file))

    def test_is_that_of_pkg_config(self):
        self.assertEqual(self.pkg_config("--modversion").strip(), self.version)

    def test_is_that_of_the_cmake_package(self):
        path = self.prefix / "lib" / "cmake" / "ShotMentor" / "ShotMentorConfigVersion.cmake"
        self.assertIn(f'set(PACKAGE_VERSION "{self.version}")', path.read_text())

    def test_is_what_both_tools_say(self):
        for tool in ["shotmentor-camera", "shotmentor-phone"]:
            self.assertEqual(run(self.prefix / "bin" / tool, "--version").split()[-1], self.version)

    def test_is_the_one_that_the_changelog_begins_with(self):
        newest = re.search(r"^## (\S+)", (ROOT / "CHANGELOG.md").read_text(), re.M)[1]
        self.assertEqual(newest, self.version)


if __name__ == "__main__":
    unittest.main()
