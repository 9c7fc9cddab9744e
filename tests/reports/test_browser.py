"""The pages in a real browser: what it shows, that nothing is refused or blocked, and that everything works without JavaScript."""

from __future__ import annotations

import os
from collections.abc import Iterator
from pathlib import Path

import pytest
from running import PASSWORD, TREE, USER, Server, full_report, short_report
from selenium import webdriver
from selenium.webdriver.common.by import By
from selenium.webdriver.remote.webelement import WebElement
from selenium.webdriver.support.expected_conditions import staleness_of
from selenium.webdriver.support.ui import WebDriverWait
from test_pages import HOSTILE, PROBES, add_symbols, probe_report

PICTURES = TREE / "build/reports-pictures"


@pytest.fixture(scope="module", name="browser")
def browser_fixture() -> Iterator[webdriver.Chrome]:
    """Headless Chromium without JavaScript."""
    options = webdriver.ChromeOptions()
    for option in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--window-size=1280,900"):
        options.add_argument(option)
    options.add_experimental_option("prefs", {"profile.managed_default_content_settings.javascript": 2})
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    os.environ.setdefault("HOME", "/root")
    driver = webdriver.Chrome(options, webdriver.ChromeService("/usr/bin/chromedriver"))
    try:
        driver.set_page_load_timeout(60)
        yield driver
    finally:
        driver.quit()


def follow(browser: webdriver.Chrome, element: WebElement) -> None:
    """Presses what leads to another page, and waits until the former one is gone."""
    former = browser.find_element(By.TAG_NAME, "html")
    element.click()
    WebDriverWait(browser, 60).until(staleness_of(former))


def test_every_page_is_shown_and_the_state_of_a_group_is_changed(browser: webdriver.Chrome, tmp_path: Path) -> None:
    with Server(str(tmp_path / "reports.db"), tmp_path) as server:
        for architecture in PROBES:
            add_symbols(server, architecture)
            server.send(probe_report(architecture))
        for number in range(40):
            server.send(short_report(0x1000 + number % 5, code=0xE0544D01, address=number, note=HOSTILE))
        server.send(full_report(0x1000, code=0xE0544D01))
        start = f"http://{USER}:{PASSWORD.replace(' ', '%20')}@127.0.0.1:{server.pages}/"
        browser.get(start)
        PICTURES.mkdir(parents=True, exist_ok=True)
        assert browser.title == "Crashes"
        assert len(browser.find_elements(By.CSS_SELECTOR, "table.groups tbody tr")) == 6
        # The style sheet came, and the bars have their colour.
        assert browser.find_element(By.TAG_NAME, "header").value_of_css_property("background-color") == "rgba(36, 66, 92, 1)"
        assert browser.find_element(By.CSS_SELECTOR, "svg.days rect").size["height"] > 0
        browser.save_screenshot(str(PICTURES / "groups.png"))
        follow(browser, browser.find_element(By.PARTIAL_LINK_TEXT, "probe::leaf"))
        assert browser.find_element(By.TAG_NAME, "h1").text == "access violation in probe::leaf"
        browser.find_element(By.NAME, "mended_in").send_keys("3.4.2")
        browser.find_element(By.CSS_SELECTOR, "form select[name=state] option[value=mended]").click()
        follow(browser, browser.find_element(By.XPATH, "//button[text()='Save']"))
        assert "mended in 3.4.2" in browser.find_element(By.TAG_NAME, "dl").text
        browser.save_screenshot(str(PICTURES / "group.png"))
        follow(browser, browser.find_element(By.CSS_SELECTOR, "td a"))
        assert "symbol_probe.cpp" in browser.find_element(By.CSS_SELECTOR, "table.frames").text
        browser.save_screenshot(str(PICTURES / "report.png"))
        # What the program noted comes as text, in its own direction.
        browser.get(f"http://127.0.0.1:{server.pages}/report/3")
        assert "<script>alert(1)</script>\\u{202E}detrever" in browser.find_element(By.TAG_NAME, "li").text
        follow(browser, browser.find_element(By.XPATH, "//button[text()='Delete this report']"))
        assert browser.find_element(By.TAG_NAME, "h1").text.startswith("terminate called in halvoro.exe+0x1000")
        follow(browser, browser.find_element(By.LINK_TEXT, "What is stored"))
        assert "stay for 90 days" in browser.find_element(By.TAG_NAME, "main").text
        # Nothing was blocked by the pages' own policy, and nothing was missing.
        log = browser.get_log("browser")  # type: ignore[no-untyped-call]  # Selenium's own omission
        complaints = [entry["message"] for entry in log if "favicon" not in entry["message"]]
        assert complaints == []
