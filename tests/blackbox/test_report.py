import contextlib
import json
import os
import pathlib
import pty
import re
import signal
import socket
import subprocess
import tarfile
import tempfile
import unittest

from harness import (BIN, CAN_MOUNT, DEADLINE, HARDWARE, NAMESPACE, Case, clean_environment, ctl,
                     processes_of_session, run, wait_until)

NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
EDGE = 65536  # each common size of a buffer divides it
FORMS = ("{}", "'{}'", '"name":"{}"', "({})", "{},", "name={}", "{{ name:{} }}", "/{}/", "{}\u0080")
MARKER = "harmless words stay"

# What the made-up machine gives away itself. It is secret without any word beside it.
NAMES = {
    "serial": "SNPLANT7731X", "board": "BRDPLANT5512", "asset": "ASSETPLANT90",
    "host": "plantedhost", "domain": "corp.planted-domain.example", "user": "wplanted",
    "real name": "Wilma \u00c5ngstr\u00f6m", "home": "/srv/planted/homes/wp",
    "machine id": "0badc0de0badc0de0badc0de0badc0de",
    "uuid": "4c4c4544-0050-4c10-804e-c4c04f564d31",
    "certificate file": "planted-gw77 (store).pem", "certificate file's stem": "planted-gw77 (store)",
    "setting": "correct horse; planted (battery)!",
}
PEM = ["MIIPlantedCertificateBody0123456789abcdefghijklmnopqrstuvwxyzABCD",
       "PlantedSecondLineOfTheBody9876543210zyxwvutsrqponmlkjihgfedcbaXY"]
# In values of several lines.
CONTINUED = [f"plantedpart{i}" for i in range(7)]
SETTINGS = f"""PLANTED_TOKEN="first {CONTINUED[0]}
{CONTINUED[1]} more"
PLANTED_PASSWORD=abc\\
{CONTINUED[2]}
# it's a comment
"""
UNIT = f"""Environment="DB_PASSWORD=abc \\
  {CONTINUED[3]} x" \\
  "PLANTED_TOKEN={CONTINUED[4]} \\
 {CONTINUED[5]}"
ExecStart=/x --password=abc \\
  {CONTINUED[6]}
"""
# What the redactor must see by itself: the secret, and the text in which it stands.
VALUES = {
    "wilma.plant@mail.example": "from {} to nobody", "203.0.113.77": "peer:{} port:9",
    "2001:db8:77:1::abcd": "[{}]:443", "52:54:00:ab:cd:77": "link/ether {}",
    "7d1f0c6e-9b1a-4c59-9d2e-6f70a1b2c3d4": "id {}",
    "plantedBearer.eyJhbGciOiJIUzI1NiJ9.c2VjcmV0": "Authorization: Bearer {}",
    "plantedpassw0rd": "password={}", "9f8e7d6c5b4a39281706f5e4d3c2b1a0": "secret key: {}",
    "urlplantedlogin": "https://admin:{}@srv.example/x", "plantedquery8812": "http://s/?session={}",
    "plantedsubjectcn": "subject=C = DE, CN = {}",
    "Plantedname Oversight": "subject=O = Works, CN = {}", "77ABCDEF0123456789": "serial={}",
    "AB:CD:EF:01:23:45:67:89:AB:CD:EF:01:23:45:67:89:AB:CD:EF:77": "SHA1 Fingerprint={}",
    "plantedtokenvalue551": '"access_token":"{}"', "plantedhomeuser": "/home/{}/.cache",
}
TRACE = "09:05:33.420Z VERBOSE  socket_linux(4211:4213) - Read succeeded { text:%s }\n"


def block(separator="\n"):
    return separator.join(["-----BEGIN CERTIFICATE-----", *PEM, "-----END CERTIFICATE-----"])


def plant(line="%s\n"):
    """Each secret in each form, each line in `line`."""
    lines = [form.format(name) for name in NAMES.values() for form in FORMS]
    lines += [NAMES["serial"].lower(), MARKER, block(), block("\\n")]
    lines += [text.format(value) for value, text in VALUES.items()]
    text = "".join(line % part for part in lines).encode()
    return text + b"\xff\xc3(\xed\xa0\x80 " + text.replace(b"\n", b" \xff\n")


