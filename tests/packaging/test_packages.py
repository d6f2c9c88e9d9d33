"""The packages in the folder KTCLIENTD_PACKAGES: what is in them, and whether it fits together."""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest

HERE = pathlib.Path(__file__).parent
PACKAGES = pathlib.Path(os.environ["KTCLIENTD_PACKAGES"]).resolve()


def only(pattern):
    [path] = PACKAGES.glob(pattern)
    return path


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


class Contents(unittest.TestCase):
    """A list has each entry's mode, owner, and path; run with REWRITE=1 to write it anew."""

    def check(self, listing, name):
        lines = [re.sub(r"^(\S+ \S+) +\d+ \S+ \S+ (\./)?", r"\1 /", line)
                 for line in listing.splitlines(keepends=True)]
        contents = "".join(sorted(lines, key=lambda line: line.split(maxsplit=2)[2]))
        if os.environ.get("REWRITE"):
            (HERE / name).write_text(contents)
        self.assertEqual((HERE / name).read_text(), contents)

    def test_debian_package(self):
        self.check(run("dpkg-deb", "--contents", only("ktclientd_*.deb")), "deb.list")

    def test_archive(self):
        self.check(run("tar", "--list", "--verbose", "--gzip", "--file", only("*.tar.gz")),
                   "archive.list")


class Archive(unittest.TestCase):
    """The archive, unpacked into the root of an image."""

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
        version = run(f"{self.root}{program}", "--version")
        self.assertRegex(version, r"^ktclientd \d")
        self.assertIn(version.split()[1], only("*.tar.gz").name)
        (self.root / "etc").mkdir(exist_ok=True)
        run("systemd-sysusers", f"--root={self.root}")
        [group] = re.findall(r"^SocketGroup=(\S+)", self.unit("ktclientd.socket"), re.M)
        self.assertRegex((self.root / "etc/group").read_text(), rf"(?m)^{group}:")

    def test_socket_can_be_enabled(self):
        run("systemctl", f"--root={self.root}", "enable", "ktclientd.service")
        link = self.root / "etc/systemd/system/sockets.target.wants/ktclientd.socket"
        self.assertEqual(os.readlink(link), "/usr/lib/systemd/system/ktclientd.socket")

    def test_rotation_finds_the_trace(self):
        [folder] = re.findall(r"^Environment=KESTREL_TRACE_FOLDER=(\S+)",
                              self.unit("ktclientd.service"), re.M)
        rotation = (self.root / "etc/logrotate.d/ktclientd").read_text()
        self.assertIn(f"{folder}ktclientd.log {{", rotation)


if __name__ == "__main__":
    unittest.main()
