import contextlib
import ctypes
import os
import random
import signal
import socket
import subprocess
import time
import unittest

from harness import (BIN, CAN_MOUNT, DEADLINE, GENERIC, HARDWARE, NAMESPACE, NOT_IMPLEMENTED,
                     PATIENCE, SANITIZED, SEQPACKET, STREAM, Case, Client, ctl, run, serial,
                     wait_until)

SHUTDOWN = ["Shutting down daemon...", "Shutting down listen socket", "Shutting down main thread",
            "Daemon shutdown complete."]


class StopTest(Case):
    def assert_orderly_end(self, daemon, number=15):
        daemon.wait_for_end(PATIENCE)
        self.assertFalse(os.path.lexists(daemon.name), "left its socket file")
        events = [f"{line.message} {line.fields}".strip() for line in daemon.trace()
                  if line.message in [*SHUTDOWN, "Received signal"]]
        self.assertEqual(events[:5], [f"Received signal signal:{number}", *SHUTDOWN])
        self.assertEqual(events[-1], "Received signal signal:3")
        self.assertLessEqual(set(events[5:-1]), {f"Received signal signal:{number}"})

    def test_signals_end_the_daemon_in_order_and_inherited_dispositions_do_not_matter(self):
        ignoring = ["sh", "-c", 'trap "" CHLD HUP; exec "$@"', "sh"]
        for number in (signal.SIGINT, signal.SIGHUP):
            daemon = self.start(dmidecode="echo S1", launcher=ignoring if number == 2 else [])
            if number == signal.SIGINT:
                daemon.process.send_signal(signal.SIGHUP)  # which nohup(1) ignores
                self.assertEqual(daemon.ask(HARDWARE), serial("S1"))
            daemon.process.send_signal(number)
            self.assert_orderly_end(daemon, int(number))

    @unittest.skipUnless(CAN_MOUNT and os.geteuid() == 0 and os.path.exists("/dev/fuse"),
                         "takes a file system of its own")
    def test_end_does_not_wait_for_a_sensor_on_a_dead_file_system(self):
        store = self.folder / "store"
        store.mkdir()
        (self.folder / "os-release").write_text('NAME="IGEL OS 12"\n')
        device = os.open("/dev/fuse", os.O_RDWR | os.O_CLOEXEC)  # nobody will ever read from it
        self.addCleanup(os.close, device)
        libc = ctypes.CDLL(None, use_errno=True)
        options = f"fd={device},rootmode=40000,user_id=0,group_id=0".encode()
        self.assertEqual(libc.mount(b"dead", bytes(store), b"fuse", 0, options), 0)
        self.addCleanup(libc.umount2, bytes(store), 2)  # MNT_DETACH
        daemon = self.start(f"--igel-management-cert-path={store}", "--trace-console",
                            launcher=[*NAMESPACE, self.folder / "os-release", "/etc/os-release"])
        client = self.connect(daemon)
        client.request({"sensor": {"igel": None}})
        daemon.wait_for_trace("Received IGEL sensor request")
        self.assertEqual(daemon.ask([]), NOT_IMPLEMENTED)
        daemon.process.terminate()
        daemon.wait_for_end(PATIENCE)
        last = daemon.trace()[-1]
        self.assertEqual((last.level, last.message, last.fields),
                         ("WARNING", "Ended without waiting", 'for:"sensor thread"'))

    def repeat_sigterm(self, daemon):
        """ThreadSanitizer may keep a signal that comes during the start until the next one."""
        for _ in range(PATIENCE):
            with contextlib.suppress(subprocess.TimeoutExpired):
                daemon.process.wait(1)
                break
            daemon.process.terminate()

    def test_sigterm_at_any_moment_after_the_socket_file_appears(self):
        for _ in range(40 if SANITIZED else 200):
            delay = random.choice([0, random.uniform(0, 0.005)])
            with self.subTest(delay=delay):
                daemon = self.launch()
                wait_until(lambda: os.path.exists(daemon.name), "the socket file is there", pause=0)
                time.sleep(delay)
                daemon.process.terminate()
                if SANITIZED:
                    self.repeat_sigterm(daemon)
                self.assert_orderly_end(daemon)

    def test_many_sigterms_cause_one_shutdown_that_ends_the_connections(self):
        daemon = self.start()
        idle, announcing, sending, asking = (self.connect(daemon) for _ in range(4))
        announcing.send_all(b"\x10\0\0\0")
        sending.send_all(b"\x10\0\0\0", b'{"sens')
        asking.request(*[[]] * 2000)
        for _ in range(500):
            daemon.process.terminate()
        self.assert_orderly_end(daemon)
        for client in (idle, announcing, sending):
            self.assert_ended(client)

    def test_service_manager_is_notified_of_start_and_stop(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(f"{self.folder}/notify")
            manager.settimeout(DEADLINE)
            daemon = self.launch(environment={"NOTIFY_SOCKET": f"{self.folder}/notify"})
            self.assertEqual(manager.recv(100), b"READY=1")
            self.assertEqual(daemon.ask([]), NOT_IMPLEMENTED)  # it listens
            daemon.process.terminate()
            self.assertEqual(manager.recv(100), b"STOPPING=1")
            self.assert_orderly_end(daemon)


class FailedStartTest(Case):
    def fail_to_start(self, name, error, repeat=1):
        for _ in range(repeat):
            daemon = self.launch(name=name)
            daemon.wait_for_end(status=1)
            last = [line for line in daemon.trace() if line.level == "ERROR"][-1]
            self.assertEqual(last.message, "Failed running client daemon")
            self.assertRegex(last.fields, f'^err:"{error}')

    def test_addresses_that_cannot_be_bound(self):
        longest = f"{self.folder}/".ljust(107, "x")
        self.start(name=longest)
        self.fail_to_start(longest + "x", "Invalid Address", repeat=20)
        self.assertFalse(os.path.lexists(longest + "x"))
        self.fail_to_start(f"{self.folder}/none/socket", "No such file or directory", repeat=20)
        self.fail_to_start("/proc/ktclientd-socket", "")

    def test_live_listener_keeps_its_socket(self):
        for kind, backlog, waiting in ((SEQPACKET, 8, 0), (SEQPACKET, 0, 1), (STREAM, 0, 1)):
            with self.subTest(kind=kind, backlog=backlog):
                name = f"{self.folder}/{kind}-{backlog}"
                listener = self.listen(name, kind, backlog)
                for _ in range(waiting):  # as many as the backlog holds
                    self.enterContext(Client(name, kind))
                self.fail_to_start(name, "Address already in use")
                for _ in range(waiting):
                    listener.accept()[0].close()
                client = self.enterContext(Client(name, kind))
                client.send_all(b"still there?")
                received = b""
                while received != b"still there?":  # the daemon may have connected before
                    with listener.accept()[0] as connection:
                        received = connection.recv(100)

    def test_file_that_is_no_socket_is_kept(self):
        (self.folder / "file").write_text("kept")
        self.fail_to_start(f"{self.folder}/file", "Address already in use")
        self.assertEqual((self.folder / "file").read_text(), "kept")
        (self.folder / "link").symlink_to(self.folder / "nothing")
        self.fail_to_start(f"{self.folder}/link", "Address already in use")
        self.assertTrue((self.folder / "link").is_symlink())

    def test_stale_socket_file_is_replaced(self):
        for kind in (SEQPACKET, STREAM):
            name = f"{self.folder}/{kind}"
            self.listen(name, kind).close()
            self.start(name=name).stop()
            self.assertFalse(os.path.lexists(name))

    def test_activation_with_other_than_one_descriptor(self):
        daemon = self.launch(activated=STREAM, activator=["--listen", f"{self.folder}/other"])
        daemon.connect_when_up().close()
        daemon.wait_for_end(status=1)
        errors = [line for line in daemon.trace() if line.level == "ERROR"]
        self.assertEqual([error.message for error in errors],
                         ["Unexpected socket listen count", "Failed running client daemon"])
        self.assertEqual(errors[0].fields, "listenSocketCount:2")

        for count, status, last in (
                (0, 0, ("VERBOSE", "Shutting down with nothing to do")),
                (1, 1, ("ERROR", "Failed running client daemon"))):
            passing = ["sh", "-c", f'LISTEN_FDS={count} LISTEN_PID=$$ exec "$@" 3<&-', "sh"]
            daemon = self.launch("--activated", launcher=passing)
            daemon.wait_for_end(status=status)
            self.assertIn(last, [(line.level, line.message) for line in daemon.trace()])
        self.assertIn("Failed to take passed sockets", daemon.messages("ERROR"))

        daemon = self.launch("--activated")
        daemon.wait_for_end()
        self.assertEqual(daemon.messages()[-1], "Shutting down with nothing to do")


class ActivationTest(Case):
    def test_daemon_ends_when_idle_and_not_before(self):
        period = 2
        daemons = [self.start(f"--activated-period={period}", activated=kind)
                   for kind in (SEQPACKET, STREAM)]
        clients = [self.connect(daemon) for daemon in daemons]
        begin = time.monotonic()
        while time.monotonic() < begin + 1.5 * period:
            last = time.monotonic()
            for client in clients:
                self.assertEqual(client.ask(HARDWARE), GENERIC)
            time.sleep(0.1)
        for daemon, client in zip(daemons, clients):
            daemon.wait_for_end()
            self.assertGreaterEqual(time.monotonic() - last, period)
            self.assert_ended(client)
            self.assertTrue(os.path.lexists(daemon.name), "removed the socket file of systemd")
            self.assertEqual([text for text in daemon.messages() if text in SHUTDOWN], SHUTDOWN)


class CommandLineTest(Case):
    def test_abstract_names_with_and_without_at(self):
        for at in ("", "@"):
            name = f"ktclientd-test-{os.getpid()}-{random.getrandbits(32)}"
            self.start(name=at + name)
            for asked in (name, "@" + name):
                self.assertEqual(ctl(f"--socket={asked}", "send", "[]").returncode, 1)

    def test_help_and_version_start_nothing(self):
        for program in ("ktclientd", "ktclientctl"):
            usage, version = (run(BIN / program, option, f"--socket={self.folder}/socket",
                                  f"--trace-folder={self.folder}")
                              for option in ("--help", "--version"))
            for result in (usage, version):
                self.assertEqual((result.returncode, result.stderr), (0, ""))
            self.assertIn("KESTREL_SOCKET", usage.stdout)
            self.assertRegex(version.stdout, rf"\A{program} \d+\.\d+\.\d+\n\Z")
        self.assertEqual(os.listdir(self.folder), [])
