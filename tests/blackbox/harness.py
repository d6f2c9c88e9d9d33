"""Runs the real programs, each daemon with a folder, socket and PATH of its own.

KTCLIENTD_BIN names the folder of the programs. KTCLIENTD_SANITIZED=1 says that they are built with
sanitizers: slow, large, and with an exit status of their own after a report.
"""

import collections
import contextlib
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import time
import unittest

import jsonschema

BIN = pathlib.Path(os.environ["KTCLIENTD_BIN"]).resolve()
DOCS = pathlib.Path(__file__).resolve().parents[2] / "docs"
SANITIZED = os.environ.get("KTCLIENTD_SANITIZED") == "1"
DEADLINE = 60  # seconds; only a fault takes that long
PATIENCE = DEADLINE if SANITIZED else 10  # seconds from a SIGTERM to the end
MAX_PAYLOAD = 131072
SEQPACKET, STREAM = socket.SOCK_SEQPACKET, socket.SOCK_STREAM
HARDWARE = {"sensor": {"hardware": None}}
NOT_IMPLEMENTED, GENERIC = {"status": "ErrorNotImplemented"}, {"status": "ErrorGeneric"}
NOT_IGEL = GENERIC | {"error_message": "Not an IGEL device"}

# Mounts its first argument, a file or folder, over its second, and runs the rest as a command.
NAMESPACE = ["unshare", "--mount", *(["--map-root-user"] if os.geteuid() != 0 else []), "sh", "-c",
             'mount --bind "$1" "$2" && shift 2 && exec "$@"', "sh"]
CAN_MOUNT = not subprocess.run([*NAMESPACE, "/dev/null", "/etc/os-release", "true"],
                               stderr=subprocess.DEVNULL).returncode

HEADER = re.compile(r"\d\d:\d\d:\d\d\.\d{3}Z (FATAL|ERROR|WARNING|INFO|VERBOSE|DEBUG) {1,4} "
                    r"[a-z_]+\(\d+:\d+\) - ")
TraceLine = collections.namedtuple("TraceLine", "level message fields")


def read_schema(what):
    # An old version of the module lacks the schemas' draft. They use nothing that is new in it.
    validator = getattr(jsonschema, "Draft202012Validator", jsonschema.Draft7Validator)
    return validator(json.loads((DOCS / f"{what}.schema.json").read_text()))


RESPONSE = read_schema("response")


def serial(text):
    return {"status": "Success", "sensor": {"hardware": {"bios_serial_number": text}}}


def packet(request):
    """Returns the header and the payload; a request of type bytes is the payload itself."""
    payload = request if isinstance(request, bytes) else json.dumps(request).encode()
    return struct.pack("=I", len(payload)), payload


def wait_until(condition, what, pause=0.005):
    deadline = time.monotonic() + DEADLINE
    while not (result := condition()):
        if time.monotonic() > deadline:
            raise AssertionError(f"waited in vain until {what}")
        time.sleep(pause)
    return result


def in_thread(target, *arguments):
    thread = threading.Thread(target=target, args=arguments, daemon=True)
    thread.start()
    return thread


def processes_of_session(leader):
    """The command lines of the processes in the session, which commands share."""
    found = []
    for folder in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            state, _, _, session = (folder / "stat").read_text().rpartition(") ")[2].split()[:4]
            if int(session) == leader and state != "Z":
                found.append((folder / "cmdline").read_bytes())
    return found


def parse_trace(text):
    """Splits a trace and checks that each line is whole. Field values may contain line ends."""
    lines = []
    for line in text and re.split(r"(?m)(?<=\n)(?=\d\d:\d\d:\d\d\.\d{3}Z )", text):
        header = HEADER.match(line)
        if not header or HEADER.search(line, header.end()) or line[-1] != "\n":
            raise AssertionError(f"not a line of a trace: {line!r}")
        message, brace, fields = line[header.end():-1].partition(" { ")
        if "\n" in message or (brace and not fields.endswith(" }")):
            raise AssertionError(f"torn line: {line!r}")
        lines.append(TraceLine(*header.groups(), message, fields.removesuffix(" }")))
    return lines


