"""On every made-up machine the program starts, groups its CPUs rightly, and has nothing to say."""

from __future__ import annotations

from collections.abc import Callable
from contextlib import ExitStack
from typing import NamedTuple

import pytest

from displays import Display, SwayDisplay, XDisplay, wait_until
from fakemachine import Machine, preset, presets
from monitor import TIMEOUT, Content, Start

UNKNOWN = "Unknown CPU"


class Group(NamedTuple):
    """A section as it should be: its title without the count, its caption, and the numbers of its cores."""
    name: str
    caption: str | None
    cores: range


def one_group(count: int, caption: str | None) -> list[Group]:
    return [Group("CPU", caption, range(1, count + 1))]


EXPECTED: dict[str, tuple[str, list[Group]]] = {
    "arm-8": (UNKNOWN, [Group("Performance", "3.000 GHz", range(8, 9)), Group("Balanced", "2.400 GHz", range(5, 8)),
                        Group("Efficiency", "1.800 GHz", range(1, 5))]),
    "container-32": ("AMD 7553P 32-Core Processor", one_group(32, "3.550 GHz")),
    "container-5": ("AMD 7553P 32-Core Processor", one_group(5, "3.550 GHz")),
    "desktop-16": ("AMD 7 5750X 8-Core Processor", one_group(16, "4.700 GHz")),
    "empty": (UNKNOWN, []),
    "frequency-hybrid-12": ("AMD 5 8540U w/ Graphics", [Group("Performance", "5.000 GHz", range(1, 9)),
                                                       Group("Efficiency", "3.500 GHz", range(9, 13))]),
    "hybrid-20": ("Intei7-12720K", [Group("Performance", "5.000 GHz", range(1, 17)),
                                    Group("Efficiency", "3.800 GHz", range(17, 21))]),
    "laptop-acpitz": ("Intei5-4311U CPU @ 2.00GHz", one_group(4, "2.900 GHz")),
    "levels-5": (UNKNOWN, [Group("Cluster 1", "3.400 GHz", range(9, 11)), Group("Cluster 2", "2.500 GHz", range(7, 9)),
                           Group("Cluster 3", "1.800 GHz", range(5, 7)), Group("Cluster 4", "1.300 GHz", range(3, 5)),
                           Group("Cluster 5", "900 MHz", range(1, 3))]),
    "many-zones-8": ("Intei7-8575U CPU @ 1.80GHz", one_group(8, "4.000 GHz")),
    "offline-8": ("Intei7-9720K CPU @ 3.60GHz", one_group(8, "4.900 GHz")),
    "server-256": ("AMD 7773 64-Core Processor", one_group(256, "3.600 GHz")),
    "server-64": ("AMD 7553P 32-Core Processor", one_group(64, "3.600 GHz")),
    "vm-2": ("InteGold 6120 CPU @ 2.60GHz", one_group(2, None)),
}

# New machines, and those whose core types may name the groups
OTHERS = sorted(set(presets()) - {*EXPECTED, "server-1024"})


def assert_groups(content: Content, groups: list[Group]) -> None:
    assert content.titles == [(f"{group.name} ({len(group.cores)})", group.caption) for group in groups]
    for section, group in zip(content.sections, groups):
        assert [card.name for card in section.cards] == [f"Core {number}" for number in group.cores]


def test_groups_of_known_machines(x11: XDisplay, start: Start) -> None:
    running = {name: start(x11, preset(name)) for name in EXPECTED}
    for name, (cpu_name, groups) in EXPECTED.items():
        content = running[name].content()
        assert content.cpu_name == cpu_name, name
        assert_groups(content, groups)


@pytest.mark.parametrize("name", OTHERS)
def test_all_cpus_of_machine(name: str, x11: XDisplay, machines: ExitStack, start: Start) -> None:
    machine = machines.enter_context(Machine(preset(name)))
    content = start(x11, machine).content()
    count = len(list(machine.outside("/sys/devices/system/cpu").glob("cpu[0-9]*")))
    assert sorted(card.name for card in content.cards) == sorted(f"Core {n + 1}" for n in range(count))
    assert all(section.title.endswith(f" ({len(section.cards)})") for section in content.sections)


# --- rules that no preset shows ---

def clusters(*mhz: float | None) -> dict:
    """A machine with one CPU of each of these highest clocks."""
    return {"clusters": [{"cores": 1, "mhz": None if clock is None else [100, clock]} for clock in mhz]}


