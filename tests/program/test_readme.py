"""What the README says of the running program, and the commands in the documents that are quickly run."""

from __future__ import annotations

import re
import shlex
import subprocess
from contextlib import ExitStack
from pathlib import Path

import pytest

from displays import XDisplay
from fakemachine import Machine, preset
from monitor import Start

ROOT = Path(__file__).resolve().parents[2]
README = " ".join((ROOT / "README.md").read_text().split())

#: What the documents' commands stand for, beside those that build, install or open something
QUICK_COMMANDS = ["make help", "tests/machine/fake-machine list", "tests/machine/fake-machine run server-256 cat /proc/stat"]


def test_names_of_cpus_are_shortened_as_the_readme_says(x11: XDisplay, machines: ExitStack, start: Start) -> None:
    told = dict(re.findall(r'"([^"]+)" becomes "([^"]+)"', README))
    assert len(told) == 2
    whole = re.search(r'Names that begin otherwise, such as "([^"]+) …", stay whole', README)
    assert whole
    assert any(f'"model": "{name}"' in (ROOT / "tools/screenshots").read_text() for name in told), "the pictures show no such name"
    told[whole[1]] = whole[1]
    running = {}
    for name in told:
        machine = machines.enter_context(Machine(preset("vm-2")))
        machine.write("/proc/cpuinfo", f"model name\t: {name}\n")
        running[name] = start(x11, machine)
    assert {name: monitor.content().cpu_name for name, monitor in running.items()} == told


#: What the kernel says of four kinds of machine, and the sentence about their sections
KINDS = {
    "Performance and Efficiency where there are two kinds": [(4800, "intel_core"), (3600, "intel_atom")],
    "one section called CPU where all cores are alike": [(4800, None)],
    "Three kinds that the machine names itself are called Cluster 1, 2 and 3":
        [(4800, "intel_core"), (3600, "intel_atom"), (2500, "intel_lowpower")],
    "three are Performance, Balanced and Efficiency": [(4800, None), (3600, None), (2500, None)],
}


def test_sections_have_the_names_that_the_readme_says(x11: XDisplay, start: Start) -> None:
    shown = {}
    for sentence, kinds in KINDS.items():
        assert sentence in README
        clusters = [{"cores": 2, "mhz": [800, mhz], **({"type": kind} if kind else {})} for mhz, kind in kinds]
        shown[sentence] = start(x11, {**preset("vm-2"), "clusters": clusters})
    names = [[title.split(" (")[0] for title, _ in monitor.content().titles] for monitor in shown.values()]
    assert names == [["Performance", "Efficiency"], ["CPU"], ["Cluster 1", "Cluster 2", "Cluster 3"],
                     ["Performance", "Balanced", "Efficiency"]]


def test_text_keeps_its_size_whatever_the_desktop_says(displays: ExitStack, start: Start) -> None:
    assert "The text keeps its size" in README
    places = {}
    for font, dpi in ("Sans 8", 96), ("Sans 24", 192):
        display = displays.enter_context(XDisplay())
        settings = display.config_home / "gtk-3.0/settings.ini"
        settings.parent.mkdir(parents=True, exist_ok=True)
        settings.write_text(f"[Settings]\ngtk-font-name={font}\n")
        subprocess.run(["xrdb", "-merge"], input=f"Xft.dpi: {dpi}\n", text=True, env=display.env, check=True)
        places[font] = start(display, {**preset("hybrid-20"), "load": {"kind": "frozen"}}).content().places
    assert places["Sans 8"] == places["Sans 24"]


@pytest.mark.parametrize("command", QUICK_COMMANDS)
def test_commands_of_the_documents_work(command: str) -> None:
    pages = "".join((ROOT / page).read_text() for page in ("README.md", "CONTRIBUTING.md"))
    assert re.search(rf"(^    |`){re.escape(command)}\b", pages, re.MULTILINE)
    done = subprocess.run(shlex.split(command), cwd=ROOT, text=True, capture_output=True, check=True)
    assert done.stdout and not done.stderr
