import base64
import contextlib
import hashlib
import json
import os
import pathlib
import select
import shutil
import signal
import subprocess
import unittest

from harness import BIN, DEADLINE, DOCS, SEQPACKET, Case, clean_environment, wait_until

EXTENSION = DOCS / "browser-extension"
TEMPLATES = DOCS.parent / "packaging/native-messaging"

# What the page shows, once that is a response or the lack of one.
SHOWN = 'document.getElementById("serial")?.value.replace("…", "")'


class Browser:
    """A Chromium that the DevTools protocol controls. All its files are in its profile.

    Descriptor 3 takes requests, descriptor 4 gives responses and events: JSON, ended by a 0.
    """

    def __init__(self, profile):
        self._process = subprocess.Popen(
            ["bash", "-c", 'exec "$@" 3<&0 4>&1 </dev/null >&2', "bash", "chromium",
             "--headless=new", "--disable-gpu", "--remote-debugging-pipe", "--no-first-run",
             "--no-sandbox",  # for root, and in containers
             "--disable-background-networking", "--disable-component-update",
             f"--user-data-dir={profile}", f"--load-extension={EXTENSION}", "about:blank"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
            env=clean_environment({"HOME": str(profile), "TMPDIR": str(profile)}),
            start_new_session=True)
        self._profile = os.fsencode(profile)
        self._calls, self._received = 0, b""

    def call(self, method, target=None, **params):
        self._calls += 1
        request = {"id": self._calls, "method": method, "params": params}
        request |= {"sessionId": target} if target else {}
        self._process.stdin.write(json.dumps(request).encode() + b"\0")
        self._process.stdin.flush()
        while True:
            message, end, rest = self._received.partition(b"\0")
            if end:
                self._received = rest
                response = json.loads(message)
                if response.get("id") == self._calls:
                    return response["result"]
            else:
                output = self._process.stdout
                received = select.select([output], [], [], DEADLINE)[0] and output.read1()
                if not received:
                    raise AssertionError(f"no response to {method}")
                self._received += received

    def text_shown(self, page):
        return wait_until(lambda: self.call("Runtime.evaluate", page, expression=SHOWN)["result"]
                          .get("value"), "the page shows a text", pause=0.02)

    def is_running(self):
        """Whether there is a process of it: two have left its process group, and end later."""
        for file in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
            with contextlib.suppress(OSError):
                if self._profile in file.read_bytes():
                    return True
        return False

    def end(self):
        os.killpg(self._process.pid, signal.SIGKILL)
        self._process.communicate()
        wait_until(lambda: not self.is_running(), "no process of the browser is left")


class BrowserTest(Case):
    @unittest.skipUnless(shutil.which("chromium"), "chromium is not installed")
    def test_extension_shows_the_serial_number(self):
        name = f"{self.folder}/socket"
        script = (TEMPLATES / "ktclientd-native-host.in").read_text().rstrip()
        (self.folder / "host").write_text(
            f"{script.replace('@bindir@', str(BIN))} --socket={name}\n")
        (self.folder / "host").chmod(0o755)
        manifest = json.loads((TEMPLATES / "chromium.json.in").read_text())
        hosts = self.folder / "profile/NativeMessagingHosts"
        hosts.mkdir(parents=True)
        (hosts / f"{manifest['name']}.json").write_text(
            json.dumps(manifest | {"path": str(self.folder / "host")}))
        key = json.loads((EXTENSION / "manifest.json").read_text())["key"]
        digits = hashlib.sha256(base64.b64decode(key)).hexdigest()[:32]
        extension = "".join(chr(ord("a") + int(digit, 16)) for digit in digits)

        daemon = self.start(name=name, dmidecode="echo KT-0001-DEMO")
        browser = Browser(self.folder / "profile")
        self.addCleanup(browser.end)
        target = browser.call("Target.createTarget",
                              url=f"chrome-extension://{extension}/page.html")
        page = browser.call("Target.attachToTarget", **target, flatten=True)["sessionId"]
        self.assertEqual(browser.text_shown(page), "KT-0001-DEMO")

        ask_again = 'document.getElementById("again").click()'
        daemon.stop()
        daemon = self.start(name=name, activated=SEQPACKET, dmidecode="echo KT-0002-DEMO")
        browser.call("Runtime.evaluate", page, expression=ask_again)
        self.assertEqual(browser.text_shown(page), "KT-0002-DEMO")
        daemon.stop()
        os.unlink(name)
        browser.call("Runtime.evaluate", page, expression=ask_again)
        self.assertEqual(browser.text_shown(page), "no answer: Native host has exited.")
