"""What is tested over SQLite is tested over PostgreSQL as well, with the same cases."""

from __future__ import annotations

import json
import os
import re
import subprocess
import sys
from pathlib import Path

from running import TREE, Postgres

UNIT_TESTS = TREE / "build/native-asan/tests/unit_tests"

# Each with why it has one database or none.
OF_ONE = {
    "test_a_database_that_is_gone_makes_the_client_keep_its_report_and_comes_back": "a file of SQLite does not go",
    "test_two_servers_share_a_database": "SQLite is for one server",
    "test_a_deleted_report_is_not_in_the_files_any_more": "PostgreSQL's files are its administrator's affair",
    "test_pages_without_anybody_to_ask_for_are_refused": "the server ends before it opens a database",
    "test_files_that_are_no_symbols_are_not_added": "the symbol store is made of files",
    "test_a_limit_that_is_none_is_refused": "the server ends before it opens a database",
}


def test_every_case_of_one_database_is_a_case_of_the_other() -> None:
    folder = Path(__file__).parent
    listed = subprocess.run([sys.executable, "-m", "pytest", "--collect-only", "-q", "-p", "no:cacheprovider", str(folder / "test_intake.py"),
                             str(folder / "test_pages.py")], capture_output=True, text=True, timeout=120, check=True, cwd=folder).stdout
    cases = re.findall(r"^\S*::(\w+)(?:\[(.*)\])?$", listed, re.MULTILINE)
    of_sqlite = sorted((name, case.replace("sqlite", "DATABASE")) for name, case in cases if "sqlite" in case)
    of_postgres = sorted((name, case.replace("postgres", "DATABASE")) for name, case in cases if "postgres" in case)
    assert len(of_sqlite) > 90
    assert of_sqlite == of_postgres
    assert {name for name, case in cases if "sqlite" not in case and "postgres" not in case} == set(OF_ONE)


def test_the_store_passes_over_postgresql_what_it_passes_over_sqlite(postgres: Postgres, tmp_path: Path) -> None:
    report = tmp_path / "report.json"
    done = subprocess.run([str(UNIT_TESTS), "--gtest_filter=over/reports_*", f"--gtest_output=json:{report}"], capture_output=True, text=True,
                          timeout=300, check=False, env={**os.environ, "LUMARIS_TEST_POSTGRES": postgres.new_database()})
    assert done.returncode == 0, done.stdout[-5000:] + done.stderr[-5000:]
    cases: dict[str, set[str]] = {"sqlite": set(), "postgres": set()}
    for suite in json.loads(report.read_text(encoding="utf-8"))["testsuites"]:
        for case in suite["testsuite"]:
            assert case["result"] == "COMPLETED", case
            name, _, kind = case["name"].rpartition("/")
            cases[kind].add(f"{suite['name']}.{name}")
    assert len(cases["sqlite"]) > 20
    assert cases["sqlite"] == cases["postgres"]
