"""Real browsers without a window: Chromium by chromedriver's W3C protocol, Firefox by Marionette. Both sides are spoken
with Python's own library.

    with open_browser("chromium") as browser:
        browser.open("file:///tmp/page.html")
        browser.run("return document.title")

A browser tells what its console has said and which addresses it has asked for since the page was opened.
"""

import base64
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import urllib.error
import urllib.request

START_LIMIT = 120  # seconds; a guard, for a busy machine
KEYS = {"Enter": "\ue007", "Escape": "\ue00c", "Left": "\ue012", "Up": "\ue013", "Right": "\ue014", "Down": "\ue015",
        "PageDown": "\ue00f", "End": "\ue010", "Home": "\ue011", "Tab": "\ue004", "Backspace": "\ue003"}
ELEMENT = "element-6066-11e4-a52e-4f735466cecf"


class Browser:
    """What both have in common. `call(name, parameters)` is each one's own way to say a command."""

    def __init__(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.process = None

    def __enter__(self):
        return self

    def __exit__(self, *failure):
        try:
            self.end()
        finally:
            if self.process:
                # The browser is in the group of the process, and so ends with it.
                for number in (signal.SIGTERM, signal.SIGKILL):
                    try:
                        os.killpg(self.process.pid, number)
                        self.process.wait(20)
                    except (ProcessLookupError, subprocess.TimeoutExpired):
                        pass
            shutil.rmtree(self.folder, ignore_errors=True)

    def start(self, *words):
        environment = dict(os.environ, HOME=str(self.folder), XDG_CONFIG_HOME=str(self.folder), LC_ALL="C.UTF-8")
        with open(self.folder / "said", "wb") as said:
            self.process = subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=said, stderr=said, env=environment,
                                            start_new_session=True)

    def wait_for(self, condition, *arguments, seconds=60):
        """Waits until the script returns something true, and returns that."""
        limit = time.monotonic() + seconds
        while True:
            found = self.run(condition, *arguments)
            if found or time.monotonic() > limit:
                return found
            time.sleep(0.05)

    def wait_for_drawing(self):
        """Waits until the page has been drawn anew, with everything that happened before."""
        self.run("window.wasDrawn = false; requestAnimationFrame(() => requestAnimationFrame(() => window.wasDrawn = true))")
        self.wait_for("return window.wasDrawn")

    def element(self, selector):
        return self.call("WebDriver:FindElement", {"using": "css selector", "value": selector})

    def actions(self, *sources):
        self.call("WebDriver:PerformActions", {"actions": list(sources)})

    def click(self, selector, x=None, y=None, presses=True):
        """Clicks on the middle of an element, or on a point in it, in pixels from its upper left corner."""
        self.run("document.querySelector(arguments[0]).scrollIntoView({block: 'center'})", selector)
        left, top, width, height = self.run(
            "const r = document.querySelector(arguments[0]).getBoundingClientRect(); return [r.x, r.y, r.width, r.height]",
            selector)
        point = {"x": round(left + (width / 2 if x is None else x)), "y": round(top + (height / 2 if y is None else y))}
        steps = [{"type": "pointerMove", "duration": 0, "origin": "viewport", **point}]
        if presses:
            steps += [{"type": "pointerDown", "button": 0}, {"type": "pointerUp", "button": 0}]
        self.actions({"type": "pointer", "id": "mouse", "parameters": {"pointerType": "mouse"}, "actions": steps})

    def point(self, selector, x, y):
        self.click(selector, x, y, presses=False)

    def press(self, *keys):
        """Presses keys, which go to the element that has the focus: names of KEYS, or characters."""
        steps = []
        for key in keys:
            code = KEYS.get(key, key)
            steps += [{"type": "keyDown", "value": code}, {"type": "keyUp", "value": code}]
        self.actions({"type": "key", "id": "keyboard", "actions": steps})

    def focus(self, selector):
        self.run("document.querySelector(arguments[0]).focus()", selector)

    def text(self, selector):
        return self.run("return document.querySelector(arguments[0]).textContent", selector)


