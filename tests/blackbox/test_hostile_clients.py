import contextlib
import errno
import socket
import threading

from harness import (HARDWARE, NOT_IMPLEMENTED, SANITIZED, STREAM, Case, in_thread, packet, serial,
                     wait_until)

# Prints S1, S2, S3 and so on.
COUNTING_DMIDECODE = """read -r n 2>/dev/null <"$0.count"; n=$((n+1)); echo $n >"$0.count"
echo "S$n" """


def keep_full(client):
    """Fills a connection with requests and reads the answers, until the connection ends.

    Returns an event, set once answers flow, and the two threads.
    """
    flows = threading.Event()
    # Many requests per send keep a stream from running empty.
    records = [b"".join(packet([]) * 10000)] if client.type == STREAM else packet([]) * 100

    def write():
        with contextlib.suppress(OSError):
            while True:
                client.send_all(*records)

    def read():
        received = 0
        with contextlib.suppress(OSError):
            while data := client.recv(1 << 20):
                received += len(data)
                if received > 100000:
                    flows.set()
    return flows, [in_thread(write), in_thread(read)]


class HostileClients:
    """Holds on both types of socket."""

    def test_hanging_up_at_any_step(self):
        steps = {
            "connected": lambda client: None,
            "half a header": lambda client: client.send_all(b"\2\0"),
            "header": lambda client: client.send_all(packet([])[0]),
            "half a payload": lambda client: client.send_all(b"\x10\0\0\0", b"[1,2"),
            "unread answer": lambda client: client.request([]),
            "unread answers": lambda client: client.request(*[[]] * 300),
            "unread command": lambda client: client.request(HARDWARE),
            "some answers read": lambda client: (client.request(*[[]] * 50), client.answer()),
            "half-closed": lambda client: (client.request([]), client.shutdown(socket.SHUT_WR)),
            "broken request": lambda client: client.request(b"{", []),
        }
        daemon = self.start(activated=self.activated)
        daemon.ask(HARDWARE)  # starts the sensor thread
        descriptors = daemon.count_when_idle()
        for step, take in steps.items():
            with self.subTest(step=step):
                for _ in range(10):
                    # After a broken request the daemon may hang up first.
                    with daemon.connect() as client, contextlib.suppress(ConnectionError):
                        take(client)
                self.assertEqual(daemon.ask([]), NOT_IMPLEMENTED)
                wait_until(lambda: daemon.count_when_idle() == descriptors, "no command runs")
        self.assertIn("Failed to write packet", daemon.messages("ERROR"))

    def test_late_reader_gets_every_answer_in_order(self):
        daemon = self.start("--trace-level=2", activated=self.activated,
                            dmidecode=COUNTING_DMIDECODE)
        daemon.ask(HARDWARE)  # starts the sensor thread
        descriptors = daemon.count_when_idle()
        with daemon.connect() as client:
            for _ in range(50):
                client.request(HARDWARE, *[[]] * 99)
            client.shutdown(socket.SHUT_WR)
            self.assertEqual(daemon.ask([]), NOT_IMPLEMENTED)
            for number in range(50):
                self.assertEqual([client.answer() for _ in range(100)],
                                 [serial(f"S{number + 2}"), *[NOT_IMPLEMENTED] * 99])
            self.assert_ended(client)
        wait_until(lambda: daemon.count_when_idle() == descriptors, "no command runs")

    def test_client_that_never_reads_is_disconnected(self):
        daemon = self.start("--trace-level=2", activated=self.activated)
        descriptors = daemon.count_when_idle()
        before = daemon.status("VmRSS", 10)
        with daemon.connect() as client, daemon.connect() as other:
            with self.assertRaises(OSError) as caught:
                client.request(*[[]] * 100000)  # far more than 1 MiB and the kernel hold
            self.assertIn(caught.exception.errno, (errno.EPIPE, errno.ECONNRESET))
            self.assertEqual(other.ask([]), NOT_IMPLEMENTED)
            other.close()
            wait_until(lambda: daemon.count_when_idle() == descriptors, "no command runs")
        if not SANITIZED:
            self.assertLess(daemon.status("VmHWM", 10) - before, 6 * 1024)
        self.assertIn("Client leaves too many responses unread", daemon.messages("WARNING"))

    def test_busy_clients_delay_neither_others_nor_the_end(self):
        daemon = self.start("--trace-level=1", activated=self.activated)
        threads = []
        for _ in range(3):
            flows, more = keep_full(self.connect(daemon))
            self.assertTrue(flows.wait(60))
            threads += more
        for _ in range(20):
            self.assertEqual(daemon.ask([]), NOT_IMPLEMENTED)
        daemon.process.terminate()
        daemon.wait_for_end(30)
        for thread in threads:
            thread.join()


class SeqpacketHostileClientsTest(HostileClients, Case):
    activated = None


class StreamHostileClientsTest(HostileClients, Case):
    activated = STREAM
