import os
import pathlib
import resource
import time
import unittest

from harness import GENERIC, HARDWARE, MAX_PAYLOAD, NOT_IMPLEMENTED, SANITIZED, Case


def processor_time(daemon):
    """In seconds."""
    fields = pathlib.Path(f"/proc/{daemon.pid}/stat").read_text().rpartition(") ")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class ResourceTest(Case):
    @unittest.skipIf(SANITIZED, "sanitizers take memory of their own")
    def test_announced_packets_take_no_memory(self):
        _, limit = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
        daemon = self.start()
        other = self.connect(daemon)
        self.assertEqual(other.ask(b"[]".ljust(MAX_PAYLOAD)), NOT_IMPLEMENTED)
        before = daemon.status("VmRSS", 10)
        for _ in range(500):
            self.connect(daemon).send_all(MAX_PAYLOAD.to_bytes(4, "little"))
        daemon.wait_for_trace("Reading data { packetSize:131072 }", 500)
        self.assertLess(daemon.status("VmRSS", 10) - before, 4 * 1024)
        self.assertEqual(other.ask([]), NOT_IMPLEMENTED)

    # The limit also sets the IO thread's stack, which a copy of the request would overflow.
    def test_deepest_nesting_is_answered_on_a_small_stack(self):
        nested = b"[" * 65520 + b"]" * 65520
        launcher = [] if SANITIZED else ["prlimit", "--stack=262144"]  # sanitizers take more
        client = self.connect(self.start(launcher=launcher))
        self.assertEqual(client.ask(nested), NOT_IMPLEMENTED)
        self.assertEqual(client.ask(b'{"sensor":' + nested + b"}"), NOT_IMPLEMENTED)
        self.assertEqual(client.ask(b'{"sensor":{"hardware":' + nested + b"}}"), GENERIC)

    def test_clients_beyond_the_descriptor_limit_wait_and_are_answered(self):
        daemon = self.start(launcher=["prlimit", "--nofile=24"])
        descriptors = daemon.count_when_idle()
        clients = [self.connect(daemon) for _ in range(40)]
        daemon.wait_for_trace("Socket accept failed")
        begin, used = time.monotonic(), processor_time(daemon)
        time.sleep(1)
        passed, used = time.monotonic() - begin, processor_time(daemon) - used
        self.assertLess(used, 0.25 * passed)
        self.assertLess(daemon.messages("ERROR").count("Socket accept failed"), 20 * passed)
        self.assertEqual(clients[0].ask(HARDWARE), GENERIC)  # no descriptor is left for a pipe
        for client in clients:  # closing it frees a descriptor for a waiting client
            self.assertEqual(client.ask([]), NOT_IMPLEMENTED)
            client.close()
        self.assertEqual(daemon.count_when_idle(), descriptors)
