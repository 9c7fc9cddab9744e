"""What the server makes of deliveries: its answers, what it counts, and that nothing is lost or counted twice."""

from __future__ import annotations

import concurrent.futures
import http.client
import itertools
import random
import resource
import select
import socket
import struct
import subprocess
import threading
import time
import zlib
from collections.abc import Iterator
from contextlib import ExitStack, contextmanager
from pathlib import Path

import pytest
from running import BODIES, PATH, PROGRAM, TREE, Answer, Postgres, Server, full_report, locked, short_report

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
def test_the_answer_is_in_the_language_that_was_asked_for(database: str, tmp_path: Path, language: str, text: str) -> None:
    with Server(database, tmp_path, "--full-reports", "0") as server:
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
def test_what_is_no_report_is_refused_for_good(database: str, tmp_path: Path, body: bytes) -> None:
    with Server(database, tmp_path) as server:
        answer = server.send(body)
        assert (answer.status, answer.type) == (400, PLAIN)
        assert server.groups() == []
        assert server.metric('lumaris_reports_total{outcome="refused"}') == 1


def test_a_body_that_is_too_large_is_read_to_its_end_and_refused(database: str, tmp_path: Path) -> None:
    with Server(database, tmp_path) as server:
        answer = server.send(bytes(9 << 20))
        assert (answer.status, answer.type) == (413, PLAIN)
        assert server.metric('lumaris_reports_total{outcome="too_large"}') == 1
        assert server.send(short_report()).status == 449


def test_a_large_report_is_taken(database: str, tmp_path: Path) -> None:
    with Server(database, tmp_path) as server:
        with open("/dev/urandom", "rb") as random:
            report = full_report(stack=random.read(1 << 20))
        assert len(report) > 1 << 20
        assert server.send(report).status == 200
        assert server.ask("/report/1/body").body == report


@pytest.mark.parametrize(("method", "path"), [("GET", PATH), ("POST", "/"), ("PUT", PATH), ("GET", "/export.json"), ("GET", "/report/1")])
def test_the_open_port_gives_nothing_out_and_never_as_text(database: str, tmp_path: Path, method: str, path: str) -> None:
    with Server(database, tmp_path) as server:
        server.send(short_report())
        answer = server.ask(path, port=server.port, method=method)
        assert answer.status in (404, 405)
        assert not answer.type.lower().startswith("text/plain")


HEAD = f"POST {PATH} HTTP/1.1\r\nHost: reports\r\n".encode()


@pytest.mark.parametrize("sent", [
    b"nonsense\r\n\r\n", b"GET\r\n\r\n", b"\0\0\0\0\r\n\r\n", b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03\r\n\r\n",
    b"BREW " + PATH.encode() + b" HTTP/1.1\r\nHost: x\r\n\r\n", b"POST " + PATH.encode() + b" HTTP/9.9\r\nHost: x\r\nContent-Length: 0\r\n\r\n",
    HEAD + b"Content-Length: -1\r\n\r\n", HEAD + b"Content-Length: 99999999999999999999\r\n\r\n", HEAD + b"Content-Length: 400000000\r\n\r\n",
    HEAD + b"Transfer-Encoding: chunked\r\n\r\nxyz\r\n", HEAD + b"Transfer-Encoding: chunked\r\n\r\n-5\r\nabcde\r\n0\r\n\r\n",
    HEAD + b"Transfer-Encoding: chunked\r\n\r\nFFFFFFFFFFFFFFFF\r\nabc\r\n0\r\n\r\n", HEAD + b"Transfer-Encoding: gzip\r\n\r\nabc",
    HEAD + b"X: " + b"y" * 200000 + b"\r\n\r\n", HEAD + b"no colon\r\n\r\n", b"GET " + b"/a" * 100000 + b" HTTP/1.1\r\n\r\n",
    HEAD + b"Content-Type: multipart/form-data; boundary=b\r\nContent-Length: 3\r\n\r\n--b", b"OPTIONS * HTTP/1.1\r\nHost: x\r\n\r\n",
], ids=lambda sent: repr(sent[-24:]))
def test_a_request_that_is_none_is_never_answered_as_text_but_by_refusing_its_report(server: Server, sent: bytes) -> None:
    """The program would take such an answer for the delivery of its report."""
    got = b""
    with socket.create_connection(("127.0.0.1", server.port), timeout=30) as client:
        try:
            client.sendall(sent)
            client.shutdown(socket.SHUT_WR)
            while piece := client.recv(65536):
                got += piece
        except OSError:
            pass  # cut
    head = got.partition(b"\r\n\r\n")[0].lower()
    # Its body came whole, and is not a report.
    is_refused = head.startswith(b"http/1.1 400") and b"not an error report that the server can read" in got
    assert b"text/plain" not in head or is_refused, got[:300]
    assert server.send(short_report()).status == 449


