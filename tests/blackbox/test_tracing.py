import contextlib
import os
import pathlib
import signal
import socket
import unittest

from harness import (BIN, CAN_MOUNT, HARDWARE, NAMESPACE, NOT_IMPLEMENTED, Case, in_thread,
                     parse_trace, serial)


class TraceFileTest(Case):
    def test_file_starts_afresh_and_can_be_truncated(self):
        file = self.folder / "trace"
        file.write_text("from an earlier run")
        daemon = self.start(f"--trace-file={file}")
        parse_trace(file.read_text())
        os.truncate(file, 0)
        self.assertEqual(daemon.ask([]), NOT_IMPLEMENTED)
        daemon.stop()
        self.assertTrue(parse_trace(file.read_text()))  # there is no hole before the first line

    def test_lines_are_whole_under_load_on_every_sink(self):
        with (open(self.folder / "stdout", "w") as stdout,
              open(self.folder / "stderr", "w") as stderr):
            daemon = self.start("--trace-console", "--trace-level=5", dmidecode="echo S1",
                                stdout=stdout, stderr=stderr)

        def load():
            with contextlib.suppress(OSError, ValueError):  # the daemon ends
                while True:
                    with daemon.connect() as client:
                        client.request(HARDWARE, [], b"{")
                        while client.answer():
                            pass
        threads = [in_thread(load) for _ in range(4)]
        daemon.wait_for_trace("Writing response to socket", 200)
        daemon.stop()
        for thread in threads:
            thread.join()
        printed = parse_trace((self.folder / "stdout").read_text())
        complained = parse_trace((self.folder / "stderr").read_text())
        self.assertEqual(len(daemon.trace()), len(printed) + len(complained))
        self.assertEqual({line.level for line in complained}, {"ERROR"})


class CrashTest(Case):
    def test_crash_is_traced_and_ends_the_daemon_by_its_signal(self):
        daemon = self.start("--trace-level=0",
                            launcher=("sh", "-c", 'ulimit -c 0; exec "$@"', "sh"))
        os.kill(daemon.pid, signal.SIGABRT)
        daemon.wait_for_end(status=-signal.SIGABRT)
        crash, *frames = daemon.trace()
        self.assertEqual(crash.level, "FATAL")
        self.assertEqual(crash.message, "Received fatal signal")
        self.assertIn('signal:"SIGABRT"', crash.fields)
        self.assertIn(f'file:"{BIN / "ktclientd"}"', "".join(frame.fields for frame in frames))

        report = daemon.log.read_text()
        for _ in range(2):
            self.start(f"--trace-file={daemon.log}").stop()
            self.assertEqual(pathlib.Path(f"{daemon.log}.crash").read_text(), report)
            self.assertEqual(daemon.messages().count("Daemon shutdown complete."), 1)


@unittest.skipUnless(CAN_MOUNT, "no mount namespaces here")
class SyslogTest(Case):
    def test_reader_that_has_stopped_holds_nobody_up(self):
        devices = self.folder / "dev"
        devices.mkdir()
        (devices / "null").touch()
        log = self.enterContext(socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM))
        log.bind(str(devices / "log"))
        log.setblocking(False)

        def read():
            lines = []
            with contextlib.suppress(BlockingIOError):
                while True:
                    lines.append(log.recv(10000).decode())
            return lines
        daemon = self.start("--trace-syslog", dmidecode="echo S1", launcher=[
            *NAMESPACE, "/dev/null", devices / "null",
            "sh", "-c", 'mount --rbind "$1" /dev && shift && exec "$@"', "sh", devices])
        client = self.connect(daemon)
        client.request(*[HARDWARE, []] * 200)
        for _ in range(200):
            self.assertEqual([client.answer(), client.answer()], [serial("S1"), NOT_IMPLEMENTED])
        first = read()
        self.assertRegex(first[0], r"^<14>ktclientd: \S+Z INFO     trace\(")
        self.assertEqual(daemon.ask([]), NOT_IMPLEMENTED)
        self.assertIn("WARNING  trace(", "".join(first + read()))
        daemon.stop()
        told = [line.fields for line in daemon.trace() if line.message == "Lines were lost"]
        self.assertGreater(int(told[0].removeprefix("lines:")), 200)


class BrokenSinkTest(Case):
    def assert_answers_with(self, *arguments, **options):
        daemon = self.start(*arguments, dmidecode="echo S1", **options)
        self.assertEqual(daemon.ask(HARDWARE), serial("S1"))
        return daemon

    def test_closed_standard_streams(self):
        daemon = self.assert_answers_with("--trace-console", launcher=[
            "sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh"])
        streams = [daemon.descriptors().get(number) for number in range(3)]
        self.assertEqual(streams, ["/dev/null"] * 3)

    def test_standard_output_that_nobody_reads(self):
        reader, writer = os.pipe()
        self.addCleanup(os.close, writer)
        os.set_blocking(writer, False)
        with contextlib.suppress(BlockingIOError):
            while True:
                os.write(writer, b"x" * 4096)
        os.set_blocking(writer, True)
        self.assert_answers_with("--trace-console", stdout=writer).stop()
        os.close(reader)
        self.assert_answers_with("--trace-console", stdout=writer).stop()

    def test_sink_that_cannot_be_written_to(self):
        for file in ("/dev/full", f"{self.folder}/none/file", f"{self.folder}"):
            with self.subTest(file=file):
                self.assert_answers_with(f"--trace-file={file}")
        with open("/dev/full", "wb") as full:
            self.assert_answers_with("--trace-console", stdout=full).stop()
