"""A visit to the room page in headless Chromium, with the keyboard alone; tells what it finds line by line.

The browser gets no flag about WebRTC but that for devices that are not there. The visit goes on until the
end of standard input.
"""

from __future__ import annotations

import argparse
import json
import sys
import time
from collections.abc import Callable
from typing import Any

import marks
import numpy as np
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

PATIENCE = 30.0
TILE = (
    "[...document.querySelectorAll('.tile')].find((tile) => tile.getAttribute('aria-label') === arguments[0])"
)
# The luma of the top row of blocks of a tile's video, as the page shows it.
TOP_ROW = f"""
const video = ({TILE})?.querySelector('video');
if (!video?.videoWidth) return null;
const canvas = document.createElement('canvas');
[canvas.width, canvas.height] = [video.videoWidth, video.videoHeight];
const context = canvas.getContext('2d');
context.drawImage(video, 0, 0);
const row = context.getImageData(0, 8, canvas.width, 1).data;
return Array.from({{length: canvas.width}}, (_, x) => row[4 * x + 1]);
"""


def tell(event: str, **details: object) -> None:
    print(json.dumps({"event": event, **details}) + "\n", end="", flush=True)


class Visitor:
    def __init__(self, browser: webdriver.Chrome) -> None:
        self.browser = browser

    def until(self, what: str, condition: Callable[[], Any]) -> Any:
        deadline = time.monotonic() + PATIENCE
        while time.monotonic() < deadline:
            if found := condition():
                return found
            time.sleep(0.1)
        raise TimeoutError(f"waited {PATIENCE} s for {what}; the page says: {self.text('problem-text')!r}")

    def text(self, name: str) -> str:
        return str(self.browser.find_element(By.ID, name).text)

    def press(self, *keys: str) -> None:
        ActionChains(self.browser).send_keys(*keys).perform()

    def focused(self) -> str:
        return str(self.browser.execute_script("return document.activeElement.id"))

    def tab_to(self, name: str) -> None:
        for _ in range(12):
            if self.focused() == name:
                return
            self.press(Keys.TAB)
        raise TimeoutError(f"the keyboard does not get to {name}")

    def enter(self, link: str, name: str) -> None:
        def load() -> Any:
            self.browser.get("about:blank")  # a link that differs in its fragment alone loads nothing
            self.browser.get(link)
            return self.browser.find_elements(By.ID, "name")

        # The browser gives a page up when an interface of the network comes up meanwhile.
        [field] = self.until("the page", load)
        field.clear()
        field.send_keys(name, Keys.ENTER)

    def figures(self) -> dict[str, Any]:
        return dict(self.browser.execute_async_script("roomFigures().then(arguments[0])"))

    def figures_of(self, name: str) -> dict[str, Any] | None:
        return next((each for each in self.figures().values() if each["name"] == name), None)

    def number_in(self, name: str, maker: int) -> int | None:
        row = self.browser.execute_script(TOP_ROW, name)
        if row is None or len(row) != marks.WIDTH:
            return None
        mark = marks.read(np.tile(np.array(row), (marks.BLOCK, 1)))
        return mark[1] if mark is not None and mark[0] == maker else None

    def caption_of(self, name: str) -> str:
        return str(
            self.browser.execute_script(f"return ({TILE})?.querySelector('.caption').textContent ?? ''", name)
        )


def visit(visitor: Visitor, arguments: argparse.Namespace) -> None:
    browser, other = visitor.browser, f"Program {arguments.maker}"
    visitor.enter(arguments.wrong_link, "Ada")
    tell("refused", text=visitor.until("a refusal", lambda: visitor.text("problem-text")))

    visitor.enter(arguments.link, "Ada Lovelace")
    visitor.until("the room", lambda: browser.find_element(By.ID, "stage").is_displayed())
    tell("joined", focus=visitor.focused())
    visitor.until("pictures and sound", lambda: (
        (told := visitor.figures_of(other))
        and told["picture"].get("frames_decoded", 0) >= 50 and told["sound"].get("energy", 0) > 0.02
    ))  # fmt: skip
    first = visitor.until("a mark in the picture", lambda: visitor.number_in(other, arguments.maker))
    second = visitor.until("a later mark", lambda: (visitor.number_in(other, arguments.maker) or 0) > first)
    tell(
        "seen",
        first=first,
        later=second,
        caption=visitor.until("a caption", lambda: visitor.caption_of(other)),
    )

    visitor.press("Good morning, 世界", Keys.ENTER)
    visitor.tab_to("toggle-figures")
    visitor.press(Keys.ENTER)
    visitor.until("the figures", lambda: "Frames decoded" in visitor.text("figures"))
    browser.save_screenshot(arguments.screenshot)
    visitor.press(Keys.ESCAPE)
    tell(
        "figures shown",
        hidden_again=not browser.find_element(By.ID, "figures").is_displayed(),
        focus=visitor.focused(),
    )

    phone = {"width": 360, "height": 740, "deviceScaleFactor": 1, "mobile": True}
    browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", phone)
    overflow = browser.execute_script(
        "return [...document.querySelectorAll('button, input, video, .caption')]"
        ".filter((e) => e.offsetParent && (e.getBoundingClientRect().right > innerWidth + 1 || "
        "e.getBoundingClientRect().left < -1))"
        ".map((e) => e.id || e.className || e.tagName)"
    )
    tell(
        "phone",
        overflow=overflow,
        width=browser.execute_script("return document.documentElement.scrollWidth"),
    )

    sys.stdin.read()
    figures = visitor.figures()
    problem = visitor.text("problem-text")
    browser.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})
    visitor.tab_to("leave")
    visitor.press(Keys.ENTER)
    visitor.until("the lobby", lambda: browser.find_element(By.ID, "lobby").is_displayed())
    log = [line["message"] for line in browser.get_log("browser") if line["level"] == "SEVERE"]
    tell("left", figures=figures, problem=problem, log=log)


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("link")
    parser.add_argument("wrong_link")
    parser.add_argument("--maker", type=int, required=True)
    parser.add_argument("--screenshot", required=True)
    arguments = parser.parse_args()
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for flag in ("--headless=new", "--no-sandbox", "--use-fake-device-for-media-stream",
                 "--use-fake-ui-for-media-stream", "--window-size=1280,860"):  # fmt: skip
        options.add_argument(flag)
    options.accept_insecure_certs = True  # the server's certificate is its own
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    try:
        visit(Visitor(browser), arguments)
    finally:
        browser.quit()


if __name__ == "__main__":
    main()
