"""What the X server keeps for a client, by its X-Resource extension."""

from __future__ import annotations

import struct

from display_xwire import XWire

GET_ATOM_NAME, QUERY_EXTENSION = 17, 98  # of the core protocol
QUERY_RESOURCES, QUERY_PIXMAP_BYTES = 2, 3  # of the extension


class XResources(XWire):
    """Asks the X server of the given display number."""

    def __init__(self, number: int) -> None:
        super().__init__(number)
        name = b"X-Resource"
        reply, _ = self._ask(struct.pack("<BxHHxx", QUERY_EXTENSION, 2 + (len(name) + 3) // 4, len(name)) + _padded(name))
        self._opcode = reply[9]
        assert reply[8], "the X server does not tell what it keeps"

    def of(self, window: int) -> dict[str, int]:
        """How many things of each kind there are for the client with this window."""
        reply, rest = self._ask(struct.pack("<BBHI", self._opcode, QUERY_RESOURCES, 2, window & ~self.resource_mask))
        (count,) = struct.unpack_from("<I", reply, 8)
        return {self._name(atom): number for atom, number in struct.iter_unpack("<II", rest[:8 * count])}

    def pixmap_kb(self, window: int) -> int:
        """The memory of that client's pictures."""
        reply, _ = self._ask(struct.pack("<BBHI", self._opcode, QUERY_PIXMAP_BYTES, 2, window & ~self.resource_mask))
        low, high = struct.unpack_from("<II", reply, 8)
        return (high << 32 | low) // 1024

    def _name(self, atom: int) -> str:
        reply, rest = self._ask(struct.pack("<BxHI", GET_ATOM_NAME, 2, atom))
        (length,) = struct.unpack_from("<H", reply, 8)
        return rest[:length].decode()

    def _ask(self, request: bytes) -> tuple[bytes, bytes]:
        """The fixed part of the answer, and what else it tells."""
        self._socket.sendall(request)
        reply = self._receive(32)
        if reply[0] != 1:
            raise OSError(f"X error {reply[1]}")
        return reply, self._receive(4 * struct.unpack_from("<I", reply, 4)[0])


def _padded(text: bytes) -> bytes:
    return text.ljust((len(text) + 3) // 4 * 4, b"\0")
