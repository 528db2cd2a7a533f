"""A visitor of the room page in Chromium, who tells which captions are shown, until its input ends."""

from __future__ import annotations

import os
import sys
import threading
import time

from browse import Visitor, tell
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By


def main() -> None:
    link, *flags = sys.argv[1:]
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for flag in ("--headless=new", "--no-sandbox", "--use-fake-device-for-media-stream",
                 "--use-fake-ui-for-media-stream", "--window-size=1000,700", *flags):  # fmt: skip
        options.add_argument(flag)
    browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    over = threading.Event()
    threading.Thread(target=lambda: (sys.stdin.read(), over.set()), daemon=True).start()
    try:
        visitor = Visitor(browser)
        visitor.enter(link, "Ada")
        visitor.until("the room", lambda: browser.find_element(By.ID, "stage").is_displayed())
        tell("joined")
        before = ""
        while not over.wait(0.2):
            shown = " | ".join(
                each.text for each in browser.find_elements(By.CLASS_NAME, "caption") if each.text
            )
            if shown != before:
                before = shown
                tell("shown", text=shown, at=time.monotonic())
        if os.environ.get("SCREENSHOT"):
            browser.save_screenshot(os.environ["SCREENSHOT"])
        tell("left", problem=visitor.text("problem-text"))
    finally:
        browser.quit()


main()
