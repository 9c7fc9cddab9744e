"""How long publishing takes: staging a large package, offering it, and checking a live server; and what a day of 5,000 machines is for nginx.

Runs in the room, with the x64-test build and the judge of native-release: ./dev shell python3 bench/publishing.py
"""

from __future__ import annotations

import argparse
import os
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import http.client
from collections.abc import Callable
from pathlib import Path

TREE = Path(__file__).resolve().parents[1]
sys.path[:0] = [str(TREE / "tests"), str(TREE / "tools/publish")]
sys.dont_write_bytecode = True

from bed.package import InstallerPackage  # noqa: E402  (the path to it is set above)
from bed.services import NginxWith  # noqa: E402
from bed.signing import KeyPair  # noqa: E402
from bed.version import OWN, of_build  # noqa: E402

MB = 1 << 20
SIZE = 200 * MB
HOST = "updates.tavrin.example"
PORT = 18200
MACHINES = 5000
CHANNELS = "stable,beta,gamma,delta"
WINDOWS = "win11,win10,win8_1,win8,win7sp1"


class Publishing:
    """A publication, and the kit as a command."""

    def __init__(self, folder: Path, judge: Path) -> None:
        self.folder = folder
        self.root = folder / "publication"
        self.key = KeyPair(TREE / "tests/keys/test.pub", TREE / "tests/keys/test.key")
        self._environment = {**os.environ, "PYTHONPATH": str(TREE / "tools/publish"), "LUMARIS_JUDGE": str(judge)}
        # What the installed package has.
        self._environment["PYTHONPYCACHEPREFIX"] = str(folder / "pycache")
        self._environment.pop("PYTHONDONTWRITEBYTECODE", None)

    def __call__(self, *arguments: str) -> float:
        """Seconds that a command takes."""
        begin = time.monotonic()
        done = subprocess.run([sys.executable, "-m", "lumaris_publish", "--root", str(self.root), *arguments], env=self._environment,
                              capture_output=True, text=True, timeout=300, check=False)
        took = time.monotonic() - begin
        if done.returncode != 0:
            raise RuntimeError(done.stdout + done.stderr)
        return took

    def init(self, *options: str) -> None:
        """A new publication."""
        shutil.rmtree(self.root, ignore_errors=True)
        self("init", str(self.root), "--host", HOST, "--public-key", self.key.line, "--architecture", "x64", *options)

    def stage(self, package: Path, *options: str) -> float:
        """Seconds that staging takes."""
        return self("stage", str(package), "--key", str(self.key.secret), "--accept", "a measurement", *options)


def seconds(*arguments: str) -> float:
    """Seconds that a program takes."""
    begin = time.monotonic()
    subprocess.run(arguments, check=True, stdout=subprocess.DEVNULL, timeout=300)
    return time.monotonic() - begin


