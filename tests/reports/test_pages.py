"""The pages, exports and measurements."""

from __future__ import annotations

import csv
import io
import subprocess
import time
from pathlib import Path

import pefile
import pytest
from prometheus_client.parser import text_string_to_metric_families
from running import PROGRAM, TREE, Postgres, Server, full_report, locked, short_report

PROBES = {"x64": TREE / "build/x64-test/tests/tools/report_reader/probe", "arm64": TREE / "build/arm64-test/tests/tools/report_reader/probe"}
HOSTILE = "<script>alert(1)</script>\u202Edetrever\x1B[2J & \"quoted\""


@pytest.mark.parametrize("path", ["/", "/group/1", "/report/1", "/report/1/body", "/export.json", "/export.csv", "/about"])
def test_pages_need_a_user(server: Server, path: str) -> None:
    server.send(short_report())
    for user, password in ((None, ""), ("ana", "wrong"), ("eva", "čez plot"), ("ana", "")):
        answer = server.ask(path, user=user, password=password)
        assert answer.status == 401
        assert answer.headers["www-authenticate"].startswith("Basic ")
    assert server.ask(path).status == 200


def test_a_proxy_names_the_user(database: str, tmp_path: Path) -> None:
    with Server(database, tmp_path, "--user-header", "X-Remote-User") as server:
        assert server.ask("/", user=None, X_Remote_User="eva").status == 200
        assert server.ask("/", user=None).status == 401


def test_a_user_is_named_by_the_proxy_alone(database: str, tmp_path: Path) -> None:
    (tmp_path / "other").mkdir()
    # Somebody else's address is the proxy's; and a server that knows of no proxy.
    with Server(database, tmp_path, "--user-header", "X-Remote-User", "--proxy", "192.0.2.7") as server, \
            Server(database, tmp_path / "other") as other:
        server.send(short_report())
        for each in (server, other):
            assert each.ask("/", user=None, X_Remote_User="eva").status == 401
            # The port for reports gives nothing out to anybody.
            for path in ("/", "/report/1", "/export.json", "/metrics", "/healthz", "/style.css"):
                assert each.ask(path, port=each.port, X_Remote_User="eva").status == 404
        assert server.ask("/").status == 200


def test_pages_without_anybody_to_ask_for_are_refused(tmp_path: Path) -> None:
    done = subprocess.run([str(PROGRAM), "serve", "--database", str(tmp_path / "reports.db"), "--pages", "127.0.0.1:1"],
                          capture_output=True, text=True, timeout=60, check=False)
    assert done.returncode == 2
    assert "the pages need --password-file or --user-header" in done.stderr


def test_the_front_page_shows_the_groups_and_leads_to_the_report(server: Server) -> None:
    server.send(short_report(note="opening the settings"))
    server.send(full_report())
    front = server.ask("/")
    assert front.type == "text/html; charset=utf-8"
    assert "default-src &#39;none&#39;" not in front.text and "default-src 'none'" in front.headers["content-security-policy"]
    assert "access violation in halvoro.exe+0x1549 of build 0x00000007" in front.text
    assert "<svg" in front.text and "<script" not in front.text
    group = server.ask("/group/1").text
    assert 'href="/report/1"' in group and 'href="/report/2"' in group
    report = server.ask("/report/1").text
    assert "opening the settings" in report and "0xC0000005 access violation" in report


def test_the_two_reports_of_a_crash_lead_to_each_other(server: Server) -> None:
    server.send(short_report(address=1))
    # The full one of this test comes from the other processor, and from the same crash all the same.
    server.send(full_report(address=1))
    assert 'href="/report/2">full report 2</a>' in server.ask("/report/1").text
    assert 'href="/report/1">short report 1</a>' in server.ask("/report/2").text


def test_hostile_texts_are_shown_as_text(server: Server) -> None:
    server.send(short_report(note=HOSTILE, name="<img src=x>.exe"))
    server.ask("/group/1/state", form={"state": "known", "mended_in": "", "note": HOSTILE})
    for path in ("/", "/group/1", "/report/1", "/?q=" + "%3Cscript%3E%22"):
        page = server.ask(path).text
        for bad in ("<script", "<img", "\u202E", "\x1B"):
            assert bad not in page, (path, bad)
    report = server.ask("/report/1").text
    assert "&lt;script&gt;alert(1)&lt;/script&gt;\\u{202E}detrever\\u{1B}[2J &amp; &quot;quoted&quot;" in report


