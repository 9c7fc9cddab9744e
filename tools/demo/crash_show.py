"""The demonstration of a crash: a program crashes, a user answers its boxes, and the report reaches the server, now or later."""

from __future__ import annotations

import shutil
import time
from contextlib import ExitStack
from pathlib import Path

from bed import certificates, isolation
from bed.report_server import BODY, FULL_WANTED, HEAD, Answer, Received, make_report_server
from bed.real_report_server import RealReportServer
from bed.reports import Reader
from bed.screen import Screen
from bed.windows import Box, Ended, Started, Windows, windows_path
from crash_outcome import ACCESS_VIOLATION, REPORTED, SERVERS, CrashCircumstances
from frame import LIMIT, Demonstration, code

_TITLE = "Unexpected Error"


class CrashShow(Demonstration):
    """The demonstration of a crash."""

    def __init__(self, tree: Path, given: CrashCircumstances) -> None:
        super().__init__(tree, given.architecture)
        self._given = given
        self._server_way = SERVERS[given.server]
        self._reader_program = tree / "build/native-release/tools/report_reader/read_report"
        self._real_program = tree / "build/native-release/tools/reports/lumaris-reports"
        self._real: RealReportServer | None = None
        self._pictures = tree / "build/demo-crash"

    def _needed(self) -> tuple[Path, ...]:
        return self._program_file(self._given.kind), self._reader_program, self._real_program

    def _why(self) -> str:
        return self._given.why

    def _perform(self, network: isolation.PrivateNetwork) -> None:
        given = self._given
        shutil.rmtree(self._pictures, ignore_errors=True)
        self._reader = Reader(self._reader_program, network.work)
        authority = certificates.make_authority(network.work, "demo-authority")
        network.trust(authority.path)
        with ExitStack() as stack:
            self._server = stack.enter_context(make_report_server(network, authority))
            if self._server_way.real:
                stack.enter_context(self._server.away())
                self._real = stack.enter_context(RealReportServer(network, authority, self._real_program))
                program = self._program_file(given.kind)
                self._real.add_symbols(program, program.with_suffix(".pdb"))
            self._say(f"the report server listens as https://{isolation.REPORT_HOST}/ (port 443 of an isolated network)")
            self._screen = stack.enter_context(Screen(network.work))
            agent = self._build / "tests/bed/windows/agent.exe"
            self._machine = stack.enter_context(
                Windows(given.architecture, network, agent, display=self._screen.display))
            for kind in (given.kind, "none"):
                self._machine.install(self._program_file(kind), f"crash_{kind}.exe")
            self._temp = self._machine.unix_path(self._machine.expand("%TEMP%"))
            self._say(f"{self._processor} Windows (Wine) is up on a screen of its own, with crash_{given.kind}.exe, which {given.what}")
            self._say(f"the server {self._server_way.what}")
            self._say(f"should happen: {given.why} (exit code {code(given.exit_code)})")
            self._timeline.show()
            reports = self._crash()
            if self._files():
                print()
                self._say("the next start of any program with the component: the server is there, and asks for full reports")
                reports = self._next_start()
            else:
                self._expect("files of the crash", False, given.reported and self._server_way.saved)
            self._show_report(reports)
            if self._real is not None and given.reported:
                self._show_page(self._real)

    # The crash

    def _crash(self) -> list[Received]:
        given = self._given
        with ExitStack() as stack:
            if self._server_way.real:
                pass  # it knows its answers
            elif self._server_way.answers:
                self._server.queue = list(self._server_way.answers)
            else:
                stack.enter_context(self._server.away())
            moment = self._machine.folder / "moment.txt"
            notes = "".join(f' --note "{note}"' for note in given.notes)
            stamp = f' --moment "{windows_path(moment)}"'  # for the timeline
            program = self._machine.begin("crash", self._command_line(given.kind) + stamp + notes)
            texts = self._answer_boxes(program)
            ended = program.wait(LIMIT)
        self._show_run(given.kind, ended, given.exit_code, notes)
        if moment.exists() and given.kind != "none":
            self._timeline.add("program", given.what, int(moment.read_text(encoding="ascii")) / 1e7 - 11644473600)
        reports = self._show_requests(self._server_way.requests if given.reported else ())
        self._expect("the number of boxes", given.boxes, len(texts))
        if texts and given.reported:
            self._expect(f"the last box to say \"{self._server_way.text}\"", True, self._server_way.text in texts[-1].text)
        self._show_files()
        self._timeline.show()
        return reports

    def _answer_boxes(self, program: Started) -> list[Box]:
        """Says yes to a question and OK to everything else, until the program has ended."""
        seen: list[Box] = []
        until = time.monotonic() + LIMIT
        while program.ended(0.05) is None and time.monotonic() < until:
            for window in self._screen.windows(_TITLE):
                shown = self._machine.boxes()
                if not shown:
                    break
                box = shown[0]
                picture = self._screen.picture(self._pictures / f"box-{len(seen) + 1}.png", window)
                self._timeline.add("screen", f"[{box.title}]  {' | '.join(box.buttons)}  "
                                   f"({picture.relative_to(self._tree)})\n{box.text}")
                answer = "Yes" if "Yes" in box.buttons else "OK"
                self._timeline.add("user", f"presses {answer}")
                self._screen.press(window, "y" if answer == "Yes" else "Return")
                seen.append(box)
        return seen

    # The next start

    def _next_start(self) -> list[Received]:
        self._server.reset()
        self._server.queue = [FULL_WANTED, Answer()]
        program = self._machine.begin("next", self._command_line("none"))
        self._show_run("none", program.wait(LIMIT), 0, "")
        reports = self._show_requests(("short", "full"))
        page = self._temp / "Odgovor.html"
        if page.exists():
            self._timeline.add("disk", "the page is the user's, and remains until the next one")
            page.unlink()
        self._show_files()
        self._expect("anything left", [], self._files())
        self._timeline.show()
        return reports

    # What happened

    def _show_run(self, kind: str, ended: Ended, wanted: int, notes: str) -> None:
        self._timeline.add("windows", f"crash_{kind}.exe{notes} starts", ended.begin)
        self._timeline.add("windows", f"crash_{kind}.exe ends with exit code {code(ended.exit_code)}", ended.end)
        self._expect("the exit code", code(wanted), code(ended.exit_code))

    def _show_requests(self, wanted: tuple[str, ...]) -> list[Received]:
        if self._real is not None:
            return self._show_deliveries(self._real, wanted)
        requests = list(self._server.requests)
        for request in requests:
            sent = ", ".join(f"{name}: {request.header(name)}" for name in ("User-Agent", "Content-Type", "Transfer-Encoding"))
            self._timeline.add("server", f"{request.method} {request.path}  ({sent})", request.moments[HEAD])
            if request.whole:
                self._timeline.add("server", f"has a {request.kind} report, {len(request.body):,} bytes", request.moments[BODY])
        self._expect("the reports at the server", list(wanted), [each.kind for each in requests])
        return requests

    def _show_deliveries(self, real: RealReportServer, wanted: tuple[str, ...]) -> list[Received]:
        """What came to the server that ships, out of its web server's log and its own store."""
        deliveries = real.deliveries()
        reports = [Received("POST", "", (), real.body(number + 1), {BODY: moment}) for number, (moment, _) in enumerate(deliveries)]
        for report, (moment, status) in zip(reports, deliveries, strict=True):
            self._timeline.add("server", f"has a {report.kind} report, {len(report.body):,} bytes, on its disk, and answers {status}", moment)
        self._expect("the reports at the server", list(wanted), [each.kind for each in reports])
        return reports

    def _show_page(self, real: RealReportServer) -> None:
        """Shows what the server makes of the crash."""
        (group,) = real.groups()
        number = group["reports"] + group["full_reports"]
        for path, name in (("/", "groups-page.png"), (f"/group/{group['id']}", "group-page.png"), (f"/report/{number}", "report-page.png")):
            real.picture(path, self._pictures / name)
        pictures = self._pictures.relative_to(self._tree)
        print("what the report server's pages say:\n")
        print(f"    {group['title']}\n    at {group['place'] or 'a place that no symbols name'}\n    {group['reports']} report, "
              f"{group['full_reports']} full report\n    {pictures}/groups-page.png, group-page.png, report-page.png")
        # The stack walk of the ARM64 Wine ends before the culprit of a failure that is raised.
        if self._given.architecture == "x64" or REPORTED[self._given.kind][0] == ACCESS_VIOLATION:
            self._expect("the file of the crash", f"/lumaris/tests/crash/{self._given.kind}.cpp", group["place"].rpartition(":")[0])

    def _show_report(self, requests: list[Received]) -> None:
        """Prints the last of them as its reader reads it, and compares it with the crash."""
        symbols = self._program_file(self._given.kind).parent
        for body in [each.body for each in requests if each.whole][-1:]:
            print("\nwhat read_report says about the report, with the program and its PDB:\n")
            print("".join(f"    {line}\n" for line in self._reader.text(body, symbols=symbols).splitlines()))
            report = self._reader.read(body, symbols=symbols)
            self._expect("the exception code", code(REPORTED[self._given.kind][0]), code(report.code))
            self._expect("the notes", self._given.notes, report.notes)

    def _show_files(self) -> None:
        files = self._files()
        for name in files:
            self._timeline.add("disk", f"{name} ({(self._temp / name).stat().st_size:,} bytes) is in the temporary folder")
        if not files:
            self._timeline.add("disk", "nothing is left in the temporary folder")

    def _files(self) -> list[str]:
        return sorted(each.name for pattern in ("*.tz[or]", "Odgovor.html") for each in self._temp.glob(pattern))

    def _command_line(self, kind: str) -> str:
        return f'"{windows_path(self._machine.folder / f"crash_{kind}.exe")}"'

    def _program_file(self, kind: str) -> Path:
        return self._build / f"tests/crash/crash_{kind}.exe"