def clean_environment(changes):
    return {name: value for name, value in os.environ.items()
            if not name.startswith(("KESTREL_", "LISTEN_"))} | changes


def run(*command, environment={}, **options):
    return subprocess.run(command, timeout=DEADLINE, text=True, env=clean_environment(environment),
                          **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options})


def ctl(*arguments, **options):
    return run(BIN / "ktclientctl", *arguments, **options)


class Client(socket.socket):
    """A connection. Header and payload are two records on SEQPACKET, bytes on STREAM."""

    def __init__(self, name, kind=SEQPACKET):
        super().__init__(socket.AF_UNIX, kind)
        # With settimeout(), connect() would fail on a full backlog instead of waiting for room.
        for option in (socket.SO_RCVTIMEO, socket.SO_SNDTIMEO):
            self.setsockopt(socket.SOL_SOCKET, option, struct.pack("ll", DEADLINE, 0))
        try:
            self.connect(name if "/" in name else "\0" + name.removeprefix("@"))
        except OSError:
            self.close()
            raise

    def request(self, *requests):
        for request in requests:
            self.send_all(*packet(request))

    def send_all(self, *records):
        for record in records:
            self.sendall(record)

    def answer(self):
        """Returns the next answer, checked by the schema; None at the end of the connection."""
        try:
            header = self.recv(4, socket.MSG_WAITALL)
        except ConnectionResetError:  # closed with requests unread
            return None
        if not header:
            return None
        answer = json.loads(self.recv(*struct.unpack("=I", header), socket.MSG_WAITALL))
        RESPONSE.validate(answer)
        return answer

    def ask(self, request):
        self.request(request)
        return self.answer()