def test_groups_are_searched_and_sorted(server: Server) -> None:
    for number in range(3):
        server.send(short_report(0x10, name="often.exe", address=number))
    time.sleep(0.01)
    server.send(short_report(0x20, name="100%.exe"))
    assert server.ask("/").text.index("100%.exe") < server.ask("/").text.index("often.exe")
    by_count = server.ask("/?sort=count").text
    assert by_count.index("often.exe") < by_count.index("100%.exe")
    assert "often.exe" not in server.ask("/?q=0%25").text and "100%.exe" in server.ask("/?q=0%25").text
    assert "often.exe" in server.ask("/?q=OFTEN").text
    assert "There is no such crash." in server.ask("/?q=_ften").text
    assert "There is no such crash." in server.ask("/?state=mended").text


def test_a_group_that_is_mended_says_so_to_its_senders(server: Server) -> None:
    server.send(short_report())
    assert server.ask("/group/1/state", form={"state": "mended", "mended_in": "3.4.2", "note": "was a null pointer"}).status == 303
    answer = server.send(short_report(address=1), "sl")
    assert (answer.status, answer.text) == (200, "Hvala za poročilo. Ta napaka je odpravljena v različici 3.4.2.")
    (group,) = server.groups()
    assert (group["state"], group["mended_in"], group["note"]) == ("mended", "3.4.2", "was a null pointer")
    assert "mended in 3.4.2" in server.ask("/").text


@pytest.mark.parametrize("version", ["", "<b>", "3.4.2; drop"])
def test_a_version_that_is_none_is_refused(server: Server, version: str) -> None:
    server.send(short_report())
    assert server.ask("/group/1/state", form={"state": "mended", "mended_in": version, "note": ""}).status == 400
    assert server.groups()[0]["state"] == "new"


@pytest.mark.parametrize("headers", [
    {"Sec-Fetch-Site": "cross-site"}, {"Sec-Fetch-Site": "same-site"}, {"Sec-Fetch-Site": "none"}, {"Origin": "https://elsewhere.example"},
    {"Origin": "null"}, {"Origin": "http://127.0.0.1"}, {"Origin": "http://127.0.0.1:1.elsewhere.example"},
])
def test_nothing_of_another_site_changes_or_deletes(server: Server, headers: dict[str, str]) -> None:
    server.send(short_report())
    for path, form in (("/group/1/state", {"state": "known", "mended_in": "", "note": ""}), ("/report/1/delete", {})):
        assert server.ask(path, form=form, headers=headers).status == 403
    # A link or a picture is not a form.
    for path in ("/group/1/state?state=known&mended_in=&note=", "/report/1/delete"):
        for method in ("GET", "HEAD", "PUT", "DELETE"):
            assert server.ask(path, method=method).status in (404, 405)
    assert server.groups()[0]["state"] == "new"
    assert server.ask("/report/1").status == 200


def test_forms_of_other_sites_change_nothing(server: Server) -> None:
    server.send(short_report())
    form = {"state": "known", "mended_in": "", "note": ""}
    assert server.ask("/group/1/state", form=form, Sec_Fetch_Site="cross-site").status == 403
    assert server.ask("/group/1/state", form=form, Origin="https://elsewhere.example").status == 403
    assert server.groups()[0]["state"] == "new"
    assert server.ask("/group/1/state", form=form, Sec_Fetch_Site="same-origin").status == 303
    assert server.groups()[0]["state"] == "known"


def test_a_report_can_be_deleted_and_its_count_stays(server: Server) -> None:
    server.send(short_report())
    assert server.ask("/report/1/delete", form={}).status == 303
    assert server.ask("/report/1").status == 404
    assert server.groups()[0]["reports"] == 1


def files_hold(server: Server, text: bytes) -> bool:
    """Whether the database's files have these bytes."""
    return any(text in file.read_bytes() for file in Path(server.database).parent.glob(Path(server.database).name + "*"))


