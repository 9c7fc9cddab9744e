"""Reading an installer package with msitools."""

from __future__ import annotations

import concurrent.futures
import re
import tempfile
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

from . import tools
from .refusal import Refusal, refuse

PROGRAM = "lumaris.exe"

Row = dict[str, str]


@dataclass(frozen=True)
class Package:
    """What the tables of a package say."""

    platform: str
    properties: Row
    upgrades: list[Row]
    conditions: list[Row]
    sequence: dict[str, int]
    always: frozenset[str]  # the actions of the sequence that depend on no condition
    actions: list[Row]
    programs: list[Row]  # files that are called like the program
    components: list[Row]  # with the program in them
    features: list[Row]  # with such a component

    @property
    def version(self) -> str:
        """ProductVersion as it is written."""
        return self.properties.get("ProductVersion", "")

    @property
    def product_code(self) -> str:
        """The code of exactly this product."""
        return self.properties.get("ProductCode", "").upper()

    @property
    def upgrade_code(self) -> str:
        """The code that all versions of a product share."""
        return self.properties.get("UpgradeCode", "").upper()

    @property
    def per_machine(self) -> bool:
        """Whether it installs for everybody, whoever starts it."""
        return self.properties.get("ALLUSERS") == "1"

    @property
    def refuses_to_go_back(self) -> bool:
        """Whether it ends, and changes nothing, if a newer version is installed.

        That takes an Upgrade row that only detects every higher version of the same product, a launch condition that the detected product
        fails, and the two actions in this order and in every case; the property must reach the installer's service, too, and no action may set
        it anew.
        """
        secure = set(self.properties.get("SecureCustomProperties", "").split(";"))
        refused = {" ".join(row["Condition"].split()).lower() for row in self.conditions}
        find, judge = self.sequence.get("FindRelatedProducts"), self.sequence.get("LaunchConditions")
        if find is None or judge is None or find > judge or not {"FindRelatedProducts", "LaunchConditions"} <= self.always:
            return False
        written = {action["Source"] for action in self.actions if _number(action["Type"]) & _KIND_OF_ACTION == _SETS_PROPERTY}
        return any(row["UpgradeCode"].upper() == self.upgrade_code and not row["VersionMax"] and _number(row["Attributes"]) & _ONLY_DETECT
                   and _covers_every_newer(row["VersionMin"], self.version, bool(_number(row["Attributes"]) & _MIN_INCLUSIVE)) and not row["Language"]
                   and row["ActionProperty"] in secure - written and f"not {row['ActionProperty']}".lower() in refused for row in self.upgrades)

    @property
    def may_leave_out(self) -> list[str]:
        """The components and features that some machines would not install."""
        return [f"the component {row['Component']} has a condition" for row in self.components if row["Condition"]] + [
            f"the feature {row['Feature']} has level {row['Level']}" for row in self.features if _number(row["Level"]) != 1]


_ONLY_DETECT, _MIN_INCLUSIVE = 0x2, 0x100
_KIND_OF_ACTION, _SETS_PROPERTY = 0x3F, 51


def _number(text: str) -> int:
    return int(text) if text.isdigit() else 0


def _covers_every_newer(least: str, own: str, inclusive: bool) -> bool:
    """Whether a range from `least` on begins at the own version: higher leaves versions out, lower meets the own or older ones."""
    def numbers(text: str) -> list[int]:
        return [int(part) if part.isdigit() else -1 for part in [*text.split("."), "0", "0", "0"][:3]]
    return bool(least) and numbers(least) == numbers(own) and not inclusive


def _export(package: Path, table: str) -> list[Row]:
    done = tools.run(["msiinfo", "export", package, table])
    if done.returncode != 0:
        return []  # a table that is not there
    lines = done.stdout.decode("utf-8", "replace").splitlines()
    columns = lines[0].split("\t")
    return [dict(zip(columns, [*line.split("\t"), *[""] * len(columns)], strict=False)) for line in lines[3:]]


class Reading:
    """A package whose tables are being read, some at a time."""

    def __init__(self, package: Path) -> None:
        self._name = package.name
        pool = concurrent.futures.ThreadPoolExecutor(4)
        self._properties = pool.submit(_export, package, "Property")
        self._summary = pool.submit(tools.run, ["msiinfo", "suminfo", package])
        self._tables = [pool.submit(_export, package, table) for table in ("Upgrade", "LaunchCondition", "InstallExecuteSequence", "CustomAction", "File",
                                                                           "Component", "FeatureComponents", "Feature")]
        pool.shutdown(wait=False)

    def properties(self) -> Row:
        """What the table of properties says, which is there first. Raises Refusal if the file is not a package."""
        rows = self._properties.result()
        if not rows:
            raise self._refusal()
        return {row["Property"]: row["Value"] for row in rows}

    def package(self) -> Package:
        """All that the tables say. Raises Refusal if the file is not a package."""
        properties, summary = self.properties(), self._summary.result()
        if summary.returncode != 0:
            raise self._refusal()
        upgrades, conditions, sequence, actions, files, components, links, features = (table.result() for table in self._tables)
        programs = [row for row in files if row["FileName"].rpartition("|")[2].lower() == PROGRAM]
        holders = {row["Component_"] for row in programs}
        found = re.search(r"^Template: ([^;\n]*)", summary.stdout.decode("utf-8", "replace"), re.MULTILINE)
        return Package(platform=found[1].strip() if found else "", properties=properties, upgrades=upgrades, conditions=conditions,
                       sequence={row["Action"]: int(row["Sequence"]) for row in sequence if row["Sequence"].isdigit()},
                       always=frozenset(row["Action"] for row in sequence if not row["Condition"]), actions=actions, programs=programs,
                       components=[row for row in components if row["Component"] in holders],
                       features=[row for row in features if row["Feature"] in {link["Feature_"] for link in links if link["Component_"] in holders}])

    def _refusal(self) -> Refusal:
        return refuse("no-package", f"{self._name} is not an installer package, or it is damaged: {tools.words_of(self._summary.result())}")


@contextmanager
def program_inside(package: Path, name: str = PROGRAM) -> Iterator[tuple[Path, str]]:
    """The program that a package installs, in a folder of its own, and where it is to be installed."""
    with tempfile.TemporaryDirectory(prefix="lumaris-publish-") as folder:
        done = tools.run(["msiextract", "-C", folder, package])
        if done.returncode != 0:
            raise refuse("no-package", f"{package.name} cannot be unpacked: {tools.words_of(done)}")
        found = [each for each in Path(folder).rglob("*") if each.name.lower() == name and each.is_file()]
        if not found:
            raise refuse("no-program", f"{package.name} brings no {name}: machines would install it again at every run; put the program of "
                                       "the same version into it")
        if len(found) > 1:
            raise refuse("no-program", f"{package.name} brings {len(found)} files called {name}: put the program into it once")
        yield found[0], str(found[0].parent.relative_to(folder))
