import os

from harness import GENERIC, HARDWARE, PATIENCE, STREAM, Case, serial, wait_until


def complaints_of_commands(daemon):
    return [message for message in daemon.messages("WARNING") if message.startswith("Command")]


class SensorCommandTest(Case):
    def test_command_beyond_a_limit_is_killed_with_all_that_it_started(self):
        cases = {
            "Command took too long": ("exec sleep 1000", "trap '' TERM HUP INT; sleep 1000; true",
                                      "echo S1; exec >&-; sleep 1000", "echo S1; sleep 1000 &",
                                      "(sleep 1000 & sleep 1000 &) & while :; do sleep 1; done"),
            "Command printed too much": ("exec yes", "yes & yes", "exec head -c 1048577 /dev/zero"),
        }
        daemon = self.start("--command-timeout=1")
        expected = []
        for message, scripts in cases.items():
            for script in scripts:
                with self.subTest(script=script):
                    daemon.install("dmidecode", script)
                    self.assertEqual(daemon.ask(HARDWARE), GENERIC)
                    expected.append(message)
                    self.assertEqual(complaints_of_commands(daemon), expected)
                    wait_until(lambda: len(daemon.session()) == 1, "only the daemon is left")
        daemon.install("dmidecode", "echo S1")
        self.assertEqual(daemon.ask(HARDWARE), serial("S1"))

    def test_end_of_the_requests_budget_kills_its_command(self):
        daemon = self.start("--command-timeout=0", "--request-timeout=1", dmidecode="sleep 1000")
        for _ in range(2):
            self.assertEqual(daemon.ask(HARDWARE), GENERIC)
            wait_until(lambda: len(daemon.session()) == 1, "only the daemon is left")
        self.assertEqual([line.fields for line in daemon.trace()
                          if line.message == "Request took too long"],
                         ['commandLine:"LC_ALL=C dmidecode -s system-serial-number" '
                          'timeoutSeconds:1'] * 2)
        self.assertEqual(complaints_of_commands(daemon), [])
        daemon.install("dmidecode", "echo S1")
        self.assertEqual(daemon.ask(HARDWARE), serial("S1"))

    def test_command_within_the_limits_is_not_killed(self):
        daemon = self.start("--command-timeout=0", activated=STREAM,
                            dmidecode="head -c 1048576 /dev/zero | tr '\\0' 7")
        self.assertEqual(daemon.ask(HARDWARE), serial("7" * 1048576))
        self.assertEqual(complaints_of_commands(daemon), [])
        # A background process with another standard output outlives the command.
        daemon.install("dmidecode", 'sleep 1000 >/dev/null & echo $! >"$0.left"; echo S1')
        self.assertEqual(daemon.ask(HARDWARE), serial("S1"))
        os.kill(int((daemon.commands / "dmidecode.left").read_text()), 9)

    def test_sigterm_does_not_wait_for_a_command(self):
        script = """echo started >>"$0.started"; trap '' TERM; sleep 1000; echo S1"""
        daemon = self.start("--command-timeout=0", dmidecode=script)
        clients = [self.connect(daemon) for _ in range(5)]
        for client in clients:
            client.request(HARDWARE, HARDWARE)
        self.wait_for_start(daemon, "dmidecode")
        daemon.process.terminate()
        daemon.wait_for_end(PATIENCE)
        self.assertEqual((daemon.commands / "dmidecode.started").read_text(), "started\n")
        self.assertIn("Command was cancelled", complaints_of_commands(daemon))
        for client in clients:
            self.assertIn(client.answer(), (None, GENERIC))
