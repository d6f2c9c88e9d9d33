import contextlib
import json
import os
import random
import socket
import struct
import subprocess
import unittest

from harness import (BIN, CAN_MOUNT, DEADLINE, HARDWARE, MAX_PAYLOAD, NAMESPACE,
                     NOT_IMPLEMENTED, SEQPACKET, STREAM, Case, ctl, in_thread, packet, run, serial)

NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]

SQUATTER = """
import socket, sys
listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
listener.bind("\\0" + sys.argv[1])
listener.listen()
print("listening", flush=True)
print(listener.accept()[0].recv(4096))
"""


def read_request(client, requests):
    requests.append(client.recv(*struct.unpack("=I", client.recv(4, socket.MSG_WAITALL))))


# What a server does before it closes a connection without a response. By that the client's send
# fails in most runs; its read fails; its read ends.
WAYS_TO_LOSE = (lambda client: None,
                lambda client: client.recv(1, socket.MSG_PEEK),
                lambda client: read_request(client, []))


class ClientProgramTest(Case):
    def assert_complaint(self, result, status):
        """It ended with `status` and printed the reason in one line."""
        self.assertEqual(result.returncode, status, result)
        self.assertRegex(result.stderr, r"\Aktclientctl: [^\n]+\n\Z")
        self.assertEqual(bool(result.stdout), status == 1)

    def ask_server(self, *records, lost=(), kind=SEQPACKET, silent=False):
        """Asks a server that reads the request and sends `records`, then closes unless `silent`.

        Before, it closes a connection for each step of `lost`, after that step.
        """
        name = f"{self.folder}/{random.getrandbits(64)}"
        listener = self.listen(name, kind)
        requests = []

        def serve():
            for step in lost:
                with listener.accept()[0] as client:
                    step(client)
            with listener.accept()[0] as client:
                client.settimeout(DEADLINE)
                read_request(client, requests)
                with contextlib.suppress(ConnectionError):
                    for record in records:
                        for start in range(0, len(record), 65536):
                            client.sendall(record[start:start + 65536])
                if silent:
                    client.recv(1)
        thread = in_thread(serve)
        result = ctl(f"--socket={name}", "--timeout=1" if silent else "--timeout=60", "hardware")
        thread.join()
        self.assertEqual(json.loads(*requests), HARDWARE)
        return result

    def test_success_is_a_printed_response(self):
        for kind in (SEQPACKET, STREAM):
            daemon = self.start(activated=kind, dmidecode="echo S1")
            where = {"KESTREL_SOCKET": daemon.name}
            # The variable overrides the argument.
            result = ctl("--socket=/none", "hardware", environment=where)
            self.assertEqual((result.returncode, result.stderr), (0, ""))
            indented = json.dumps(serial("S1"), indent=2, sort_keys=True) + "\n"
            self.assertEqual(result.stdout, indented)
            self.assertEqual(ctl("send", "-", input=json.dumps(HARDWARE), environment=where).stdout,
                             indented)
            # The daemon's other variables do not count.
            where |= {"KESTREL_TIMEOUT": "0", "KESTREL_COMPACT": "1", "KESTREL_TRACE_CONSOLE": "1"}
            self.assertEqual(ctl("hardware", environment=where).stdout, indented)
        for output in ("/dev/full", "&-"):
            shell = ["sh", "-c", f'exec "$@" >{output}', "sh", BIN / "ktclientctl", "hardware"]
            self.assert_complaint(run(*shell, environment={"KESTREL_SOCKET": daemon.name}), 3)

    def test_forms_of_options_and_requests(self):
        name = self.start(dmidecode="echo S1").name
        compact = json.dumps(serial("S1"), separators=(",", ":"), sort_keys=True) + "\n"
        self.assertEqual(ctl(f"--Socket:{name}", "--COMPACT=True", "hardware").stdout, compact)
        traced = ctl("hardware", "--compact", "--socket=/none", f"--socket={name}",
                     "--Trace_Level:5", "--trace-console", "--trace-anything").stdout
        self.assertIn(compact, traced)
        self.assertIn(" DEBUG ", traced)
        # The daemon gets these requests and not what else CLI11 could take them for.
        for request in ("{}", "[1,2]", "-5", '"--compact"'):
            with self.subTest(request=request):
                result = ctl(f"--socket={name}", "send", request, "--compact=0")
                self.assert_complaint(result, 1)
                self.assertEqual(result.stdout, json.dumps(NOT_IMPLEMENTED, indent=2) + "\n")
        self.assert_complaint(ctl(f"--socket={name}", "igel"), 1)
        deep = '{"sensor":' + "[" * 65530 + "]" * 65530 + "}"
        self.assert_complaint(ctl(f"--socket={name}", "send", "-", input=deep), 1)

    def test_controls_of_terminals_and_of_the_direction_of_text_are_escaped(self):
        controls = "\x7f\x80\x9b\u061c\u200e\u2028\u202e\u2066\u2069"
        answer = {"status": "ErrorGeneric", "error_message": f"first\nsecond\u00e4{controls}"}
        result = self.ask_server(*packet(json.dumps(answer, ensure_ascii=False).encode()))
        self.assert_complaint(result, 1)
        self.assertIn("first", result.stderr)
        self.assertEqual(json.loads(result.stdout), answer)
        for output in (result.stdout, result.stderr):
            self.assertFalse(set(controls) & set(output), output)
            self.assertIn("second\u00e4\\u007f\\u0080\\u009b\\u061c", output)

    def test_wrong_usage(self):
        for arguments in ([], ["hardware", "more"], ["igel", "more"], ["send"], ["send", "{"],
                          ["send", "[]", "[]"], ["send", ""], ["tell"], ["\udc9b2J"], ["HARDWARE"],
                          ["hardware", "igel"], ["--loud", "hardware"], ["hardware", "-x"], ["--compact=yes", "hardware"],
                          ["--logging-file=/x", "hardware"], ["--help=1", "hardware"],
                          ["--socket", "hardware"], ["--timeout", "hardware"],
                          ["--timeout=0", "hardware"], ["--timeout=1s", "hardware"],
                          ["--timeout=0x9", "hardware"], ["--socket", "/none", "hardware"],
                          ["--timeout", "9", "hardware"], ["--socket=/" + "x" * 107, "hardware"]):
            with self.subTest(arguments=arguments):
                self.assert_complaint(ctl(*arguments), 2)
        for text in ("", "[1,]", "[]".ljust(MAX_PAYLOAD + 1)):
            self.assert_complaint(ctl("send", "-", input=text), 2)

    def test_no_daemon_or_no_response(self):
        stale = f"{self.folder}/stale"
        self.listen(stale).close()
        for name in (f"{self.folder}/none", stale, f"ktclientd-{os.getpid()}-none"):
            with self.subTest(name=name):
                self.assert_complaint(ctl(f"--socket={name}", "hardware"), 3)
        self.assert_complaint(self.ask_server(lost=WAYS_TO_LOSE[-1:], silent=True), 3)
        self.listen(f"{self.folder}/full", backlog=0)
        with socket.socket(socket.AF_UNIX, SEQPACKET) as first:
            first.connect(f"{self.folder}/full")
            result = ctl(f"--socket={self.folder}/full", "--timeout=1", "hardware")
            self.assert_complaint(result, 3)

    @unittest.skipUnless(CAN_MOUNT, "takes a mount namespace")
    def test_socket_of_the_installed_service_is_the_default(self):
        (self.folder / "run/ktclientd").mkdir(parents=True)

        def complaint(*arguments, **options):
            result = run(*NAMESPACE, self.folder / "run", "/run", BIN / "ktclientctl", *arguments,
                         "hardware", **options)
            self.assert_complaint(result, 3)
            return result.stderr
        self.assertIn("unix:@com.norvel.kestrel:", complaint())
        self.listen(str(self.folder / "run/ktclientd/ktclientd.sock")).close()
        empty = complaint("--socket=/none", environment={"KESTREL_SOCKET": ""})
        self.assertIn("unix:/run/ktclientd/ktclientd.sock: Connection refused", empty)

    @unittest.skipIf(os.geteuid() != 0, "takes a second user")
    def test_refused_permission_names_the_group_that_can_connect(self):
        self.folder.chmod(0o755)
        name = f"{self.folder}/socket"
        self.listen(name)
        for mode, gid, hint in ((0o660, 0, "the group root"), (0o660, 54321, "the group 54321"),
                                (0o600, 0, "")):
            os.chown(name, 0, gid)
            os.chmod(name, mode)
            result = run(*NOBODY, BIN / "ktclientctl", f"--socket={name}", "hardware")
            self.assert_complaint(result, 3)
            self.assertIn("Permission denied", result.stderr)
            self.assertIn(hint, result.stderr)
            self.assertEqual("group" in result.stderr, bool(hint))

    def test_lost_connection_is_replaced_once(self):
        answer = packet(serial("S1"))
        for kind in (SEQPACKET, STREAM):
            for way in WAYS_TO_LOSE:
                result = self.ask_server(*answer, kind=kind, lost=[way])
                self.assertEqual((result.returncode, result.stderr), (0, ""))
                result = self.ask_server(kind=kind, lost=[way])
                self.assert_complaint(result, 3)
                self.assertIn("The connection ended twice before a response (", result.stderr)
        name = f"{self.folder}/leaving"
        listener = self.listen(name)

        def leave():
            with listener.accept()[0]:
                listener.close()
        thread = in_thread(leave)
        result = ctl(f"--socket={name}", "hardware")
        thread.join()
        self.assert_complaint(result, 3)
        self.assertIn(f"Cannot connect again to unix:{name}: Connection refused", result.stderr)

    def test_broken_response(self):
        large = b'{"status":"Success","x":[%s0]}'
        result = self.ask_server(*packet(large % (b'{"":0},' * 300000)))
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        for records in ((b"\2\0",), (b"\x10\0\0\0", b'{"stat'), (b"\0\0\0\0",)):
            with self.subTest(records=records):
                self.assert_complaint(self.ask_server(*records), 3)
        for answer in (b"{", b"[]", b"7", b"{}", b'{"status":7}', b'{"status":"Success\xff"}',
                       b'{"status":"Success"} x', large % (b"[" * 1000000 + b"]" * 1000000 + b","),
                       large % (b"0," * 1000000)):
            with self.subTest(answer=answer[:40]):
                self.assert_complaint(self.ask_server(*packet(answer)), 3)

    @unittest.skipIf(os.geteuid() != 0, "takes a second user")
    def test_server_of_another_user_gets_no_request(self):
        name = f"ktclientd-squatted-{os.getpid()}-{random.getrandbits(32)}"
        with subprocess.Popen([*NOBODY, "/usr/bin/python3", "-I", "-c", SQUATTER, name],
                              stdout=subprocess.PIPE, text=True) as squatter:
            self.assertEqual(squatter.stdout.readline(), "listening\n")
            self.assert_complaint(ctl(f"--socket={name}", "--timeout=5", "hardware"), 3)
            self.assertEqual(squatter.stdout.readline(), "b''\n")