def test_a_deleted_report_is_not_in_the_files_any_more(tmp_path: Path) -> None:
    """SQLite's alone: what PostgreSQL keeps is its administrator's affair."""
    with Server(str(tmp_path / "reports.db"), tmp_path) as server, open("/dev/urandom", "rb") as random:
        # It does not compress, so that it stands there as it is: in pages of its own and in one that it shares.
        reports = [full_report(0x100 * number, stack=random.read(size)) for number, size in ((1, 20000), (2, 300), (3, 300))]
        for report in reports:
            assert server.send(report).status == 200
        pieces = [report[100:140] for report in reports]
        assert all(files_hold(server, piece) for piece in pieces)
        for number in (1, 2):
            assert server.ask(f"/report/{number}/delete", form={}).status == 303
        assert [files_hold(server, piece) for piece in pieces] == [False, False, True]


@pytest.mark.parametrize("text", ["%FF%FE", "%00", "a%00b", "%C0%80", "%ED%A0%80", "%F4%90%80%80", "%C4%8D" * 2500, "'%3B%20DROP%20TABLE%20groups%3B--", "!",
                                  "%25%25%25%25", "%5C", "a" * 5000])
def test_what_somebody_types_is_taken_as_text(server: Server, text: str) -> None:
    server.send(short_report())
    assert server.ask(f"/?q={text}").status == 200
    assert server.ask(f"/?q={text}&state={text}&sort={text}&from={text}").status == 200
    body = f"state=known&mended_in=&note={text}".encode()
    answer = server.ask("/group/1/state", method="POST", body=body, Content_Type="application/x-www-form-urlencoded")
    assert answer.status == 303
    (group,) = server.groups()
    assert group["state"] == "known"
    assert len(group["note"].encode()) <= 4000
    assert server.ask("/group/1").status == 200
    if text.startswith("'"):
        assert group["note"] == "'; DROP TABLE groups;--"
        assert server.ask(f"/?q={text}").text.count('href="/group/') == 1


@pytest.mark.parametrize("name", ["../../etc/passwd", "..", "..\\..\\symbol_probe.exe", "/etc/passwd", ".", "CON.exe", "a\0b.exe", "symbol_probe.exe/../x.exe"])
def test_a_module_s_name_leads_nowhere(server: Server, name: str) -> None:
    add_symbols(server, "x64")
    before = sorted(server.symbols.rglob("*"))
    assert server.send(probe_report("x64", name)).status == 449
    page = server.ask("/report/1")
    assert page.status == 200
    assert "probe::leaf" not in page.text and "root:" not in page.text
    assert sorted(server.symbols.rglob("*")) == before


@pytest.mark.parametrize("path", ["/nothing", "/group/2", "/group/x", "/group/", "/report/99999999999999999999", "/group/1/state", "/../etc/passwd"])
def test_what_is_not_there_is_not_found(server: Server, path: str) -> None:
    server.send(short_report())
    assert server.ask(path).status == 404


@pytest.mark.parametrize("note", ["=1+1", "+1", "-1", "@SUM(A1)", "\t=1", "\r=1", "\n=1", "=cmd|' /C calc'!A0"])
def test_no_cell_of_an_export_is_a_formula(server: Server, note: str) -> None:
    server.send(short_report(name="=halvoro.exe"))
    server.ask("/group/1/state", form={"state": "known", "mended_in": "", "note": note})
    (line,) = csv.DictReader(io.StringIO(server.ask("/export.csv").text, newline=""))
    # A control character is written out, and stands for itself no more.
    assert line["note"] == (f"\\x{ord(note[0]):02X}{note[1:]}" if note[0] < " " else "'" + note)
    assert all(value == "" or value[0] not in "=+-@\t\r\n" for value in line.values())


def test_groups_are_exported_as_csv(server: Server) -> None:
    server.send(short_report(name='=1+"2".exe', code=0xC0000094))
    server.ask("/group/1/state", form={"state": "known", "mended_in": "", "note": "=HYPERLINK(1)"})
    (line,) = csv.DictReader(io.StringIO(server.ask("/export.csv").text))
    assert line["title"] == 'integer division by zero in =1+"2".exe+0x1549 of build 0x00000007'
    assert (line["note"], line["reports"], line["state"]) == ("'=HYPERLINK(1)", "1", "known")


