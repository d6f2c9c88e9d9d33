import os
import pathlib
import time
import unittest

from harness import (GENERIC, HARDWARE, MAX_PAYLOAD, NOT_IMPLEMENTED, SANITIZED, STREAM, Case, serial)


def processor_time(daemon):
    """In seconds."""
    fields = pathlib.Path(f"/proc/{daemon.pid}/stat").read_text().rpartition(") ")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class ResourceTest(Case):
    @unittest.skipIf(SANITIZED, "sanitizers take memory of their own")
    def test_announced_packets_take_no_memory_and_one_user_may_begin_only_so_many(self):
        daemon = self.start(activated=STREAM)
        clients = [self.connect(daemon) for _ in range(33)]
        self.assertEqual(clients[0].ask(b"[]".ljust(MAX_PAYLOAD)), NOT_IMPLEMENTED)
        before = daemon.status("VmRSS", 10)
        for client in clients:
            client.send_all(MAX_PAYLOAD.to_bytes(4, "little"))
        daemon.wait_for_trace("User keeps too much memory")  # 32 of them are 4 MiB
        self.assert_ended(clients.pop())
        self.assertLess(daemon.status("VmRSS", 10) - before, 1024)
        for _ in range(2):  # a packet that ends makes room for another one
            clients[0].send_all(b"[]".ljust(MAX_PAYLOAD))
            self.assertEqual(clients[0].answer(), NOT_IMPLEMENTED)
            clients[0].send_all(MAX_PAYLOAD.to_bytes(4, "little"))

    # The limit also sets the IO thread's stack, which a copy of the request would overflow.
    def test_deepest_nesting_is_answered_on_a_small_stack(self):
        nested = b"[" * 65520 + b"]" * 65520
        launcher = [] if SANITIZED else ["prlimit", "--stack=262144"]  # sanitizers take more
        client = self.connect(self.start(launcher=launcher))
        self.assertEqual(client.ask(nested), NOT_IMPLEMENTED)
        self.assertEqual(client.ask(b'{"sensor":' + nested + b"}"), NOT_IMPLEMENTED)
        self.assertEqual(client.ask(b'{"sensor":{"hardware":' + nested + b"}}"), GENERIC)

    def test_clients_beyond_the_descriptor_limit_wait_and_leave_the_sensors_theirs(self):
        daemon = self.start(launcher=["prlimit", "--nofile=32"], dmidecode="echo S1")
        self.assertEqual(daemon.ask(HARDWARE), serial("S1"))
        descriptors = daemon.count_when_idle()
        clients = [self.connect(daemon) for _ in range(35)]
        daemon.wait_for_trace("Accepting no connections")
        self.assertEqual(len(daemon.descriptors()), 32 - 8)
        begin, used = time.monotonic(), processor_time(daemon)
        self.assertEqual(clients[0].ask(HARDWARE), serial("S1"))
        time.sleep(1)
        self.assertLess(processor_time(daemon) - used, 0.25 * (time.monotonic() - begin))
        self.assertEqual(daemon.messages().count("Socket accept failed"), 0)
        for client in clients:  # closing it frees a descriptor for a waiting client
            self.assertEqual(client.ask([]), NOT_IMPLEMENTED)
            client.close()
        self.assertEqual(daemon.count_when_idle(), descriptors)
