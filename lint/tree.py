"""tree.py - the rooms of the tree, its sources and their includes, for the other scripts of this folder.

The tables of docs/architecture.md with the columns "room" and "sees" list the rooms. A room is one or more
patterns of file names. It sees itself, the rooms that it names, and all rooms that those see.
"""

import fnmatch
import re
import subprocess
from pathlib import Path, PurePosixPath
from typing import NamedTuple

ROOT = Path(__file__).resolve().parent.parent
SOURCE_SUFFIXES = (".cpp", ".h", ".hpp", ".c")


class Room(NamedTuple):
    name: str
    patterns: tuple[str, ...]
    sees: tuple[str, ...]


def _cells(line: str) -> list[str]:
    return [cell.strip() for cell in line.strip().strip("|").split("|")]


def _quoted(cell: str) -> tuple[str, ...]:
    return tuple(re.findall(r"`([^`]+)`", cell))


def rooms() -> list[Room]:
    found: list[Room] = []
    columns: list[str] = []
    for line in (ROOT / "docs/architecture.md").read_text(encoding="utf-8").splitlines():
        if not line.startswith("|"):
            columns = []
        elif not columns:
            columns = _cells(line)
        elif {"room", "sees"} <= set(columns) and not line.startswith("|---"):
            row = dict(zip(columns, _cells(line)))
            patterns = _quoted(row["room"])
            found.append(Room(patterns[0], patterns, _quoted(row["sees"])))
    return found


def files(root: Path = ROOT) -> list[str]:
    if (root / ".git").exists():
        listing = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard"], cwd=root, check=True,
                                 capture_output=True, text=True)
        names = listing.stdout.splitlines()
    else:
        names = [str(path.relative_to(root)) for path in root.rglob("*") if "build" not in path.parts]
    return sorted(name for name in names if (root / name).is_file())


def sources(root: Path = ROOT) -> list[str]:
    return [name for name in files(root) if name.endswith(SOURCE_SUFFIXES)]


def scripts(root: Path = ROOT) -> list[str]:
    return [name for name in files(root) if name.endswith(".py")]


def room_of(source: str, all_rooms: list[Room]) -> Room | None:
    """The room with the longest pattern that the file matches. A pattern that ends in '/' matches all files below it."""
    best: tuple[int, Room] | None = None
    for room in all_rooms:
        for pattern in room.patterns:
            matches = source.startswith(pattern) if pattern.endswith("/") else fnmatch.fnmatch(source, pattern)
            if matches and (best is None or len(pattern) > best[0]):
                best = (len(pattern), room)
    return best[1] if best else None


def includes(source: str, root: Path = ROOT) -> list[tuple[int, str]]:
    """Line number and file name of each #include in the file."""
    text = (root / source).read_text(encoding="utf-8")
    return [(number, match[1]) for number, line in enumerate(text.splitlines(), 1)
            if (match := re.match(r'\s*#\s*include\s+["<]([^">]+)[">]', line))]


def resolve(source: str, included: str, headers: list[str], seen: list[Room], all_rooms: list[Room]) -> str | None:
    """The file of the tree that an include refers to: one in the same directory, else one in a room that is seen, else any."""
    beside = str(PurePosixPath(source).parent / included)
    if beside in headers:
        return beside
    candidates = [header for header in headers if header == included or header.endswith("/" + included)]
    candidates.sort(key=lambda header: room_of(header, all_rooms) not in seen)
    return candidates[0] if candidates else None


def seen_from(room: Room, all_rooms: list[Room]) -> list[Room]:
    by_name = {room.name: room for room in all_rooms}
    seen, open_rooms = [], [room]
    while open_rooms:
        current = open_rooms.pop()
        if current not in seen:
            seen.append(current)
            open_rooms += [by_name[name] for name in current.sees]
    return seen


def circles(arrows: dict[str, set[str]]) -> list[list[str]]:
    """Groups of nodes that reach each other (Tarjan's algorithm)."""
    index: dict[str, int] = {}
    low: dict[str, int] = {}
    stack: list[str] = []
    found: list[list[str]] = []

    def visit(node: str) -> None:
        index[node] = low[node] = len(index)
        stack.append(node)
        for target in arrows.get(node, ()):
            if target not in index:
                visit(target)
                low[node] = min(low[node], low[target])
            elif target in stack:
                low[node] = min(low[node], index[target])
        if low[node] == index[node]:
            group = stack[stack.index(node):]
            del stack[stack.index(node):]
            if len(group) > 1:
                found.append(sorted(group))

    for node in sorted(arrows):
        if node not in index:
            visit(node)
    return found


def noun(source: str) -> str:
    """The noun of a file: its path without suffix, which a header shares with the file that implements it."""
    return str(PurePosixPath(source).with_suffix(""))


def headers_of(names: list[str]) -> list[str]:
    return [name for name in names if name.endswith((".h", ".hpp"))]


def include_circles(root: Path = ROOT) -> list[list[str]]:
    all_rooms, names = rooms(), sources(root)
    headers = headers_of(names)
    arrows: dict[str, set[str]] = {}
    for source in names:
        room = room_of(source, all_rooms)
        seen = seen_from(room, all_rooms) if room else []
        targets = (resolve(source, included, headers, seen, all_rooms) for _, included in includes(source, root))
        arrows.setdefault(noun(source), set()).update(noun(target) for target in targets if target)
    return circles({node: targets - {node} for node, targets in arrows.items()})
