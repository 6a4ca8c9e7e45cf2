"""A display at the other end of a wire, which shares no memory with the program: what is painted has to be sent."""

from __future__ import annotations

import socket
import threading
import time
from contextlib import ExitStack, closing, suppress
from pathlib import Path

from displays import XDisplay, wait_until
from fakemachine import Machine
from monitor import TIMEOUT, Monitor

CPUS, COLUMNS, WIDTH, HEIGHT = 64, 8, 472, 700
MACHINE = {"clusters": [{"cores": CPUS, "mhz": [800, 5000]}], "load": "waves"}
WINDOWS, SECONDS = 3, 2.0  # of which the first may see the start, which sends a whole picture
X_PORT = 6000  # of display 0
MOST_BYTES = 350_000  # a second; pictures of the cards come to 700,000 and more, what is painted piece by piece to a tenth
CHUNK = 1 << 16


class Wire:
    """Passes on what clients of a display of its own send to an X server, as a tunnel does, and counts it."""

    def __init__(self, server: int) -> None:
        self.sent = 0
        self._server = f"/tmp/.X11-unix/X{server}"
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._sockets: list[socket.socket] = [self._listener]
        port = self._listener.getsockname()[1]
        self.display = f"127.0.0.1:{port - X_PORT}"
        threading.Thread(target=self._accept, daemon=True).start()

    def close(self) -> None:
        for end in self._sockets:
            with suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)
            end.close()

    def _accept(self) -> None:
        with suppress(OSError):  # at the end the listener is closed
            while True:
                client, _ = self._listener.accept()
                server = socket.socket(socket.AF_UNIX)
                server.connect(self._server)
                self._sockets += [client, server]
                threading.Thread(target=self._pass_on, args=(client, server, True), daemon=True).start()
                threading.Thread(target=self._pass_on, args=(server, client, False), daemon=True).start()

    def _pass_on(self, source: socket.socket, target: socket.socket, is_counted: bool) -> None:
        with suppress(OSError):
            while data := source.recv(CHUNK):
                self.sent += len(data) if is_counted else 0
                target.sendall(data)
            target.shutdown(socket.SHUT_WR)


def rate(wire: Wire) -> float:
    before, begin = wire.sent, time.monotonic()
    time.sleep(SECONDS)
    return (wire.sent - before) / (time.monotonic() - begin)


def test_what_is_sent_is_little(program: Path, displays: ExitStack, machines: ExitStack, tmp_path: Path) -> None:
    x11 = displays.enter_context(XDisplay(1280, 1024, server_options=["-extension", "MIT-SHM"]))
    wire = displays.enter_context(closing(Wire(x11.number)))
    machine = machines.enter_context(Machine(MACHINE))
    home = tmp_path / "home"
    (home / ".config/Vantric").mkdir(parents=True)
    (home / ".config/Vantric/geometry.json").write_text(
        f'{{"x":10,"y":10,"width":{WIDTH},"height":{HEIGHT},"num_columns":{COLUMNS}}}\n')
    monitor = Monitor(program, x11, home, machine, env={"DISPLAY": wire.display}, accessible=False)
    try:
        window = x11.find_window("Vantric", timeout=TIMEOUT)
        wait_until(lambda: x11.geometry(window)[2:] == (WIDTH, HEIGHT), TIMEOUT, "the window's size")
        rates = [rate(wire) for _ in range(WINDOWS)]
        assert 0 < min(rates) < MOST_BYTES, f"bytes a second: {rates}"
    finally:
        monitor.kill()
