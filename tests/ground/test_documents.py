"""The documents become a site without a broken link, and a broken one is an error."""

from __future__ import annotations

import shutil
import subprocess
import sys
from pathlib import Path

import pytest
from selenium import webdriver
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "toolchain"))

from jobs import documents  # noqa: E402  (the path to it is set above)
from jobs.common import JobError  # noqa: E402


@pytest.fixture
def tree(tmp_path: Path) -> Path:
    """A copy of the documents."""
    shutil.copytree(ROOT / "docs", tmp_path / "docs")
    for page in documents.TOP_PAGES:
        shutil.copy(ROOT / page, tmp_path / page)
    return tmp_path


def test_the_documents_of_this_tree_become_a_site(tree: Path) -> None:
    documents.make_site(tree)
    site = tree / "build/docs/site"
    assert "Lumaris" in (site / "index.html").read_text(encoding="utf-8")
    assert (site / "search/search_index.json").stat().st_size > 100_000
    for page in (*documents.TOP_PAGES.values(), *(str(path.relative_to(tree / "docs")) for path in (tree / "docs").rglob("*.md"))):
        assert (site / page).with_suffix(".html").exists(), page


@pytest.mark.parametrize(("page", "text", "complaint"), [
    ("docs/design.md", "[gone](gone.md)", "gone.md"),
    ("docs/design.md", "[gone](publishing.md#no-such-heading)", "no-such-heading"),
    ("docs/design.md", "![gone](images/gone.png)", "images/gone.png"),
    ("SECURITY.md", "[gone](docs/gone.md)", "gone.md"),
    ("README.md", "[gone](toolchain/gone.md)", "toolchain/gone.md"),
])
def test_a_link_that_leads_nowhere_is_an_error(tree: Path, page: str, text: str, complaint: str) -> None:
    with (tree / page).open("a", encoding="utf-8") as file:
        file.write(f"\n{text}\n")
    with pytest.raises(JobError, match=complaint):
        documents.make_site(tree)


def test_a_page_that_the_contents_leave_out_is_an_error(tree: Path) -> None:
    (tree / "docs/forgotten.md").write_text("# Forgotten\n", encoding="utf-8")
    with pytest.raises(JobError, match="forgotten.md"):
        documents.make_site(tree)


@pytest.mark.parametrize("drawing", sorted((ROOT / "docs/images").glob("*.dot")), ids=lambda path: path.stem)
def test_a_drawing_is_what_its_source_says(drawing: Path) -> None:
    drawn = subprocess.run(["dot", "-Tsvg", str(drawing)], capture_output=True, timeout=60, check=True).stdout
    assert drawing.with_suffix(".svg").read_bytes() == drawn


def test_links_between_the_top_and_the_folder_are_kept(tree: Path) -> None:
    (tree / "docs/design.md").write_text("# Design\n\n[security](../SECURITY.md#threats-and-what-stops-them)\n", encoding="utf-8")
    documents.make_site(tree)
    assert 'href="SECURITY.html#threats-and-what-stops-them"' in (tree / "build/docs/site/design.html").read_text(encoding="utf-8")


def test_a_browser_finds_a_page_without_a_server(tree: Path, tmp_path: Path) -> None:
    (tree / "docs/design.md").write_text("# Design\n\n## Of porcupines\n\nA porcupine is named on no other page.\n", encoding="utf-8")
    documents.make_site(tree)
    options = webdriver.ChromeOptions()
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", f"--user-data-dir={tmp_path / 'profile'}"):
        options.add_argument(argument)
    driver = webdriver.Chrome(options=options, service=webdriver.ChromeService("/usr/bin/chromedriver"))
    try:
        wait = WebDriverWait(driver, 60)
        # From a folder below as well: the index lies above it.
        driver.get((tree / "build/docs/site/test_plan/version.html").as_uri())
        box = driver.find_element(By.NAME, "q")
        box.send_keys("porcupine")
        box.submit()
        wait.until(lambda at: at.find_elements(By.CSS_SELECTOR, "#mkdocs-search-results article"))
        titles = [each.text for each in driver.find_elements(By.CSS_SELECTOR, "#mkdocs-search-results h3")]
        assert titles == ["Of porcupines", "Design"] or titles == ["Of porcupines"]
        driver.find_element(By.LINK_TEXT, "Of porcupines").click()
        wait.until(lambda at: at.current_url.endswith("/design.html#of-porcupines"))
        driver.get((tree / "build/docs/site/search.html").as_uri() + "?q=nosuchwordanywhere")
        wait.until(lambda at: "No results found" in at.find_element(By.ID, "mkdocs-search-results").text)
    finally:
        driver.quit()