def test_a_body_that_never_ends_and_one_that_stops_hold_nobody_up(database: str, tmp_path: Path) -> None:
    with Server(database, tmp_path) as server:
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
        # These, and the one that has looked at the start whether the server listens, on each of its ports.
        until = time.monotonic() + 30
        while (count := server.metric("lumaris_connections_unfinished_total")) != len(stuck) + 1 + 2:
            assert time.monotonic() < until, count
            time.sleep(0.1)


def test_what_was_answered_is_there_after_a_sudden_end_and_what_was_not_is_sent_again(server: Server) -> None:
    reports = [short_report(address=number) for number in range(300)]
    answered: set[int] = set()

    def deliver(number: int) -> None:
        try:
            if server.send(reports[number]).type.startswith("text/plain"):
                answered.add(number)
        except (OSError, http.client.HTTPException):
            pass  # as for the program: the report remains for the next start

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


# What a report passes through on its way: the system calls that take it from the network, bring it to the disk or to the database server,
# and answer. The server is killed as it enters each of them, one after the other.
CALLS = {
    "sqlite": {"accept4": 1, "readv": 1, "pwrite64": 4, "fdatasync": 1, "write": 1},
    "postgres": {"accept4": 1, "readv": 1, "sendto": 8, "recvfrom": 8, "write": 1},
}


def is_traced(thread: Path, tracer: int) -> bool:
    """Whether this process traces the thread; a thread that has ended needs no tracer."""
    try:
        return f"TracerPid:\t{tracer}\n" in (thread / "status").read_text(encoding="ascii")
    except (FileNotFoundError, ProcessLookupError):
        return True


@contextmanager
def killed_at(server: Server, call: str, count: int) -> Iterator[bool]:
    """Kills the server when one of its threads enters this system call for this time. False if its own upkeep has done so already."""
    with subprocess.Popen(["strace", "-f", "-qq", "-o", "/dev/null", "-p", str(server.process), "-e", f"trace={call}", "-e",
                           f"inject={call}:signal=SIGKILL:when={count}"]) as tracer:
        until = time.monotonic() + 30
        threads = Path(f"/proc/{server.process}/task")
        while tracer.poll() is None and not all(is_traced(thread, tracer.pid) for thread in threads.iterdir()):
            assert time.monotonic() < until, "strace does not trace the server"
            time.sleep(0.01)
        # It ends with what it traces.
        is_up = tracer.poll() is None
        assert is_up or (tracer.returncode == 0 and server.has_ended()), "strace does not trace the server"
        try:
            yield is_up
        finally:
            tracer.terminate()
            tracer.wait(30)


