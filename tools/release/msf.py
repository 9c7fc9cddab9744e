"""The container of a PDB: a file of blocks that make up streams ("MSF", as LLVM's documentation of PDB files describes it).

Read by hand: pefile reads no PDB, and llvm-pdbutil does not say to which stream an offset of the file belongs.
"""

from __future__ import annotations

import struct

_MAGIC = b"Microsoft C/C++ MSF 7.00\r\n\x1aDS\0\0\0"
# Streams with a fixed number.
_STREAMS = {0: "the old directory", 1: "the PDB's identity", 2: "types", 3: "modules", 4: "ids of functions"}


class BrokenFile(Exception):
    """A file that is not what it should be. The text says in what."""


class Msf:
    """The streams of a PDB and the blocks that they lie in."""

    def __init__(self, data: bytes) -> None:
        self._data = data
        if not data.startswith(_MAGIC) or len(data) < 56:
            raise BrokenFile("the PDB does not begin like one")
        numbers: tuple[int, ...] = struct.unpack_from("<6I", data, 32)
        self.block_size, _free, count, directory_size, _unknown, map_block = numbers
        if self.block_size not in (512, 1024, 2048, 4096) or len(data) < count * self.block_size:
            raise BrokenFile("the PDB is cut off")
        try:
            blocks = self._numbers(self._block(map_block), self._blocks_for(directory_size))
            directory = b"".join(self._block(block) for block in blocks)[:directory_size]
            sizes = self._numbers(directory[4:], self._numbers(directory, 1)[0])
            position = 4 + 4 * len(sizes)
            self.streams: list[tuple[int, tuple[int, ...]]] = []
            for size in sizes:
                size = 0 if size == 0xFFFFFFFF else size
                blocks = self._numbers(directory[position:], self._blocks_for(size))
                position += 4 * len(blocks)
                self.streams.append((size, blocks))
        except struct.error as error:
            raise BrokenFile("the PDB's directory is cut off") from error

    def _blocks_for(self, size: int) -> int:
        return -(-size // self.block_size)

    def _block(self, number: int) -> bytes:
        block = self._data[number * self.block_size:(number + 1) * self.block_size]
        if len(block) != self.block_size:
            raise BrokenFile(f"the PDB has no block {number}")
        return block

    @staticmethod
    def _numbers(data: bytes, count: int) -> tuple[int, ...]:
        return struct.unpack_from(f"<{count}I", data)

    def stream(self, number: int) -> bytes:
        """The content of a stream."""
        if number >= len(self.streams):
            raise BrokenFile(f"the PDB has no stream {number}")
        size, blocks = self.streams[number]
        return b"".join(self._block(block) for block in blocks)[:size]

    def identity(self) -> tuple[bytes, int]:
        """The GUID, as its 16 bytes, and the age: what a program asks for."""
        info = self.stream(1)
        if len(info) < 28:
            raise BrokenFile("the PDB has no identity")
        # The age that counts is the one of the modules' stream (DbiStreamHeader).
        modules = self.stream(3)
        return info[12:28], struct.unpack_from("<I", modules, 8)[0] if len(modules) >= 12 else 0

    def place(self, offset: int) -> str:
        """Says what stands at an offset of the file."""
        block = offset // self.block_size
        for number, (_size, blocks) in enumerate(self.streams):
            if block in blocks:
                at = blocks.index(block) * self.block_size + offset % self.block_size
                return f"stream {number}{f' ({_STREAMS[number]})' if number in _STREAMS else ''} at 0x{at:X}"
        return f"block {block}, outside of the streams"
