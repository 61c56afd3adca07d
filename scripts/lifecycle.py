#!/usr/bin/env python3
"""Draws docs/lifecycle.md from runs of the driver.

    scripts/lifecycle.py build/dev/tests/driver/lifecycle_runs            writes the diagrams anew
    scripts/lifecycle.py --check build/dev/tests/driver/lifecycle_runs    exit status 1 when one has changed

The program prints the kernel's event log of each run. A diagram stands below a line "<!-- run: its name -->"; the rest
of the page is left alone.
"""

import argparse
import difflib
import json
import pathlib
import re
import subprocess
import sys

PAGE = pathlib.Path(__file__).resolve().parent.parent / "docs" / "lifecycle.md"
DIAGRAM = re.compile(r"<!-- run: (.*?) -->\n(?:```mermaid\n.*?```\n)?", re.S)

# In the order of the columns.
ACTORS = {"main": "application", "client 2": "second application", "io": "I/O manager", "PnP": "PnP manager", "power": "power manager",
          "hub": "USB hub", "navox": "navox", "bus": "bus, module"}
CALLS = {"IRP_MJ_CREATE": "open", "IRP_MJ_CLEANUP": "cleanup", "IRP_MJ_CLOSE": "close", "IRP_MJ_READ": "read"}
# Asked of every device, and of no consequence here.
ROUTINE = {"IRP_MN_FILTER_RESOURCE_REQUIREMENTS", "IRP_MN_QUERY_PNP_DEVICE_STATE", "IRP_MN_QUERY_DEVICE_RELATIONS",
           "IRP_MN_QUERY_CAPABILITIES"}
STATUSES = {"": "done", "0x0": "done", "0xc0000001": "unsuccessful", "0xc000009d": "not connected",
            "0xc0000120": "cancelled"}
PAUSE = 20  # ms that are worth a line
WIDTH = 60  # characters of a message, before it goes on in the next line


class Diagram:
    def __init__(self):
        self.lines = []      # (from, to, arrow, [texts]), or (None, None, None, [note])
        self.open = {}       # what waits for its end: key -> (from, to, text, its place)
        self.now = 0         # ms
        self.drawn_at = None

    def place(self):
        return len(self.lines), len(self.lines[-1][3]) if self.lines else 0

    def add(self, source, target, arrow, text):
        pause = self.now - self.drawn_at if self.drawn_at is not None else 0
        self.drawn_at = self.now
        if pause >= PAUSE:
            later = f"{pause} ms later" if pause < 1000 else f"{pause / 1000:g} s later"
            self.lines.append((None, None, None, [later]))
        last = self.lines[-1] if self.lines else None
        if last and last[:3] == ("navox", "bus", "->>") == (source, target, arrow):
            last[3].append(text)
        else:
            self.lines.append((source, target, arrow, [text]))

    def arrow(self, source, target, text, arrow="->>"):
        self.add(source, target, arrow, text)

    def note(self, text):
        self.add(None, None, None, text)

    def begin(self, key, source, target, text):
        self.arrow(source, target, text)
        self.open[key] = (source, target, text, self.place())

    def end(self, key, status, otherwise=None):
        """`otherwise`: from, to and text of what began before the run. An end that comes at once and says nothing goes
        without a line."""
        source, target, text, place = self.open.pop(key, None) or (*otherwise, None)
        status = STATUSES.get(status, status)
        if status != "done" or place != self.place():
            self.arrow(target, source, f"{text}: {status}", "-->>")

    def text(self):
        used = {name for line in self.lines for name in line[:2] if name}
        names = [name for name in ACTORS if name in used]
        short = {name: name.replace(" ", "") for name in names}
        lines = ["sequenceDiagram"]
        lines += [f"    participant {short[name]} as {ACTORS[name]}" for name in names]
        for source, target, arrow, texts in self.lines:
            if source is None:
                lines.append(f"    Note over {short['navox']}: {texts[0]}")
            else:
                lines.append(f"    {short[source]}{arrow}{short[target]}: {wrap(texts)}")
        return "\n".join(lines) + "\n"


def wrap(texts):
    rows = [""]
    for text in texts:
        if rows[-1] and len(rows[-1]) + len(text) > WIDTH:
            rows[-1] += ","
            rows.append("")
        rows[-1] += (", " if rows[-1] else "") + text
    return "<br/>".join(rows)


