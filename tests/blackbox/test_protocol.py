import contextlib
import signal
import struct

from harness import (GENERIC, HARDWARE, MAX_PAYLOAD, NOT_IGEL, NOT_IMPLEMENTED, STREAM, Case,
                     packet, serial)


class ProtocolTest:
    """Holds on both types of socket."""

    def setUp(self):
        super().setUp()
        self.daemon = self.start(activated=self.activated)
        self.client = self.connect(self.daemon)

    def assert_refused(self, *records):
        with self.daemon.connect() as client:
            with contextlib.suppress(ConnectionError):  # closed before the last record
                client.send_all(*records)
            self.assert_ended(client)
        self.assertEqual(self.client.ask([]), NOT_IMPLEMENTED)

    def test_requests_are_answered_in_order(self):
        self.daemon.install("dmidecode", "echo S1")
        both = {"sensor": {"igel": None, "hardware": False}, "more": 1}
        self.client.request(HARDWARE, [], both)
        self.assertEqual([self.client.answer() for _ in range(3)],
                         [serial("S1"), NOT_IMPLEMENTED, serial("S1")])
        self.assertEqual(self.client.ask({"sensor": {"igel": None}}), NOT_IGEL)

    def test_request_without_a_known_sensor_is_not_implemented(self):
        for request in ({}, [], "sensor", 7, None, True, ["sensor"], {"Sensor": {"hardware": 1}},
                        {"sensor": "hardware"}, {"sensor": ["hardware"]}, {"sensor": None},
                        {"sensor": {}}, {"sensor": {"toaster": None}}):
            with self.subTest(request=request):
                self.assertEqual(self.client.ask(request), NOT_IMPLEMENTED)

    def test_payload_that_is_no_json_ends_the_connection_without_an_answer(self):
        for payload in (b"{", b"[] []", b"[] // why", b"/* why */ []", b"\0", b" ", b"{'a':1}",
                        b'"\xff"', b'{"sensor":{"hardware":"\xc3"}}', b"[1,]", b"[" * MAX_PAYLOAD):
            with self.subTest(payload=payload[:40]):
                self.assert_refused(*packet(payload))

    def test_length_is_from_one_byte_to_the_maximum(self):
        self.assertEqual(self.client.ask(b"7"), NOT_IMPLEMENTED)
        self.assertEqual(self.client.ask(b"[]".ljust(MAX_PAYLOAD)), NOT_IMPLEMENTED)
        self.assert_refused(*packet(b"[]".ljust(MAX_PAYLOAD + 1)))
        self.assert_refused(b"\xff\xff\xff\xff")
        self.assert_refused(b"\2\0\0")
        self.assert_refused(b"\0\0\0\0", *packet([]))  # an empty packet is the end

    def test_payload_in_pieces_is_one_request(self):
        header, payload = packet({"sensor": {"hardware": "x" * 20000}})
        pieces = [payload[start:start + 999] for start in range(0, len(payload), 999)]
        self.client.send_all(header, pieces[0])
        self.daemon.wait_for_trace("Read data partially completed")
        self.client.send_all(*pieces[1:])
        self.assertEqual(self.client.answer(), GENERIC)


class SeqpacketProtocolTest(ProtocolTest, Case):
    activated = None

    def test_bytes_of_a_record_beyond_the_announced_length_are_lost(self):
        self.client.send_all(struct.pack("=I", 2), b"[] and more")
        self.assertEqual(self.client.answer(), NOT_IMPLEMENTED)
        self.client.send_all(b"".join(packet([])))  # the payload is lost with its header
        self.daemon.wait_for_trace("Record was truncated", 2)
        self.client.send_all(b"[]")
        self.assertEqual(self.client.answer(), NOT_IMPLEMENTED)


class StreamProtocolTest(ProtocolTest, Case):
    activated = STREAM

    def test_packets_need_no_boundaries(self):
        header, payload = packet("x")
        self.client.send_all(b"".join(packet([]) * 2 + packet(HARDWARE)) + header + payload[:1])
        self.assertEqual([self.client.answer() for _ in range(3)],
                         [NOT_IMPLEMENTED, NOT_IMPLEMENTED, GENERIC])
        self.client.send_all(payload[1:])
        self.assertEqual(self.client.answer(), NOT_IMPLEMENTED)


class HardwareTest(Case):
    def test_what_dmidecode_prints_is_the_serial_number(self):
        daemon = self.start(dmidecode=r"printf '\n \tS \303\244 1\r\n  \n'")
        self.assertEqual(daemon.ask(HARDWARE), serial("S \u00e4 1"))
        daemon.install("dmidecode", 'echo "$LC_ALL $*"')
        self.assertEqual(daemon.ask(HARDWARE), serial("C -s system-serial-number"))
        daemon.install("dmidecode", "printf %0100000d 7")
        self.assertEqual(daemon.ask(HARDWARE), serial("7".zfill(100000)))

    def test_without_a_serial_number_the_answer_is_an_error(self):
        with open(self.folder / "complaints", "w+") as complaints:
            daemon = self.start(dmidecode=None, stderr=complaints)
            self.assertEqual(daemon.ask(HARDWARE), GENERIC)
            complaints.seek(0)
            self.assertIn("dmidecode: not found", complaints.read())
        for script in ("true", "echo", "echo S1; exit 1"):
            with self.subTest(script=script):
                daemon.install("dmidecode", script)
                self.assertEqual(daemon.ask(HARDWARE), GENERIC)

    def test_serial_number_that_cannot_be_written_ends_the_connection(self):
        daemon = self.start(dmidecode=r"printf 'S\377\n'")
        with daemon.connect() as client:
            client.request(HARDWARE)
            self.assert_ended(client)
        self.assertEqual(daemon.ask([]), NOT_IMPLEMENTED)
        self.assertEqual(daemon.messages("ERROR"), ["Failed to process request"])

    def test_command_inherits_no_descriptor_and_no_blocked_signal(self):
        daemon = self.start("--trace-console", dmidecode="""exec sh -c '
            (ls /proc/$$/fd >"$0.descriptors")
            grep -E "^Sig(Blk|Ign):" /proc/self/status >"$0.signals"
            echo S1' "$0" """)
        others = [self.connect(daemon) for _ in range(3)]
        self.assertEqual(others[0].ask(HARDWARE), serial("S1"))
        self.assertEqual((daemon.commands / "dmidecode.descriptors").read_text().split(),
                         ["0", "1", "2"])
        _, blocked, _, ignored = (daemon.commands / "dmidecode.signals").read_text().split()
        own = 1 << signal.SIGTERM - 1 | 1 << signal.SIGPIPE - 1
        self.assertEqual((int(blocked, 16) & own, int(ignored, 16) & own), (0, 0))
