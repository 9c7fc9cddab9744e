"""A small but real installer package: one file and one registry value, and the updater if one is given.

Given a folder of built programs it is the sample of a product's own package: it includes the fragment of packaging/installer, as Halvoro's does, and
so brings the updater with its check, event source, task and folder.
"""

from __future__ import annotations

import subprocess
import sys
import tempfile
from dataclasses import dataclass
from pathlib import Path

from .errors import BedError
from .version import NEWER

sys.path.append(str(Path(__file__).resolve().parents[2] / "tools/installer"))

import package as packaging  # noqa: E402  (the path to it is set above)

INSTALLED_FILE = "C:\\Program Files\\Tavrin\\Halvoro\\halvoro.txt"
REGISTRY_KEY = "HKLM\\SOFTWARE\\Tavrin\\Halvoro"
REGISTRY_VALUE = "Version"

_SOURCE = """<?xml version="1.0" encoding="utf-8"?>
<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">
  <Product Id="*" Name="Halvoro" Language="1033" Version="{version}" Manufacturer="Tavrin"
           UpgradeCode="6c1f8c0e-5d25-4f4e-9a53-0d1b6b3a7c11">
    <Package InstallerVersion="500" Compressed="yes" InstallScope="perMachine" Description="Halvoro {version}"/>
{guard}    <Media Id="1" Cabinet="halvoro.cab" EmbedCab="yes"/>
    <Directory Id="TARGETDIR" Name="SourceDir">
      <Directory Id="ProgramFiles64Folder">
        <Directory Id="MakerFolder" Name="Tavrin">
          <Directory Id="INSTALLDIR" Name="Halvoro">
            <Component Id="Program" Guid="b6a0b6a8-8f5e-4be4-8a77-1f3d3f0e2b71" Win64="yes">
              <File Id="halvoro.txt" Name="halvoro.txt" Source="{file}" KeyPath="yes"/>
              <RegistryKey Root="HKLM" Key="SOFTWARE\\Tavrin\\Halvoro">
                <RegistryValue Name="Version" Type="string" Value="{version}"/>
              </RegistryKey>
            </Component>
{program}          </Directory>
        </Directory>
      </Directory>
    </Directory>
    <Feature Id="Everything" Level="1">
      <ComponentRef Id="Program"/>
{reference}    </Feature>
{fragment}  </Product>
</Wix>
"""

# What a newer version refuses: to be replaced by this package. Without it Windows Installer goes back silently.
_GUARD = """    <MajorUpgrade DowngradeErrorMessage="A newer version of Halvoro is installed already."/>
    <InstallExecuteSequence>
      <RemoveExistingProducts Sequence="1510"/>
    </InstallExecuteSequence>
"""

_PROGRAM = """            <Component Id="Updater" Guid="b6a0b6a8-8f5e-4be4-8a77-1f3d3f0e2b72" Win64="yes">
              <File Id="lumaris.exe" Name="lumaris.exe" Source="{file}" KeyPath="yes"/>
            </Component>
"""

# What a product's own package says about its updater, and that its maker's folder goes with it.
_KIT = """    <DirectoryRef Id="MakerFolder">
      <Component Id="Maker" Guid="b6a0b6a8-8f5e-4be4-8a77-1f3d3f0e2b73" Win64="yes">
        <CreateFolder/>
        <RemoveFolder Id="Maker" On="uninstall"/>
      </Component>
    </DirectoryRef>
    <?include lumaris.wxs?>
"""


@dataclass(frozen=True)
class InstallerPackage:
    """What was packed, to compare with what gets installed."""

    path: Path
    version: str
    file_text: str

    @staticmethod
    def build(folder: Path, architecture: str, version: str = str(NEWER), *, guarded: bool = True, program: Path | None = None) -> InstallerPackage:
        """Builds "Halvoro" of this version for the processor on which the installer is to run.

        `program` is the lumaris.exe that it brings. One that is not guarded goes back to an older version silently.
        """
        text = f"Halvoro {version}, installed by its own installer package.\n"
        (folder / "halvoro.txt").write_text(text, encoding="ascii")
        source = folder / "halvoro.wxs"
        source.write_text(_SOURCE.format(version=version, file=folder / "halvoro.txt", guard=_GUARD if guarded else "",
                                         program=_PROGRAM.format(file=program) if program else "",
                                         reference='      <ComponentRef Id="Updater"/>\n' if program else "", fragment=""), encoding="utf-8")
        path = folder / f"halvoro-{version}{'' if guarded else '-unguarded'}-{architecture}.msi"
        path.unlink(missing_ok=True)
        _run("wixl", "-a", "x64", "-o", str(path), str(source))
        if program:
            # Without a version Windows Installer takes a file on the disk that has one for the newer one, and keeps it.
            _run("msibuild", str(path), "-q", f"UPDATE `File` SET `Version` = '{version}.0', `Language` = '1033' WHERE `File` = 'lumaris.exe'")
            _run("msibuild", str(path), "-q", "DELETE FROM `MsiFileHash` WHERE `File_` = 'lumaris.exe'")
        if architecture == "arm64":
            # wixl knows no ARM64; the platform stands in the summary information alone.
            _run("msibuild", str(path), "-s", "Halvoro", "Tavrin", "Arm64;1033")
        return InstallerPackage(path, version, text)

    @staticmethod
    def build_with_kit(folder: Path, architecture: str, build: Path, version: str = str(NEWER)) -> InstallerPackage:
        """Builds "Halvoro" with all that its updater needs, from the programs in a build folder."""
        text = f"Halvoro {version}, installed by its own installer package.\n"
        (folder / "halvoro.txt").write_text(text, encoding="ascii")
        source = folder / "halvoro-with-kit.wxs"
        source.write_text(_SOURCE.format(version=version, file=folder / "halvoro.txt", guard=_GUARD, program="",
                                         reference='      <ComponentGroupRef Id="Lumaris"/>\n      <ComponentRef Id="Maker"/>\n',
                                         fragment=_KIT), encoding="utf-8")
        path = folder / f"halvoro-{version}-with-kit-{architecture}.msi"
        programs = packaging.programs_of(build)
        with tempfile.TemporaryDirectory(prefix="installer-") as staged:
            packaging.stage(programs, Path(staged))
            packaging.pack(source, path, Path(staged), {})
        packaging.finish(path, architecture, {name: programs[name] for name in packaging.PROGRAMS}, subject=f"Halvoro {version}")
        return InstallerPackage(path, version, text)


def _run(*arguments: str) -> None:
    done = subprocess.run(arguments, capture_output=True, text=True, timeout=60, check=False)
    if done.returncode != 0 or done.stderr.strip():
        raise BedError(f"{' '.join(arguments)}: {(done.stderr or done.stdout).strip()}")
