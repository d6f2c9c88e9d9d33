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
import tempfile
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

    def __init__(self, profile, extension):
        self._process = subprocess.Popen(
            ["bash", "-c", 'exec "$@" 3<&0 4>&1 </dev/null >&2', "bash", "chromium",
             "--headless=new", "--disable-gpu", "--remote-debugging-pipe", "--no-first-run",
             "--no-sandbox",  # for root, and in containers
             "--disable-background-networking", "--disable-component-update",
             f"--user-data-dir={profile}", f"--load-extension={extension}", "about:blank"],
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
            if not end:
                if not select.select([self._process.stdout], [], [], DEADLINE)[0]:
                    raise AssertionError(f"no response to {method}")
                received = os.read(self._process.stdout.fileno(), 65536)
                if not received:
                    raise AssertionError(f"the browser ended at {method}")
                self._received += received
                continue
            self._received = rest
            response = json.loads(message)
            if response.get("id") == self._calls:
                return response["result"]

    def text_shown(self, page):
        return wait_until(lambda: self.call("Runtime.evaluate", page, expression=SHOWN)["result"]
                          .get("value"), "the page shows a text", pause=0.02)

    def processes(self):
        """All of its processes; two are in sessions of their own, and end when the others have."""
        found = []
        for folder in pathlib.Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):
                text = (folder / "cmdline").read_bytes() + (folder / "environ").read_bytes()
                if self._profile in text:
                    found.append(text)
        return found

    def end(self):
        os.killpg(self._process.pid, signal.SIGKILL)
        self._process.communicate()
        wait_until(lambda: not self.processes(), "no process of the browser is left")


class BrowserTest(Case):
    @unittest.skipUnless(shutil.which("chromium"), "chromium is not installed")
    def test_extension_shows_the_serial_number(self):
        name = f"{self.folder}/socket"
        wrapper = self.folder / "wrapper"
        text = (TEMPLATES / "ktclientd-native-host.in").read_text()
        wrapper.write_text(text.replace("@CMAKE_INSTALL_FULL_BINDIR@", str(BIN)).rstrip() +
                           f" --socket={name}\n")
        wrapper.chmod(0o755)
        profile = pathlib.Path(tempfile.mkdtemp(dir=self.folder))
        (profile / "NativeMessagingHosts").mkdir()
        manifest = json.loads((TEMPLATES / "chromium.json.in").read_text())
        (profile / "NativeMessagingHosts" / f"{manifest['name']}.json").write_text(
            json.dumps(manifest | {"path": str(wrapper)}))
        key = json.loads((EXTENSION / "manifest.json").read_text())["key"]
        digest = hashlib.sha256(base64.b64decode(key)).hexdigest()[:32]
        extension = "".join(chr(ord("a") + int(digit, 16)) for digit in digest)

        daemon = self.start(name=name, dmidecode="echo KT-0001-DEMO")
        browser = Browser(profile, EXTENSION)
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