def test_the_command_exports_the_same(server: Server) -> None:
    server.send(short_report())
    for options, path in (([], "/export.json"), (["--csv"], "/export.csv")):
        done = subprocess.run([str(PROGRAM), "export", "--database", server.database, *options], capture_output=True, timeout=60, check=True)
        assert done.stdout == server.ask(path).body


def test_measurements_are_of_the_format_and_the_health_is_asked_for_without_a_password(server: Server) -> None:
    server.send(short_report())
    server.send(full_report())
    server.send(b"no report")
    assert (server.ask("/healthz", user=None).status, server.ask("/healthz", user=None).text) == (200, "ok\n")
    families = {family.name: family for family in text_string_to_metric_families(server.ask("/metrics", user=None).text)}
    counted = {sample.labels["outcome"]: sample.value for sample in families["lumaris_reports"].samples}
    assert (counted["stored"], counted["full_wanted"], counted["refused"]) == (2, 1, 1)
    assert families["lumaris_groups"].samples[0].value == 1
    assert families["lumaris_crashes"].samples[0].value == 1


def probe_report(architecture: str, name: str = "symbol_probe.exe") -> bytes:
    """A crash in the innermost function of an inlined chain, as either build has it."""
    program = pefile.PE(str(PROBES[architecture] / "symbol_probe.exe"))
    (section,) = [each for each in program.sections if each.Name.rstrip(b"\0") == b".probes"]
    data = section.get_data()
    at = data.index(b"inlined\0") - 8
    offset = int.from_bytes(data[at:at + 4], "little")
    return short_report(offset, name=name, stamp=program.FILE_HEADER.TimeDateStamp)


def add_symbols(server: Server, architecture: str) -> None:
    """Puts a build into the server's symbol store, as a release does."""
    files = [str(PROBES[architecture] / name) for name in ("symbol_probe.exe", "symbol_probe.pdb")]
    subprocess.run([str(PROGRAM), "symbols", "add", "--symbols", str(server.symbols), *files], check=True, timeout=60, capture_output=True)


def test_two_builds_are_one_group_and_the_page_shows_function_and_line(server: Server) -> None:
    for architecture in PROBES:
        add_symbols(server, architecture)
        assert server.send(probe_report(architecture)).status == 449
    (group,) = server.groups()
    assert group["title"] == "access violation in probe::leaf"
    assert group["place"].startswith("/lumaris/tests/tools/report_reader/probe/symbol_probe.cpp:")
    assert (group["reports"], len(group["versions"])) == (2, 2)
    page = server.ask("/report/1").text
    assert "probe::leaf <small>inlined</small>" in page and "probe::trunk()" in page
    assert group["place"] in page


def test_new_symbols_regroup_what_was_there(server: Server) -> None:
    for architecture in PROBES:
        server.send(probe_report(architecture))
    server.ask("/group/1/state", form={"state": "known", "mended_in": "", "note": "seen before"})
    assert len(server.groups()) == 2
    for architecture in PROBES:
        add_symbols(server, architecture)
    until = time.monotonic() + 60
    while len(server.groups()) != 1 and time.monotonic() < until:
        time.sleep(0.1)
    (group,) = server.groups()
    assert (group["title"], group["reports"], group["addresses"]) == ("access violation in probe::leaf", 2, 1)
    assert (group["state"], group["note"]) == ("known", "seen before")


def test_new_symbols_regroup_although_the_database_was_locked_when_they_came(server: Server) -> None:
    for architecture in PROBES:
        server.send(probe_report(architecture))
    log = server.log.stat().st_size
    with locked(server.database):
        for architecture in PROBES:
            add_symbols(server, architecture)
        until = time.monotonic() + 60
        while server.log.stat().st_size == log:
            assert time.monotonic() < until, "nothing was in the way"
            time.sleep(0.1)
    until = time.monotonic() + 60
    while len(server.groups()) != 1 and time.monotonic() < until:
        time.sleep(0.1)
    assert [group["reports"] for group in server.groups()] == [2]


