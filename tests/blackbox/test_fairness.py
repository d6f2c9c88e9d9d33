import contextlib
import os
import socket
import unittest

from harness import (HARDWARE, NOT_IMPLEMENTED, STREAM, Case, in_thread, packet, serial,
                     wait_until)

# Numbers its answers; each run waits for a line in the file "gate".
GATED_DMIDECODE = """echo x >>"$0.started"; n=$(wc -l <"$0.started"); read -r go <"$0.gate"
echo "S$n" """
NOBODY = 65534
AS_ROOT = os.geteuid() == 0


@contextlib.contextmanager
def user(uid):
    """Connections that are made inside are those of another user."""
    os.seteuid(uid)
    try:
        yield
    finally:
        os.seteuid(0)


def send_until_closed(client, data):
    with contextlib.suppress(OSError):
        client.sendall(data)


class FairnessTest(Case):
    def start_for_all(self, *arguments, **options):
        name = f"ktclientd-test-{os.getpid()}-{os.urandom(4).hex()}"
        return self.start(*arguments, name=name, **options)

    def start_gated(self, *arguments):
        daemon = self.start_for_all(*arguments, dmidecode=GATED_DMIDECODE)
        os.mkfifo(daemon.commands / "dmidecode.gate")
        self.gate = self.enterContext(
            open(daemon.commands / "dmidecode.gate", "r+b", buffering=0))
        self.queued = 0
        return daemon

    def queue(self, daemon, *clients):
        for client in clients:
            client.request(HARDWARE)
            self.queued += 1
            daemon.wait_for_trace("Received hardware sensor request", self.queued)

    @unittest.skipUnless(AS_ROOT, "takes two users")
    def test_tool_that_hangs_holds_up_nobody_and_each_user_has_every_second_run(self):
        daemon = self.start_gated("--max-connections-per-user=3")
        clients = [self.connect(daemon) for _ in range(5)]
        self.queue(daemon, *clients)
        with user(NOBODY):
            *others, left = (self.connect(daemon) for _ in range(3))
        self.queue(daemon, *others, left)
        left.close()  # its request still waits, so it still counts
        with user(NOBODY):
            self.assert_ended(self.connect(daemon))
        # Nobody waits for the tool: neither new clients nor other requests.
        self.assertEqual(daemon.ask([]), NOT_IMPLEMENTED)
        # One that goes before its turn starts no tool, unlike one that has only ended its sending.
        gone, half = self.connect(daemon), self.connect(daemon)
        self.queue(daemon, gone, half)
        gone.close()
        half.shutdown(socket.SHUT_WR)
        self.gate.write(b"go\n" * 8)
        self.assertEqual([client.answer() for client in others], [serial("S3"), serial("S5")])
        self.assertEqual([client.answer() for client in clients],
                         [serial(f"S{number}") for number in (1, 2, 4, 6, 7)])
        self.assertEqual(half.answer(), serial("S8"))
        self.assert_ended(half)

    def test_requests_behind_a_tool_are_answered_in_order(self):
        daemon = self.start_gated()
        client = self.connect(daemon)
        client.request(HARDWARE, [], HARDWARE, [])
        self.gate.write(b"go\n" * 2)
        self.assertEqual([client.answer() for _ in range(4)],
                         [serial("S1"), NOT_IMPLEMENTED, serial("S2"), NOT_IMPLEMENTED])

    @unittest.skipUnless(AS_ROOT, "takes two users")
    def test_connections_of_one_user_have_a_limit(self):
        daemon = self.start_for_all("--max-connections-per-user=3")
        with user(NOBODY):
            clients = [self.connect(daemon) for _ in range(3)]
            for client in clients:
                self.assertEqual(client.ask([]), NOT_IMPLEMENTED)
            for _ in range(5):
                self.assert_ended(self.connect(daemon))
        self.assertEqual(daemon.ask([]), NOT_IMPLEMENTED)  # root is another user
        refusals = [line for line in daemon.trace() if line.message == "Too many connections"]
        self.assertEqual(len(refusals), 1)
        self.assertEqual((refusals[0].level, refusals[0].fields),
                         ("WARNING", f"uid:{NOBODY} pid:{os.getpid()} connections:3"))
        clients.pop().close()
        with user(NOBODY):
            wait_until(lambda: daemon.ask([]) == NOT_IMPLEMENTED, "there is room for another")
        roots = [self.connect(daemon) for _ in range(10)]  # exempt
        for client in roots:
            self.assertEqual(client.ask([]), NOT_IMPLEMENTED)

    @staticmethod
    def stalls(daemon):
        return [text for text in daemon.messages("WARNING") if text.endswith("took too long")]

    def test_clients_that_stall_are_disconnected(self):
        daemon = self.start("--trace-level=2", activated=STREAM)
        silent, begun, unread, slow = (self.connect(daemon) for _ in range(4))
        begun.send_all(b"\x10\0\0\0", b"[1,2")
        flood = b"".join(packet([])) * 12000  # less than 1 MiB of answers, more than the kernel keeps
        for client in (unread, slow):
            in_thread(send_until_closed, client, flood)
        def is_reported():
            with contextlib.suppress(BlockingIOError):
                slow.recv(4096, socket.MSG_DONTWAIT)
            return len(self.stalls(daemon)) == 2
        wait_until(is_reported, "both stalled clients are reported", pause=0.2)
        self.assertEqual(sorted(self.stalls(daemon)),
                         ["Packet took too long", "Response took too long"])
        self.assert_ended(begun)
        self.assertEqual(silent.ask([]), NOT_IMPLEMENTED)
