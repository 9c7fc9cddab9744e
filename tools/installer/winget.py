"""The manifest with which winget installs the package from a private source."""

from __future__ import annotations

import hashlib
from pathlib import Path

from package import table

ARCHITECTURES = {"arm64": "arm64", "x64": "x64"}

_MANIFEST = """# yaml-language-server: $schema=https://aka.ms/winget-manifest.singleton.1.6.0.schema.json
PackageIdentifier: Tavrin.Lumaris
PackageVersion: {version}
PackageLocale: en-US
Publisher: Tavrin
PackageName: Lumaris
License: Proprietary
ShortDescription: Keeps Halvoro up to date, unattended.
MinimumOSVersion: 10.0.0.0
InstallerType: msi
Scope: machine
# The program updates itself: "winget upgrade --all" leaves it alone.
RequireExplicitUpgrade: true
UpgradeBehavior: install
Installers:
- Architecture: {architecture}
  InstallerUrl: {url}
  InstallerSha256: {digest}
  ProductCode: '{product}'
  AppsAndFeaturesEntries:
  - UpgradeCode: '{upgrade}'
    InstallerType: msi
ManifestType: singleton
ManifestVersion: 1.6.0
"""


def manifest(package: Path, architecture: str, url: str) -> str:
    """The manifest of a package that is fetched from this address."""
    properties = {row["Property"]: row["Value"] for row in table(package, "Property")}
    return _MANIFEST.format(version=properties["ProductVersion"], architecture=ARCHITECTURES[architecture], url=url,
                            digest=hashlib.sha256(package.read_bytes()).hexdigest().upper(), product=properties["ProductCode"],
                            upgrade=properties["UpgradeCode"])
