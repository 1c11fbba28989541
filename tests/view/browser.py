"""Drives Chromium through its own debugging protocol, over a pipe, for tests of the page."""

import base64
import json
import os
import select
import shutil
import subprocess
import tempfile
import time

NAMES = ("chromium", "chromium-browser", "google-chrome")


def find():
    """The browser's program, or None."""
    return next((path for path in map(shutil.which, NAMES) if path), None)


class Failed(Exception):
    """The browser refuses or does not answer."""


class Browser:
    """A browser without a window. `with` ends it."""

    def __init__(self, program, *more):
        self.folder = tempfile.mkdtemp(prefix="kelpa-browser-")
        to_browser, self._write = os.pipe()
        self._read, from_browser = os.pipe()
        self._number, self._rest, self._events = 0, b"", []

        def take_pipes():
            # Whichever numbers the pipes have, they are 3 and 4 for the browser.
            high = [os.dup2(fd, 100 + i) for i, fd in enumerate((to_browser, from_browser))]
            os.dup2(high[0], 3)
            os.dup2(high[1], 4)

        words = [
            program, "--headless=new", "--remote-debugging-pipe", "--no-sandbox", "--no-first-run",
            "--disable-gpu", "--disable-dev-shm-usage", "--hide-scrollbars", "--mute-audio",
            "--force-color-profile=srgb", f"--user-data-dir={self.folder}", *more, "about:blank",
        ]
        self.process = subprocess.Popen(
            words, preexec_fn=take_pipes, close_fds=False, stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(to_browser)
        os.close(from_browser)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        try:
            self.call("Browser.close")
        except (Failed, OSError):
            pass
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        os.close(self._write)
        os.close(self._read)
        shutil.rmtree(self.folder, ignore_errors=True)

    def call(self, method, session=None, timeout=60.0, **values):
        """Asks the browser and waits for its answer."""
        self._number += 1
        asked = {"id": self._number, "method": method, "params": values}
        if session:
            asked["sessionId"] = session
        data = json.dumps(asked).encode() + b"\0"
        while data:
            data = data[os.write(self._write, data):]
        end = time.monotonic() + timeout
        while True:
            told = self._next(end, method)
            if told.get("id") == self._number:
                if "error" in told:
                    raise Failed(f"{method}: {told['error'].get('message')}")
                return told.get("result", {})
            self._events.append(told)

    def _next(self, end, waiting_for):
        while b"\0" not in self._rest:
            ready, _, _ = select.select([self._read], [], [], max(0.0, end - time.monotonic()))
            some = os.read(self._read, 1 << 20) if ready else b""
            if not some:
                raise Failed(f"no answer to {waiting_for}")
            self._rest += some
        message, self._rest = self._rest.split(b"\0", 1)
        return json.loads(message)

    def open(self, link, width=1280, height=720, ratio=1.0, dark=False, touch=False):
        """A new tab that shows the link."""
        return Tab(self, link, width, height, ratio, dark, touch)


class Tab:
    """One page."""

    def __init__(self, browser, link, width, height, ratio, dark, touch):
        self.browser = browser
        self.target = browser.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = browser.call(
            "Target.attachToTarget", targetId=self.target, flatten=True)["sessionId"]
        self.call("Page.enable")
        self.call("Runtime.enable")
        self.call("Log.enable")
        self.resize(width, height, ratio, touch)
        scheme = {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}
        self.call("Emulation.setEmulatedMedia", features=[scheme])
        if touch:
            self.call("Emulation.setTouchEmulationEnabled", enabled=True)
        self.call("Page.navigate", url=link)

    def call(self, method, **values):
        return self.browser.call(method, session=self.session, **values)

    def close(self):
        self.browser.call("Target.closeTarget", targetId=self.target)

    def resize(self, width, height, ratio=1.0, touch=False):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height,
                  deviceScaleFactor=ratio, mobile=touch)

    def run(self, code):
        """What an expression of the page gives; awaits what it promises."""
        answer = self.call("Runtime.evaluate", expression=code, returnByValue=True,
                           awaitPromise=True)
        if "exceptionDetails" in answer:
            raise Failed(json.dumps(answer["exceptionDetails"])[:600])
        return answer["result"].get("value")

    def wait(self, code, timeout=30.0):
        """Waits until an expression is true, and gives what it is."""
        end = time.monotonic() + timeout
        while time.monotonic() < end:
            try:
                if value := self.run(code):
                    return value
            except Failed:  # while pages change
                pass
            time.sleep(0.03)
        raise Failed(f"never true: {code}; errors: {self.errors()}")

    def mouse(self, kind, x, y, button="left", **more):
        self.call("Input.dispatchMouseEvent", type=kind, x=x, y=y, button=button, **more)

    def click(self, x, y, count=1):
        for i in range(1, count + 1):
            self.mouse("mousePressed", x, y, clickCount=i)
            self.mouse("mouseReleased", x, y, clickCount=i)

    def drag(self, x, y, dx, dy, steps=8, button="left", pause=0.02):
        self.mouse("mousePressed", x, y, button, clickCount=1)
        for i in range(1, steps + 1):
            self.mouse("mouseMoved", x + dx * i / steps, y + dy * i / steps, button, buttons=1)
            time.sleep(pause)
        self.mouse("mouseReleased", x + dx, y + dy, button, clickCount=1)

    def key(self, key, code="", modifiers=0):
        text = key if len(key) == 1 else ""
        for kind in ("keyDown", "keyUp"):
            self.call("Input.dispatchKeyEvent", type=kind, key=key, code=code or key,
                      modifiers=modifiers, **({"text": text} if text and kind == "keyDown" else {}))

    def press(self, selector):
        """Clicks an element of the page."""
        self.run(f"document.querySelector({json.dumps(selector)}).click()")

    def choose(self, selector, value):
        """Sets a field as a person would."""
        self.run(f"""(() => {{
            const field = document.querySelector({json.dumps(selector)});
            field.value = {json.dumps(value)};
            field.dispatchEvent(new Event('input', {{ bubbles: true }}));
            field.dispatchEvent(new Event('change', {{ bubbles: true }}));
        }})()""")

    def facts(self):
        """What the picture is that the page shows; None before the first."""
        return json.loads(self.run("document.body.dataset.picture ?? 'null'"))

    def wait_refined(self, beyond=0, timeout=60.0):
        """Waits for a picture of all samples, newer than one of number `beyond`."""
        self.wait(f"""(() => {{ const p = JSON.parse(document.body.dataset.picture ?? 'null');
            return p && p.number > {beyond} && p.samples === p.of; }})()""", timeout)
        return self.facts()

    def pixels(self):
        """Width, height and the RGB bytes of the picture's pixels."""
        width, height, data = self.run("""(() => {
            const canvas = document.getElementById('picture');
            const { data } = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height);
            let text = '';
            for (let i = 0; i < data.length; i += 4)
                text += String.fromCharCode(data[i], data[i + 1], data[i + 2]);
            return [canvas.width, canvas.height, btoa(text)];
        })()""")
        return width, height, base64.b64decode(data)

    def shows(self, is_right, timeout=30.0):
        """Waits for pixels that are right. A busy machine shows a picture of before a little longer."""
        end = time.monotonic() + timeout
        while not is_right(self.pixels()):
            if time.monotonic() > end:
                return False
            time.sleep(0.05)
        return True

    def screenshot(self, path):
        data = self.call("Page.captureScreenshot", format="png")["data"]
        with open(path, "wb") as file:
            file.write(base64.b64decode(data))

    def errors(self):
        """What the page's console complained about."""
        self.run("1")
        found = []
        for event in self.browser._events:
            if event.get("sessionId") != self.session:
                continue
            if event["method"] == "Runtime.exceptionThrown":
                found.append(json.dumps(event["params"]["exceptionDetails"])[:500])
            if event["method"] == "Log.entryAdded" and event["params"]["entry"]["level"] == "error":
                found.append(event["params"]["entry"]["text"])
        return found
