"""The documents as a site, with every link checked."""

import argparse
import re
import shutil
import subprocess
import sys
from pathlib import Path

from jobs.common import JobError

FOLDER = Path("build/docs")
CONFIGURATION = Path("docs/mkdocs.yml")
# The pages at the top of the tree, and what they are called in the site.
TOP_PAGES = {"README.md": "index.md", "SECURITY.md": "SECURITY.md", "CONTRIBUTING.md": "CONTRIBUTING.md", "CHANGELOG.md": "CHANGELOG.md"}


def add_parser(commands: "argparse._SubParsersAction[argparse.ArgumentParser]") -> None:
    parser = commands.add_parser("docs", help="make the documents' site and check its links")
    parser.set_defaults(run=run)


def run(_arguments: argparse.Namespace) -> None:
    make_site(Path.cwd())
    print(f"dev: the documents are in {FOLDER}/site; begin with index.html")


def make_site(tree: Path) -> None:
    """Makes the site. A link that leads nowhere, a page that the contents leave out and any other warning is an error."""
    collect_pages(tree)
    result = subprocess.run([sys.executable, "-m", "mkdocs", "build", "--strict", "--config-file", str(tree / CONFIGURATION)],
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    if result.returncode:
        raise JobError(f"the documents cannot be made into a site:\n{result.stdout.strip()}")
    # docs/search_from_files.js loads this when the pages are opened without a server.
    search = tree / FOLDER / "site/search"
    index = (search / "search_index.json").read_text(encoding="utf-8")
    (search / "search_index.js").write_text(f"const search_index = {index};\n", encoding="utf-8")


def collect_pages(tree: Path) -> None:
    """Copies the pages of docs/, and those at the top of the tree, to where the site is made from, with links that fit."""
    pages = tree / FOLDER / "pages"
    shutil.rmtree(pages, ignore_errors=True)
    shutil.copytree(tree / "docs", pages, ignore=shutil.ignore_patterns(CONFIGURATION.name))
    for source, name in TOP_PAGES.items():
        text = (tree / source).read_text(encoding="utf-8")
        (pages / name).write_text(links_from_the_top(text), encoding="utf-8")
    for page in pages.rglob("*.md"):
        text = page.read_text(encoding="utf-8")
        page.write_text(links_to_the_top(text), encoding="utf-8")


def links_from_the_top(text: str) -> str:
    """The text of a page at the top of the tree, as it stands beside the pages of docs/."""
    return re.sub(r"\]\(docs/", "](", text)


def links_to_the_top(text: str) -> str:
    """The text of a page with links to the pages at the top of the tree, as they stand beside it."""
    for source, name in TOP_PAGES.items():
        text = re.sub(rf"\]\((?:\.\./)?{re.escape(source)}(?=[)#])", f"]({name}", text)
    return text