class Daemon:
    """A running ktclientd.

    With `activated`, a kind of socket, systemd-socket-activate listens and starts the daemon at the
    first client; `activator` holds further arguments for it. `launcher` is a command that execs its
    arguments. `dmidecode` is a shell script; with None there is no such command.
    """

    def __init__(self, folder, *arguments, name=None, activated=None, activator=(), launcher=(),
                 dmidecode="exit 1", environment={}, **streams):
        self.folder = pathlib.Path(tempfile.mkdtemp(dir=folder))
        self.commands = self.folder / "commands"
        self.commands.mkdir()
        if dmidecode:
            self.install("dmidecode", dmidecode)
        self.name = name or str(self.folder / "socket")
        self.kind = activated or SEQPACKET
        self.log = self.folder / "ktclientd.log"
        environment = {"PATH": f"{self.commands}:/usr/bin:/bin", **environment}
        command = [BIN / "ktclientd", f"--socket={self.name}"]
        if activated:
            passed = {*environment, "ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}
            command = ["systemd-socket-activate", *activator, "--listen", self.name,
                       *(["--seqpacket"] if activated == SEQPACKET else []),
                       *(f"--setenv={variable}" for variable in passed), *command, "--activated"]
        self._stderr = open(self.folder / "stderr", "w+")
        streams = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL,
                   "stderr": self._stderr, **streams}
        self.process = subprocess.Popen(
            [*launcher, *command, f"--trace-folder={self.folder}", *arguments], **streams,
            start_new_session=True,
            env=clean_environment({"SYSTEMD_LOG_LEVEL": "warning", **environment}))
        self.pid = self.process.pid

    def install(self, command, script):
        (self.commands / command).write_text("#!/bin/sh\n" + script + "\n")
        (self.commands / command).chmod(0o755)

    def connect(self):
        return Client(self.name, self.kind)

    def connect_when_up(self):
        def try_to_connect():
            if self.process.poll() is not None:
                self.wait_for_end(status=None)  # fails and shows the trace
            with contextlib.suppress(FileNotFoundError, ConnectionRefusedError):
                return self.connect()
        return wait_until(try_to_connect, f"{self.name} is listened on")

    def ask(self, request):
        """Asks on a new connection."""
        with self.connect() as client:
            return client.ask(request)

    def stop(self):
        if self.process.returncode is None:
            self.process.terminate()
            self.wait_for_end()

    def wait_for_end(self, seconds=DEADLINE, status=0):
        """Waits for the end: with this exit status, no word on standard error, no process left."""
        try:
            ended = self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            os.killpg(self.pid, signal.SIGKILL)
            ended = f"{self.process.wait()}, killed after the deadline"
        self._stderr.seek(0)
        complaints = self._stderr.read()
        self._stderr.close()
        if ended != status or complaints:
            raise AssertionError(f"ended with {ended}: {complaints}\n{self._trace_text()[-3000:]}")
        wait_until(lambda: not self.session(), "no process of its session is left")

    def session(self):
        return processes_of_session(self.pid)

    def _trace_text(self):
        return self.log.read_text(errors="replace") if self.log.exists() else ""

    def trace(self):
        """The lines of the trace. A line that a running daemon has only begun is left out: a reader
        sees the first page of a write that crosses a page before it sees the rest."""
        ended = self.process.poll() is not None
        text = self._trace_text()
        return parse_trace(text if ended else text[:text.rfind("\n") + 1])

    def messages(self, level=None):
        return [line.message for line in self.trace() if level in (None, line.level)]

    def wait_for_trace(self, message, count=1):
        wait_until(lambda: self._trace_text().count(f" - {message}") >= count,
                   f"{count} times {message!r} in the trace")

    def descriptors(self):
        """The targets of its open descriptors, by number."""
        found = {}
        for number in os.listdir(f"/proc/{self.pid}/fd"):
            with contextlib.suppress(FileNotFoundError):  # closed meanwhile
                found[int(number)] = os.readlink(f"/proc/{self.pid}/fd/{number}")
        return found

    def count_when_idle(self):
        """Waits until its only socket is the listening one, whose folder it closes after its first
        answers; returns the number of descriptors."""
        def count():
            targets = self.descriptors().values()
            is_idle = (sum(target.startswith("socket:") for target in targets) == 1
                      and not any(map(os.path.isdir, targets)))
            return is_idle and len(targets)
        return wait_until(count, "only the listening socket is open")

    def status(self, field, base):
        """A number from /proc/PID/status; sizes are in KiB."""
        text = pathlib.Path(f"/proc/{self.pid}/status").read_text()
        return int(re.search(rf"^{field}:\s*(\w+)", text, re.MULTILINE)[1], base)


class Case(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="ktclientd-"))
        self.addCleanup(shutil.rmtree, self.folder)

    if not hasattr(unittest.TestCase, "enterContext"):  # before Python 3.11
        def enterContext(self, manager):
            result = manager.__enter__()
            self.addCleanup(manager.__exit__, None, None, None)
            return result

    def launch(self, *arguments, **options):
        daemon = Daemon(self.folder, *arguments, **options)
        self.addCleanup(daemon.stop)
        return daemon

    def start(self, *arguments, **options):
        """Launches a daemon and waits for the end of its start."""
        daemon = self.launch(*arguments, **options)
        with daemon.connect_when_up() as client:
            self.assertEqual(client.ask([]), NOT_IMPLEMENTED)
        return daemon

    def connect(self, daemon):
        return self.enterContext(daemon.connect())

    def listen(self, name, kind=SEQPACKET, backlog=8):
        listener = self.enterContext(socket.socket(socket.AF_UNIX, kind))
        listener.bind(name)
        listener.listen(backlog)
        listener.settimeout(DEADLINE)
        return listener

    def wait_for_start(self, daemon, command):
        """Waits until the command has written a line to the file that shows that it runs."""
        started = daemon.commands / f"{command}.started"
        wait_until(lambda: started.exists() and started.read_text().endswith("\n"),
                   f"{command} runs")

    def assert_ended(self, client):
        self.assertIsNone(client.answer(), "an answer instead of the end of the connection")
