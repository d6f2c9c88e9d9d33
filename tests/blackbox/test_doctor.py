import contextlib
import json
import os
import pathlib
import pty
import re
import socket
import subprocess
import unittest

from harness import (BIN, CAN_MOUNT, DOCS, NAMESPACE, SEQPACKET, STREAM, Case, clean_environment,
                     ctl, packet, read_schema, run, wait_until)

NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
# Root that the kernel treats as any other user where files are concerned.
POWERLESS = ["setpriv", "--bounding-set=-all", "--inh-caps=-all"]
SCHEMA = read_schema("doctor")
ADVICE = dict(re.findall(r"^\| `([a-z-]+)` \| [^|]+ \| [^|]+ \| (.*) \|$",
                         (DOCS / "doctor.md").read_text().partition("## The codes")[2], re.M))
# Seen on the installed package.
UNIT_CODES = {"systemd-not-running", "unit-not-installed", "unit-masked", "unit-not-loaded",
              "unit-failed", "unit-not-ready", "unit-changed", "unit-for-other-address",
              "socket-unit-stopped", "socket-unit-disabled"}
SEEN, RAN = set(), set()
STATUSES = {"ok": 0, "warning": 1, "failed": 2}

# A server whose process has the name of the daemon. It sends the files of its arguments to each
# client.
SERVER = """
import socket, sys
listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
listener.bind(sys.argv[1])
listener.listen()
print("listening", flush=True)
while True:
    client = listener.accept()[0]
    if client.recv(4) and client.recv(4096):
        for path in sys.argv[2:]:
            with open(path, "rb") as file:
                while record := file.read(65536):
                    client.send(record)
    client.close()
"""

# A process of root that has the name of the daemon, and the socket of another user.
DISGUISED = """
import os, socket, sys
listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
listener.bind("\\0" + sys.argv[1])
os.seteuid(65534)
listener.listen()
os.seteuid(0)
listener.set_inheritable(True)
os.execve(sys.argv[2], ["ktclientd", "1000"], {"PATH": sys.argv[3]})
"""


def mounted(*pairs):
    """A command that runs its arguments with each first file or folder over its second."""
    return [word for pair in pairs for word in (*NAMESPACE, *pair)]


def examine(name, *arguments, launcher=()):
    """Returns the codes of the checks that are not ok, by check; compares what is documented."""
    result = run(*launcher, BIN / "ktclientctl", f"--socket={name}", "doctor", "--json", *arguments)
    findings = json.loads(result.stdout)
    SCHEMA.validate(findings)
    checks = findings["checks"]
    states = [check["state"] for check in checks]
    worst = max((state for state in states if state in STATUSES), key=STATUSES.get)
    problems = {check["name"]: check["problem"] for check in checks if "problem" in check}
    if (findings["state"], result.returncode, result.stderr) != (worst, STATUSES[worst], "") or \
            len(checks) != len({check["name"] for check in checks}) or "S1" in result.stdout:
        raise AssertionError(result)
    for problem in problems.values():
        fields = problem.get("fields", {})
        advice = re.sub(r"\{(\w+)\}", lambda place: str(fields[place[1]]), ADVICE[problem["code"]])
        if problem["advice"] != advice:
            raise AssertionError(f"{problem}: {advice}")
        SEEN.add(problem["code"])
    return {name: problem["code"] for name, problem in problems.items()}


def tearDownModule():
    everything = unittest.TestLoader().getTestCaseNames(DoctorTest)
    if RAN >= set(everything) and SEEN and (missing := ADVICE.keys() - UNIT_CODES - SEEN):
        raise AssertionError(f"no test has made {missing}")