def test_killed_at_every_call_between_accept_and_answer_loses_nothing_and_counts_nothing_twice(server: Server) -> None:
    calls = CALLS["postgres" if server.database.startswith("postgresql:") else "sqlite"]
    # The connection to the database is made, and the next report is not the first one of its group.
    server.send(short_report(address=0))
    sent = 1
    for call, least in calls.items():
        killed = 0
        while True:
            report = short_report(address=sent)
            with killed_at(server, call, killed + 1) as is_up:
                try:
                    is_answered = server.send(report).type.startswith("text/plain")
                except (OSError, http.client.HTTPException):
                    is_answered = False
            if not is_up:
                server.start()
                continue
            sent += 1
            if not server.has_ended():
                assert is_answered
                break
            killed += 1
            server.start()
            (group,) = server.groups()
            assert group["reports"] in ((sent,) if is_answered else (sent - 1, sent)), (call, killed)
            # As at the next start of the program, which keeps what was not answered.
            assert server.send(report).status == 449
            (group,) = server.groups()
            assert group["reports"] == sent, (call, killed)
            assert killed < 100
        print(f"{call}: killed {killed} times")
        assert killed >= least, call


def test_a_locked_database_makes_the_client_keep_its_report(server: Server) -> None:
    with locked(server.database):
        begin = time.monotonic()
        answer = server.send(short_report())
        assert answer.status == 503
        assert not answer.type.startswith("text/plain")
        # The program waits 30 seconds, and the system's own patience is 21 in places.
        assert time.monotonic() - begin < 20
    assert server.send(short_report()).status == 449
    assert server.metric('lumaris_reports_total{outcome="failed"}') == 1


@pytest.mark.parametrize("how", ["stopped", "killed"])
def test_a_database_that_is_gone_makes_the_client_keep_its_report_and_comes_back(postgres: Postgres, tmp_path: Path, how: str) -> None:
    numbers = itertools.count()
    answered: set[int] = set()
    refused: dict[int, Answer] = {}
    has_stopped = threading.Event()

    def deliver() -> None:
        # Each goes on until the database has been missed.
        while not has_stopped.is_set() or not refused:
            number = next(numbers)
            answer = server.send(short_report(address=number))
            if answer.type.startswith("text/plain"):
                answered.add(number)
            else:
                refused[number] = answer

    with Server(postgres.new_database(), tmp_path) as server, concurrent.futures.ThreadPoolExecutor(8) as pool:
        senders = [pool.submit(deliver) for _ in range(8)]
        while len(answered) < 30:
            time.sleep(0.001)
        (postgres.stop if how == "stopped" else postgres.kill)()
        has_stopped.set()
        try:
            for sender in senders:
                sender.result(60)
            assert server.ask("/healthz", user=None).status == 503
        finally:
            postgres.start()
        assert server.groups()
        # Nor does anybody see it who asks for the first time afterwards.
        (postgres.stop if how == "stopped" else postgres.kill)()
        postgres.start()
        assert server.groups()
        assert {(answer.status, answer.type) for answer in refused.values()} == {(503, "text/html; charset=utf-8")}
        # As at the next start of the programs.
        for number in refused:
            assert server.send(short_report(address=number)).status == 449
        assert server.groups()[0]["reports"] == len(answered) + len(refused)
        assert server.ask("/healthz", user=None).status == 200


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


def test_what_a_sender_says_of_its_address_counts_from_a_proxy_alone(database: str, tmp_path: Path) -> None:
    with Server(database, tmp_path, "--client-header", "X-Forwarded-For", "--keep-addresses", "--proxy", "192.0.2.7") as server:
        server.send(short_report(), **{"X-Forwarded-For": "203.0.113.9"})
        page = server.ask("/report/1").text
        assert "127.0.0.1" in page and "203.0.113.9" not in page


@pytest.mark.parametrize("address", ["\xff\xfe", "<script>", "a" * 64, "", "1.2.3.4, \xe9"])
def test_an_address_that_is_none_is_not_kept(database: str, tmp_path: Path, address: str) -> None:
    with Server(database, tmp_path, "--client-header", "X-Forwarded-For", "--keep-addresses") as server:
        assert server.send(short_report(), **{"X-Forwarded-For": address}).status == 449
        assert "<dt>Address</dt><dd>127.0.0.1</dd>" in server.ask("/report/1").text