class Chromium(Browser):
    COMMANDS = {"WebDriver:FindElement": ("POST", "element"), "WebDriver:PerformActions": ("POST", "actions")}

    def __init__(self):
        super().__init__()
        self.start("chromedriver", "--port=0", f"--log-path={self.folder}/log", "--allowed-ips=127.0.0.1")
        limit = time.monotonic() + START_LIMIT
        while not (port := re.search(rb"started successfully on port (\d+)", (self.folder / "said").read_bytes())):
            if self.process.poll() is not None or time.monotonic() > limit:
                raise RuntimeError((self.folder / "said").read_text())
            time.sleep(0.05)
        self.base = f"http://127.0.0.1:{int(port.group(1))}/session"
        flags = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                 "--disable-background-networking", "--disable-component-update", "--disable-sync",
                 "--hide-scrollbars", "--window-size=1400,1100", f"--user-data-dir={self.folder}/profile"]
        capabilities = {"goog:chromeOptions": {"args": flags, "binary": shutil.which("chromium")},
                        "goog:loggingPrefs": {"browser": "ALL", "performance": "ALL"}}
        answer = self.ask("POST", "", {"capabilities": {"alwaysMatch": capabilities}})
        self.base += "/" + answer["sessionId"]

    def ask(self, method, path, parameters=None):
        data = None if parameters is None else json.dumps(parameters).encode()
        request = urllib.request.Request(self.base + ("/" + path if path else ""), data, method=method,
                                         headers={"Content-Type": "application/json"})
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        try:
            with opener.open(request, timeout=300) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            raise RuntimeError(json.load(error)["value"]["message"]) from None

    def call(self, name, parameters):
        return self.ask(*self.COMMANDS[name], parameters)

    def end(self):
        self.ask("DELETE", "")

    def open(self, address):
        self.ask("POST", "se/log", {"type": "browser"})
        self.ask("POST", "se/log", {"type": "performance"})
        self.ask("POST", "url", {"url": address})

    def run(self, script, *arguments):
        return self.ask("POST", "execute/sync", {"script": script, "args": list(arguments)})

    def screenshot(self):
        return base64.b64decode(self.ask("GET", "screenshot"))

    def messages(self):
        return [entry["message"] for entry in self.ask("POST", "se/log", {"type": "browser"})]

    def requests(self):
        events = [json.loads(entry["message"])["message"] for entry in self.ask("POST", "se/log", {"type": "performance"})]
        return [event["params"]["request"]["url"] for event in events if event["method"] == "Network.requestWillBeSent"]

    def prefer_dark(self, is_dark):
        self.ask("POST", "goog/cdp/execute", {"cmd": "Emulation.setEmulatedMedia", "params": {
            "features": [{"name": "prefers-color-scheme", "value": "dark" if is_dark else "light"}]}})

    def labels(self):
        """The names that a screen reader hears, with their roles, from the browser's accessibility tree."""
        tree = self.ask("POST", "goog/cdp/execute", {"cmd": "Accessibility.getFullAXTree", "params": {}})
        return [(node.get("role", {}).get("value"), node.get("name", {}).get("value")) for node in tree["nodes"]
                if not node.get("ignored")]


