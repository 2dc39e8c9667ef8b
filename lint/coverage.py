#!/usr/bin/env python3
"""coverage.py BUILD - reads the output of `llvm-cov export` from standard input, prints the coverage of each room, and lists
in BUILD/uncovered.txt the lines and branches that no test runs."""

import json
import sys
from pathlib import Path
from typing import Any, Iterator

import tree

KINDS = ("lines", "branches")


def share(covered: int, count: int) -> str:
    return f"{100 * covered / count:6.1f} %" if count else "       -"


def lines_not_run(file: dict[str, Any]) -> Iterator[int]:
    """The first lines of the code regions that never ran."""
    for line, _column, count, has_count, is_entry, is_gap in file["segments"]:
        if has_count and is_entry and not is_gap and count == 0:
            yield line


def branches_not_run(file: dict[str, Any]) -> Iterator[int]:
    """The lines with a condition that was never true, or never false."""
    for line, _column, _end_line, _end_column, true_count, false_count, *_ in file["branches"]:
        if true_count == 0 or false_count == 0:
            yield line


def main() -> None:
    build = Path(sys.argv[1]).resolve()
    all_rooms = tree.rooms()
    sums: dict[str, dict[str, list[int]]] = {}
    with (build / "uncovered.txt").open("w", encoding="utf-8") as listing:
        for file in json.load(sys.stdin)["data"][0]["files"]:
            path = (build / file["filename"]).resolve()  # a compiler cache makes names relative to the build tree
            name = str(path.relative_to(tree.ROOT)) if path.is_relative_to(tree.ROOT) else ""
            room = tree.room_of(name, all_rooms)
            if not room or name.startswith(("build/", "tests/", "fuzz/")):
                continue
            for group in {name.split("/")[0] + "/", room.name}:
                for kind in KINDS:
                    counts = sums.setdefault(group, {}).setdefault(kind, [0, 0])
                    counts[0] += file["summary"][kind]["covered"]
                    counts[1] += file["summary"][kind]["count"]
            for what, lines in ("not run", lines_not_run(file)), ("one way only", branches_not_run(file)):
                for line in sorted(set(lines)):
                    print(f"{name}:{line}: {what}", file=listing)
    print(f"{'room':30} {'lines':>8} {'branches':>9}")
    for group, by_kind in sorted(sums.items()):
        print(f"{group:30}", *(share(*by_kind[kind]) for kind in KINDS))


if __name__ == "__main__":
    main()
