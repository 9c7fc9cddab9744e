"""The day of a release as a server sees it: when 5,000 machines ask, worked out from the task that the installer registers, on paper and replayed.

A machine asks once a day, at the task's time and a random delay. Some were off at that time, and make up for it when they are switched on the
next morning, which is why they ask twice on the day. Some lines are slow, and some downloads break off: such a machine fetches everything
anew at its next run.
"""

from __future__ import annotations

import http.client
import random
import re
import threading
import time
from collections import Counter
from dataclasses import dataclass
from pathlib import Path
from xml.etree import ElementTree

TREE = Path(__file__).resolve().parents[1]
TASK = TREE / "packaging/installer/task.xml"
MACHINES = 5000
WAS_OFF, IS_SLOW, BREAKS_OFF = 0.20, 0.01, 0.01
MORNING = (7 * 3600, 9 * 3600, 8 * 3600)  # from, to, and when the most are switched on
FAST, SLOW = 50e6 / 8, 2e6 / 8  # bytes a second
_SPACE = {"task": "http://schemas.microsoft.com/windows/2004/02/mit/task"}
_THREADS = 64


@dataclass(frozen=True)
class Visit:
    """One run of a machine: whether it fetches the package, and how much of it before its line breaks."""

    moment: float
    machine: int
    slow: bool
    fetches: bool
    part: float = 1.0


def task_times(task: Path = TASK) -> tuple[float, float, bool]:
    """Second of the day at which the task is due, the longest random delay, and whether it makes up for a missed start."""
    root = ElementTree.fromstring(task.read_bytes().decode("utf-8").replace('encoding="UTF-16"', "").encode("utf-8"))

    def text(path: str) -> str:
        found = root.findtext(path, namespaces=_SPACE)
        assert found is not None, path
        return found
    hours, minutes, seconds = (int(part) for part in text(".//task:StartBoundary").partition("T")[2].split(":"))
    delay = re.fullmatch(r"PT(?:(\d+)H)?(?:(\d+)M)?", text(".//task:RandomDelay"))
    assert delay is not None
    return hours * 3600 + minutes * 60 + seconds, int(delay[1] or 0) * 3600 + int(delay[2] or 0) * 60, text(".//task:StartWhenAvailable") == "true"


def plan(chance: random.Random, machines: int = MACHINES) -> list[Visit]:
    """The visits of a day on which everybody finds a new version, in their order."""
    due, delay, makes_up = task_times()
    visits = []
    for machine in range(machines):
        slow = chance.random() < IS_SLOW
        moments = [due + chance.random() * delay]
        if makes_up and chance.random() < WAS_OFF:
            moments.insert(0, chance.triangular(*MORNING))
        has_it = False
        for moment in moments:
            part = chance.random() if chance.random() < BREAKS_OFF else 1.0
            visits.append(Visit(moment, machine, slow, not has_it, part))
            has_it = has_it or part == 1.0
    return sorted(visits, key=lambda visit: visit.moment)


@dataclass(frozen=True)
class Load:
    """What the visits are for a server."""

    requests: int
    bytes: float
    peak_requests: int  # in a second
    peak_bytes: float  # in a second, as a mean over a minute
    peak_connections: int
    busiest_hour_requests: int
    busiest_hour_bytes: float


def on_paper(visits: list[Visit], package: int, description: int = 700) -> Load:
    """The load without a server: each visit takes what its line carries."""
    requests: Counter[int] = Counter()
    carried: Counter[int] = Counter()
    open_at: Counter[int] = Counter()
    total = 0.0
    for visit in visits:
        second = int(visit.moment)
        requests[second] += 4 if visit.fetches else 2
        total += description
        if not visit.fetches:
            continue
        size, speed = package * visit.part, SLOW if visit.slow else FAST
        total += size
        last = int(visit.moment + size / speed)
        for at in range(second, last + 1):
            carried[at] += int(min(speed, size - speed * (at - second)))
            open_at[at] += 1
    by_minute: Counter[int] = Counter()
    by_hour: Counter[int] = Counter()
    requests_by_hour: Counter[int] = Counter()
    for second, count in carried.items():
        by_minute[second // 60] += count
        by_hour[second // 3600] += count
    for second, count in requests.items():
        requests_by_hour[second // 3600] += count
    return Load(requests.total(), total, max(requests.values()), max(by_minute.values()) / 60, max(open_at.values()),
                max(requests_by_hour.values()), max(by_hour.values()))


@dataclass
class Replayed:
    """What came of a replay, as the machines saw it."""

    requests: int = 0
    bytes: int = 0
    failures: int = 0
    broken_off: int = 0
    seconds: float = 0.0


def replay(visits: list[Visit], port: int, host: str, paths: list[str], agent: str, day: float) -> Replayed:
    """Lets the machines ask a server in the time of `day` seconds, each from an address of its own; the first paths are the description's."""
    first, last = visits[0].moment, visits[-1].moment
    result, lock, queue = Replayed(), threading.Lock(), iter(visits)
    begin = time.monotonic()

    def work() -> None:
        while True:
            with lock:
                visit = next(queue, None)
            if visit is None:
                return
            time.sleep(max(0.0, begin + (visit.moment - first) / (last - first) * day - time.monotonic()))
            _visit(visit, port, host, paths if visit.fetches else paths[:2], agent, result, lock)
    threads = [threading.Thread(target=work) for _ in range(_THREADS)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    result.seconds = time.monotonic() - begin
    return result


def _visit(visit: Visit, port: int, host: str, paths: list[str], agent: str, result: Replayed, lock: threading.Lock) -> None:
    address = f"127.{1 + visit.machine // 62500}.{visit.machine // 250 % 250}.{1 + visit.machine % 250}"
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=60, source_address=(address, 0))
    cookie: dict[str, str] = {}
    for path in paths:
        connection.request("GET", path, headers={"Host": host, "User-Agent": agent, **(cookie if path.startswith("/Halvoro/") else {})})
        response = connection.getresponse()
        wanted = int(response.headers["Content-Length"])
        broken = path.endswith(".msi") and visit.part < 1
        size = 0
        while (not broken or size < wanted * visit.part) and (block := response.read(8192 if visit.slow or broken else 1 << 20)):
            size += len(block)
            if visit.slow:
                time.sleep(0.002)
        if said := response.headers.get("Set-Cookie"):
            cookie = {"Cookie": said.partition(";")[0]}
        with lock:
            result.requests += 1
            result.bytes += size
            result.broken_off += broken
            result.failures += response.status != 200 or (not broken and size != wanted)
    connection.close()