class Firefox(Browser):
    PREFERENCES = {
        "marionette.port": 0, "browser.shell.checkDefaultBrowser": False, "app.update.enabled": False,
        "browser.startup.homepage_override.mstone": "ignore", "datareporting.policy.dataSubmissionEnabled": False,
        "toolkit.telemetry.enabled": False, "network.captive-portal-service.enabled": False,
        "network.connectivity-service.enabled": False, "services.settings.server": "data:,",
        "browser.safebrowsing.downloads.remote.enabled": False, "extensions.update.enabled": False,
        "browser.aboutConfig.showWarning": False, "layout.css.prefers-color-scheme.content-override": 1,
    }

    def __init__(self):
        super().__init__()
        profile = self.folder / "profile"
        profile.mkdir()
        lines = [f"user_pref({json.dumps(name)}, {json.dumps(value)});\n" for name, value in self.PREFERENCES.items()]
        (profile / "user.js").write_text("".join(lines))
        self.start("firefox-esr", "--headless", "--marionette", "--remote-allow-system-access", "--no-remote", "--profile",
                   str(profile), "--width=1400", "--height=1100", "about:blank")
        limit = time.monotonic() + START_LIMIT
        port = profile / "MarionetteActivePort"
        while not (port.exists() and port.read_text().strip()):
            if self.process.poll() is not None or time.monotonic() > limit:
                raise RuntimeError((self.folder / "said").read_text())
            time.sleep(0.1)
        self.socket = socket.create_connection(("127.0.0.1", int(port.read_text())), timeout=300)
        self.stream = self.socket.makefile("rb")
        self.count = 0
        self.receive()
        self.call("WebDriver:NewSession", {"capabilities": {"alwaysMatch": {"pageLoadStrategy": "normal"}}})
        self.in_browser("""
            globalThis.asked = [];
            Services.obs.addObserver(channel => {
                if (channel.loadInfo?.browsingContext)
                    globalThis.asked.push(channel.QueryInterface(Ci.nsIHttpChannel).URI.spec);
            }, "http-on-opening-request");""")

    def receive(self):
        size = b""
        while not size.endswith(b":"):
            size += self.stream.read(1)
        return json.loads(self.stream.read(int(size[:-1])))

    def call(self, name, parameters):
        self.count += 1
        message = json.dumps([0, self.count, name, parameters]).encode()
        self.socket.sendall(str(len(message)).encode() + b":" + message)
        _, _, error, result = self.receive()
        if error:
            raise RuntimeError(f"{error['message']} {error.get('stacktrace', '')}")
        return result

    def end(self):
        self.call("Marionette:Quit", {"flags": ["eForceQuit"]})
        self.process.wait(60)

    def in_browser(self, script, *arguments):
        """Runs a script with the rights of the browser itself."""
        self.call("Marionette:SetContext", {"value": "chrome"})
        try:
            return self.call("WebDriver:ExecuteScript", {"script": script, "args": list(arguments), "sandbox": "system"})["value"]
        finally:
            self.call("Marionette:SetContext", {"value": "content"})

    def open(self, address):
        self.in_browser("Services.console.reset(); globalThis.asked.length = 0")
        self.address = address
        self.call("WebDriver:Navigate", {"url": address})

    def run(self, script, *arguments):
        return self.call("WebDriver:ExecuteScript", {"script": script, "args": list(arguments), "sandbox": None})["value"]

    def screenshot(self):
        return base64.b64decode(self.call("WebDriver:TakeScreenshot", {"full": False})["value"])

    def messages(self):
        found = self.in_browser("""
            return Services.console.getMessageArray().map(each => each instanceof Ci.nsIScriptError
                ? [each.sourceName, each.errorMessage, each.category] : ["", each.message, ""])""")
        # The browser's own parts report to the same place.
        return [text for source, text, category in found
                if source.startswith(self.address[:30]) or "Content-Security-Policy" in text or "content javascript" in category]

    def requests(self):
        return [self.address, *self.in_browser("return globalThis.asked")] if self.address.startswith("file:") \
            else self.in_browser("return globalThis.asked")

    def prefer_dark(self, is_dark):
        self.in_browser("Services.prefs.setIntPref('layout.css.prefers-color-scheme.content-override', arguments[0])",
                        0 if is_dark else 1)


BROWSERS = {"chromium": Chromium, "firefox": Firefox}


def open_browser(name):
    return BROWSERS[name]()
