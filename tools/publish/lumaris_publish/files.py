"""Writing files so that each is there whole, or not at all."""

from __future__ import annotations

import errno
import hashlib
import os
import shutil
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

from .refusal import refuse

_BLOCK = 1 << 20


@contextmanager
def explained() -> Iterator[None]:
    """Turns a failure of the disk into a sentence that says what to do."""
    try:
        yield
    except OSError as error:
        name = error.filename or "the publication"
        if error.errno in (errno.ENOSPC, errno.EDQUOT, errno.EFBIG):
            raise refuse("disk", f"no space is left for {name}: free some, and give the command again") from error
        if error.errno in (errno.EACCES, errno.EPERM, errno.EROFS):
            raise refuse("rights", f"{name} cannot be written ({error.strerror}): give the command as the user to whom the publication "
                                   "belongs") from error
        raise refuse("disk", f"{name}: {error.strerror or error}") from error


def sync(path: Path) -> None:
    """Makes the content of a file last, or the names in a folder: from here on they survive that the machine loses its power."""
    descriptor = os.open(path, os.O_RDONLY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)


def write_whole(file: Path, content: bytes) -> None:
    """Writes a file beside its place and moves it there."""
    file.parent.mkdir(parents=True, exist_ok=True)
    partial = file.with_name(f".{file.name}.partial")
    with partial.open("wb") as output:
        output.write(content)
        output.flush()
        os.fsync(output.fileno())
    partial.replace(file)
    sync(file.parent)


def link_whole(link: Path, target: str) -> None:
    """Makes a symbolic link, or lets it point elsewhere, at one stroke."""
    partial = link.with_name(f".{link.name}.partial")
    partial.unlink(missing_ok=True)
    partial.symlink_to(target)
    os.replace(partial, link)
    sync(link.parent)


def copy(source: Path, target: Path, progress: Callable[[int], None]) -> int:
    """Copies a file, within the system if that is possible; its size."""
    done = 0
    with source.open("rb", buffering=0) as given, target.open("wb", buffering=0) as output:
        while count := os.sendfile(output.fileno(), given.fileno(), None, 4 * _BLOCK):
            done += count
            progress(done)
    return done


def digest(file: Path, lengths: Iterator[int]) -> str:
    """SHA-256 of a file that is still being written; `lengths` gives how many bytes of it are there, and ends with the file."""
    content, block = hashlib.sha256(), memoryview(bytearray(_BLOCK // 4))
    done = 0
    with file.open("rb", buffering=0) as growing:
        for length in lengths:
            while done < length:
                taken = growing.readinto(block[:length - done])
                if not taken:
                    raise OSError(errno.EIO, "became shorter while it was read", str(file))
                content.update(block[:taken])
                done += taken
    return content.hexdigest()


def remove(path: Path) -> None:
    """Removes what is there, a folder with its content."""
    if path.is_dir() and not path.is_symlink():
        shutil.rmtree(path)
    else:
        path.unlink(missing_ok=True)
