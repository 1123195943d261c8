# SPDX-License-Identifier: Apache-2.0
"""A real Chromium, driven as a person would: by what it shows, by its keyboard, and with axe-core looking on."""

import json
import subprocess
import tempfile
from pathlib import Path

from ravolab.process import wait_for

REPOSITORY = Path(__file__).resolve().parents[2]
OPTIONS = ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--hide-scrollbars",
           "--disable-background-networking", "--disable-component-update", "--disable-sync", "--disable-dev-shm-usage",
           "--force-color-profile=srgb", "--force-device-scale-factor=1")
AXE = REPOSITORY / "build" / "test-assets" / "axe-core" / "axe.min.js"


def axe_core():
    """The text of axe-core; raises with the reason when it cannot be had."""
    subprocess.run([REPOSITORY / "packaging" / "test-assets", "axe-core"], check=True, timeout=120)
    return AXE.read_text()


class Browser:
    def __init__(self):
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
        self.folder = tempfile.TemporaryDirectory(prefix="ravo-chromium-")
        options = webdriver.ChromeOptions()
        for option in (*OPTIONS, f"--user-data-dir={self.folder.name}"):
            options.add_argument(option)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)

    def close(self):
        self.driver.quit()
        self.folder.cleanup()

    def look(self, width, dark=False, height=900):
        """The window's size and whether its person likes it dark."""
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 700})
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}]})

    def open(self, url):
        self.driver.get(url)

    def script(self, text, *arguments):
        return self.driver.execute_script(text, *arguments)

    def ready(self, page):
        """Wait until this page is shown with its data."""
        wait_for(lambda: self.script("return document.getElementById('main').dataset.ready === arguments[0]", page), 20,
                 f"page {page}; there is {self.text()!r}")

    def text(self):
        return self.script("return document.body.innerText")

    def sees(self, text, timeout=20):
        wait_for(lambda: text in self.text(), timeout, lambda: f"{text!r} on the page; there is:\n{self.text()}")

    def find(self, selector):
        from selenium.webdriver.common.by import By
        return wait_for(lambda: next(iter(self.driver.find_elements(By.CSS_SELECTOR, selector)), None), 20,
                        f"element {selector}")

    def keys(self, *keys):
        """Type, to whatever has the focus."""
        from selenium.webdriver.common.action_chains import ActionChains
        ActionChains(self.driver).send_keys(*keys).perform()

    def tab_to(self, test, most=80):
        """Press Tab until the element with the focus satisfies a JavaScript test of `e`."""
        from selenium.webdriver.common.keys import Keys
        for _ in range(most):
            if self.script(f"const e = document.activeElement; return Boolean({test})"):
                return
            self.keys(Keys.TAB)
        raise AssertionError(f"{most} times Tab do not lead to {test}; the page:\n{self.text()}")

    def focus_shows(self):
        """Whether one sees where the focus is."""
        return self.script("const s = getComputedStyle(document.activeElement); "
                           "return s.outlineStyle !== 'none' && parseFloat(s.outlineWidth) >= 2")

    def overflow(self):
        """By how many pixels the page is wider than the window."""
        return self.script("return document.documentElement.scrollWidth - window.innerWidth")

    def serious(self, axe):
        """What axe-core finds that is serious or critical: [(rule, elements)]."""
        self.script(axe)
        found = self.driver.execute_async_script(
            "const done = arguments[0]; axe.run(document).then(r => done(JSON.stringify(r.violations)))")
        return [(v["id"], [n["html"][:200] for n in v["nodes"]]) for v in json.loads(found)
                if v["impact"] in ("serious", "critical")]

    def errors(self):
        """The console's errors since the last look."""
        return [line["message"] for line in self.driver.get_log("browser") if line["level"] == "SEVERE"]

    def screenshot(self, path, whole=False):
        import base64
        height = self.script("return document.documentElement.scrollHeight") if whole else None
        clip = {"clip": {"x": 0, "y": 0, "width": self.script("return innerWidth"), "height": height, "scale": 1}}
        shot = self.driver.execute_cdp_cmd("Page.captureScreenshot", {
            "format": "png", "captureBeyondViewport": whole, **(clip if whole else {})})
        Path(path).write_bytes(base64.b64decode(shot["data"]))
