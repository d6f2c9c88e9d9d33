"""Installs the build tree that holds the programs; builds on what is installed; configures anew."""

import json
import shutil
import subprocess
import unittest

from harness import BIN, DOCS, Case, run, serial

ROOT = DOCS.parent
BUILD = BIN.parent


@unittest.skipUnless((BUILD / "cmake_install.cmake").exists(), "the programs are in no build tree")
class InstallTest(Case):
    def setUp(self):
        super().setUp()
        self.prefix = self.folder / "prefix"

    def cmake(self, *arguments, expected=0, environment={}):
        result = run("cmake", *map(str, arguments), stderr=subprocess.STDOUT,
                     environment=environment)
        self.assertEqual(result.returncode, expected, result.stdout)
        return result.stdout

    def test_all_files_are_below_the_prefix_and_name_it_and_the_programs_are_hardened(self):
        output = self.cmake("--install", BUILD, "--prefix", self.prefix)
        said = {line.removeprefix("-- Installing: ") for line in output.splitlines()
                if line.startswith("-- Installing: ")}
        files = {str(path) for path in self.prefix.rglob("*")}
        self.assertEqual(said - {str(self.prefix)} - files, set())
        unit = (self.prefix / "lib/systemd/system/ktclientd.service").read_text()
        self.assertIn(f"\nExecStart={self.prefix}/sbin/ktclientd --activated\n", unit)
        browser = self.prefix / "share/ktclientd/native-messaging"
        for name in ("chromium", "firefox"):
            manifest = json.loads((browser / name / "ktclientd.json").read_text())
            self.assertEqual(manifest["path"], f"{browser}/ktclientd-native-host")
        self.assertIn(f"exec {self.prefix}/bin/ktclientctl native-host\n",
                      (browser / "ktclientd-native-host").read_text())
        programs = ["sbin/ktclientd", "bin/ktclientctl", "libexec/ktclientd/ktclientctl-report"]
        hardening = run(ROOT / "scripts/check-hardening", *(self.prefix / name for name in programs))
        self.assertEqual(hardening.stdout + hardening.stderr, "")
        # ktclientctl finds the other program, wherever the prefix is.
        self.assertIn("--include-answers",
                      run(self.prefix / "bin/ktclientctl", "report", "--help").stdout)

    def test_another_program_links_the_installed_libraries(self):
        self.cmake("--install", BUILD, "--prefix", self.prefix, "--component", "development")
        consumer = self.folder / "consumer"
        self.cmake("-S", ROOT / "tests/packaging/consumer", "-B", consumer,
                   f"-DCMAKE_PREFIX_PATH={self.prefix}")
        self.cmake("--build", consumer)
        daemon = self.start(dmidecode="echo KT-LINKED")
        output = run(consumer / "consumer", daemon.name).stdout
        self.assertEqual(json.loads(output), serial("KT-LINKED"))

    def test_a_build_looks_only_for_what_it_uses(self):
        """pkg-config finds nothing but libsystemd, and CMake no package of the tests."""
        found = run("pkg-config", "--variable=pcfiledir", "libsystemd").stdout.strip()
        shutil.copy(f"{found}/libsystemd.pc", self.folder)
        build = self.folder / "build"

        def configure(*options, **expected):
            return self.cmake("-S", ROOT, "-B", build, *options, **expected, environment={
                "PKG_CONFIG_LIBDIR": str(self.folder), "PKG_CONFIG_PATH": ""})

        hidden = [f"-DCMAKE_DISABLE_FIND_PACKAGE_{name}=ON"
                  for name in ("GTest", "benchmark", "Python3")]
        configure(*hidden, "-DBUILD_TESTING=OFF", "-DKTCLIENTD_GLIB=OFF", "-DKTCLIENTD_REPORT=OFF")
        commands = (build / "compile_commands.json").read_text()
        self.assertIn(" -O2 -g ", commands)
        self.assertNotIn("-Werror", commands)
        for option, missing in {"GLIB": "glib-2.0", "REPORT": "re2"}.items():
            output = configure(f"-DKTCLIENTD_{option}=ON", expected=1)
            self.assertIn(f"Checking for module '{missing}'", output)
            configure(f"-DKTCLIENTD_{option}=OFF")
