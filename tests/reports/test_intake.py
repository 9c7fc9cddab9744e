"""What the server makes of deliveries: its answers, what it counts, and that nothing is lost or counted twice."""

from __future__ import annotations

import concurrent.futures
import http.client
import socket
import sqlite3
import struct
import time
import zlib
from pathlib import Path

import pytest
from running import PATH, Postgres, Server, full_report, short_report

PLAIN = "text/plain; charset=utf-8"


def test_the_first_report_of_a_group_is_asked_for_in_full_and_the_full_one_is_thanked_for(server: Server) -> None:
    short = server.send(short_report())
    assert (short.status, short.type) == (449, PLAIN)
    full = server.send(full_report())
    assert (full.status, full.type, full.text) == (200, PLAIN, "Thank you for the report.")
    (group,) = server.groups()
    assert (group["reports"], group["full_reports"], group["addresses"]) == (1, 1, 1)


def test_full_reports_are_asked_for_up_to_three_of_a_group(server: Server) -> None:
    for number in range(3):
        assert server.send(short_report(address=number)).status == 449
        assert server.send(full_report(address=number)).status == 200
    assert server.send(short_report(address=3)).status == 200
    # Another group has its own.
    assert server.send(short_report(0x9999)).status == 449


@pytest.mark.parametrize(("language", "text"), [
    ("en", "Thank you for the report."), ("sl", "Hvala za poročilo."), ("sq", "Faleminderit për raportin."),
    ("de", "Thank you for the report."), ("", "Thank you for the report."), ("SL-si;q=0.5", "Hvala za poročilo."),
])
def test_the_answer_is_in_the_language_that_was_asked_for(tmp_path: Path, language: str, text: str) -> None:
    with Server(str(tmp_path / "reports.db"), tmp_path, "--full-reports", "0") as server:
        answer = server.send(short_report(), language)
        assert (answer.status, answer.type, answer.text) == (200, PLAIN, text)


def test_the_same_bytes_are_counted_once(server: Server) -> None:
    first = server.send(short_report())
    again = server.send(short_report())
    assert (again.status, again.body) == (first.status, first.body)
    (group,) = server.groups()
    assert group["reports"] == 1
    assert server.metric('lumaris_reports_total{outcome="duplicate"}') == 1


def test_crashes_of_one_place_are_one_group_and_of_others_are_others(server: Server) -> None:
    for report in (short_report(address=1), short_report(address=2), short_report(0x2000), short_report(code=0xC0000094)):
        server.send(report)
    assert sorted(group["reports"] for group in server.groups()) == [1, 1, 2]


@pytest.mark.parametrize("body", [
    b"", b"no report", zlib.compress(b"TZO2" + bytes(40)), short_report()[:-1], short_report() + b"\0", zlib.compress(bytes(64 << 20)),
], ids=["empty", "text", "magic", "cut", "more", "bomb"])
def test_what_is_no_report_is_refused_for_good(tmp_path: Path, body: bytes) -> None:
    with Server(str(tmp_path / "reports.db"), tmp_path) as server:
        answer = server.send(body)
        assert (answer.status, answer.type) == (400, PLAIN)
        assert server.groups() == []
        assert server.metric('lumaris_reports_total{outcome="refused"}') == 1


def test_a_body_that_is_too_large_is_read_to_its_end_and_refused(tmp_path: Path) -> None:
    with Server(str(tmp_path / "reports.db"), tmp_path) as server:
        answer = server.send(bytes(9 << 20))
        assert (answer.status, answer.type) == (413, PLAIN)
        assert server.metric('lumaris_reports_total{outcome="too_large"}') == 1
        assert server.send(short_report()).status == 449


def test_a_large_report_is_taken(tmp_path: Path) -> None:
    with Server(str(tmp_path / "reports.db"), tmp_path) as server:
        with open("/dev/urandom", "rb") as random:
            report = full_report(stack=random.read(1 << 20))
        assert len(report) > 1 << 20
        assert server.send(report).status == 200
        assert server.ask("/report/1/body").body == report


@pytest.mark.parametrize(("method", "path"), [("GET", PATH), ("POST", "/"), ("PUT", PATH), ("GET", "/export.json"), ("GET", "/report/1")])
def test_the_open_port_gives_nothing_out_and_never_as_text(tmp_path: Path, method: str, path: str) -> None:
    with Server(str(tmp_path / "reports.db"), tmp_path) as server:
        server.send(short_report())
        answer = server.ask(path, port=server.port, method=method)
        assert answer.status in (404, 405)
        assert not answer.type.lower().startswith("text/plain")


def test_a_body_that_never_ends_and_one_that_stops_hold_nobody_up(tmp_path: Path) -> None:
    with Server(str(tmp_path / "reports.db"), tmp_path) as server:
        stuck = []
        for _ in range(50):
            client = socket.create_connection(("127.0.0.1", server.port))
            client.sendall(f"POST {PATH} HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nab".encode())
            stuck.append(client)
        assert server.send(short_report()).status == 449
        for client in stuck:
            client.close()
        endless = socket.create_connection(("127.0.0.1", server.port), timeout=30)
        piece = b"%x\r\n%s\r\n" % (1 << 20, bytes(1 << 20))
        sent = 0
        with pytest.raises(OSError):
            endless.sendall(f"POST {PATH} HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n".encode())
            while sent < 200 << 20:
                endless.sendall(piece)
                sent += len(piece)
        assert server.send(short_report(0x77)).status == 449


