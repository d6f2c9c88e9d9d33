import errno
import pathlib
import select
import subprocess
import tempfile
import threading
import time
import unittest

from harness import (BIN, DEADLINE, HARDWARE, NOT_IMPLEMENTED, SANITIZED, SEQPACKET, STREAM, Case,
                     Client, clean_environment, in_thread, serial)

# Shifts the system clock, and only that, by the seconds in the file that CLOCK_SHIFT names.
SHIFTED_CLOCK = r"""
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
int clock_gettime(clockid_t clock, struct timespec* time) {
  static int (*real)(clockid_t, struct timespec*);
  if (!real) real = (int (*)(clockid_t, struct timespec*))dlsym(RTLD_NEXT, "clock_gettime");
  int result = real(clock, time);
  long shift = 0;
  FILE* file = clock == CLOCK_REALTIME ? fopen(getenv("CLOCK_SHIFT"), "re") : NULL;
  if (file && fscanf(file, "%ld", &shift) == 1) time->tv_sec += shift;
  if (file) fclose(file);
  return result;
}
"""


class ServiceManager:
    """Keeps a listening socket and starts a daemon on it whenever a client waits."""

    def __init__(self, folder, listener, *arguments, environment={}, dmidecode="echo S1"):
        self.folder, self.listener, self.arguments = folder, listener, arguments
        (folder / "dmidecode").write_text(f"#!/bin/sh\n{dmidecode}\n")
        (folder / "dmidecode").chmod(0o755)
        self.environment = clean_environment(
            {"PATH": f"{folder}:/usr/bin:/bin", "LISTEN_FDS": "1", **environment})
        self.starts, self.statuses, self.process = 0, [], None
        self._ending = threading.Event()
        self._thread = in_thread(self._run)

    def _run(self):
        while not self._ending.is_set():
            if not select.select([self.listener], [], [], 0.05)[0]:
                continue
            self.process = subprocess.Popen(
                ["bash", "-c", f'LISTEN_PID=$$ exec "$@" 3<&{self.listener.fileno()}', "sh",
                 BIN / "ktclientd", "--activated", f"--trace-folder={self.folder}",
                 *self.arguments],
                pass_fds=[self.listener.fileno()], env=self.environment)
            self.starts += 1
            self.statuses.append(self.process.wait())

    def end(self):
        self._ending.set()
        while self._thread.is_alive():
            if self.process and self.process.returncode is None:
                self.process.terminate()
            self._thread.join(0.05)


def ask_once(name, kind):
    """A client whose request was sent whole; None when its send failed, so that it may repeat it."""
    client = Client(name, kind)
    try:
        client.request([])
        return client
    except OSError as error:
        client.close()
        if error.errno in (errno.EPIPE, errno.ECONNRESET):
            return None
        raise


class IdleExitTest(Case):
    def manage(self, kind, *arguments, **options):
        folder = pathlib.Path(tempfile.mkdtemp(dir=self.folder))
        self.listener = self.listen(str(folder / "socket"), kind, 4096)
        self.name, self.kind = str(folder / "socket"), kind
        manager = ServiceManager(folder, self.listener, *arguments, **options)
        manager.name = self.name
        self.addCleanup(manager.end)
        return manager

    def test_no_request_is_lost_at_the_expiry(self):
        managers, threads, sent, answers = [], [], [], []

        def ask_at_expiry(manager, kind, offset):
            # Where processes are slow the expiry is late, so later bursts follow until one met it.
            for delay in (0, 0.02, 0.1, 0.5, 2):
                with Client(manager.name, kind) as client:
                    client.ask([])
                    expiry = time.monotonic() + 1
                time.sleep(max(0, expiry + offset + delay - time.monotonic()))
                burst = list(filter(None, (ask_once(manager.name, kind) for _ in range(15))))
                sent.extend(burst)
                for client in burst:
                    answers.append(client.answer())
                    client.close()
                if manager.starts > 1:
                    break

        for number in range(20):
            kind = (SEQPACKET, STREAM)[number % 2]
            managers.append(self.manage(kind, "--activated-period=1", "--trace-level=1"))
            threads.append(in_thread(ask_at_expiry, managers[-1], kind, (number - 10) * 0.0005))
        for thread in threads:
            thread.join()
        self.assertGreaterEqual(len(sent), 200)
        self.assertEqual(answers, [NOT_IMPLEMENTED] * len(sent))
        for manager in managers:
            self.assertGreater(manager.starts, 1, "no burst met an expiry")
            manager.end()  # by a signal, which may come before a daemon has begun
            self.assertLessEqual(set(manager.statuses), {0, -15})

    def test_daemon_at_work_stays(self):
        manager = self.manage(SEQPACKET, "--activated-period=1", "--command-timeout=0",
                              dmidecode='echo started >"$0.started"; sleep 3; echo S1')
        with Client(self.name) as client:
            client.request(HARDWARE)
            self.assertEqual(client.answer(), serial("S1"))
        self.assertEqual(manager.starts, 1)

    @unittest.skipIf(SANITIZED, "sanitizers have clocks of their own")
    def test_steps_of_the_system_clock_change_nothing(self):
        (self.folder / "clock.c").write_text(SHIFTED_CLOCK)
        subprocess.run(["cc", "-shared", "-fPIC", "-o", self.folder / "clock.so",
                        self.folder / "clock.c", "-ldl"], check=True)
        shift = self.folder / "shift"
        shift.write_text("0")
        manager = self.manage(
            SEQPACKET, "--activated-period=2", "--trace-level=1",
            environment={"LD_PRELOAD": str(self.folder / "clock.so"), "CLOCK_SHIFT": str(shift)})
        with Client(self.name) as client:
            for seconds in ("3600", "-3600", "0", "-3600"):
                self.assertEqual(client.ask([]), NOT_IMPLEMENTED)
                shift.write_text(seconds)
                time.sleep(0.5)
                self.assertEqual(manager.starts, 1)
            def count_waits():
                status = pathlib.Path(f"/proc/{manager.process.pid}/status").read_text()
                return int(status.rpartition("\nvoluntary_ctxt_switches:")[2].split()[0])
            before = count_waits()
            time.sleep(1)
            after = count_waits()
            self.assertLess(after - before, 5)
            begin = time.monotonic()
            self.assertIsNone(client.answer())  # idle in time, whatever the system clock says
            self.assertLess(time.monotonic() - begin, DEADLINE / 2)