def test_a_report_with_names_longer_than_an_index_takes_keeps_no_other_out(server: Server) -> None:
    letters = random.Random(1)
    names = ["".join(letters.choices("abcdefghijklmnopqrstuvwxyz\u0161\u4e2d", k=20000)) + ".exe" for _ in range(20)]
    reports = [each for name in names for each in (short_report(name=name), short_report(address=len(name), note=name[:9]))]
    with concurrent.futures.ThreadPoolExecutor(16) as pool:
        answers = list(pool.map(server.send, reports))
    assert {answer.status for answer in answers} == {449}
    groups = server.groups()
    assert len(groups) == len(names) + 1
    assert all(len(group["title"]) <= 500 for group in groups)
    assert sum(group["reports"] for group in groups) == len(reports)


# Of the 2,200 connections that the next test opens, those that are above the limit of 2,000 whatever the server itself has open.
LATE = 100


def test_a_thousand_connections_are_held_and_more_are_refused_and_counted(server: Server) -> None:
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    assert hard >= 6000, "this machine lets no process open 6000 files"
    resource.setrlimit(resource.RLIMIT_NOFILE, (6000, hard))
    try:
        with ExitStack() as stack:

            def connect(count: int) -> list[socket.socket]:
                return [stack.enter_context(socket.create_connection(("127.0.0.1", server.port), timeout=30)) for _ in range(count)]

            for client in connect(1000):
                client.sendall(f"POST {PATH} HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nab".encode())
            assert server.send(short_report()).status == 449
            assert server.metric("lumaris_connections_refused_total") == 0
            more = {client.fileno(): client for client in connect(1200)}
            # As many as are above the limit are closed, without an answer that a program could take for one. Which of them is the server's
            # choice: its threads accept them side by side.
            waiting = select.poll()
            for number in more:
                waiting.register(number, select.POLLIN)
            until = time.monotonic() + 30
            closed = 0
            while closed < LATE:
                assert time.monotonic() < until
                for number, _ in waiting.poll(1000):
                    assert more[number].recv(100) == b""
                    waiting.unregister(number)
                    closed += 1
        until = time.monotonic() + 30
        while True:
            try:
                assert server.send(short_report(address=1)).status == 449
                break
            except (OSError, http.client.HTTPException):
                assert time.monotonic() < until
        assert server.metric("lumaris_connections_refused_total") >= LATE
        assert server.groups()[0]["reports"] == 2
    finally:
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


def test_bombs_from_many_sides_fill_no_memory_and_are_counted(server: Server) -> None:
    before = memory_of(server)
    bombs = [zlib.compress(b"TZO1" + bytes(48 << 20) + bytes([number]), 9) for number in range(4)]
    with concurrent.futures.ThreadPoolExecutor(16) as pool:
        answers = list(pool.map(server.send, bombs * 16))
    assert {(answer.status, answer.type) for answer in answers} == {(400, PLAIN)}
    assert server.metric('lumaris_reports_total{outcome="refused"}') == 64
    # Two threads inflate at a time, 16 MB each at the most; the rest is what the sanitizer keeps of what was freed.
    assert memory_of(server) - before < 512


def memory_of(server: Server) -> float:
    """The most that it has ever had, in MB."""
    (line,) = (line for line in Path(f"/proc/{server.process}/status").read_text(encoding="ascii").splitlines() if line.startswith("VmHWM:"))
    return int(line.split()[1]) / 1024


def test_a_slow_sender_holds_nobody_up_and_is_taken(server: Server) -> None:
    report = short_report()
    with socket.create_connection(("127.0.0.1", server.port), timeout=30) as slow:
        slow.sendall(f"POST {PATH} HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n".encode())
        for number, byte in enumerate(report):
            slow.sendall(b"1\r\n%c\r\n" % byte)
            if number % 10 == 0:
                assert server.send(short_report(0x2000, address=number)).status == 449
        slow.sendall(b"0\r\n\r\n")
        assert slow.recv(100).startswith(b"HTTP/1.1 449 ")
    assert sorted(group["reports"] for group in server.groups()) == [1, len(range(0, len(report), 10))]


