"""What a program tells a screen reader, read over the accessibility bus of its display, and what a screen reader can do there.

Asked in plain D-Bus calls, many at a time: the usual library knows only one bus for each process, and waits for
each answer by itself, which takes long with a thousand cards.
"""

from __future__ import annotations

import enum
import os
import signal
from collections.abc import Callable, Collection, Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass, field
from typing import Any, NamedTuple, Self

from gi.repository import Gio, GLib

from displays import TIMEOUT

ACCESSIBLE, ACTION, COMPONENT, SELECTION, TEXT = (
    f"org.a11y.atspi.{name}" for name in ("Accessible", "Action", "Component", "Selection", "Text"))
SCREEN_COORDINATES, WINDOW_COORDINATES = 0, 1
AT_ONCE = 100  # calls; a bus refuses more than it wants to remember
CALL_TIMEOUT_MS = int(TIMEOUT * 1000)  # a program that draws a thousand cards answers late


class State(enum.IntEnum):
    """What can be true of an object, by its number in the set that it gives."""
    ENABLED = 8
    EXPANDED = 10
    FOCUSED = 12
    SHOWING = 25


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


class Relation(enum.IntEnum):
    """How objects belong together, by its number on the bus."""
    LABEL_FOR = 1
    LABELLED_BY = 2


class PropertyChange(NamedTuple):
    """The news that an object has another name or description."""
    address: Address
    text: str


class Call(NamedTuple):
    """A question to an object."""
    address: Address
    interface: str
    method: str
    arguments: GLib.Variant | None = None


THE_BUS_ITSELF = Call(Address("org.freedesktop.DBus", "/org/freedesktop/DBus"), "org.freedesktop.DBus", "GetId")


