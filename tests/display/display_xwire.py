"""The X protocol by hand, as far as the test displays need it.

Three things can't be left to the usual command line tools: waiting for the window manager without
starting a process per look, asking a window to close where no window manager passes that on, and
keeping the connections of programs that have ended from being used again.
"""

from __future__ import annotations

import itertools
import select
import socket
import struct
import threading
import time
from collections.abc import Callable
from contextlib import suppress

# Numbers of the core protocol: requests, events, event masks, attributes.
CREATE_WINDOW, DESTROY_WINDOW, MAP_WINDOW = 1, 4, 8
CHANGE_WINDOW_ATTRIBUTES, GET_WINDOW_ATTRIBUTES, INTERN_ATOM, GET_PROPERTY, SEND_EVENT = 2, 3, 16, 20, 25
GET_INPUT_FOCUS = 43
CREATE_NOTIFY, DESTROY_NOTIFY, MAP_NOTIFY, CLIENT_MESSAGE = 16, 17, 19, 33
STRUCTURE_NOTIFY_MASK, SUBSTRUCTURE_NOTIFY_MASK = 1 << 17, 1 << 19
SUBSTRUCTURE_REDIRECT_MASK = 1 << 20
PROPERTY_CHANGE_MASK = 1 << 22
EVENT_MASK_ATTRIBUTE = 1 << 11
ERROR, REPLY = 0, 1

HOPE_INTERVAL = 0.1  # seconds between two questions whether waiting still makes sense
FIRST_PATIENCE = 0.05  # seconds for a window manager to map a window; longer with each further one
TRIAL_SIZE = 100  # pixels; of the window by which it is tried


