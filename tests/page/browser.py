#!/usr/bin/python3
"""A headless Chromium that does what it reads on standard input, a JSON list a line, and answers each with a JSON line:
the value, or {"error": "..."}. Whoever drives it says what has to be seen; here it is only looked, with a bound.

  ["open", URL, WIDTH, HEIGHT, "light" | "dark"]   opens the page in a window of that size
  ["wait", SCRIPT, SECONDS]     until the script's value is true; the value then, or an error with the last one
  ["eval", SCRIPT]              the script's value
  ["click", SELECTOR]           as a person does: what is not visible cannot be clicked
  ["type", SELECTOR, TEXT]
  ["shot", FILE]                keeps what is seen, the whole page, as a PNG
  ["tree"]                      what a screen reader is given: [[role, name], ...]
  ["complaints"]                what the browser has complained of since the last time
"""
import base64
import json
import sys

from selenium import webdriver
from selenium.common.exceptions import TimeoutException, WebDriverException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait


def start():
    options = webdriver.ChromeOptions()
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--hide-scrollbars",
                     "--no-proxy-server", "--disable-background-networking"):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)


class Browser:
    def __init__(self, driver):
        self.driver = driver

    def open(self, url, width, height, scheme):
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                                    {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 500})
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia",
                                    {"features": [{"name": "prefers-color-scheme", "value": scheme}]})
        self.driver.get("about:blank")  # so that a page with another fragment is loaded anew
        self.driver.get(url)
        return self.driver.title

    def eval(self, script):
        return self.driver.execute_script("return " + script)

    def wait(self, script, seconds):
        last = [None]

        def holds(_):
            last[0] = self.eval(script)
            return last[0]

        try:
            return WebDriverWait(self.driver, seconds, poll_frequency=0.1).until(holds)
        except TimeoutException as late:
            text = self.eval("document.body.innerText.slice(0, 1500)")
            raise RuntimeError(f"not in {seconds} s: {script}; last: {last[0]}; the page:\n{text}") from late

    def click(self, selector):
        self.driver.find_element(By.CSS_SELECTOR, selector).click()
        return True

    def type(self, selector, text):
        field = self.driver.find_element(By.CSS_SELECTOR, selector)
        field.clear()
        field.send_keys(text)
        return True

    def shot(self, file):
        size = self.driver.execute_cdp_cmd("Page.getLayoutMetrics", {})["cssContentSize"]
        whole = {"x": 0, "y": 0, "width": size["width"], "height": min(size["height"], 6000), "scale": 1}
        picture = self.driver.execute_cdp_cmd("Page.captureScreenshot",
                                              {"format": "png", "captureBeyondViewport": True, "clip": whole})
        with open(file, "wb") as out:
            out.write(base64.b64decode(picture["data"]))
        return file

    def tree(self):
        nodes = self.driver.execute_cdp_cmd("Accessibility.getFullAXTree", {})["nodes"]
        return [[node["role"]["value"], node.get("name", {}).get("value", "")] for node in nodes
                if not node["ignored"] and "role" in node]

    def complaints(self):
        return [entry["message"] for entry in self.driver.get_log("browser") if entry["level"] in ("SEVERE", "WARNING")]


def main():
    driver = start()
    try:
        browser = Browser(driver)
        for line in sys.stdin:
            name, *rest = json.loads(line)
            try:
                answer = getattr(browser, name)(*rest)
            except (RuntimeError, WebDriverException) as error:
                answer = {"error": str(error)}
            print(json.dumps(answer), flush=True)
    finally:
        driver.quit()


if __name__ == "__main__":
    main()