def bare(name):
    return name.replace("IRP_MN_", "").split(" with ")[0].strip()


def draw_call(diagram, event):
    """A request of an application."""
    if event["kind"] == "begin":
        size = f" {event['detail']} bytes" if event["detail"] else ""
        diagram.begin(event["id"], event["actor"], "navox", CALLS[event["name"]] + size)
    else:
        diagram.end(event["id"], event["detail"])


def draw_bus(diagram, event):
    """A request of the driver to the bus."""
    text = event["name"].strip() if event["name"] != "class" else "class request"
    if event["kind"] == "begin":
        diagram.begin(event["id"], "navox", "bus", text)
    else:
        brought = event["answer"] if event["detail"] == "0x0" else ""
        diagram.end(event["id"], brought or event["detail"], ("navox", "bus", text))


def draw_power(diagram, event, asked):
    """A power request: the driver asks for those that concern its device."""
    text = bare(event["detail"])
    key = ("power", event["id"])
    if event["name"] == "PoSetPowerState":
        if event["detail"].endswith("by navox"):
            diagram.arrow("navox", "power", "reports " + event["detail"].split()[0])
    elif event["kind"] == "begin":
        if not text.split()[1].startswith("S"):
            diagram.arrow("navox", "power", "asks for " + text)
    elif event["kind"] == "end":
        diagram.end(key, event["detail"])
    elif key not in asked:  # the first step leads to the top of the stack
        asked.add(key)
        diagram.begin(key, "power", "navox", text)


def draw_idle(diagram, event):
    if event["name"] == "idle callback":
        draw_span(diagram, event, "hub", "idle callback")
    elif event["name"] == "idle request":
        diagram.begin("idle request", "navox", "hub", "idle request")
    else:
        diagram.end("idle request", event["detail"])


def draw_span(diagram, event, source, text):
    if event["kind"] == "begin":
        diagram.begin(text, source, "navox", text)
    else:
        diagram.end(text, event["detail"])


def draw(events):
    diagram = Diagram()
    asked = set()
    for event in events:
        diagram.now = event["ms"]
        draw_event(diagram, event, event["category"], event["name"], asked)
    return diagram.text()


def draw_event(diagram, event, category, name, asked):
    if name in ROUTINE or event["detail"].split(" with ")[0] in ROUTINE:
        return
    if category == "irp" and name in CALLS:
        draw_call(diagram, event)
    elif category == "irp" and name == "IRP_MJ_POWER" or category == "power":
        draw_power(diagram, event, asked)
    elif category == "usb" and event["id"]:
        draw_bus(diagram, event)
    elif category == "usb":
        draw_idle(diagram, event)
    elif name.startswith("interface "):
        diagram.note("port " + name)
    elif category == "pnp":
        draw_span(diagram, event, "PnP", bare(name))
    elif category == "below":
        diagram.arrow("navox", "bus", bare(event["detail"]))
    elif category == "registry":
        diagram.note(event["detail"] if name == "value set" else "SERIALCOMM value deleted")
    elif category == "wmi":
        diagram.note("WMI " + name)
    elif category == "driver" and name == "unload":
        draw_span(diagram, event, "io", "unload")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--check", action="store_true")
    parser.add_argument("runs", help="the program lifecycle_runs")
    arguments = parser.parse_args()
    runs = json.loads(subprocess.run([arguments.runs], check=True, capture_output=True, timeout=120).stdout)
    page = PAGE.read_text()
    names = [match[1] for match in DIAGRAM.finditer(page)]
    if sorted(names) != sorted(runs):
        sys.exit(f"{PAGE.name} has {sorted(names)}, the program {sorted(runs)}")
    fresh = DIAGRAM.sub(lambda match: f"<!-- run: {match[1]} -->\n```mermaid\n{draw(runs[match[1]])}```\n", page)
    if not arguments.check:
        PAGE.write_text(fresh)
    elif fresh != page:
        sys.stdout.writelines(difflib.unified_diff(page.splitlines(True), fresh.splitlines(True), "docs/lifecycle.md",
                                                   "this run"))
        sys.exit(f"a diagram is not what happens: scripts/lifecycle.py {arguments.runs} draws them anew")


if __name__ == "__main__":
    main()
