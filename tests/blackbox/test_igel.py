import hashlib
import os
import resource
import shutil
import ssl
import subprocess
import unittest

from harness import CAN_MOUNT, GENERIC, HARDWARE, NAMESPACE, PATIENCE, STREAM, Case

IGEL = {"sensor": {"igel": None}}

BEGIN = "-----BEGIN CERTIFICATE-----\n"

# Prints a subject as long as the first line of the certificate file says.
OPENSSL_OF_LENGTH = """read -r length <"$3"; printf 'subject=%0*d\\n' "$length" 7"""


@unittest.skipUnless(CAN_MOUNT, "takes a mount namespace")
class IgelTest(Case):
    def setUp(self):
        super().setUp()
        self.store = self.folder / "trust-store"
        self.store.mkdir()

    def start_igel(self, *arguments, name="IGEL OS 12", openssl=None, launcher=(), **options):
        (self.folder / "os-release").write_text(f'NAME="{name}"\nVERSION="12.4"\n')
        daemon = self.start(f"--igel-management-cert-path={self.store}", *arguments,
                            launcher=[*NAMESPACE, self.folder / "os-release", "/etc/os-release",
                                      *launcher],
                            **options)
        if openssl:
            daemon.install("openssl", openssl)
        return daemon

    def make_certificate(self, name, *arguments, key="ec -pkeyopt ec_paramgen_curve:P-256",
                         subject="/CN=x"):
        subprocess.run(["openssl", "req", "-x509", "-nodes", "-keyout", "/dev/null", "-days", "9",
                        "-newkey", *key.split(), "-utf8", "-subj", subject, *arguments,
                        "-out", self.store / name], check=True, stderr=subprocess.DEVNULL)

    def certificates(self, daemon):
        answer = daemon.ask(IGEL)
        self.assertEqual(answer.pop("status"), "Success")
        return answer["sensor"]["igel"]["management_certificates"] if answer else None

    def names_in_order(self):
        return [entry.name for entry in os.scandir(self.store)]

    def test_certificates_are_as_openssl_and_python_read_them(self):
        long = "/O=" + "/O=".join("x" * 60 for _ in range(9))
        serials = {}
        for name, serial, arguments in (
                ("rsa.pem", os.urandom(19).hex(),
                 dict(key="rsa:2048", subject="/O=Example, Inc.\\/x/CN=\u00e4\u20ac")),
                ("ec.pem", "7f" + os.urandom(19).hex(), dict(subject=long)),
                ("ed25519.pem", "80", dict(key="ed25519")),
                ("-zero serial.pem", "0", {})):
            self.make_certificate(name, "-set_serial", "0x" + serial, **arguments)
            serials[name] = int(serial, 16)
        for name in ("cacerts.pem", "upper.PEM", "none.crt", ".pem", "x.pem.bak"):
            self.make_certificate(name)
        found = self.certificates(self.start_igel("--openssl-fingerprint-any-case"))
        used = [name for name in self.names_in_order() if name in serials]
        self.assertEqual(len(found), len(used))
        for certificate, name in zip(found, used):
            der = ssl.PEM_cert_to_DER_cert((self.store / name).read_text())
            self.assertEqual(certificate["thumbprint_sha256"],
                             hashlib.sha256(der).hexdigest().upper())
            self.assertEqual(int(certificate["serial_number"], 16), serials[name])
            subject = subprocess.run(["openssl", "x509", "-in", self.store / name, "-noout",
                                      "-subject"], capture_output=True, text=True).stdout
            self.assertEqual("subject=" + certificate["subject"] + "\n", subject)

    def test_trust_store_that_is_empty_or_cannot_be_read(self):
        daemon = self.start_igel(name="igel os 11")
        self.assertEqual(daemon.ask(IGEL), {"status": "Success"})
        for reason in ("No such file or directory", "Not a directory"):
            shutil.rmtree(self.store, ignore_errors=True)
            if reason == "Not a directory":
                self.store.write_text("")
            answer = daemon.ask(IGEL)
            self.assertEqual(answer["status"], "ErrorGeneric")
            self.assertIn(f"{self.store}: {reason}", answer["error_message"])

    def test_file_that_is_no_certificate_leaves_the_others_intact(self):
        self.make_certificate("good.pem", subject="/CN=good")
        (self.store / "dangling.pem").symlink_to("/nonexistent")
        (self.store / "folder.pem").mkdir()
        (self.store / "device.pem").symlink_to("/dev/zero")
        os.mkfifo(self.store / "fifo.pem")
        self.listen(str(self.store / "socket.pem"))
        (self.store / "large.pem").write_text(BEGIN + "A" * 65536)
        # Zeros of this size would keep OpenSSL 3.5 busy.
        (self.store / "zeros.pem").write_bytes(bytes(65536))
        (self.store / "empty.pem").write_text("")
        for character in '"$`\\\n':
            (self.store / f"a{character}(touch {self.folder.name}){character}.pem").write_text("")
        (self.store / "link.pem").symlink_to(self.store / "good.pem")
        for name in ("a'b;c&d|e *?~!#%", "\u00e4 "):
            (self.store / f"{name}.pem").write_text(BEGIN)
        (self.store / os.fsdecode(b"\xff.pem")).write_bytes(b"0" + bytes(65535))
        (self.store / "text before.pem").write_text(
            "subject=CN = good\n" + (self.store / "good.pem").read_text())
        with open(os.devnull, "w") as complaints:
            daemon = self.start_igel(stderr=complaints)
            found = self.certificates(daemon)
        # OpenSSL 3.5 prints no spaces.
        good = next(text for text in ("CN = good", "CN=good")
                    if text in [certificate["subject"] for certificate in found])
        self.assertEqual(sorted(certificate["subject"] for certificate in found),
                         ["", "", "", *[good] * 3])
        warning = "Failed to analyse igel management certificate"
        self.assertEqual(daemon.messages("WARNING").count(warning), 13)
        self.assertNotIn("Command took too long", daemon.messages("WARNING"))
        self.assertFalse(os.path.exists(self.folder.name))

    def test_many_certificates_and_an_answer_too_large_for_a_record(self):
        for number in range(200):
            (self.store / f"{number}.pem").write_text(f"{number + 1}\n{BEGIN}")
        daemon = self.start_igel(openssl=OPENSSL_OF_LENGTH)
        lengths = [len(certificate["subject"]) for certificate in self.certificates(daemon)]
        self.assertEqual(lengths, [int(name.removesuffix(".pem")) + 1
                                   for name in self.names_in_order()])
        (self.store / "0.pem").write_text(f"1000000\n{BEGIN}")
        with daemon.connect() as client:
            client.request(IGEL)
            client.recv(4)
            self.assert_ended(client)
        daemon.wait_for_trace("Failed to write packet")
        daemon = self.start_igel(openssl=OPENSSL_OF_LENGTH, activated=STREAM)
        self.assertEqual(max(len(certificate["subject"])
                             for certificate in self.certificates(daemon)), 1000000)

    def test_success_never_leaves_out_a_certificate_for_lack_of_time_or_resources(self):
        for number in range(3):
            (self.store / f"{number}.pem").write_text(BEGIN)
        for settings, openssl, text, warning in (
                (["--command-timeout=1"], "sleep 1000", "A command took longer than 1 s",
                 "Command took too long"),
                ([], "exec yes", "A command printed more than 1048576 bytes",
                 "Command printed too much"),
                (["--command-timeout=0", "--request-timeout=1"], "sleep 1000",
                 "The request took longer than 1 s", "Request took too long")):
            with self.subTest(warning=warning):
                daemon = self.start_igel(*settings, openssl=openssl)
                self.assertEqual(daemon.ask(IGEL), GENERIC | {"error_message": text})
                self.assertEqual(daemon.messages("WARNING")[-2:], [
                    warning, "Failed to analyse igel management certificate"])
                self.assertEqual(daemon.messages("ERROR"), [
                    "Failed to determine certificate information from command",
                    "Error detecting igel management certificates"], "no later file is tried")

    def test_shell_that_cannot_be_started_is_no_openssl_that_is_missing(self):
        (self.store / "0.pem").write_text(BEGIN)
        with open(os.devnull, "w") as complaints:
            daemon = self.start_igel(launcher=["env", "PATH=/nonexistent"], stderr=complaints)
            client = self.connect(daemon)
            empty = {"serial_number": "", "subject": "", "thumbprint_sha256": ""}
            answer = {"status": "Success", "sensor": {"igel": {"management_certificates": [empty]}}}
            self.assertEqual(client.ask(IGEL), answer)
            # One descriptor is left, with which the daemon reads the folder.
            used = daemon.descriptors()
            first = next(number for number in range(len(used) + 1) if number not in used)
            limits = resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE)
            resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (first + 1, limits[1]))
            refused = GENERIC | {"error_message":
                                 "A command could not be started: Too many open files (Err 24)"}
            self.assertEqual(client.ask(IGEL), refused)
            self.assertIn(("Command could not be started", "24"), [
                (line.message, line.fields.rpartition("error:")[2]) for line in daemon.trace()])
            self.assertEqual(client.ask(HARDWARE), GENERIC)
            resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, limits)
            self.assertEqual(client.ask(IGEL), answer)

    def test_sigterm_stops_the_reading_of_many_certificates(self):
        for number in range(1000):
            (self.store / f"{number}.pem").write_text(BEGIN)
        daemon = self.start_igel("--command-timeout=0",
                                 openssl='echo started >>"$0.started"; sleep 1000')
        with self.connect(daemon) as client:
            client.request(IGEL, IGEL)
            self.wait_for_start(daemon, "openssl")
            daemon.process.terminate()
            daemon.wait_for_end(PATIENCE)
        self.assertEqual((daemon.commands / "openssl.started").read_text(), "started\n")
        self.assertLessEqual(daemon.messages("WARNING").count("Command was cancelled"), 3)
