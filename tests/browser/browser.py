"""A headless Chromium over its debugging pipe, with nothing but Python's own library."""
import base64
import json
import os
import select
import shutil
import subprocess
import time

NAMES = ("chromium-headless-shell", "chromium", "chromium-browser", "google-chrome")
LONGEST = 30  # seconds that an answer may take


def find():
    """Where a browser is installed, or None."""
    return next(filter(None, map(shutil.which, NAMES)), None)


class Browser:
    """One page of a browser of its own. What it reports while an answer is awaited is kept in `events`."""

    def __init__(self, program, profile):
        to_read, self.to = os.pipe()
        self.source, from_write = os.pipe()

        def place():  # the browser reads its descriptor 3 and writes its descriptor 4
            copies = [os.dup(to_read), os.dup(from_write)]
            os.dup2(copies[0], 3)
            os.dup2(copies[1], 4)

        command = [program, "--remote-debugging-pipe", f"--user-data-dir={profile}", "--headless", "--hide-scrollbars",
                   "--disable-gpu", *(["--no-sandbox"] if os.geteuid() == 0 else []), "about:blank"]
        self.process = subprocess.Popen(command, preexec_fn=place, close_fds=False, stderr=subprocess.DEVNULL)
        os.close(to_read)
        os.close(from_write)
        self.buffer, self.number, self.session, self.events = b"", 0, None, []
        target = next(one for one in self.call("Target.getTargets")["targetInfos"] if one["type"] == "page")
        self.session = self.call("Target.attachToTarget", targetId=target["targetId"], flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Network", "Log", "Accessibility"):
            self.call(domain + ".enable")

    def close(self):
        self.process.terminate()
        self.process.wait(LONGEST)

    def call(self, method, **parameters):
        self.number += 1
        message = {"id": self.number, "method": method, "params": parameters}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.to, json.dumps(message).encode() + b"\0")
        while True:
            answer = self._receive()
            if answer.get("id") == self.number:
                assert "error" not in answer, f"{method}: {answer['error']}"
                return answer["result"]
            self.events.append(answer)

    def _receive(self):
        end = time.monotonic() + LONGEST
        while b"\0" not in self.buffer:
            assert select.select([self.source], [], [], max(0, end - time.monotonic()))[0], "the browser is silent"
            part = os.read(self.source, 1 << 20)
            assert part, "the browser has ended"
            self.buffer += part
        message, self.buffer = self.buffer.split(b"\0", 1)
        return json.loads(message)

    def run(self, script):
        """The value of an expression of the page, awaited when it is a promise."""
        answer = self.call("Runtime.evaluate", expression=script, returnByValue=True, awaitPromise=True)
        assert "exceptionDetails" not in answer, f"{script}: {answer['exceptionDetails']}"
        return answer["result"].get("value")

    def wait(self, condition, seconds=20):
        """Until a condition of the page holds; what it then was."""
        value = self.run(f"""new Promise((done) => {{
            const end = Date.now() + {seconds * 1000};
            const look = () => {{
                const value = (() => {condition})();
                if (value || Date.now() > end) done(value instanceof Node || value); else setTimeout(look, 20);
            }};
            look();
        }})""")
        assert value, f"not within {seconds} s: {condition}\n{self.run('document.body.innerText')[:3000]}"
        return value

    def open(self, url):
        self.call("Page.navigate", url=url)

    def press(self, key, code=0, modifiers=0):
        for kind in ("rawKeyDown", "char", "keyUp") if key == "Enter" else ("rawKeyDown", "keyUp"):
            self.call("Input.dispatchKeyEvent", type=kind, key=key, code=key, windowsVirtualKeyCode=code,
                      modifiers=modifiers, text="\r" if kind == "char" else "")

    def size(self, width, height, phone=False):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=phone)

    def dark(self, on):
        self.call("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": "dark" if on else "light"}])

    def picture(self, path):
        self.run("new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(done)))")
        with open(path, "wb") as file:
            file.write(base64.b64decode(self.call("Page.captureScreenshot", format="png")["data"]))

    def complaints(self):
        """What the page has thrown, and what stands in red in a browser's console."""
        self.run("0")
        return [str(event["params"])[:500] for event in self.events
                if event.get("method") == "Runtime.exceptionThrown"
                or (event.get("method") == "Log.entryAdded" and event["params"]["entry"]["level"] == "error")
                or (event.get("method") == "Runtime.consoleAPICalled" and event["params"]["type"] in ("error", "assert"))]

    def addresses(self):
        """Of everything that it has asked for."""
        return [event["params"]["request"]["url"] for event in self.events if event.get("method") == "Network.requestWillBeSent"]
