"""Tests the content of the packages in the folder KTCLIENTD_PACKAGES. KTCLIENTD_EMULATOR is the
command that runs programs of another architecture.
"""

import json
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

LIST = pathlib.Path(__file__).parent / "deb.list"
ROOT = pathlib.Path(__file__).resolve().parents[2]
DEBS = ["ktclientd", "ktclientd-support"]
FOLDER = "drwxr-xr-x root/root "
OF_DEBIAN = re.compile("/changelog.gz$|/copyright$|/lintian/")  # not in the archive
# The shared libraries of each program, besides the dynamic linker. A new one makes the package need
# another package, on every minimal system.
C = {"libc", "libgcc_s", "libstdc++"}
NEEDED = {"ktclientd": {"usr/sbin/ktclientd": C | {"libsystemd"}, "usr/bin/ktclientctl": C},
          "ktclientd-support": {"usr/libexec/ktclientd/ktclientctl-report":
                                C | {"libarchive", "libre2"}}}
UNITS = "/usr/lib/systemd/system"
PACKAGES = pathlib.Path(os.environ["KTCLIENTD_PACKAGES"]).resolve()
EMULATOR = os.environ.get("KTCLIENTD_EMULATOR", "").split()


def only(pattern):
    [path] = PACKAGES.glob(pattern)
    return path


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


class Contents(unittest.TestCase):
    """deb.list has package, mode, owner and path of each file; REWRITE=1 in the environment renews
    it. It has the units in /usr/lib, where the archive has them."""

    def files(self, *command):
        """The files that the command lists. No folder is empty or has a mode of its own."""
        lines = [re.sub(r" +\d+ \S+ \S+ (\./)?", " /", line, count=1)
                 for line in run(*command).splitlines()]
        files = {line for line in lines if line[0] != "d"}
        parents = {folder for line in files for folder in pathlib.Path(line.split()[2]).parents}
        self.assertEqual({line.rstrip("/") for line in lines if line[0] == "d"} - {FOLDER},
                         {f"{FOLDER}{folder}" for folder in parents} - {f"{FOLDER}/"})
        return files

    def test_packages_hold_the_listed_files(self):
        debs = {name: self.files("dpkg-deb", "--contents", only(f"{name}_*.deb")) for name in DEBS}
        found = [f"{name}: {line}" for name in DEBS
                 for line in sorted(debs[name], key=lambda line: line.split()[2])]
        # A package has the units where this release of Debian has them.
        units = run("pkg-config", "--variable=systemdsystemunitdir", "systemd").strip()
        if os.environ.get("REWRITE"):
            LIST.write_text("".join(f"{line}\n".replace(f" {units}/", f" {UNITS}/")
                                    for line in found))
        listed = LIST.read_text().replace(f" {UNITS}/", f" {units}/").splitlines()
        self.assertEqual(sorted(listed), sorted(found))
        # In the archive no manual is compressed.
        archive = self.files("tar", "--list", "--verbose", "--gzip", "--file", only("*.tar.gz"))
        self.assertEqual(archive, {line.replace(f" {units}/", f" {UNITS}/").removesuffix(".gz")
                                   for line in set().union(*debs.values())
                                   if not OF_DEBIAN.search(line)})

    def test_programs_are_hardened_and_need_only_these_libraries(self):
        for name, programs in NEEDED.items():
            with tempfile.TemporaryDirectory() as folder:
                run("dpkg-deb", "--extract", only(f"{name}_*.deb"), folder)
                run(ROOT / "scripts/check-hardening", *(f"{folder}/{file}" for file in programs))
                for program, libraries in programs.items():
                    dynamic = run("readelf", "--dynamic", f"{folder}/{program}")
                    found = re.findall(r"\(NEEDED\) .*\[(?!ld-)(.*)\.so\b", dynamic)
                    self.assertEqual(set(found), libraries, program)

    def test_another_program_links_the_libraries_of_the_development_package(self):
        with tempfile.TemporaryDirectory() as folder:
            run("dpkg-deb", "--extract", only("ktclientd-dev_*.deb"), folder)
            consumer = ROOT / "tests/packaging/consumer"
            run("cmake", "-S", consumer, "-B", f"{folder}/build", f"-DCMAKE_PREFIX_PATH={folder}/usr")
            run("cmake", "--build", f"{folder}/build")


class Archive(unittest.TestCase):
    """Unpacks the archive into the root of an image."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        run("tar", "--extract", "--no-overwrite-dir", f"--directory={self.root}",
            f"--file={only('*.tar.gz')}")

    def unit(self, name):
        return (self.root / "usr/lib/systemd/system" / name).read_text()

    def test_units_find_the_program_and_the_group(self):
        [program] = re.findall(r"^ExecStart=(\S+)", self.unit("ktclientd.service"), re.M)
        version = run(*EMULATOR, f"{self.root}{program}", "--version")
        self.assertRegex(version, r"^ktclientd \d")
        self.assertIn(version.split()[1], only("*.tar.gz").name)
        (self.root / "etc").mkdir(exist_ok=True)
        run("systemd-sysusers", f"--root={self.root}")
        [group] = re.findall(r"^SocketGroup=(\S+)", self.unit("ktclientd.socket"), re.M)
        self.assertRegex((self.root / "etc/group").read_text(), rf"(?m)^{group}:")

    def test_host_manifests_find_the_bridge(self):
        for browser in ("chromium", "firefox"):
            folder = self.root / "usr/share/ktclientd/native-messaging" / browser
            script = json.loads((folder / "ktclientd.json").read_text())["path"]
            [program] = re.findall(r"^exec (\S+) native-host$",
                                   pathlib.Path(f"{self.root}{script}").read_text(), re.M)
            run(*EMULATOR, f"{self.root}{program}", "--version")

    def test_socket_can_be_enabled(self):
        run("systemctl", f"--root={self.root}", "enable", "ktclientd.service")
        link = self.root / "etc/systemd/system/sockets.target.wants/ktclientd.socket"
        self.assertEqual(os.readlink(link), "/usr/lib/systemd/system/ktclientd.socket")


if __name__ == "__main__":
    unittest.main()
