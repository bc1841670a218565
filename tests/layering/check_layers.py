#!/usr/bin/env python3
"""Fails when a folder of src/ includes a header of a folder on its own floor
or above it (so also on any circle between folders), or links such a library;
prints the graph of includes between folders either way.

Usage: check_layers.py <src folder>
"""
import re
import sys
from collections import Counter
from pathlib import Path

# Top floor first. A folder may include from any floor below its own and
# from itself, never sideways or up.
FLOORS = [
    ["daemon", "shell", "client"],
    ["server"],
    ["session", "discovery"],
    ["cache"],
    ["bridge", "journal"],
    ["settings", "records"],
    ["wire", "log"],
]
# Front ends that see the server only through App and Settings (and the
# daemon the journal, for its activity and restore subcommands).
NARROW = {"daemon/": {"server", "settings", "journal"}, "shell/main.cpp": {"server", "settings", "shell"}}
FLOOR = {room: len(FLOORS) - level for level, rooms in enumerate(FLOORS) for room in rooms}
INCLUDE = re.compile(r'^\s*#\s*include\s+"([a-z]+)/', re.MULTILINE)
LINK = re.compile(r"target_link_libraries\s*\(\s*(\w+)([^)]*)\)", re.DOTALL)


def main(src: Path) -> int:
    edges = Counter()
    wrong = []
    rooms = sorted(p.name for p in src.iterdir() if p.is_dir())
    for room in rooms:
        if room not in FLOOR:
            wrong.append(f"src/{room}: a folder on no floor; add it to the floors in {Path(__file__).name}")
            continue
        for file in sorted((src / room).rglob("*")):
            if file.suffix not in (".h", ".cpp"):
                continue
            for target in INCLUDE.findall(file.read_text(errors="replace")):
                if target == room or target not in FLOOR:
                    continue
                edges[(room, target)] += 1
                name = file.relative_to(src).as_posix()
                for prefix, allowed in NARROW.items():
                    if name.startswith(prefix) and target not in allowed:
                        wrong.append(f"{file.relative_to(src.parent)}: includes {target}/; it sees only "
                                     f"{', '.join(sorted(allowed))}")
                if FLOOR[target] >= FLOOR[room]:
                    wrong.append(f"{file.relative_to(src.parent)}: {room} includes {target}/, "
                                 f"which is not below it")
        cmake = src / room / "CMakeLists.txt"
        if cmake.exists():
            for _, doors in LINK.findall(cmake.read_text()):
                for lib in re.findall(r"zandrel_(\w+)", doors):
                    if lib in FLOOR and lib != room and FLOOR[lib] >= FLOOR[room]:
                        wrong.append(f"{cmake.relative_to(src.parent)}: {room} links zandrel_{lib}, "
                                     f"which is not below it")

    print("Includes between folders (top floor first; count of #include lines):")
    for level, floor in enumerate(FLOORS):
        for room in floor:
            doors = [f"{t} ({n})" for (r, t), n in sorted(edges.items()) if r == room]
            print(f"  {len(FLOORS) - level}  {room:<10} -> {', '.join(doors) or '(nothing of ours)'}")
    for line in wrong:
        print("error: " + line)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