class XWire:
    """One bare connection to the X server of the given display number."""

    def __init__(self, number: int) -> None:
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.connect(f"/tmp/.X11-unix/X{number}")
        self._socket.sendall(struct.pack("<BxHHHHxx", ord("l"), 11, 0, 0, 0))
        accepted, length = struct.unpack("<Bx4xH", self._receive(8))
        setup = self._receive(4 * length)
        if accepted != 1:
            raise ConnectionRefusedError(setup.decode(errors="replace"))
        #: First resource id of this connection, and the bits that number a connection's resources.
        self.base, self.resource_mask = struct.unpack_from("<II", setup, 4)
        vendor_length, formats = struct.unpack_from("<H3xB", setup, 16)
        first_screen = 32 + (vendor_length + 3) // 4 * 4 + 8 * formats
        (self.root,) = struct.unpack_from("<I", setup, first_screen)

    def close(self) -> None:
        self._socket.close()

    def shut_down(self) -> None:
        """Ends the connection under a thread that waits in `next_event`."""
        self._socket.shutdown(socket.SHUT_RDWR)

    def select_events(self, window: int, mask: int) -> None:
        self._socket.sendall(struct.pack("<BxHIII", CHANGE_WINDOW_ATTRIBUTES, 4, window,
                                         EVENT_MASK_ATTRIBUTE, mask))

    def atom(self, name: str) -> int:
        """The number of this name."""
        text = name.encode()
        padded = text.ljust((len(text) + 3) // 4 * 4, b"\0")
        self._socket.sendall(struct.pack("<BxHHxx", INTERN_ATOM, 2 + len(padded) // 4, len(text))
                             + padded)
        return self._number_in_reply()

    def has_property(self, window: int, atom: int) -> bool:
        self._socket.sendall(struct.pack("<BxHIIIII", GET_PROPERTY, 6, window, atom, 0, 0, 0))
        return self._number_in_reply() != 0  # its type

    def is_redirected(self) -> bool:
        """Whether somebody has a say in where windows stand."""
        self._socket.sendall(struct.pack("<BxHI", GET_WINDOW_ATTRIBUTES, 2, self.root))
        _, rest = self._reply()
        (masks,) = struct.unpack_from("<I", rest)
        return bool(masks & SUBSTRUCTURE_REDIRECT_MASK)

    def map_window(self, window: int) -> None:
        """Creates a window of that number, one of this connection's, and asks to have it mapped. Its changes are events from then on."""
        self._socket.sendall(struct.pack("<BxHIIhhHHHHIII", CREATE_WINDOW, 9, window, self.root, 0, 0, TRIAL_SIZE, TRIAL_SIZE, 0, 0, 0,
                                         EVENT_MASK_ATTRIBUTE, STRUCTURE_NOTIFY_MASK))
        self._socket.sendall(struct.pack("<BxHI", MAP_WINDOW, 2, window))

    def destroy_window(self, window: int) -> None:
        self._socket.sendall(struct.pack("<BxHI", DESTROY_WINDOW, 2, window))

    def send_delete(self, window: int) -> None:
        """What a window manager sends when its close button is pressed."""
        message = struct.pack("<BBHIIII12x", CLIENT_MESSAGE, 32, 0, window,
                              self.atom("WM_PROTOCOLS"), self.atom("WM_DELETE_WINDOW"), 0)
        self._socket.sendall(struct.pack("<BxHII", SEND_EVENT, 11, window, 0) + message)
        self.atom("WM_PROTOCOLS")  # its answer shows that the server has passed the message on

    def ask_for_sign(self) -> None:
        """Asks for a reply that comes once the server has got here; what it says doesn't matter."""
        self._socket.sendall(struct.pack("<BxH", GET_INPUT_FOCUS, 1))

    def wait_for_message(self, timeout: float) -> bool:
        """Waits until something can be read; False after the timeout."""
        return bool(select.select([self._socket], [], [], timeout)[0])

    def next_message(self) -> bytes:
        """The next event, error or sign (32 bytes); empty once the connection has ended."""
        try:
            return self._receive(32)
        except OSError:
            return b""

    def _number_in_reply(self) -> int:
        """First number in the answer to the request just sent."""
        fixed, _ = self._reply()
        return int(struct.unpack_from("<I", fixed, 8)[0])

    def _reply(self) -> tuple[bytes, bytes]:
        """The answer to the request just sent, its fixed part and the rest; events before it are dropped."""
        while (message := self._receive(32))[0] != REPLY:
            if message[0] == ERROR:
                raise OSError(f"X error {message[1]}")
        (length,) = struct.unpack_from("<I", message, 4)
        return message, self._receive(4 * length)

    def _receive(self, count: int) -> bytes:
        data = b""
        while len(data) < count:
            more = self._socket.recv(count - len(data))
            if not more:
                raise ConnectionResetError("the X server has closed the connection")
            data += more
        return data


def wait_for_window_manager(number: int, is_modern: bool, timeout: float,
                            hope: Callable[[], bool]) -> bool:
    """Waits until somebody manages the windows; False after the timeout or without hope.

    A modern window manager says on the root window when it is ready. An old one takes the
    decision about windows to itself, and that is all. Neither says that it manages what comes now.
    """
    wire = XWire(number)
    try:
        wire.select_events(wire.root, PROPERTY_CHANGE_MASK)  # before the first look: no gap
        atom = wire.atom("_NET_SUPPORTING_WM_CHECK")
        deadline = time.monotonic() + timeout
        while not (wire.has_property(wire.root, atom) if is_modern else wire.is_redirected()):
            if wire.wait_for_message(HOPE_INTERVAL):
                wire.next_message()
            elif not hope() or time.monotonic() >= deadline:
                return False
        return True
    finally:
        wire.close()


def wait_for_managed_window(number: int, timeout: float, hope: Callable[[], bool]) -> XWire | None:
    """Waits until the window manager shows a window; None after the timeout or without hope.

    One that comes between a manager's word that it is ready and its first look at events may never
    be shown (seen with openbox on a busy machine). So windows of ours are tried, one after another.
    The connection is to be kept as long as the display: a program in its slot would give a window
    the number of one that the manager may still be forgetting.
    """
    wire = XWire(number)
    deadline = time.monotonic() + timeout
    patience = FIRST_PATIENCE
    for window in itertools.count(wire.base):
        wire.map_window(window)
        is_shown = _is_shown(wire, window, time.monotonic() + patience, hope)
        wire.destroy_window(window)
        if is_shown:
            return wire
        if not hope() or time.monotonic() >= deadline:
            break
        patience *= 2
    wire.close()
    return None


def _is_shown(wire: XWire, window: int, end: float, hope: Callable[[], bool]) -> bool:
    """Waits until that window of the connection has been mapped."""
    while time.monotonic() < end and hope():
        if wire.wait_for_message(HOPE_INTERVAL):
            message = wire.next_message()
            if message[:1] == bytes([MAP_NOTIFY]) and struct.unpack_from("<I", message, 8) == (window,):
                return True
    return False


class SlotKeeper(threading.Thread):
    """Takes over the connection slots of programs that have ended.

    The server gives a new connection the lowest free slot, and the slot decides the window
    numbers. A program started right after another one ended would get the dead one's numbers, and
    a window manager (seen with openbox) that still works through the old windows' end would take
    it for the new window's. So as soon as a window vanishes, this thread tries to occupy the slot
    it came from. If its program still lives, the slot isn't free and nothing happens.

    A program that a test program restarts by itself is protected as far as this thread is quicker
    than a program's start; for one that the display starts, `catch_up` makes sure of it.
    """

    def __init__(self, number: int) -> None:
        super().__init__(daemon=True)
        self._number = number
        self._held: dict[int, XWire] = {}  # by resource base
        self._signs = threading.Semaphore(0)  # one for each sign that the thread has met
        self._wire = XWire(number)
        self._wire.select_events(self._wire.root, SUBSTRUCTURE_NOTIFY_MASK)

    def run(self) -> None:
        try:
            self._follow_windows()
        except OSError:
            pass  # the server has ended before us: nothing is left to protect

    def _follow_windows(self) -> None:
        while message := self._wire.next_message():
            first, second = struct.unpack_from("<II", message, 4)
            code = message[0] & 0x7F  # the upper bit marks events that a client has sent
            if code == REPLY:
                self._signs.release()
            elif code == CREATE_NOTIFY:
                # Reparenting takes a window out of the root's sight; its own news still come.
                self._wire.select_events(second, STRUCTURE_NOTIFY_MASK)
            elif code == DESTROY_NOTIFY and first == second:
                self._hold(second & ~self._wire.resource_mask)

    def catch_up(self, timeout: float) -> None:
        """Waits until the slots of all programs that have ended by now are occupied.

        The first sign can overtake the news that a connection has ended, if the server finds both
        in the same look at its sockets; the second one can't.
        """
        for _ in range(2):
            self._wire.ask_for_sign()
            self._signs.acquire(timeout=timeout)

    def stop(self) -> None:
        with suppress(OSError):  # the server has ended before us
            self._wire.shut_down()
        self.join()
        for wire in (self._wire, *self._held.values()):
            wire.close()

    def _hold(self, base: int) -> None:
        """Occupies the slot with this resource base, if it is free."""
        passed: list[XWire] = []
        while base not in self._held:
            wire = XWire(self._number)
            if wire.base == base:
                self._held[base] = wire
                break
            passed.append(wire)  # kept open for the moment, or we would get it again
            if wire.base > base:
                break
        for wire in passed:
            wire.close()