@unittest.skipUnless(CAN_MOUNT and os.geteuid() == 0, "takes mount namespaces and a second user")
class DoctorTest(Case):
    igel = False

    def setUp(self):
        super().setUp()
        RAN.add(self._testMethodName)
        self.folder.chmod(0o755)
        self.name = f"{self.folder}/socket"
        (self.folder / "firmware/dmi/tables").mkdir(parents=True)
        (self.folder / "bare").mkdir()
        self.tables = (self.folder / "firmware", "/sys/firmware")
        self.no_tables = (self.folder / "bare", "/sys/firmware")

    def assert_codes(self, *arguments, name=None, launcher=None, mounts=(), **expected):
        """Runs the checks. The codes are `expected`, apart from those that follow from others or
        depend on this machine; "_" stands for "-" in the name of a check."""
        found = examine(name or self.name, *arguments,
                        launcher=[*mounted(self.tables, *mounts), *(launcher or [])])
        ignored = {"socket-unit", "service-unit"}
        if found.get("descriptors") == "daemon-not-found":
            self.assertEqual({found.pop("descriptors"), found.pop("version"),
                              found.pop("trace-file")}, {"daemon-not-found"})
            ignored |= {"dmidecode", "serial-number"}
        if not self.igel:
            ignored |= {"trust-store", "openssl"}
        self.assertEqual({name.replace("-", "_"): code for name, code in found.items()
                          if code != "earlier-problem" and name not in ignored}, expected)

    def serve(self, *records, launcher=()):
        """Starts a server that sends the records, as a process of the name ktclientd."""
        program, path = self.folder / "ktclientd", self.folder / "commands"
        program.symlink_to("/usr/bin/python3")
        path.mkdir()
        (path / "dmidecode").write_text("#!/bin/sh\necho S1")
        (path / "dmidecode").chmod(0o755)
        files = [self.folder / f"record{i}" for i in range(len(records))]
        for file, record in zip(files, records):
            file.write_bytes(record)
        server = self.enterContext(subprocess.Popen(
            [*launcher, program, "-I", "-c", SERVER, self.name, *files],
            stdout=subprocess.PIPE, text=True, env=clean_environment(
                {"PATH": f"{path}:/usr/bin:/bin", "KESTREL_TRACE_FOLDER": str(self.folder)})))
        self.addCleanup(server.terminate)
        self.assertEqual(server.stdout.readline(), "listening\n")

    def test_all_is_well(self):
        self.assertEqual(set(SCHEMA.schema["$defs"]["problem"]["properties"]["code"]["enum"]),
                         ADVICE.keys())
        for options in (dict(activated=SEQPACKET), dict(activated=STREAM),
                        dict(name=f"@{self.folder.name}")):
            with self.subTest(options=options):
                daemon = self.start("--trace-file-prefix", dmidecode="echo S1", **options)
                self.assert_codes(name=daemon.name)
        daemon = self.start(dmidecode="echo S1")
        self.assert_codes(name=daemon.name)
        text = ctl(f"--socket={daemon.name}", "doctor").stdout
        self.assertRegex(text, r"\Aok +platform +T.*\n(.*\n)+ok +question +T.*\n(.*\n)+\d+ ok, ")
        self.assertNotIn("\x1b", text)
        self.assertNotIn("S1", text)
        compact = ctl(f"--socket={daemon.name}", "--json", "--compact", "doctor").stdout
        self.assertEqual(compact.count("\n"), 1)
        SCHEMA.validate(json.loads(compact))
        own_help = ctl("doctor", "--help").stdout
        self.assertIn("--json", own_help)
        self.assertIn("3 if the results", own_help)
        self.assertNotIn("native-host", own_help)
        for wrong in (["--json", "x"], ["more"], ["--timeout=0"], ["--json=yes"]):
            self.assertEqual((ctl("doctor", *wrong).returncode, ctl("doctor", *wrong).stdout),
                             (2, ""))

    def test_terminal_gets_marks_and_progress_but_no_controls_of_others(self):
        hostile = f"{self.folder}/\x1b[2Jx"
        for environment, is_coloured in (({}, True), ({"NO_COLOR": ""}, True),
                                         ({"NO_COLOR": "0"}, False), ({"TERM": "dumb"}, False)):
            main, secondary = pty.openpty()
            process = subprocess.Popen([BIN / "ktclientctl", f"--socket={hostile}", "doctor"],
                                       stdin=secondary, stdout=secondary, stderr=secondary,
                                       env=clean_environment({"TERM": "xterm"} | environment))
            os.close(secondary)
            output = b""
            with contextlib.suppress(OSError):  # EIO: the other end is closed
                while piece := os.read(main, 4096):
                    output += piece
            os.close(main)
            self.assertEqual(process.wait(), 2)
            progress, _, text = output.decode().rpartition("\r\x1b[K")
            self.assertEqual("Checking the socket" in progress, environment.get("TERM") != "dumb")
            line = "socket         There is no file"
            self.assertEqual(f"\x1b[31m\u2717\x1b[0m {line}" in text, is_coloured)
            self.assertEqual(f"failed       {line}" in text, not is_coloured)
            self.assertNotIn("\x1b[2J", text)

    def test_socket_on_which_no_daemon_listens(self):
        def make_datagram_socket():
            self.enterContext(socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)).bind(self.name)

        def fill_backlog():
            self.listen(self.name, backlog=0)
            self.enterContext(socket.socket(socket.AF_UNIX, SEQPACKET)).connect(self.name)
        for make, codes in ((None, dict(socket="socket-missing")),
                            (lambda: open(self.name, "w").close(),
                             dict(socket="socket-not-a-socket")),
                            (lambda: os.symlink(self.name, self.name),
                             dict(socket="socket-unreachable")),
                            (lambda: self.listen(self.name).close(),
                             dict(connection="socket-dead")),
                            (make_datagram_socket, dict(connection="socket-wrong-type")),
                            (fill_backlog, dict(connection="socket-busy"))):
            with self.subTest(codes=codes):
                if make:
                    make()
                self.assert_codes("--timeout=1", **codes)
                pathlib.Path(self.name).unlink(missing_ok=True)
        self.assert_codes(name=f"@{self.folder.name}", connection="name-without-listener")

    def test_user_who_may_not_connect(self):
        (self.folder / "group").write_text("ktclientd-test:x:54321:nobody\n")
        self.listen(self.name)
        joined = [(self.folder / "group", "/etc/group")]
        for mode, mounts, code in ((0o660, (), "socket-permission-denied"),
                                   (0o660, joined, "socket-login-needed"),
                                   (0o600, joined, "socket-only-for-owner")):
            with self.subTest(code=code):
                os.chown(self.name, 0, 54321)
                os.chmod(self.name, mode)
                self.assert_codes(launcher=NOBODY, mounts=mounts, connection=code)
        self.folder.chmod(0o700)
        self.assert_codes(launcher=NOBODY, socket="socket-folder-denied")

    def test_server_that_is_not_to_be_trusted(self):
        self.folder.chmod(0o777)
        self.serve(launcher=NOBODY)
        self.assert_codes(server="server-foreign")
        disguise, name = self.folder / "disguise/ktclientd", f"ktclientd-{self.folder.name}"
        disguise.parent.mkdir()
        disguise.symlink_to("/usr/bin/sleep")
        planted = disguise.parent / "dmidecode"
        planted.write_text(f"#!/bin/sh\n: >{self.folder}/ran\n")
        planted.chmod(0o755)
        process = self.enterContext(subprocess.Popen(
            ["/usr/bin/python3", "-I", "-c", DISGUISED, name, disguise, disguise.parent]))
        self.addCleanup(process.terminate)
        wait_until(lambda: pathlib.Path(f"/proc/{process.pid}/comm").read_text() == "ktclientd\n",
                   "the disguise is on")
        self.assert_codes(name=f"@{name}", server="server-foreign")
        self.assertFalse((self.folder / "ran").exists())

    def test_daemon_without_a_response(self):
        self.serve()
        self.assert_codes(question="no-response", version="version-differs",
                          trace_file="trace-file-missing")

    def test_broken_response(self):
        deep = b'{"status":"Success","x":' + b"[" * 1000000 + b"]" * 1000000 + b"}"
        self.serve(*packet(deep))
        self.assert_codes(question="response-broken", version="version-differs",
                          trace_file="trace-file-missing")

    def test_slow_daemon(self):
        daemon = self.start(dmidecode="sleep 1000")
        self.assert_codes("--timeout=1", name=daemon.name, question="response-late",
                          serial_number="check-unfinished")

    def test_what_dmidecode_prints(self):
        with open(os.devnull, "w") as complaints:
            daemon = self.start(stderr=complaints)
        for script, codes in ((None, dict(dmidecode="dmidecode-missing")),
                              ("echo 'x: Permission denied' >&2; exit 1",
                               dict(serial_number="dmidecode-denied")),
                              ("echo S1; exit 1", dict(serial_number="dmidecode-failed")),
                              ("echo", dict(serial_number="serial-number-empty"))):
            with self.subTest(codes=codes):
                (daemon.commands / "dmidecode").unlink()
                if script:
                    daemon.install("dmidecode", script)
                self.assert_codes(name=daemon.name, question="no-serial-number", **codes)
                if script is None:
                    daemon.install("dmidecode", "")
        for script in ("exit 1", "echo"):
            daemon.install("dmidecode", script)
            self.assert_codes(name=daemon.name, mounts=[self.no_tables],
                              question="no-serial-number-without-tables",
                              serial_number="firmware-tables-missing")
        for text in ("Not Specified", "To Be Filled By O.E.M."):
            daemon.install("dmidecode", f"echo '{text}'")
            self.assert_codes(name=daemon.name, serial_number="serial-number-placeholder")

    def test_what_only_root_can_see(self):
        daemon = self.start(dmidecode="echo S1", name=self.name)
        os.chmod(self.name, 0o666)
        hidden = dict(version="needs-root", descriptors="needs-root", trace_file="needs-root")
        self.assert_codes(launcher=NOBODY, **hidden)
        daemon.install("dmidecode", "exit 1")
        self.assert_codes(launcher=NOBODY, question="no-serial-number",
                          serial_number="needs-root", **hidden)

    def test_descriptors_and_trace_file(self):
        daemon = self.start(dmidecode="echo S1")
        for change, codes in (
                (lambda: run("prlimit", f"--nofile={daemon.count_when_idle() + 12}",
                             f"--pid={daemon.pid}", check=True),
                 dict(descriptors="descriptors-low")),
                (lambda: daemon.log.chmod(0o640), dict(trace_file="trace-file-open")),
                (lambda: daemon.log.chmod(0o600) or os.truncate(daemon.log, (64 << 20) + 1),
                 dict(trace_file="trace-file-large")),
                (lambda: daemon.log.unlink(), dict(trace_file="trace-file-missing"))):
            change()
            self.assert_codes(name=daemon.name, **{"descriptors": "descriptors-low"} | codes)

    def test_check_that_the_kernel_holds(self):
        os.mkfifo(self.folder / "fifo")  # an open() of it blocks
        daemon = self.start(dmidecode="echo S1")
        self.assert_codes("--timeout=1", name=daemon.name, platform="check-late",
                          mounts=[(self.folder / "fifo", "/etc/os-release")])

    def test_igel_device(self):
        self.igel = True
        release = (self.folder / "os-release", "/etc/os-release")
        release[0].write_text('NAME="IGEL OS 12"\nVERSION="12.4"\n')
        store, path = self.folder / "store", self.folder / "path"
        store.mkdir()
        path.mkdir()

        def start(*arguments, launcher=()):
            # The service has no capability either.
            return self.start(f"--igel-management-cert-path={store}", *arguments,
                              dmidecode="echo S1",
                              launcher=[*mounted(release), *POWERLESS, *launcher])

        def check(daemon, *arguments, **codes):
            self.assert_codes(*arguments, name=daemon.name, mounts=[release], launcher=POWERLESS,
                              **codes)
        daemon = start()
        check(daemon, trust_store="trust-store-empty")
        os.chown(store, 65534, 65534)
        store.chmod(0o700)
        check(daemon, trust_store="trust-store-unreadable")
        os.chown(store, 0, 0)
        run("openssl", "req", "-x509", "-nodes", "-newkey", "ed25519", "-subj", "/CN=x", "-keyout",
            "/dev/null", "-out", store / "first.pem", check=True)
        (store / "cacerts.pem").write_text("")
        check(daemon, openssl="fingerprint-case")
        check(start("--openssl-fingerprint-any-case"))
        daemon.install("openssl", "echo 'SHA256 Fingerprint=00'")
        check(daemon)
        daemon.install("openssl", "sleep 1000")
        check(daemon, "--timeout=1", openssl="check-unfinished")
        daemon.install("openssl", "exit 1")
        check(daemon, openssl="certificate-broken")
        os.mkfifo(store / "second.pem")
        daemon.install("openssl", "echo 'SHA256 Fingerprint=00'")
        check(daemon, openssl="certificate-broken")
        (path / "dmidecode").symlink_to(daemon.commands / "dmidecode")
        check(start(launcher=["env", f"PATH={path}"]), openssl="openssl-missing")
        store.rename(self.folder / "elsewhere")
        check(daemon, trust_store="trust-store-missing")
