# SPDX-License-Identifier: MIT
"""A headless browser for tests of pages, driven through Debian's chromium-driver. Needs nothing else."""
import json, os, re, shutil, subprocess, urllib.request

ELEMENT = "element-6066-11e4-a52e-4f735466cecf"  # the key that the protocol names elements by


def missing():
    """The programs that are not installed."""
    return [name for name in ("chromium", "chromedriver") if not shutil.which(name)]


class Browser:
    def __init__(self):
        self.driver = subprocess.Popen(["chromedriver", "--port=0"], stdout=subprocess.PIPE, text=True,
                                       stderr=subprocess.DEVNULL)
        port = next(found.group(1) for found in
                    (re.search(r"on port (\d+)\.", line) for line in self.driver.stdout) if found)
        self.url = f"http://127.0.0.1:{port}/session"
        options = ["--headless=new", "--disable-gpu"] + ["--no-sandbox"] * (os.geteuid() == 0)
        wanted = {"alwaysMatch": {"goog:chromeOptions": {"args": options, "binary": shutil.which("chromium")}}}
        self.url += "/" + self.call("", capabilities=wanted)["sessionId"]

    def call(self, path, **arguments):
        request = urllib.request.Request(self.url + path, json.dumps(arguments).encode(),
                                         {"Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=60) as answer:
            return json.load(answer)["value"]

    def close(self):
        with urllib.request.urlopen(urllib.request.Request(self.url, method="DELETE"), timeout=60):
            pass
        self.driver.terminate()
        self.driver.communicate()

    def open(self, path, width=1280, height=900, scheme="light"):
        self.command("Emulation.setDeviceMetricsOverride", width=width, height=height,
                     deviceScaleFactor=1, mobile=False)
        self.command("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": scheme}])
        self.call("/url", url=f"file://{path}")

    def command(self, name, **arguments):
        return self.call("/goog/cdp/execute", cmd=name, params=arguments)

    def run(self, script, *arguments):
        """The value of a script's body, after the next frame is painted."""
        body = ("const [frame] = [...arguments].slice(-1), given = [...arguments].slice(0, -1);"
                "requestAnimationFrame(() => requestAnimationFrame(() => frame((() => {%s})())));" % script)
        return self.call("/execute/async", script=body, args=list(arguments))

    def find(self, selector):
        return self.call("/element", using="css selector", value=selector)[ELEMENT]

    def click(self, selector):
        self.call(f"/element/{self.find(selector)}/click")

    def type(self, selector, text):
        self.call(f"/element/{self.find(selector)}/value", text=text)

    def text(self, selector):
        return self.run("return document.querySelector(given[0]).innerText", selector)

    def point(self, x, y, *then):
        """Moves the pointer to a place in the window; "pointerDown", "pointerUp" can follow."""
        steps = [{"type": "pointerMove", "x": int(x), "y": int(y)}] + [{"type": t, "button": 0} for t in then]
        self.call("/actions", actions=[{"type": "pointer", "id": "pointer", "actions": steps}])
