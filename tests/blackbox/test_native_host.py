import fcntl
import io
import json
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import termios

from harness import (BIN, DEADLINE, HARDWARE, MAX_PAYLOAD, SEQPACKET, STREAM, Case,
                     clean_environment, in_thread, packet, serial, wait_until)

ORIGIN = "chrome-extension://hhkacpagcihienfhpiegkahafghdggch/"
WORDS_OF_BROWSERS = ([], [ORIGIN], [ORIGIN, "--parent-window=5"],
                     ["/etc/mozilla/ktclientd.json", "posture@ktclientd.example"])
GOOD = b"".join(packet(HARDWARE))


def read_responses(stream):
    while header := stream.read(4):
        yield json.loads(stream.read(*struct.unpack("=I", header)))


class NativeHostTest(Case):
    def bridge(self, name, *arguments, **options):
        bridge = self.enterContext(subprocess.Popen(
            [BIN / "ktclientctl", "native-host", f"--socket={name}", *arguments],
            **dict.fromkeys(("stdin", "stdout", "stderr"), subprocess.PIPE) | options,
            env=clean_environment({})))
        self.addCleanup(bridge.kill)
        return bridge

    def feed(self, name, data, *arguments, **streams):
        """Returns status, responses and complaint of a bridge whose input is `data`."""
        bridge = self.bridge(name, *arguments, **streams)
        output, complaint = bridge.communicate(data, DEADLINE)
        return bridge.returncode, [*read_responses(io.BytesIO(output))], complaint.decode()

    def test_responses_are_those_of_the_daemon_in_order(self):
        requests = [HARDWARE, {}, [1, 2], "text", {"sensor": {"igel": None}}, b"[" * 9 + b"]" * 9,
                    b"[]".ljust(MAX_PAYLOAD)] * 4
        data = b"".join(b"".join(packet(request)) for request in requests)
        for kind, words in zip((SEQPACKET, STREAM) * 2, WORDS_OF_BROWSERS):
            name = (daemon := self.start(activated=kind, dmidecode="echo S1")).name
            direct = [daemon.ask(request) for request in requests]
            self.assertEqual(self.feed(name, data, *words), (0, direct, ""))
        # A length of 0 is an end.
        self.assertEqual(self.feed(name, GOOD + bytes(4) + GOOD), (0, direct[:1], ""))
        # The trace does not get between the packets.
        *result, trace = self.feed(name, data, "--trace-console", "--trace-level=5", "--compact")
        self.assertEqual(result, [0, direct])
        self.assertIn(" DEBUG ", trace)
        (self.folder / "input").write_bytes(GOOD * 2)
        with open(self.folder / "input") as file:
            self.assertEqual(self.feed(name, None, stdin=file), (0, direct[:1] * 2, ""))

    def test_pieces_and_a_daemon_that_is_started_again(self):
        name = f"{self.folder}/socket"
        ours, its = socket.socketpair()
        bridge = self.bridge(name, stdin=its, stdout=its)
        its.close()
        with ours, ours.makefile("rb") as stream:
            for answer in ("S1", "S2", "S3"):
                daemon = self.launch(name=name, activated=SEQPACKET, dmidecode=f"echo {answer}")
                # A connection would start the daemon. The flag says that somebody listens.
                listening = re.compile(rf" 00010000 .* {name}\n")
                wait_until(lambda: listening.search(pathlib.Path("/proc/net/unix").read_text()),
                           f"{name} is listened on")
                for first, second in ((0, 3), (2, 9), (4, len(GOOD) - 1)):
                    for piece in (GOOD[:first], GOOD[first:second], GOOD[second:]):
                        ours.sendall(piece)
                        wait_until(lambda: not any(fcntl.ioctl(ours, termios.TIOCOUTQ, bytes(4))),
                                   "the bridge has read the piece")
                    self.assertEqual(next(read_responses(stream)), serial(answer))
                daemon.stop()
        self.assertEqual((bridge.wait(DEADLINE), bridge.stderr.read()), (0, b""))

    def test_input_that_is_no_request(self):
        name = self.start(dmidecode="echo S1").name
        for data, reason in ((b"\2\0", "Cannot read the request: Invalid Header Size"),
                             (b"\2\0\0\0", "Cannot read the request: Unexpected End Of Stream"),
                             (b"\3\0\0\0[]", "Cannot read the request: Unexpected End Of Stream"),
                             (b"".join(packet(b"[]".ljust(MAX_PAYLOAD + 1))),
                              "The request is longer than 131072 bytes"),
                             (b"\1\0\0\0{", "The request is not valid JSON")):
            with self.subTest(reason=reason):
                self.assertEqual(self.feed(name, GOOD + data),
                                 (2, [serial("S1")], f"ktclientctl: {reason}\n"))
        terminal, its = (self.enterContext(open(fd, "rb+", 0)) for fd in os.openpty())
        self.assertEqual(self.feed(name, None, stdin=its)[:2], (2, []))

    def test_no_response_that_a_browser_accepts(self):
        listener = self.listen(name := f"{self.folder}/socket")
        answers = [b'"%s"' % (b"x" * ((1 << 20) + extra - 2)) for extra in (0, 1)]

        def serve():
            for answer in (*answers, None):
                with listener.accept()[0] as client:
                    client.recv(4), client.recv(1000)
                    for record in packet(answer) if answer else ():
                        for start in range(0, len(record), 65536):
                            client.sendall(record[start:start + 65536])
                    client.recv(1)
        server = in_thread(serve)
        for data, arguments, responses, reason in (
                (GOOD * 2, [], [json.loads(answers[0])], "longer than the 1048576 bytes"),
                (GOOD, ["--timeout=1"], [], "No response within 1 seconds")):
            *result, complaint = self.feed(name, data, *arguments)
            self.assertEqual(result, [3, responses])
            self.assertIn(reason, complaint)
        server.join()
        listener.close()
        self.assertEqual(self.feed(name, GOOD)[:2], (3, []))

    def test_browser_that_leaves(self):
        name = self.start(dmidecode="echo S1").name
        for leave, end in ((lambda bridge: (bridge.stdout.close(), bridge.stdin.write(GOOD)), 0),
                           (subprocess.Popen.terminate, -signal.SIGTERM)):
            bridge = self.bridge(name, bufsize=0)
            bridge.stdin.write(GOOD)
            self.assertEqual(next(read_responses(bridge.stdout)), serial("S1"))
            leave(bridge)
            self.assertEqual((bridge.wait(DEADLINE), bridge.stderr.read()), (end, b""))
        with open("/dev/full", "w") as full:
            bridge = self.bridge(name, stdout=full)
            self.assertIn(b"Cannot write the response: No space", bridge.communicate(GOOD)[1])
        self.assertEqual(bridge.returncode, 3)
