import contextlib
import os
import signal
import stat

from harness import BIN, GENERIC, HARDWARE, NOT_IMPLEMENTED, Case, in_thread, parse_trace, serial


class TraceFileTest(Case):
    def test_file_is_for_its_owner_only_and_starts_afresh(self):
        self.addCleanup(os.umask, os.umask(0))
        file = self.folder / "trace"
        for _ in range(2):
            self.start(f"--trace-file={file}").stop()
            self.assertEqual(stat.S_IMODE(file.stat().st_mode), 0o600)
        messages = [line.message for line in parse_trace(file.read_text())]
        self.assertEqual(messages.count("Daemon shutdown complete."), 1)

    def test_file_can_be_copied_and_truncated(self):
        daemon = self.start()
        os.truncate(daemon.log, 0)
        self.assertEqual(daemon.ask([]), NOT_IMPLEMENTED)
        daemon.stop()
        self.assertIn("Received new connection", daemon.messages())  # no hole before the first line

    def test_threshold(self):
        daemon = self.start("--trace-level=3")
        self.assertEqual(daemon.ask(HARDWARE), GENERIC)
        daemon.stop()
        self.assertEqual({line.level for line in daemon.trace()}, {"ERROR", "WARNING", "INFO"})

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
        written = daemon.trace()
        printed = parse_trace((self.folder / "stdout").read_text())
        complained = parse_trace((self.folder / "stderr").read_text())
        self.assertEqual(len(written), len(printed) + len(complained))
        self.assertEqual({line.level for line in complained}, {"ERROR"})
        self.assertEqual({int(line.pid) for line in written}, {daemon.pid})


class CrashTest(Case):
    def test_crash_is_told_and_ends_it_by_its_signal(self):
        daemon = self.start("--trace-level=0",
                            launcher=("sh", "-c", 'ulimit -c 0; exec "$@"', "sh"))
        os.kill(daemon.pid, signal.SIGABRT)
        daemon.wait_for_end(status=-signal.SIGABRT)
        crash, *frames = daemon.trace()
        self.assertEqual(crash.level, "FATAL")
        self.assertEqual(crash.message, "Received fatal signal")
        self.assertIn('signal:"SIGABRT"', crash.fields)
        self.assertIn(f'file:"{BIN / "ktclientd"}"', "".join(frame.fields for frame in frames))


class BrokenSinkTest(Case):
    def start_with(self, *arguments, **options):
        return self.start(*arguments, dmidecode="echo S1", **options)

    def assert_works(self, daemon):
        client = self.connect(daemon)
        client.request(HARDWARE, [])
        self.assertEqual([client.answer(), client.answer()], [serial("S1"), NOT_IMPLEMENTED])
        daemon.stop()

    def test_standard_streams_that_are_closed(self):
        daemon = self.start_with("--trace-console", launcher=[
            "sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh"])
        streams = [daemon.descriptors().get(number) for number in range(3)]
        self.assertEqual(streams, ["/dev/null"] * 3)
        self.assert_works(daemon)

    def test_standard_output_that_nobody_reads(self):
        reader, writer = os.pipe()
        self.addCleanup(os.close, writer)
        os.set_blocking(writer, False)
        with contextlib.suppress(BlockingIOError):
            while True:
                os.write(writer, b"x" * 4096)
        os.set_blocking(writer, True)
        self.assert_works(self.start_with("--trace-console", stdout=writer))
        os.close(reader)
        self.assert_works(self.start_with("--trace-console", stdout=writer))

    def test_sink_that_takes_nothing(self):
        for file in ("/dev/full", f"{self.folder}/none/file", f"{self.folder}"):
            with self.subTest(file=file):
                self.assert_works(self.start_with(f"--trace-file={file}"))
        with open("/dev/full", "wb") as full:
            self.assert_works(self.start_with("--trace-console", stdout=full))
