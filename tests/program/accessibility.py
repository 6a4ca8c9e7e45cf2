"""What a program tells a screen reader, read over the accessibility bus of its display.

Asked in plain D-Bus calls, many at a time: the usual library knows only one bus for each process, and waits for
each answer by itself, which takes long with a thousand cards.
"""

from __future__ import annotations

from collections.abc import Callable, Iterator, Sequence
from dataclasses import dataclass, field
from typing import Any, NamedTuple, Self

from gi.repository import Gio, GLib

ACCESSIBLE, COMPONENT, TEXT = (f"org.a11y.atspi.{name}" for name in ("Accessible", "Component", "Text"))
WINDOW_COORDINATES = 1
AT_ONCE = 100  # calls; a bus refuses more than it wants to remember
CALL_TIMEOUT_MS = 20_000  # a program that draws a thousand cards answers late


class Rect(NamedTuple):
    """A part of a window, in the program's own pixels."""
    x: int
    y: int
    width: int
    height: int

    @property
    def right(self) -> int:
        return self.x + self.width

    @property
    def bottom(self) -> int:
        return self.y + self.height


class Address(NamedTuple):
    """Where an object of a program is reached."""
    owner: str
    path: str


@dataclass
class Node:
    """A widget, with what is in it."""
    address: Address
    role: str
    name: str  # of a label: its text
    rect: Rect
    children: list[Node] = field(default_factory=list)

    def walk(self) -> Iterator[Node]:
        """The node and all below it."""
        yield self
        for child in self.children:
            yield from child.walk()


class Call(NamedTuple):
    """A question to an object."""
    address: Address
    interface: str
    method: str
    arguments: GLib.Variant | None = None


class AccessibilityBus:
    """The accessibility bus of the session behind a session bus address; a context manager."""

    def __init__(self, session_address: str) -> None:
        session = _connect(session_address)
        try:
            launcher = Address("org.a11y.Bus", "/org/a11y/bus")
            (address,) = _call(session, Call(launcher, "org.a11y.Bus", "GetAddress"))
        finally:
            session.close_sync(None)
        self._bus = _connect(address)

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        self._bus.close_sync(None)

    def application(self, pid: int) -> Address | None:
        """The root object of the process, None as long as it has not come forward."""
        registry = Address("org.a11y.atspi.Registry", "/org/a11y/atspi/accessible/root")
        bus = Address("org.freedesktop.DBus", "/org/freedesktop/DBus")
        (children,) = _call(self._bus, Call(registry, ACCESSIBLE, "GetChildren"))
        for owner, path in children:
            question = Call(bus, "org.freedesktop.DBus", "GetConnectionUnixProcessID", GLib.Variant("(s)", (owner,)))
            if _call(self._bus, question) == (pid,):
                return Address(owner, path)
        return None

    def tree(self, root: Address) -> Node:
        """The object and all below it, as they are now."""
        (top,) = self._look([root])
        generation = [top]
        while generation:
            families = self._ask([Call(node.address, ACCESSIBLE, "GetChildren") for node in generation])
            addresses = [[Address(*one) for one in children] for (children,) in families]
            found = iter(self._look([one for children in addresses for one in children]))
            for node, children in zip(generation, addresses):
                node.children = [next(found) for _ in children]
            generation = [child for node in generation for child in node.children]
        return top

    def names(self, addresses: Sequence[Address]) -> list[str]:
        """The names of these objects; a label's is its text."""
        name = GLib.Variant("(ss)", (ACCESSIBLE, "Name"))
        return [text for (text,) in self._ask([
            Call(address, "org.freedesktop.DBus.Properties", "Get", name) for address in addresses])]

    def text_color(self, label: Address) -> tuple[int, int, int] | None:
        """Red, green and blue (0..255) of the label's first character, if it has a colour of its own."""
        attributes, _, _ = _call(self._bus, Call(label, TEXT, "GetAttributes", GLib.Variant("(i)", (0,))))
        if "fg-color" not in attributes:
            return None
        red, green, blue = (int(part) >> 8 for part in attributes["fg-color"].split(","))  # 16 bits each
        return red, green, blue

    def _look(self, addresses: Sequence[Address]) -> list[Node]:
        names = self.names(addresses)
        roles = self._ask([Call(address, ACCESSIBLE, "GetRoleName") for address in addresses])
        whole = GLib.Variant("(u)", (WINDOW_COORDINATES,))
        # The application itself stands nowhere; it has no parent to be asked from.
        rects = [Rect(0, 0, 0, 0)] * len(addresses) if roles and roles[0] == ("application",) else [
            Rect(*place) for (place,) in self._ask(
                [Call(address, COMPONENT, "GetExtents", whole) for address in addresses])]
        return [Node(address, role, name, rect)
                for address, (role,), name, rect in zip(addresses, roles, names, rects)]

    def _ask(self, calls: Sequence[Call]) -> list[tuple[Any, ...]]:
        answers: list[tuple[Any, ...]] = []
        for first in range(0, len(calls), AT_ONCE):
            answers += self._ask_together(calls[first:first + AT_ONCE])
        return answers

    def _ask_together(self, calls: Sequence[Call]) -> list[tuple[Any, ...]]:
        context = GLib.MainContext.new()
        context.push_thread_default()
        try:
            results: dict[int, Gio.AsyncResult] = {}
            for number, call in enumerate(calls):
                self._bus.call(*call.address, call.interface, call.method, call.arguments, None,
                               Gio.DBusCallFlags.NONE, CALL_TIMEOUT_MS, None, _collector(results, number))
            while len(results) < len(calls):
                context.iteration(True)
        finally:
            context.pop_thread_default()
        return [self._bus.call_finish(results[number]).unpack() for number in range(len(calls))]


def _collector(results: dict[int, Gio.AsyncResult], number: int) -> Callable[..., None]:
    return lambda _, result: results.__setitem__(number, result)


def _connect(address: str) -> Gio.DBusConnection:
    flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
    return Gio.DBusConnection.new_for_address_sync(address, flags, None, None)


def _call(bus: Gio.DBusConnection, call: Call) -> tuple[Any, ...]:
    return bus.call_sync(*call.address, call.interface, call.method, call.arguments, None,
                         Gio.DBusCallFlags.NONE, CALL_TIMEOUT_MS, None).unpack()
