import errno
import pathlib
import subprocess
import sys

from harness import GENERIC, HARDWARE, Case, serial, wait_until

# Linux 5.2 has none of them, Linux 4.10 no statx either.
CALLS = ["pidfd_open", "clone3", "close_range", "faccessat2", "statx"]
REFUSE = [sys.executable, "-B", str(pathlib.Path(__file__).parent / "refuse_calls.py")]
LAUNCHER = ["env", *REFUSE, ",".join(CALLS)]
PROBE = """
import ctypes, refuse_calls
libc = ctypes.CDLL(None, use_errno=True)
for number in refuse_calls.NUMBERS.values():
    assert libc.syscall(number, -1, 0, 0, 0, 0) == -1
    print(ctypes.get_errno())
"""


class OldKernelTest(Case):
    def test_commands_run_and_end_as_on_a_new_kernel(self):
        probe = subprocess.run([*REFUSE, ",".join(CALLS), sys.executable, "-B", "-c", PROBE],
                               cwd=pathlib.Path(__file__).parent, capture_output=True, text=True)
        self.assertEqual((probe.stdout.split(), probe.stderr), ([str(errno.ENOSYS)] * 5, ""))

        daemon = self.start("--command-timeout=0", "--request-timeout=0", launcher=LAUNCHER)
        clients = [self.connect(daemon) for _ in range(5)]
        # The end of the output comes before that of the shell.
        daemon.install("dmidecode", """exec sh -c '(ls /proc/$$/fd >"$0.fds"); echo S1; exec >&-
            sleep 0.3' "$0" """)
        for client in clients:
            self.assertEqual(client.ask(HARDWARE), serial("S1"))
        self.assertEqual((daemon.commands / "dmidecode.fds").read_text().split(), ["0", "1", "2"])
        self.assertEqual([line for line in daemon.messages() if line.startswith("Command")], [])

        slow = self.start("--command-timeout=1", launcher=LAUNCHER,
                          dmidecode="sleep 1000 & echo S1; exec >&-; sleep 1000")
        self.assertEqual(slow.ask(HARDWARE), GENERIC)
        self.assertIn("Command took too long", slow.messages("WARNING"))
        wait_until(lambda: len(slow.session()) == 1, "only the daemon is left")