def test_what_was_answered_is_there_after_a_sudden_end_and_what_was_not_is_sent_again(server: Server) -> None:
    reports = [short_report(address=number) for number in range(300)]
    answered: set[int] = set()

    def deliver(number: int) -> None:
        try:
            if server.send(reports[number]).type.startswith("text/plain"):
                answered.add(number)
        except (OSError, http.client.HTTPException):
            pass  # as for the program: the report stays for the next start

    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        sent = [pool.submit(deliver, number) for number in range(len(reports))]
        while len(answered) < 40:
            time.sleep(0.001)
        server.kill()
        concurrent.futures.wait(sent)
    assert 40 <= len(answered) < len(reports)
    server.start()
    (group,) = server.groups()
    assert len(answered) <= group["reports"] <= len(reports)
    # The program does not know which of the others arrived.
    for number in range(len(reports)):
        if number not in answered:
            deliver(number)
    (group,) = server.groups()
    assert group["reports"] == len(reports)


def test_a_locked_database_makes_the_client_keep_its_report(tmp_path: Path) -> None:
    with Server(str(tmp_path / "reports.db"), tmp_path) as server:
        with sqlite3.connect(tmp_path / "reports.db", isolation_level=None) as other:
            other.execute("BEGIN IMMEDIATE")
            answer = server.send(short_report())
            assert answer.status == 503
            assert not answer.type.startswith("text/plain")
            other.execute("ROLLBACK")
        assert server.send(short_report()).status == 449


def test_a_database_that_is_gone_makes_the_client_keep_its_report_and_comes_back(postgres: Postgres, tmp_path: Path) -> None:
    with Server(postgres.new_database(), tmp_path) as server:
        assert server.send(short_report()).status == 449
        postgres.stop()
        try:
            answer = server.send(short_report(address=1))
            assert answer.status == 503
            assert not answer.type.startswith("text/plain")
            assert server.ask("/healthz", user=None).status == 503
        finally:
            postgres.start()
        assert server.send(short_report(address=1)).status == 449
        assert server.groups()[0]["reports"] == 2


def test_two_servers_share_a_database(postgres: Postgres, tmp_path: Path) -> None:
    database = postgres.new_database()
    (tmp_path / "one").mkdir()
    (tmp_path / "two").mkdir()
    reports = [short_report(0x1000 + number % 7, address=number) for number in range(100)]
    with Server(database, tmp_path / "one") as one, Server(database, tmp_path / "two") as two, \
            concurrent.futures.ThreadPoolExecutor(8) as pool:
        # Each report goes to both.
        answers = list(pool.map(lambda number: (one, two)[number % 2].send(reports[number // 2]), range(2 * len(reports))))
        assert {answer.status for answer in answers} == {449}
        assert sum(group["reports"] for group in one.groups()) == len(reports)
        assert len(two.groups()) == 7


def test_addresses_are_counted_and_kept_as_a_digest(server: Server, tmp_path: Path) -> None:
    assert server.send(short_report(address=1)).status == 449
    page = server.ask("/report/1").text
    assert "127.0.0.1" not in page
    (tmp_path / "other").mkdir()
    with Server(str(tmp_path / "other.db"), tmp_path / "other", "--client-header", "X-Forwarded-For", "--keep-addresses") as other:
        for number, address in enumerate(("192.0.2.1", "192.0.2.2", "192.0.2.1", "203.0.113.9, 192.0.2.1")):
            other.send(short_report(address=number), **{"X-Forwarded-For": address})
        assert other.groups()[0]["addresses"] == 2
        assert "192.0.2.1" in other.ask("/report/1").text


def test_it_ends_in_order(server: Server) -> None:
    assert server.send(short_report()).status == 449
    assert server.stop() == 0
    log = server.log.read_text(encoding="utf-8")
    assert log.startswith("lumaris-reports: takes reports on ")
    assert "ERROR" not in log and "runtime error" not in log
    server.start()
    assert len(server.groups()) == 1


def test_a_report_may_hold_anything_in_its_texts(server: Server) -> None:
    odd = "a\0b\u202E<script>\uD83D\uDE00".encode("utf-16-le", "surrogatepass") + struct.pack("<H", 0xD800)
    report = zlib.compress(b"TZO1\x64\xAA" + struct.pack("<IIQI", 5, 0, 0, 0) + b"MOD1" + struct.pack("<I", len(odd) // 2) + odd +
                           struct.pack("<I", 0) + b"FUN1" + bytes(8))
    assert server.send(report).status == 449
    page = server.ask("/report/1").text
    assert "<script>" not in page and "\u202E" not in page
    assert "&lt;script&gt;" in page