class Gone(LookupError):
    """The widget that is to do something has been destroyed meanwhile, or can't be used."""


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
        self._roles: dict[Address, str] = {}  # of all objects seen so far: an object keeps its own

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        if not self._bus.is_closed():  # it may have ended
            self._bus.close_sync(None)

    def application(self, pid: int) -> Address | None:
        """The root object of the process, None as long as it has not come forward."""
        registry = Address("org.a11y.atspi.Registry", "/org/a11y/atspi/accessible/root")
        bus = Address("org.freedesktop.DBus", "/org/freedesktop/DBus")
        (children,) = _call(self._bus, Call(registry, ACCESSIBLE, "GetChildren"))
        for owner, path in children:
            question = Call(bus, "org.freedesktop.DBus", "GetConnectionUnixProcessID", GLib.Variant("(s)", (owner,)))
            try:
                if _call(self._bus, question) == (pid,):
                    return Address(owner, path)
            except GLib.Error as error:
                if Gio.DBusError.get_remote_error(error) != "org.freedesktop.DBus.Error.NameHasNoOwner":
                    raise
                # Another program's, which has just ended
        return None

    def tree(self, root: Address, closed: Collection[str] = ()) -> Node:
        """The object and all below it, as they are now. What is inside objects of the closed roles is left out."""
        (top,) = self._look([root])
        generation = [top]
        while generation:
            addresses = self._children_of([node.address for node in generation])
            found = iter(self._look([one for children in addresses for one in children]))
            for node, children in zip(generation, addresses):
                node.children = [next(found) for _ in children]
            generation = [child for node in generation for child in node.children if child.role not in closed]
        return top

    def has(self, root: Address, role: str) -> bool:
        """Whether the object is, or has anywhere below it, one of that role."""
        generation = [root]
        while generation and role not in self._roles_of(generation):
            generation = [child for children in self._children_of(generation) for child in children]
        return bool(generation)

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

    def children(self, parent: Address) -> list[Address]:
        (children,) = _call(self._bus, Call(parent, ACCESSIBLE, "GetChildren"))
        return [Address(*one) for one in children]

    def descriptions(self, addresses: Sequence[Address]) -> list[str]:
        """What is said of these objects beyond their names; of a widget without more words: its tooltip."""
        description = GLib.Variant("(ss)", (ACCESSIBLE, "Description"))
        return [text for (text,) in self._ask([
            Call(address, "org.freedesktop.DBus.Properties", "Get", description) for address in addresses])]

    def related(self, addresses: Sequence[Address], relation: Relation) -> list[list[Address]]:
        """To which objects each of these has that relation."""
        sets = self._ask([Call(address, ACCESSIBLE, "GetRelationSet") for address in addresses])
        return [[Address(*one) for number, targets in relations if number == relation for one in targets] for (relations,) in sets]

    def texts(self, labels: Sequence[Address]) -> list[str]:
        """What labels show; the name of some is another."""
        whole = GLib.Variant("(ii)", (0, -1))
        return [text for (text,) in self._ask([Call(label, TEXT, "GetText", whole) for label in labels])]

    def have_state(self, addresses: Sequence[Address], state: State) -> list[bool]:
        """Of which objects this is true."""
        sets = self._ask([Call(address, ACCESSIBLE, "GetState") for address in addresses])
        return [_has(states, state) for (states,) in sets]

    def selected(self, containers: Sequence[Address]) -> list[int]:
        """Of each its selected child, counted from 0, such as the item that a combo box shows."""
        first = GLib.Variant("(i)", (0,))
        items = self._ask([Call(container, SELECTION, "GetSelectedChild", first) for container in containers])
        return [number for (number,) in self._ask([
            Call(Address(*item), ACCESSIBLE, "GetIndexInParent") for (item,) in items])]

    def place(self, widget: Address) -> Rect:
        """Where it stands in its window."""
        (place,) = _call(self._bus, Call(widget, COMPONENT, "GetExtents", GLib.Variant("(u)", (WINDOW_COORDINATES,))))
        return Rect(*place)

    def place_on_screen(self, widget: Address) -> Rect:
        """Where it stands on the screen, on displays where a program knows that."""
        (place,) = _call(self._bus, Call(widget, COMPONENT, "GetExtents", GLib.Variant("(u)", (SCREEN_COORDINATES,))))
        return Rect(*place)

    # --- doing ---

    def act(self, target: Address) -> None:
        """Does what the object is there for: presses a button, opens an expander, chooses an item. Raises Gone."""
        self._do(Call(target, ACTION, "DoAction", GLib.Variant("(i)", (0,))))

    def select_each(self, container: Address, numbers: Sequence[int], program: int) -> None:
        """Chooses one item after the other. The program, of that process id, stands still meanwhile, so it finds all of it waiting."""
        def let_it_go_on() -> None:
            _call(self._bus, THE_BUS_ITSELF)  # which answers when it has handed on what came before
            os.kill(program, signal.SIGCONT)
        os.kill(program, signal.SIGSTOP)
        assert all(done for (done,) in self._ask_together([
            Call(container, SELECTION, "SelectChild", GLib.Variant("(i)", (number,))) for number in numbers], let_it_go_on))

    def select(self, container: Address, number: int) -> None:
        """Chooses an item, counted from 0. What the program does at once upon that is done when this returns. Raises Gone."""
        self._do(Call(container, SELECTION, "SelectChild", GLib.Variant("(i)", (number,))))

    def _do(self, call: Call) -> None:
        """Looks in the same breath whether it can be used: a button that has been destroyed answers for a while yet that it has been pressed."""
        (state,), (done,) = self._ask([Call(call.address, ACCESSIBLE, "GetState"), call])
        if not _has(state, State.ENABLED):
            raise Gone(call)
        assert done, call

    # --- listening ---

    @contextmanager
    def changes(self, what: str = "name") -> Iterator[Callable[[], list[PropertyChange]]]:
        """Listens as a screen reader does; what is handed out gives all changes of names, or of descriptions, since then."""
        registry, detail = Address("org.a11y.atspi.Registry", "/org/a11y/atspi/registry"), f"accessible-{what}"
        heard: list[PropertyChange] = []

        def on_change(_: Gio.DBusConnection, owner: str, path: str, _interface: str, _member: str, news: GLib.Variant) -> None:
            heard.append(PropertyChange(Address(owner, path), news.unpack()[3]))

        def all_heard() -> list[PropertyChange]:
            while context.iteration(False):
                pass
            return heard
        context = GLib.MainContext.new()
        context.push_thread_default()
        try:
            subscription = self._bus.signal_subscribe(None, "org.a11y.atspi.Event.Object", "PropertyChange", None,
                                                      detail, Gio.DBusSignalFlags.NONE, on_change)
        finally:
            context.pop_thread_default()
        name = f"object:property-change:{detail}"
        event = GLib.Variant("(sass)", (name, [], ""))
        _call(self._bus, Call(registry, "org.a11y.atspi.Registry", "RegisterEvent", event))
        try:
            yield all_heard
        finally:
            self._bus.signal_unsubscribe(subscription)
            _call(self._bus, Call(registry, "org.a11y.atspi.Registry", "DeregisterEvent", GLib.Variant("(s)", (name,))))

    # --- asking ---

    def _look(self, addresses: Sequence[Address]) -> list[Node]:
        roles = self._roles_of(addresses)
        name, whole = GLib.Variant("(ss)", (ACCESSIBLE, "Name")), GLib.Variant("(u)", (WINDOW_COORDINATES,))
        # The application itself stands nowhere; it has no parent to be asked from.
        placed = addresses if roles != ["application"] else []
        answers = self._ask([Call(address, "org.freedesktop.DBus.Properties", "Get", name) for address in addresses]
                            + [Call(address, COMPONENT, "GetExtents", whole) for address in placed])
        names = [text for (text,) in answers[:len(addresses)]]
        rects = [Rect(*place) for (place,) in answers[len(addresses):]] or [Rect(0, 0, 0, 0)]
        return [Node(*one) for one in zip(addresses, roles, names, rects)]

    def _roles_of(self, addresses: Sequence[Address]) -> list[str]:
        new = [address for address in addresses if address not in self._roles]
        answers = self._ask([Call(address, ACCESSIBLE, "GetRoleName") for address in new])
        self._roles.update(zip(new, (role for (role,) in answers)))
        return [self._roles[address] for address in addresses]

    def _children_of(self, generation: Sequence[Address]) -> list[list[Address]]:
        families = self._ask([Call(address, ACCESSIBLE, "GetChildren") for address in generation])
        return [[Address(*one) for one in children] for (children,) in families]

    def _ask(self, calls: Sequence[Call]) -> list[tuple[Any, ...]]:
        answers: list[tuple[Any, ...]] = []
        for first in range(0, len(calls), AT_ONCE):
            answers += self._ask_together(calls[first:first + AT_ONCE])
        return answers

    def _ask_together(self, calls: Sequence[Call], when_sent: Callable[[], None] = lambda: None) -> list[tuple[Any, ...]]:
        context = GLib.MainContext.new()
        context.push_thread_default()
        try:
            results: dict[int, Gio.AsyncResult] = {}
            for number, call in enumerate(calls):
                self._bus.call(*call.address, call.interface, call.method, call.arguments, None,
                               Gio.DBusCallFlags.NONE, CALL_TIMEOUT_MS, None, _collector(results, number))
            when_sent()
            while len(results) < len(calls):
                context.iteration(True)
        finally:
            context.pop_thread_default()
        return [self._bus.call_finish(results[number]).unpack() for number in range(len(calls))]


def _has(states: tuple[int, int], state: State) -> bool:
    low, high = states
    return bool((low | high << 32) >> state & 1)


def _collector(results: dict[int, Gio.AsyncResult], number: int) -> Callable[..., None]:
    return lambda _, result: results.__setitem__(number, result)


def _connect(address: str) -> Gio.DBusConnection:
    flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
    return Gio.DBusConnection.new_for_address_sync(address, flags, None, None)


def _call(bus: Gio.DBusConnection, call: Call) -> tuple[Any, ...]:
    return bus.call_sync(*call.address, call.interface, call.method, call.arguments, None,
                         Gio.DBusCallFlags.NONE, CALL_TIMEOUT_MS, None).unpack()
