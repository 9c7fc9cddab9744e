"""Settings of a Windows that the program under test depends on."""

from __future__ import annotations

import struct
from pathlib import Path

from .windows import REG_SZ, Windows

UPDATER_KEY = "HKLM\\SOFTWARE\\Tavrin\\Halvoro\\Lumaris"
PRODUCT_KEY = "HKLM\\SOFTWARE\\Tavrin\\Halvoro"

UNRESTRICTED = 0x1
FIXED = 0x2
VARIABLE = 0x4
OVER_DATA_LIMIT = 0x10000
CONGESTED = 0x20000
ROAMING = 0x40000
APPROACHING_DATA_LIMIT = 0x80000

_LIST_MANAGER = "HKLM\\Software\\Classes\\CLSID\\{DCB00C01-570F-4A9B-8D69-199FDBA5723B}\\InprocServer32"
_ANSWERS = "HKLM\\Software\\LumarisTestBed"
_CONNECTIONS = "HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Internet Settings\\Connections"
_BLIND_ACCESS = "HKCU\\Control Panel\\Accessibility\\Blind Access"
_VERSION = "HKLM\\Software\\Microsoft\\Windows NT\\CurrentVersion"


class ListManager:
    """Puts a list manager that answers as the test says in the place of the system's own, and takes it away again."""

    def __init__(self, windows: Windows, library: Path) -> None:
        self._windows = windows
        self._path = windows.install(library, "list_manager.dll")
        system = windows.value(_LIST_MANAGER, "")
        self._system = system if isinstance(system, str) else "C:\\windows\\system32\\netprofm.dll"

    def answer(self, **answers: int) -> None:
        """From now on the list manager gives these answers; their names stand in list_manager.cpp."""
        self._windows.delete_key(_ANSWERS)
        for name, value in answers.items():
            self._windows.set_value(_ANSWERS, name, value)
        self._windows.set_value(_LIST_MANAGER, "", self._path)

    def restore(self) -> None:
        """The system's own list manager answers again."""
        self._windows.set_value(_LIST_MANAGER, "", self._system)
        self._windows.delete_key(_ANSWERS)


def set_proxy(windows: Windows, proxy: str) -> None:
    """Sets the machine's proxy for WinHTTP, as `netsh winhttp set proxy` does."""
    name = proxy.encode("ascii")
    windows.set_value(_CONNECTIONS, "WinHttpSettings",
                      struct.pack("<IIII", 0x18, 0, 0x2, len(name)) + name + struct.pack("<I", 0))


def remove_proxy(windows: Windows) -> None:
    """Connections go straight again."""
    windows.delete_value(_CONNECTIONS, "WinHttpSettings")


def set_version(windows: Windows, major: int, minor: int, build: int) -> None:
    """The Windows version that programs see from now on."""
    windows.set_value(_VERSION, "CurrentMajorVersionNumber", major)
    windows.set_value(_VERSION, "CurrentMinorVersionNumber", minor)
    windows.set_value(_VERSION, "CurrentVersion", f"{major}.{minor}" if major < 10 else "6.3")
    windows.set_value(_VERSION, "CurrentBuild", str(build), REG_SZ)
    windows.set_value(_VERSION, "CurrentBuildNumber", str(build), REG_SZ)


def set_screen_reader(windows: Windows, running: bool) -> None:
    """Whether the system says that a screen reader runs. They ask each time, so it takes effect at once."""
    windows.set_value(_BLIND_ACCESS, "On", "1" if running else "0", REG_SZ)
