import json
import random
import re
import sys

from harness import (BIN, DOCS, GENERIC, RESPONSE, Case, in_thread, packet, read_schema, run,
                     serial)

ROOT = DOCS.parent
PROTOCOL = (DOCS / "protocol.md").read_text()
MANUALS = sorted((ROOT / "packaging/man").iterdir())
REQUEST = read_schema("request")


def help_of(program):
    return run(BIN / program, "--help", check=True).stdout


def manual(name):
    return (ROOT / "packaging/man" / name).read_text()


class ProtocolDocumentTest(Case):
    def test_schemas_accept_what_is_shown_and_nothing_else(self):
        for schema in (REQUEST, RESPONSE):
            schema.check_schema(schema.schema)
        shown = [json.loads(text) for text in re.findall(r"```json\n(.*?)```", PROTOCOL, re.DOTALL)]
        responses = [value for value in shown if "status" in value]
        requests = [value for value in shown if "status" not in value]
        self.assertEqual((len(requests), len(responses)), (2, 6))
        success = {"status": "Success"}
        hardware = {"hardware": {"bios_serial_number": "S1"}}
        empty = {"serial_number": "", "subject": "", "thumbprint_sha256": ""}

        def igel(*certificates):
            return success | {"sensor": {"igel": {"management_certificates": certificates}}}
        for schema, good, bad in (
                (REQUEST, requests, [*responses, 7, {}, {"sensor": {}},
                                     {"sensor": {"toaster": None}},
                                     {"sensor": {"hardware": None, "igel": None}}]),
                (RESPONSE, [*responses, igel(empty, empty)],
                 [*requests, {}, [], {"status": "success"}, success | {"more": 1},
                  success | {"error_message": "x"}, success | {"sensor": {}},
                  success | {"sensor": {"hardware": {}}},
                  GENERIC | {"error_message": ""}, GENERIC | {"sensor": hardware}, serial(""),
                  success | {"sensor": hardware | igel(empty)["sensor"]}, igel(), igel({}),
                  igel(empty | {"more": ""}), igel(empty | {"thumbprint_sha256": "9B:0E"})])):
            for value in good:
                schema.validate(json.loads(json.dumps(value)))
            for value in bad:
                self.assertFalse(schema.is_valid(json.loads(json.dumps(value))), value)

    def test_example_packets_are_what_is_sent(self):
        dumps = re.findall(r"```\n(([0-9a-f]{2} ).*?)```", PROTOCOL, re.DOTALL)
        sent, answered = (
            [bytes.fromhex("".join(re.findall(r"(?m)^(?:[0-9a-f]{2}(?: |$))+", record)))
             for record in dump.split("\n\n")] for dump, _ in dumps)
        with self.start(dmidecode="echo KT-0001-DEMO").connect() as client:
            client.send_all(*sent)
            self.assertEqual([client.recv(1000), client.recv(1000)], answered)

    def test_example_clients(self):
        daemon = self.start(dmidecode="echo KT-0001-DEMO")
        for command in ([BIN / "example"], [sys.executable, DOCS / "example.py"]):
            with self.subTest(command=command):
                result = run(*command, daemon.name)
                self.assertIn("KT-0001-DEMO", result.stdout)
                self.assertEqual((result.returncode, result.stderr), (0, ""))

                # The first connection is lost; then also the second.
                for answers in ([[], packet(serial("S2"))], [[], []]):
                    name = f"{self.folder}/{random.getrandbits(64)}"
                    listener = self.listen(name)

                    def serve():
                        for records in answers:
                            with listener.accept()[0] as connection:
                                connection.recv(4), connection.recv(1000)
                                for record in records:
                                    connection.sendall(record)
                    server = in_thread(serve)
                    result = run(*command, name)
                    server.join()
                    if answers[1]:
                        self.assertIn("S2", result.stdout)
                    else:
                        self.assertEqual((result.returncode, result.stdout), (1, ""))
                        self.assertIn("no answer", result.stderr)


class ManualTest(Case):
    def test_pages_are_clean(self):
        self.assertEqual([page.name for page in MANUALS],
                         ["ktclientctl.1", "ktclientd.7", "ktclientd.8"])
        checks = {"stdout": ["mandoc", "-T", "lint", "-W", "warning"],
                  "stderr": ["man", "--warnings", "--encoding=UTF-8", "-Tutf8", "-Z", "-l"]}
        for page in MANUALS:
            for complaints, command in checks.items():
                with self.subTest(page=page.name, command=command[0]):
                    result = run(*command, page, environment={"LC_ALL": "C.UTF-8"})
                    self.assertEqual((result.returncode, getattr(result, complaints)), (0, ""))

    def test_settings_are_those_that_the_daemon_lists(self):
        listed = re.findall(r"  --([\w-]+)(=?).*\n.*\n +environment: (\w+), default: (.+)\n",
                            help_of("ktclientd"))
        self.assertGreater(len(listed), 10)
        in_manual = re.findall(r"\.It Fl -([\w-]+)(?: Ns (=))?.*\n(?:(?!\.It).*\n)*?"
                               r"\.Ev (\w+) ;\ndefault:\n\.Ql (.+)\n", manual("ktclientd.8"))
        self.assertEqual(in_manual, listed)
        in_readme = re.findall(r"(?m)^\| `([\w-]+)` \| `(KESTREL_\w+)` \| `?(.+?)`? \|",
                               (ROOT / "README.md").read_text())
        self.assertEqual(in_readme, [(name, environment, default)
                                     for name, _, environment, default in listed])

    def test_options_and_commands_are_those_that_the_client_lists(self):
        usage, page = help_of("ktclientctl"), manual("ktclientctl.1")
        self.assertEqual(set(re.findall(r"Fl -([a-z-]+)", page)),
                         set(re.findall(r"--([a-z-]+)", usage + help_of("ktclientctl-report"))))
        self.assertEqual(re.findall(r"\.It Cm ([\w-]+)", page),
                         re.findall(r"(?m)^  ([a-z]\S+) ", usage))