def make_package(folder: Path, size: int) -> Path:
    """A package of OWN with the program of the tests, and a file that does not compress."""
    build = TREE / "build/x64-test"
    if of_build(build) != str(OWN):
        raise RuntimeError(f"{build} is another version than {OWN}")
    made = InstallerPackage.build(folder, "x64", str(OWN), program=build / "src/updater/lumaris.exe").path
    # A stream of its own: it is copied, hashed and signed with the rest.
    extra = folder / "extra.bin"
    with extra.open("wb") as out:
        for _ in range(size // MB):
            out.write(os.urandom(MB))
    done = subprocess.run(["msibuild", str(made), "-a", "Binary.extra", str(extra)], capture_output=True, text=True, timeout=300, check=False)
    if done.returncode != 0:
        raise RuntimeError(done.stderr)
    return made


def measure_stage(publishing: Publishing, package: Path, runs: int) -> float:
    """Median of the ratios of staging over minisign and sha256sum of the same file."""
    ratios = []
    copy = publishing.folder / "copy.msi"
    shutil.copyfile(package, copy)
    for _ in range(runs):
        publishing.init()
        staged = publishing.stage(package)
        plain = seconds("minisign", "-S", "-s", str(publishing.key.secret), "-m", str(copy)) + seconds("sha256sum", str(copy))
        ratios.append(staged / plain)
        print(f"  stage {staged:.2f} s, minisign and sha256sum {plain:.2f} s", flush=True)
    return statistics.median(ratios)


def measure_offer(publishing: Publishing, small: Path, runs: int) -> float:
    """Median of the seconds of an offer for two channels and six kinds of Windows."""
    took = []
    for _ in range(runs):
        publishing.init("--channels", "stable,beta", "--windows", "win11,win10,win8_1,win8,win7sp1,win7")
        publishing.stage(small)
        took.append(publishing("offer", str(OWN), "--channel", "stable,beta", "--key", str(publishing.key.secret)))
    return statistics.median(took)


def measure_check(publishing: Publishing, package: Path, runs: int) -> tuple[float, float]:
    """Median of the ratios of a check over fetching, and of the seconds of a quick one: 24 descriptions and 3 packages."""
    publishing.init("--channels", CHANNELS, "--windows", WINDOWS, "--variants=-sl,-en")
    for variant in ("", "-sl", "-en"):
        publishing.stage(package, f"--variant={variant}")
    publishing("offer", str(OWN), "--channel", CHANNELS, "--key", str(publishing.key.secret))
    ratios, quick = [], []
    server = f"http://127.0.0.1:{PORT}"
    with serve(publishing):
        files = [f"{server}/packages/{OWN}/Halvoro.ARM64{variant}.msi" for variant in ("", "-sl", "-en")]
        for _ in range(runs):
            full = publishing("check", "--url", f"{server}/")
            fetched = seconds("curl", "-sf", *(part for file in files for part in ("-o", str(publishing.folder / "fetched"), file)))
            ratios.append(full / fetched)
            quick.append(publishing("check", "--quick", "--url", f"{server}/"))
            print(f"  check {full:.2f} s, fetching {fetched:.2f} s, quick check {quick[-1]:.2f} s", flush=True)
    return statistics.median(ratios), statistics.median(quick)


def serve(publishing: Publishing) -> NginxWith:
    """nginx under the configuration that the kit has written."""
    block = (publishing.root / "server/nginx.conf").read_text(encoding="utf-8").replace("listen 80;", f"listen 127.0.0.1:{PORT};").replace(
        "/var/log/nginx/lumaris.access.log", f"{publishing.folder}/access.log")
    return NginxWith(publishing.folder / f"nginx-{time.monotonic_ns()}", block, PORT)


def replay(publishing: Publishing, small: Path, day: float) -> dict[str, float]:
    """A day of 5,000 machines, in so many seconds: each asks once within four hours, one in a hundred is slow or tries again."""
    publishing.init()
    publishing.stage(small)
    publishing("offer", str(OWN), "--channel", "stable", "--key", str(publishing.key.secret))
    chance = random.Random(5000)
    moments = sorted((chance.random() * day, chance.random() < 0.01) for _ in range(MACHINES))
    moments += sorted((moment + day / 100, False) for moment, slow in moments if slow)  # their second try
    paths = ["/Halvoro/Lumaris/win11-stable.txt.minisig", "/Halvoro/Lumaris/win11-stable.txt", f"/packages/{OWN}/Halvoro.ARM64.msi.minisig",
             f"/packages/{OWN}/Halvoro.ARM64.msi"]
    (publishing.folder / "access.log").unlink(missing_ok=True)
    counts = {"requests": 0, "bytes": 0, "failures": 0}
    begin = time.monotonic()
    lock = threading.Lock()
    queue = iter(sorted(moments))

    def machine() -> None:
        while True:
            with lock:
                one = next(queue, None)
            if one is None:
                return
            moment, slow = one
            time.sleep(max(0.0, begin + moment - time.monotonic()))
            connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=60)
            cookie: dict[str, str] = {}
            for path in paths:
                connection.request("GET", path, headers={"Host": HOST, "User-Agent": f"Lumaris/{OWN}", **cookie})
                response = connection.getresponse()
                size = 0
                while block := response.read(4096 if slow else MB):
                    size += len(block)
                    if slow:
                        time.sleep(0.005)
                if said := response.headers.get("Set-Cookie"):
                    cookie = {"Cookie": said.partition(";")[0]}
                with lock:
                    counts["requests"] += 1
                    counts["bytes"] += size
                    counts["failures"] += response.status != 200
            connection.close()
    with serve(publishing):
        threads = [threading.Thread(target=machine) for _ in range(64)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    took = time.monotonic() - begin
    log = (publishing.folder / "access.log").read_text(encoding="ascii").splitlines()
    by_second: dict[str, int] = {}
    for line in log:
        moment = line.split("[")[1].split("]")[0]
        by_second[moment] = by_second.get(moment, 0) + 1
    return {**counts, "seconds": took, "peak": max(by_second.values()), "logged": len(log)}


def main() -> int:
    """Returns 0 when every number is reached."""
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--day", type=float, default=30.0, metavar="SECONDS", help="how long the day of the simulation takes (default: 30)")
    parser.add_argument("--judge", type=Path, default=TREE / "build/native-release/tools/publish/lumaris_judge")
    options = parser.parse_args()
    results: list[tuple[str, float, Callable[[float], bool] | None, str]] = []
    with tempfile.TemporaryDirectory(prefix="publishing-") as scratch:
        publishing = Publishing(Path(scratch), options.judge)
        (publishing.folder / "large").mkdir()
        (publishing.folder / "small").mkdir()
        large, small = make_package(publishing.folder / "large", SIZE), make_package(publishing.folder / "small", MB)
        ratio = measure_stage(publishing, large, options.runs)
        results.append(("stage of 200 MB over minisign -S and sha256sum", ratio, lambda value: value <= 1.3, "at most 1.3"))
        results.append(("offer for 2 channels and 6 kinds of Windows, s", measure_offer(publishing, small, options.runs), lambda value: value < 1,
                        "under 1"))
        full, quick = measure_check(publishing, large, options.runs)
        results.append(("check of 24 descriptions and 3 packages of 200 MB over fetching", full, lambda value: value <= 1.2, "at most 1.2"))
        results.append(("the same without the packages, s", quick, lambda value: value < 1, "under 1"))
        day = replay(publishing, small, options.day)
        print(f"  a day of {MACHINES:,} machines in {day['seconds']:.0f} s: {day['requests']:,.0f} requests, {day['bytes'] / 1e6:,.0f} MB, "
              f"{day['requests'] / day['seconds']:,.0f} requests a second, {day['peak']:,.0f} at the peak, {day['failures']:,.0f} failures")
        results.append(("failures in a day of 5,000 machines", day["failures"] + abs(day["logged"] - day["requests"]), lambda value: value == 0, "none"))
    for what, value, good, wanted in results:
        print(f"{what:66} {value:8.2f}  {wanted:>12}  {'reached' if good is None or good(value) else 'MISSED'}")
    return 0 if all(good is None or good(value) for _, value, good, _ in results) else 1


if __name__ == "__main__":
    sys.exit(main())
