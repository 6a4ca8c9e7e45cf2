"""The part of a desktop portal that tells the colour scheme: a service on a session bus, with a thread of its own."""

from __future__ import annotations

import threading
from collections.abc import Callable
from pathlib import Path
from typing import Any, Self

from gi.repository import Gio, GLib

from displays import TIMEOUT, Process, XDisplay, wait_until

BUS = "org.freedesktop.DBus"
NAME, PATH = "org.freedesktop.portal.Desktop", "/org/freedesktop/portal/desktop"
INTERFACE, SIGNAL = "org.freedesktop.portal.Settings", "SettingChanged"
COLOR_SCHEME = ("org.freedesktop.appearance", "color-scheme")
NO_PREFERENCE, DARK, LIGHT = range(3)

TIMEOUT_MS = int(TIMEOUT * 1000)

_DESCRIPTION = Gio.DBusNodeInfo.new_for_xml(f"""
<node>
  <interface name="{INTERFACE}">
    <method name="Read">
      <arg type="s" direction="in"/>
      <arg type="s" direction="in"/>
      <arg type="v" direction="out"/>
    </method>
  </interface>
</node>""").interfaces[0]

# What the portal does with a question
Answer = Callable[[Gio.DBusMethodInvocation], None]


def value(content: GLib.Variant, depth: int = 2) -> Answer:
    """The value, wrapped so many times; real portals do it twice."""
    for _ in range(depth):
        content = GLib.Variant("v", content)
    return lambda question: question.return_value(GLib.Variant.new_tuple(content))


def scheme(number: int, depth: int = 2) -> Answer:
    return value(GLib.Variant("u", number), depth)


def refusal(question: Gio.DBusMethodInvocation) -> None:
    question.return_dbus_error("org.freedesktop.portal.Error.NotFound", "Requested setting not found")


def bare(content: GLib.Variant) -> Answer:
    """A reply of another type than the interface has."""
    def answer(question: Gio.DBusMethodInvocation) -> None:
        reply = Gio.DBusMessage.new_method_reply(question.get_message())
        reply.set_body(content)
        question.get_connection().send_message(reply, Gio.DBusSendMessageFlags.NONE)
    return answer


class Late:
    """Keeps each question until `give`, and answers it then."""

    def __init__(self, then: Answer) -> None:
        self._then = then
        self._kept: list[Gio.DBusMethodInvocation] = []

    def __call__(self, question: Gio.DBusMethodInvocation) -> None:
        self._kept.append(question)

    def give(self) -> None:
        while self._kept:
            self._then(self._kept.pop(0))


def connect(address: str) -> Gio.DBusConnection:
    flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
    return Gio.DBusConnection.new_for_address_sync(address, flags, None, None)


def ask(connection: Gio.DBusConnection, method: str, *arguments: GLib.Variant, owner: str = BUS,
        interface: str = BUS) -> tuple[Any, ...]:
    """Calls a method, of the bus itself unless another owner is named."""
    return connection.call_sync(owner, "/org/freedesktop/DBus", interface, method, GLib.Variant.new_tuple(*arguments), None,
                                Gio.DBusCallFlags.NONE, TIMEOUT_MS, None).unpack()


def wait_for_reader(connection: Gio.DBusConnection, pid: int) -> None:
    """Waits until the process has taken from the bus all that was sent to it, and the bus what it has sent."""
    (names,) = ask(connection, "ListNames")
    for name in names:
        if name.startswith(":") and ask(connection, "GetConnectionUnixProcessID", GLib.Variant("s", name)) == (pid,):
            ask(connection, "Ping", owner=name, interface="org.freedesktop.DBus.Peer")


def emit(connection: Gio.DBusConnection, setting: tuple[str, str] = COLOR_SCHEME, content: GLib.Variant | None = None, *,
         path: str = PATH, interface: str = INTERFACE, signal: str = SIGNAL, parameters: GLib.Variant | None = None) -> None:
    """Sends a signal like the portal's, and waits until the bus has passed it on."""
    if parameters is None:
        parameters = GLib.Variant("(ssv)", (*setting, content or GLib.Variant("u", NO_PREFERENCE)))
    connection.emit_signal(None, path, interface, signal, parameters)
    ask(connection, "GetId")


class MockPortal:
    """The portal on a session bus, as long as the context lasts. `answer` is what it says to the next question."""

    def __init__(self, address: str, answer: Answer) -> None:
        self.answer = answer
        self.questions: list[tuple[str, str]] = []  #: all that was asked, oldest first
        self._address = address

    def __enter__(self) -> Self:
        self.connection = connect(self._address)
        self._context = GLib.MainContext.new()
        self._loop = GLib.MainLoop.new(self._context, False)
        self._is_ready = threading.Event()
        self._thread = threading.Thread(target=self._serve, name="portal")
        self._thread.start()
        assert self._is_ready.wait(TIMEOUT)
        (reply,) = ask(self.connection, "RequestName", GLib.Variant("s", NAME), GLib.Variant("u", 0))
        assert reply == 1, "another portal owns the name"
        return self

    def __exit__(self, *_: object) -> None:
        self._loop.quit()
        self._thread.join(TIMEOUT)
        if not self.connection.is_closed():
            self.connection.close_sync(None)

    def _serve(self) -> None:
        self._context.push_thread_default()
        self.connection.register_object(PATH, _DESCRIPTION, self._on_question, None, None)
        self._is_ready.set()
        self._loop.run()
        self._context.pop_thread_default()

    def _on_question(self, _connection: Gio.DBusConnection, _sender: str, _path: str, _interface: str, _method: str,
                     parameters: GLib.Variant, question: Gio.DBusMethodInvocation) -> None:
        self.questions.append(parameters.unpack())
        self.answer(question)

    def change(self, answer: Answer, carried: GLib.Variant | None = None) -> None:
        """A new scheme, and the signal that says so; what the signal carries is another matter."""
        self.answer = answer
        emit(self.connection, COLOR_SCHEME, carried)

    def wait_for_questions(self, number: int, timeout: float = TIMEOUT) -> None:
        """Waits until so many questions in all have come."""
        wait_until(lambda: len(self.questions) >= number, timeout, f"question {number}")


class PrivateBus:
    """A session bus on a display beside the usual one; it can be ended."""

    def __init__(self, display: XDisplay, folder: Path) -> None:
        config = folder / "bus.conf"
        config.write_text(f"""\
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:dir={folder}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default"><allow send_destination="*"/><allow receive_sender="*"/><allow own="*"/></policy>
</busconfig>
""")
        self._process: Process = display.spawn(["dbus-daemon", "--nofork", "--nopidfile", "--nosyslog", f"--config-file={config}",
                                                "--print-address=1"])
        self.address = wait_until(lambda: self._process.stdout().partition("\n")[0] if "\n" in self._process.stdout() else "",
                                  TIMEOUT, "the bus")

    def end(self) -> None:
        self._process.end()