FREQUENCY_RULES = {
    "four levels": (clusters(1000, 4000, 2600, 1700), [
        ("Performance (1)", "4.000 GHz"), ("Balanced (H) (1)", "2.600 GHz"),
        ("Balanced (L) (1)", "1.700 GHz"), ("Efficiency (1)", "1.000 GHz")]),
    "within a fifth": (clusters(4200, 3500), [("CPU (2)", "4.200 GHz")]),
    "a fifth of the lower": (clusters(3500, 4200), [("Performance (2)", "4.200 GHz")]),
    "an emptied middle": (clusters(2500, 3050, 1000), [
        ("Performance (2)", "3.050 GHz"), ("Efficiency (1)", "1.000 GHz")]),
    "without a clock": (clusters(5000, 3800, None), [
        ("Performance (1)", "5.000 GHz"), ("Efficiency (2)", "3.800 GHz")]),
    "below a gigahertz": (clusters(999.9), [("CPU (1)", "1000 MHz")]),
    "a gigahertz": (clusters(1000), [("CPU (1)", "1.000 GHz")]),
}


def test_groups_by_frequency(x11: XDisplay, start: Start) -> None:
    running = {name: start(x11, machine) for name, (machine, _) in FREQUENCY_RULES.items()}
    found = {name: monitor.content().titles for name, monitor in running.items()}
    assert found == {name: titles for name, (_, titles) in FREQUENCY_RULES.items()}


CPU_NAMES = {
    "model name\t: Some Maker's Chip\n": "Some Maker's Chip",
    "model name\t: Intel(R) Xeon(R) Gold 6248 CPU\nmodel name\t: Other\n": "InteGold 6248 CPU",
    "model name\t: Intel(R) Pentium(R) Silver N6000\n": "IntePentium(R) Silver N6000",
    "model name\nmodel name\t: AMD EPYC 7763\n": "AMD 7763",
    "model name\t: Intel Core i3\n": "Intel Core i3",
    "model name\t:tight": "ight",
    "cpu model\t: MIPS\nHardware\t: Board\n": UNKNOWN,
    "": UNKNOWN,
}


def test_cpu_names(x11: XDisplay, machines: ExitStack, start: Start) -> None:
    running = {}
    for text in CPU_NAMES:
        machine = machines.enter_context(Machine(preset("vm-2")))
        machine.write("/proc/cpuinfo", text)
        running[text] = start(x11, machine)
    assert {text: monitor.content().cpu_name for text, monitor in running.items()} == CPU_NAMES


def test_cpu_files_that_cannot_be_read(x11: XDisplay, machines: ExitStack, start: Start) -> None:
    machine = machines.enter_context(Machine({**preset("vm-2"), "load": {"kind": "steady", "percent": 40}}))
    machine.make_failing("/proc/cpuinfo")
    machine.remove("/sys/devices/system/cpu")
    monitor = start(x11, machine)
    content = monitor.content()
    assert (content.cpu_name, content.sections) == (UNKNOWN, [])


def test_cpus_of_the_stat_file_and_of_the_cards_may_differ(x11: XDisplay, start: Start) -> None:
    steady = {"load": {"kind": "steady", "percent": [10, 20, 30, 40, 50]}}
    fewer_lines = start(x11, {**preset("container-32"), **steady})
    fewer_cards = start(x11, {**preset("container-5"), **steady})
    loads = ["10%", "20%", "30%", "40%", "50%"]
    fewer_lines.wait_for_percentages(fewer_lines.content().cards, loads + ["0%"] * 27, "5 lines, 32 cards")
    fewer_cards.wait_for_percentages(fewer_cards.content().cards, loads, "32 lines, 5 cards")


@pytest.mark.parametrize("kind", [XDisplay, SwayDisplay])
def test_thousand_cpus(kind: Callable[[], Display], displays: ExitStack, start: Start) -> None:
    percent = [10, 20, 30, 40, 50, 60, 70, 80]
    monitor = start(displays.enter_context(kind()),
                    {**preset("server-1024"), "load": {"kind": "steady", "percent": percent}})
    content = monitor.content()
    assert content.cpu_name == "IntePlatinum 8999 CPU"
    assert_groups(content, one_group(1024, "3.600 GHz"))
    labels = [card.percentage_label for card in content.cards]
    expected = [f"{percent[n % 8]}%" for n in range(1024)]
    wait_until(lambda: monitor.bus.names(labels) == expected, TIMEOUT, "the load of each CPU")
