import fcntl
import json
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import tempfile
import termios

from harness import (BIN, DEADLINE, HARDWARE, MAX_PAYLOAD, SEQPACKET, STREAM, Case,
                     clean_environment, in_thread, packet, serial, wait_until)

ORIGIN = "chrome-extension://hhkacpagcihienfhpiegkahafghdggch/"
WORDS_OF_BROWSERS = ([], [ORIGIN], [ORIGIN, "--parent-window=5"],
                     ["/etc/mozilla/ktclientd.json", "posture@ktclientd.example"])
MAX_RESPONSE = 1 << 20
GOOD = b"".join(packet(HARDWARE))


def packets(data):
    """The payloads of the packets that `data` consists of."""
    found = []
    while data:
        length, = struct.unpack_from("=I", data)
        found.append(data[4:4 + length])
        data = data[4 + length:]
    return found


class NativeHostTest(Case):
    def bridge(self, name, *arguments, **options):
        """The command of a bridge to the daemon at `name`, started with pipes."""
        bridge = self.enterContext(subprocess.Popen(
            [BIN / "ktclientctl", "native-host", f"--socket={name}", *arguments],
            **{stream: subprocess.PIPE for stream in ("stdin", "stdout", "stderr")} | options,
            env=clean_environment({})))
        self.addCleanup(bridge.kill)
        return bridge

    def feed(self, name, data, *arguments, **options):
        """Returns status, responses and complaint of a bridge whose input is `data`."""
        bridge = self.bridge(name, *arguments, **options)
        output, complaint = bridge.communicate(data, DEADLINE)
        return bridge.returncode, [json.loads(text) for text in packets(output)], complaint.decode()

    def read_response(self, stream):
        return json.loads(stream.read(*struct.unpack("=I", stream.read(4))))

    def test_responses_are_those_of_the_daemon_in_order(self):
        requests = [HARDWARE, {}, [1, 2], "text", {"sensor": {"igel": None}}, b"[" * 9 + b"]" * 9,
                    b"[]".ljust(MAX_PAYLOAD)] * 4
        data = b"".join(b"".join(packet(request)) for request in requests)
        for kind, words in zip((SEQPACKET, STREAM) * 2, WORDS_OF_BROWSERS):
            daemon = self.start(activated=kind, dmidecode="echo S1")
            direct = [daemon.ask(request) for request in requests]
            self.assertEqual(self.feed(daemon.name, data, *words), (0, direct, ""))
        # A length of 0 is an end.
        self.assertEqual(self.feed(daemon.name, GOOD + bytes(4) + GOOD)[1:], ([direct[0]], ""))
        # The trace does not get between the packets.
        status, responses, trace = self.feed(daemon.name, data, "--trace-console",
                                             "--trace-level=5", "--compact")
        self.assertEqual((status, responses), (0, direct))
        self.assertIn(" DEBUG ", trace)
        with tempfile.TemporaryFile(dir=self.folder) as file:
            file.write(GOOD * 2)
            file.seek(0)
            self.assertEqual(self.feed(daemon.name, None, stdin=file), (0, direct[:1] * 2, ""))

    def test_pieces_and_a_daemon_that_is_started_again(self):
        name = f"{self.folder}/socket"
        ours, its = socket.socketpair()
        bridge = self.bridge(name, stdin=its, stdout=its)
        its.close()
        for answer in ("S1", "S2", "S3"):
            daemon = self.launch(name=name, activated=SEQPACKET, dmidecode=f"echo {answer}")
            # A connection would start the daemon. The flag says that somebody listens.
            listening = re.compile(rf" 00010000 .* {name}\n")
            wait_until(lambda: listening.search(pathlib.Path("/proc/net/unix").read_text()),
                       f"{name} is listened on")
            with ours.makefile("rb") as stream:
                for first, second in ((0, 3), (2, 9), (4, len(GOOD) - 1)):
                    for piece in (GOOD[:first], GOOD[first:second], GOOD[second:]):
                        ours.sendall(piece)
                        # The bridge has read the piece before the next one arrives.
                        wait_until(lambda: not struct.unpack("i", fcntl.ioctl(
                            ours, termios.TIOCOUTQ, bytes(4)))[0], "the piece is read")
                    self.assertEqual(self.read_response(stream), serial(answer))
            daemon.stop()
        ours.close()
        self.assertEqual((bridge.wait(DEADLINE), bridge.stderr.read()), (0, b""))

    def test_broken_requests(self):
        name = self.start(dmidecode="echo S1").name
        for data, reason in ((b"\2\0", "Cannot read the request: Invalid Header Size"),
                             (b"\2\0\0\0", "Cannot read the request: Unexpected End Of Stream"),
                             (b"\3\0\0\0[]", "Cannot read the request: Unexpected End Of Stream"),
                             (struct.pack("=I", MAX_PAYLOAD + 1) + b"[]".ljust(MAX_PAYLOAD + 1),
                              "The request is longer than 131072 bytes"),
                             (b"\1\0\0\0{", "The request is not valid JSON")):
            with self.subTest(data=data[:8]):
                self.assertEqual(self.feed(name, GOOD + data),
                                 (2, [serial("S1")], f"ktclientctl: {reason}\n"))

        terminals = [self.enterContext(open(fd, "rb+", 0)) for fd in os.openpty()]
        status, responses, complaint = self.feed(name, None, stdin=terminals[1])
        self.assertEqual((status, responses), (2, []))
        self.assertIn("Standard input is a terminal", complaint)

    def test_no_response_that_a_browser_accepts(self):
        name = f"{self.folder}/socket"
        self.assertEqual(self.feed(name, GOOD)[:2], (3, []))
        listener = self.listen(name)
        answers = [b'"%s"' % (b"x" * (MAX_RESPONSE + extra - 2)) for extra in (0, 1)]

        def serve():
            for answer in (*answers, None):
                with listener.accept()[0] as client:
                    self.assertEqual(client.recv(4) + client.recv(1000), GOOD)
                    header, payload = packet(answer or b"")
                    client.sendall(header if answer else b"")
                    for start in range(0, len(payload), 65536):
                        client.sendall(payload[start:start + 65536])
                    client.recv(1)
        server = in_thread(serve)
        status, responses, complaint = self.feed(name, GOOD * 2)
        self.assertEqual((status, responses), (3, [json.loads(answers[0])]))
        self.assertIn("longer than the 1048576 bytes", complaint)
        status, responses, complaint = self.feed(name, GOOD, "--timeout=1")
        self.assertEqual((status, responses), (3, []))
        self.assertIn("No response within 1 seconds", complaint)
        server.join()

    def test_browser_that_leaves(self):
        daemon = self.start(dmidecode="echo S1")
        bridge = self.bridge(daemon.name)
        bridge.stdout.close()
        bridge.stdin.write(GOOD)
        bridge.stdin.flush()
        self.assertEqual((bridge.wait(DEADLINE), bridge.stderr.read()), (0, b""))
        bridge = self.bridge(daemon.name)
        bridge.stdin.write(GOOD)
        bridge.stdin.flush()
        self.assertEqual(self.read_response(bridge.stdout), serial("S1"))
        bridge.terminate()
        self.assertEqual(bridge.wait(DEADLINE), -signal.SIGTERM)
        with open("/dev/full", "w") as full:
            bridge = self.bridge(daemon.name, stdout=full)
            self.assertIn(b"Cannot write the response: No space", bridge.communicate(GOOD)[1])
        self.assertEqual(bridge.returncode, 3)
