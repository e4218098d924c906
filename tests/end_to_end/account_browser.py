"""Debian's Chromium without a window, driven by the WebDriver protocol (W3C) through chromedriver."""

import json
import re
import subprocess
import time
import urllib.error
import urllib.request

ELEMENT = "element-6066-11e4-a52e-4f735466cecf"
PATIENCE = 30
# A sandbox of its own needs user namespaces, which containers and root do not have.
ARGUMENTS = ["--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu", "--no-proxy-server",
             "--disable-background-networking", "--no-first-run"]


class Browser:
    def __init__(self, directory):
        self.driver = subprocess.Popen(["chromedriver", "--port=0", f"--log-path={directory / 'chromedriver.log'}"],
                                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.base = self.session = None
        for line in self.driver.stdout:
            if found := re.search(r"started successfully on port (\d+)", line):
                self.base = f"http://127.0.0.1:{found[1]}"
                break
        assert self.base, "chromedriver does not start"
        answer = self.call("POST", "/session", {"capabilities": {"alwaysMatch": {
            "browserName": "chrome",
            "goog:chromeOptions": {"args": [*ARGUMENTS, f"--user-data-dir={directory / 'profile'}"]}}}})
        self.session = f"/session/{answer['sessionId']}"

    def call(self, method, path, body=None):
        request = urllib.request.Request(self.base + path, method=method, headers={"Content-Type": "application/json"},
                                         data=None if method == "GET" else json.dumps(body or {}).encode())
        try:
            with urllib.request.urlopen(request, timeout=90) as answer:
                return json.loads(answer.read())["value"]
        except urllib.error.HTTPError as refusal:
            raise LookupError(refusal.read().decode()) from refusal

    def open(self, address):
        self.call("POST", self.session + "/url", {"url": address})

    def address(self):
        return self.call("GET", self.session + "/url")

    def find(self, selector):
        return self.call("POST", self.session + "/element", {"using": "css selector", "value": selector})[ELEMENT]

    def text(self, selector="body"):
        return self.call("GET", f"{self.session}/element/{self.find(selector)}/text")

    def type(self, selector, text):
        element = f"{self.session}/element/{self.find(selector)}"
        self.call("POST", element + "/clear")
        self.call("POST", element + "/value", {"text": text})

    def click(self, selector):
        self.call("POST", f"{self.session}/element/{self.find(selector)}/click")

    def wait_for(self, text):
        """Until the page shows a text. \\return all that it shows."""
        end = time.monotonic() + PATIENCE
        shown = ""
        while text not in shown:
            assert time.monotonic() < end, f"{self.address()} shows: {shown}"
            time.sleep(0.05)
            try:
                shown = self.text()
            except LookupError as error:  # between two pages
                shown = str(error)
        return shown

    def quit(self):
        if self.session:
            self.call("DELETE", self.session)
        self.driver.terminate()
        self.driver.wait(30)
        self.driver.stdout.close()