def test_symbols_of_another_build_name_nothing(server: Server) -> None:
    add_symbols(server, "x64")
    server.send(probe_report("arm64"))
    (group,) = server.groups()
    assert group["title"].startswith("access violation in symbol_probe.exe+0x")


def test_files_that_are_no_symbols_are_not_added(tmp_path: Path) -> None:
    text = tmp_path / "text.exe"
    text.write_text("no program")
    done = subprocess.run([str(PROGRAM), "symbols", "add", "--symbols", str(tmp_path / "store"), str(text)], capture_output=True, text=True,
                          timeout=60, check=False)
    assert done.returncode == 1
    assert str(text) in done.stderr
    assert not (tmp_path / "store").exists()


def run_sql(database: str, statement: str) -> None:
    """As an administrator."""
    command = ["psql", "--quiet", "-v", "ON_ERROR_STOP=1", database, "-c"] if database.startswith("postgresql:") else ["sqlite3", database]
    subprocess.run([*command, statement], check=True, timeout=60)


def test_old_reports_are_deleted_and_their_counts_stay(database: str, tmp_path: Path) -> None:
    with Server(database, tmp_path) as server:
        server.send(short_report())
        server.send(full_report())
    a_hundred_days = 100 * 24 * 60 * 60 * 1000
    run_sql(database, f"UPDATE reports SET received = received - {a_hundred_days}")
    with Server(database, tmp_path) as server:
        until = time.monotonic() + 60
        while server.ask("/report/2").status != 404 and time.monotonic() < until:
            time.sleep(0.1)
        # Full reports stay for 90 days, short ones for ever.
        assert server.ask("/report/2").status == 404
        assert server.ask("/report/1").status == 200
        assert server.groups()[0]["full_reports"] == 1
    with Server(database, tmp_path, "--keep-short", "99d") as server:
        until = time.monotonic() + 60
        while server.ask("/report/1").status != 404 and time.monotonic() < until:
            time.sleep(0.1)
        assert server.ask("/report/1").status == 404
        assert server.groups()[0]["reports"] == 1


@pytest.mark.parametrize(("options", "said"), [
    ((), ["They stay for ever.", "3 times for each crash", "stay for 90 days.", "a digest of the address"]),
    (("--keep-full", "7d", "--keep-short", "400d", "--full-reports", "5", "--keep-addresses"),
     ["They stay for 400 days.", "5 times for each crash", "stay for 7 days.", "the address that it came from."]),
])
def test_what_is_stored_is_said_for_the_settings_in_force(database: str, tmp_path: Path, options: tuple[str, ...], said: list[str]) -> None:
    with Server(database, tmp_path, *options) as server:
        page = server.ask("/about").text
        for text in said:
            assert text in page
        assert ("digest" in page) == ("--keep-addresses" not in options)


def test_a_copy_made_while_it_runs_is_restored_whole(database: str, postgres: Postgres, tmp_path: Path) -> None:
    """With the commands that the document names."""
    copy = tmp_path / "copy"
    with Server(database, tmp_path) as server:
        for number in range(20):
            server.send(short_report(address=number))
        if database.startswith("postgresql:"):
            with copy.open("wb") as out:
                subprocess.run(["pg_dump", "--format=custom", database], check=True, stdout=out, timeout=60)
            restored = postgres.new_database()
            subprocess.run(["pg_restore", "--no-owner", "--exit-on-error", f"--dbname={restored}", str(copy)], check=True, timeout=60)
        else:
            subprocess.run(["sqlite3", database, f".backup {copy}"], check=True, timeout=60)
            restored = str(copy)
        before = server.ask("/export.json").text
    (tmp_path / "other").mkdir()
    with Server(restored, tmp_path / "other") as other:
        assert other.ask("/export.json").text == before
        assert other.ask("/report/20/body").body == short_report(address=19)
        # The salt is part of it, and new reports get numbers of their own.
        assert other.send(short_report(address=99)).status == 449
        assert (other.groups()[0]["reports"], other.groups()[0]["addresses"]) == (21, 1)
        assert other.ask("/report/21").status == 200