def test_a_request_that_comes_too_slowly_is_cut_without_an_answer_and_counted(database: str, tmp_path: Path) -> None:
    head = f"POST {PATH} HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n".encode()
    # One in its head, one in its body, and one whose body lies in a file while it comes in; each sends on as long as it is let.
    begun = [b"POST ", head, head + b"%x\r\n%s\r\n" % (1 << 20, bytes(1 << 20))]
    with Server(database, tmp_path, "--request-limit", "5s") as server, ExitStack() as stack:
        slow = [stack.enter_context(socket.create_connection(("127.0.0.1", server.port), timeout=30)) for _ in begun]
        for client, sent in zip(slow, begun, strict=True):
            client.sendall(sent)
        until = time.monotonic() + 60
        others = 0
        got: dict[int, bytes] = {}
        while len(got) < len(slow):
            assert time.monotonic() < until
            assert server.send(short_report(address=others)).status == 449
            others += 1
            for number, client in enumerate(slow):
                if number in got:
                    continue
                try:
                    client.sendall(b"x" if number == 0 else b"1\r\nx\r\n")
                    if select.select([client], [], [], 0.2)[0]:
                        got[number] = client.recv(1000)
                except OSError:
                    got[number] = b""
        assert set(got.values()) == {b""}
        assert server.metric("lumaris_requests_cut_total") == len(slow)
        assert server.groups()[0]["reports"] == others
        assert not [file for file in BODIES.rglob("*") if file.is_file()]
        assert server.send(short_report(address=others)).status == 449


def test_a_request_that_is_whole_in_time_is_answered_however_long_that_takes(server: Server, tmp_path: Path) -> None:
    (tmp_path / "other").mkdir()
    report = short_report()
    with Server(server.database, tmp_path / "other", "--request-limit", "5s") as hurried:
        client = http.client.HTTPConnection("127.0.0.1", hurried.port, timeout=60)

        def send() -> int:
            client.request("POST", PATH, report)
            got = client.getresponse()
            got.read()
            return got.status

        # The server tries three times, and waits two seconds for the lock each time.
        with locked(server.database):
            begin = time.monotonic()
            assert send() == 503
            assert time.monotonic() - begin > 5.5
        first = client.sock
        # The limit of the next request begins with this answer, as the server finds when it looks for the next time.
        time.sleep(1.5)
        assert send() == 449
        assert client.sock is first
        client.close()
        assert hurried.metric("lumaris_requests_cut_total") == 0
    assert server.groups()[0]["reports"] == 1


@pytest.mark.parametrize("limit", ["0s", "5", "s", "5m", "-5s", "86401s", "99999999999999999999s"])
def test_a_limit_that_is_none_is_refused(limit: str) -> None:
    done = subprocess.run([str(PROGRAM), "serve", "--request-limit", limit], capture_output=True, text=True, timeout=60, check=False)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr == f"lumaris-reports: {limit}: this is not a number of seconds from 1s to 86400s\n"


def test_what_the_fuzzer_begins_with_crashes_nothing(server: Server) -> None:
    seeds = sorted(each for folder in ("report_intake_fuzz", "report_reader_fuzz") for each in (TREE / "fuzz/corpus" / folder).iterdir())
    assert len(seeds) > 10
    for seed in seeds:
        for body in (seed.read_bytes(), zlib.compress(seed.read_bytes())):
            answer = server.send(body)
            assert (answer.status in (200, 400, 449), answer.type) == (True, PLAIN), seed
    assert server.ask("/").status == 200
    for group in server.groups():
        assert server.ask(f"/group/{group['id']}").status == 200


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