def plant_at_edges():
    """One secret over each multiple of the edge, and lines of about 1 MiB."""
    text = b""
    pairs = [*((name, "x {} x") for name in NAMES.values()), *VALUES.items(), (PEM[0], block())]
    for i, (value, form) in enumerate(pairs, 1):
        before, _, after = (form if form != block() else form.replace(PEM[0], "{}")).partition("{}")
        line = f"{before}{value}{after}\n".encode()
        start = i * EDGE - len(before.encode()) - len(value.encode()) // 2
        text += (b"filler \n" * EDGE)[:start - len(text) - 1] + b"\n" + line
    secrets = " ".join(form.format(value) for value, form in pairs[:-1]).encode()
    for length in 1 << 20, (1 << 20) + 1:
        start = (secrets + b" long" * (length // 5))[:length - len(secrets) - 1]
        text += start + b" " + secrets + b"\n"
    return text


def fragments():
    """Every secret, and the halves of long ones, in lower case."""
    for secret in [*NAMES.values(), *VALUES, *PEM, *CONTINUED]:
        secret = secret.encode().lower()
        half = len(secret) // 2
        yield from (secret, secret[:half], secret[half:]) if half > 7 else (secret,)


@unittest.skipUnless(CAN_MOUNT, "takes a mount namespace")
class ReportTest(Case):
    def make_machine(self, *arguments, crash=b"", journal="cat journal"):
        """A daemon of its own, files of /etc, and commands for what a container does not have."""
        self.folder.chmod(0o755)
        (self.folder / "out").mkdir()
        (self.folder / "out").chmod(0o777)
        user = f"{NAMES['user']}:x:1000:1000:{NAMES['real name']},,,:{NAMES['home']}:/bin/sh\n"
        etc = {"os-release": f'NAME="IGEL OS 12"\nVERSION="12.4"\nVARIANT={MARKER}\n',
               "passwd": f"root:x:0:0:root:/root:/bin/sh\nyx:x:1001:1001::/:/bin/sh\n{user}",
               "machine-id": NAMES["machine id"],
               "hosts": f"127.0.1.1 {NAMES['host']}.{NAMES['domain']} {NAMES['host']}\n"}
        self.mounts = f"hostname {NAMES['host']}"
        for name, text in etc.items():
            (self.folder / name).write_text(text)
            self.mounts += f" && mount --bind {self.folder}/{name} /etc/{name}"
        (self.folder / "run/systemd/system").mkdir(parents=True)
        self.mounts += f" && mount --bind {self.folder}/run /run"
        store = self.folder / "store"
        store.mkdir()
        (store / NAMES["certificate file"]).write_text("broken, so the doctor names it")
        subprocess.run(["openssl", "req", "-x509", "-nodes", "-keyout", "/dev/null", "-newkey",
                        "ed25519", "-subj", "/CN=Plantedname Oversight", "-out", store / "a.pem"],
                       check=True, stderr=subprocess.DEVNULL)
        self.daemon = self.start(
            f"--igel-management-cert-path={store}", "--trace-level=5",
            "--openssl-fingerprint-any-case=true", *arguments, dmidecode=f"echo {NAMES['serial']}",
            launcher=[*NAMESPACE, self.folder / "os-release", "/etc/os-release"])
        self.daemon.ask(HARDWARE)
        self.daemon.folder.chmod(0o755)
        os.chmod(self.daemon.name, 0o666)
        with open(self.daemon.log, "ab") as file:
            file.write(plant(TRACE))
        self.older = pathlib.Path(f"{self.daemon.log}.1")
        self.older.write_bytes(plant())
        pathlib.Path(f"{self.daemon.log}.crash").write_bytes(crash + plant())
        (self.folder / "numbers").write_text(f"\tSerial Number: {NAMES['board']}\n"
                                             f"\tAsset Tag: {NAMES['asset']}\n"
                                             f"\tUUID: {NAMES['uuid']}\n")
        self.install("dmidecode", f"[ $1 = -s ] && echo {NAMES['serial']} || cat numbers")
        (self.folder / "journal").write_bytes(
            "".join(f"2026-11-21T10:00:00+0000 a[7]: {line}\n"
                    for line in [*PEM, "-----END PRIVATE KEY-----", "b"]).encode()
            + plant("  %s\n"))
        self.install("journalctl", journal)
        (self.folder / "unit").write_bytes(plant("Environment=A='%s'\n"))
        (self.folder / "continued").write_text(UNIT)
        (self.folder / "default").write_bytes(SETTINGS.encode() + plant("KESTREL_A=%s\n"))
        (self.folder / NAMES["user"]).touch(mode=0o600)
        (self.folder / "properties").write_text(
            "Id=ktclientd.socket\n\nId=ktclientd.service\nLoadState=loaded\n"
            "ExecStart={ path=/usr/sbin/ktclientd ; argv[]=/usr/sbin/ktclientd --d=0 ; ... }\n"
            f"Environment=KESTREL_TRACE_FOLDER={self.daemon.folder} \"KESTREL_B=a b\" KESTREL_C=c "
            f"\"PLANTED_PASSWORD={NAMES['setting']}\" PATH=/usr/bin "
            f"KESTREL_IGEL_MANAGEMENT_CERT_PATH={store}\n"
            "UnsetEnvironment=KESTREL_C\n"
            f"EnvironmentFiles={self.folder}/default (ignore_errors=yes)\n"
            f"EnvironmentFiles={self.folder}/{NAMES['user']} (ignore_errors=yes)\n"
            f"MainPID={self.daemon.pid}\n")
        self.install("systemctl",
                     'case "$*" in *--property=*) exec cat properties;; *" cat "*) cat continued;; '
                     'esac; cat unit')

    def install(self, command, script):
        self.daemon.install(command, f"cd {self.folder}\n{script}")

    def command(self, *arguments, user=(), program="report"):
        mapped = ["--map-root-user"] if os.geteuid() != 0 else []
        return ["unshare", "--mount", "--uts", *mapped, "sh", "-c", self.mounts + ' && exec "$@"',
                "sh", *user, BIN / "ktclientctl", program, f"--socket={self.daemon.name}",
                *arguments]

    def in_force(self, members):
        """The settings, without those that the test plants."""
        lines = members["settings.txt"].decode(errors="replace").partition("\n\n")[0].splitlines()[1:]
        return dict(line.split("=", 1) for line in lines if not line.startswith("KESTREL_A="))

    def environment(self, **changes):
        return clean_environment({"PATH": f"{self.daemon.commands}:/usr/bin:/bin"} | changes)

    def report(self, *arguments, sudo={}, **options):
        """Makes a report; returns the text of README, and all members by name."""
        path = self.folder / "out" / f"{len(os.listdir(self.folder / 'out'))}.tar.gz"
        result = subprocess.run(self.command(f"--output={path}", *arguments, **options), text=True,
                                capture_output=True, timeout=DEADLINE,
                                env=self.environment(**sudo))
        self.assertEqual((result.returncode, result.stdout), (0, f"{path}\n"), result.stderr)
        self.complaints = result.stderr
        self.assertEqual(path.stat().st_mode & 0o777, 0o600)
        self.owner = path.stat().st_uid
        members = {}
        with tarfile.open(path) as archive:
            for member in archive:
                self.assertEqual((member.mode, member.uid, member.uname, member.isreg()),
                                 (0o600, 0, "root", True))
                folder, _, name = member.name.partition("/")
                self.assertEqual(folder, "ktclientd-report")
                members[name] = archive.extractfile(member).read()
        return members["README"].decode(), members

    def assert_no_secret(self, members):
        for name, text in members.items():
            found = [secret for secret in fragments() if secret in text.lower()]
            self.assertEqual(found, [], name)

    def test_nothing_leaks(self):
        self.make_machine(crash=plant_at_edges())
        planted = {"units.txt", "settings.txt", "journal.txt", "trace/ktclientd.log",
                   "trace/ktclientd.log.1", "trace/ktclientd.log.crash"}
        expected = planted | {"README", "doctor.json", "doctor.txt", "versions.txt"}
        answers = {"answers/hardware.json", "answers/igel.json"}
        # Nothing would be found in a report that holds nothing: the secrets are all there.
        readme, members = self.report("--no-redact", "--yes")
        self.assertEqual(set(members), expected)
        self.assertIn("NOTHING IS REDACTED", readme)
        self.assertIn("secrets", self.complaints)
        for name in "doctor.json", "doctor.txt":
            self.assertIn(NAMES["certificate file"].encode(), members[name])
        if os.geteuid() == 0:  # those of the process, from its command line
            self.assertEqual(self.in_force(members), {
                "KESTREL_IGEL_MANAGEMENT_CERT_PATH": f'"{self.folder}/store"',
                "KESTREL_OPENSSL_FINGERPRINT_ANY_CASE": '"true"', "KESTREL_TRACE_LEVEL": '"5"',
                "KESTREL_SOCKET": f'"{self.daemon.name}"',
                "KESTREL_TRACE_FOLDER": f'"{self.daemon.folder}"',
                "PATH": f'"{self.daemon.commands}:/usr/bin:/bin"'})
        for name in planted:
            missing = {secret for secret in fragments() if secret not in members[name].lower()}
            parts = {"settings.txt": CONTINUED[3:], "units.txt": CONTINUED[:3]}.get(name, CONTINUED)
            missing -= {part.encode() for part in parts}
            self.assertEqual(missing, set(), name)

        readme, members = self.report("--include-answers")
        self.assertEqual(set(members), expected | answers)
        self.assert_no_secret(members)
        self.assertEqual(self.complaints, "")
        for name in planted | {"versions.txt"}:
            self.assertIn(MARKER.encode(), members[name], name)
        self.assertRegex(members["trace/ktclientd.log.crash"],
                         rb"\n<line of 1048577 bytes left out>\n")
        self.assertRegex(members["answers/hardware.json"],
                         rb'"bios_serial_number":"<serial-number-\d+>"')
        for name in ("doctor.json", *answers):
            json.loads(members[name])
        host = re.search(rb"\(<host-\d+>\)", members["journal.txt"])[0]
        self.assertIn(host, members["trace/ktclientd.log"])
        counts = dict(re.findall(r"^  ([a-z0-9-]+) +(\d+)$", readme, re.M))
        for rule in ("email", "ipv4", "ipv6", "mac", "uuid", "pem", "token", "host", "user", "home",
                     "machine-id", "serial-number", "asset-tag", "domain"):
            self.assertGreater(int(counts[rule]), 9, readme)

    @unittest.skipIf(os.geteuid() != 0, "takes a second user")
    def test_without_permission_nothing_leaks_and_the_advice_is_given(self):
        self.make_machine()
        readme, members = self.report("--no-redact", "--yes", user=NOBODY)
        self.assertEqual(self.in_force(members), {  # those of the unit
            "KESTREL_B": '"a b"', "KESTREL_D": '"0"', "PATH": '"/usr/bin"',
            "KESTREL_IGEL_MANAGEMENT_CERT_PATH": f'"{self.folder}/store"',
            "KESTREL_TRACE_FOLDER": f'"{self.daemon.folder}"'})
        readme, members = self.report("--include-answers", user=NOBODY)
        self.assertNotIn("trace/ktclientd.log", members)
        self.assert_no_secret(members)
        for missing in r"/ktclientd\.log", r"/<user-\d+>":
            self.assertRegex(readme, rf"{missing}: .*denied.*\n +Run it with sudo")

    def test_end_of_a_long_text_begins_with_a_whole_record(self):
        self.make_machine()
        secret = b"plantedpassw0rd\n  more of its record\n"  # what is read begins with it
        for path, member, size, end, record in (
                (self.folder / "journal", "journal.txt", 1000000, b"exit status 0\n",
                 b"2026-11-21T10:00:00+0000 ktclientd[7]: harmless\n"),
                (self.older, "trace/ktclientd.log.1", (16 << 20) + 1, b"",
                 (TRACE % "harmless").encode())):
            kept = record + b"-" * ((size - len(secret + end + record) - 1) % len(record)) + b"\n"
            kept += record * ((size - len(secret + end + kept)) // len(record))
            path.write_bytes(b"filler\n" * 99 + b"password=" + secret + kept)
            _, members = self.report()
            self.assertEqual(members[member], kept + end)

    def test_rules_can_be_added_and_short_names_are_told(self):
        self.make_machine()
        rules = self.folder / "rules"
        rules.write_text("# words\nproject harmless (words)\n")
        readme, members = self.report(f"--rules={rules}")
        self.assertIn(b"harmless <project-1> stay", members["journal.txt"])
        self.assertRegex(readme, r"(?m)^  project +\d\d+$")
        self.assertIn("the rule user is not replaced, because", readme)  # "yx"
        self.older.write_bytes(b"harmless words in a long file\n" * 200000)
        rules.write_text("".join(f"slow [a-z ]+-{i}x\n" for i in range(1000)))
        readme, members = self.report(f"--rules={rules}", "--timeout=1", "--yes")
        self.assertNotIn("trace/ktclientd.log.1", members)
        self.assertIn("no trace/ktclientd.log.1, because its redaction", self.complaints)
        self.assertIn("trace/ktclientd.log.1: its redaction took longer than 1 s", readme)

    def test_report_with_unknown_secrets_is_written_only_with_yes(self):
        self.make_machine()
        (self.folder / "os-release").unlink()
        os.mkfifo(self.folder / "os-release")  # an open() of it blocks
        self.install("realm", "exec sleep 1000")
        (self.folder / "hosts").write_bytes(b"#" * ((16 << 20) + 1))
        unknown = ("the certificates: it took longer than", "that realm prints: ",
                   "in /etc/hosts: The file cannot be read: it is larger")
        result = subprocess.run(self.command("--timeout=1"), cwd=self.folder / "out", text=True,
                                stdin=subprocess.DEVNULL, capture_output=True, timeout=DEADLINE,
                                env=self.environment())
        self.assertEqual((result.returncode, result.stdout), (3, ""))
        self.assertRegex(result.stderr, r"\A[^\n]*may stand in the archive in clear[^\n]*--yes\n\Z")
        self.assertEqual(os.listdir(self.folder / "out"), [])
        readme, _ = self.report("--timeout=1", "--yes")
        warning = readme.partition("UNKNOWN TO THE REDACTOR")[2].partition("\n\nWhat")[0]
        for text in unknown:
            for where in (result.stderr, self.complaints, warning):
                self.assertIn(text, where)

    @unittest.skipIf(os.geteuid() != 0, "takes a second user")
    def test_files_that_another_user_has_put_in_the_place_of_the_trace_are_not_read(self):
        self.make_machine()
        secret = self.folder / "secret"
        secret.write_text("of root")
        crash = pathlib.Path(f"{self.daemon.log}.crash")
        for file in (self.daemon.log, self.older):
            file.unlink()
        self.daemon.log.symlink_to(secret)
        self.older.hardlink_to(secret)
        os.chown(crash, 65534, 65534)
        readme, members = self.report("--no-redact", "--yes", sudo={"SUDO_UID": "x"})
        self.assertEqual([name for name in members if name.startswith("trace")], [])
        self.assertEqual(readme.count("ktclientd.log: The file cannot be read: it is not a"), 1)
        self.assertEqual(readme.count("ktclientd.log.1: The file cannot be read: it is not a"), 1)
        self.assertIn("ktclientd.log.crash: The file cannot be read: it belongs to", readme)
        self.assertEqual(self.owner, 0)

    @unittest.skipIf(os.geteuid() != 0, "takes a second user")
    def test_newest_trace_of_the_daemon_is_found_and_the_user_of_sudo_gets_the_archive(self):
        self.make_machine("--trace-file-prefix")
        folder = self.daemon.folder
        (folder / "90_ktclientd.log").write_text("of another user")
        os.chown(folder / "90_ktclientd.log", 65534, 65534)
        (folder / "91_ktclientd.log").symlink_to(self.folder / "default")
        os.mkfifo(folder / "92_ktclientd.log")
        _, members = self.report("--no-redact", "--yes",
                                 sudo={"SUDO_UID": "65534", "SUDO_GID": "65534"})
        self.assertIn(b"Received new connection", members["trace/ktclientd.log"])
        self.assertEqual(self.owner, 65534)

    def test_signal_leaves_no_command_and_no_archive_behind(self):
        self.make_machine()
        self.install("systemctl", ": >started; exec sleep 1000")
        started = self.folder / "started"
        for program, number in (("report", signal.SIGINT), ("doctor", signal.SIGTERM)):
            with subprocess.Popen(self.command(program=program), cwd=self.folder / "out",
                                  start_new_session=True, stdout=subprocess.PIPE,
                                  env=self.environment()) as process:
                wait_until(started.exists, "the command runs")
                process.send_signal(number)
                self.assertEqual(process.stdout.read(), b"")
            self.assertEqual(process.returncode, -number)
            wait_until(lambda: not processes_of_session(process.pid), "no command is left")
            self.assertEqual(os.listdir(self.folder / "out"), [])
            started.unlink()

    def test_what_cannot_be_done_is_said_and_writes_nothing(self):
        rules, taken = self.folder / "rules", self.folder / "taken"
        rules.write_text("project (\n")
        taken.write_text("mine")
        fifo, closed = self.folder / "fifo", self.folder / "closed"
        os.mkfifo(fifo)
        closed.mkdir(mode=0o311)
        for status, word in ((2, "--output"), (2, "--output="), (2, "--no-redact"), (2, "--x"),
                             (2, "more"), (2, f"--rules={rules}"), (2, "--rules=/none"),
                             (2, f"--rules={fifo}"), (2, "--rules=/dev/zero"),
                             (2, "--no-redact=yes"), (2, "--yes=no"), (2, "--timeout=0"),
                             (3, f"--output={taken}"), (3, "--output=/none/report")):
            result = ctl("report", "--socket=/none", word, cwd=self.folder,
                         stdin=subprocess.DEVNULL)
            self.assertEqual((result.returncode, result.stdout), (status, ""), word)
            self.assertRegex(result.stderr, r"^ktclientctl: [^\n]*\n$", word)
        self.assertEqual(taken.read_text(), "mine")
        self.assertEqual(len(os.listdir(self.folder)), 4)
        removed = ["sh", "-c", 'mkdir gone && cd gone && rmdir ../gone && exec "$@"', "sh"]
        self.folder.chmod(0o755)
        for launcher, folder, complaint in (
                (removed, self.folder, "not exist"),
                *[(NOBODY, closed, "denied (the current folder)")] * (os.geteuid() == 0)):
            result = run(*launcher, BIN / "ktclientctl", "report", "--socket=/none", "--yes",
                         "--no-redact", cwd=folder)
            self.assertEqual((result.returncode, result.stdout), (3, ""))
            self.assertRegex(result.stderr, rf"secrets of this machine.\nktclientctl: [^\n]*"
                                            rf"{re.escape(complaint)}[^\n]*\n\Z")

    def test_terminal_is_asked_and_sees_the_progress(self):
        commands = self.enterContext(tempfile.TemporaryDirectory())
        journal = pathlib.Path(commands, "journalctl")
        journal.write_text("#!/bin/sh\nexec sleep 1000\n")  # so the step takes until its deadline
        journal.chmod(0o755)
        for answer, status, count in (b"\n", 1, 0), (b"n\n", 1, 0), (b"\x04", 1, 0), (b"y\n", 0, 1):
            ours, terminal = pty.openpty()
            with subprocess.Popen([BIN / "ktclientctl", "report", "--socket=/none", "--no-redact",
                                   "--timeout=3"], cwd=self.folder, stdin=terminal, stderr=terminal,
                                  stdout=subprocess.PIPE, env=clean_environment(
                                      {"PATH": f"{commands}:/usr/bin:/bin", "TERM": "xterm"})) as process:
                os.close(terminal)
                shown = b""
                while b"[y/N]" not in shown:
                    shown += os.read(ours, 4096)
                os.write(ours, answer)
                with contextlib.suppress(OSError):  # the end of a terminal
                    while piece := os.read(ours, 4096):
                        shown += piece
                os.close(ours)
                printed = process.stdout.read().decode()
            self.assertEqual(process.returncode, status, shown)
            self.assertEqual(len(os.listdir(self.folder)), count)
            self.assertEqual(b"Looking at the journal" in shown, bool(count))
        [name] = os.listdir(self.folder)
        self.assertEqual(printed, f"{name}\n")
        host = re.sub("[^A-Za-z0-9.-]", "_", socket.gethostname())
        self.assertRegex(name, rf"^ktclientd-report-{re.escape(host)}-\d{{8}}_\d{{6}}\.tar\.gz$")

    def test_what_hangs_is_left_out(self):
        self.make_machine(journal="exec sleep 1000")
        self.daemon.log.unlink()
        os.mkfifo(self.daemon.log)
        readme, members = self.report()
        self.assertRegex(readme, r"The journal cannot be read: journalctl did not end in \d+ s")
        self.assertRegex(readme, r"ktclientd\.log: .*not a regular file")
        self.assertEqual({"journal.txt", "trace/ktclientd.log"} & set(members), set())
        self.assertIn("trace/ktclientd.log.1", members)


if __name__ == "__main__":
    unittest.main()
