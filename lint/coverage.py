#!/usr/bin/env python3
"""coverage.py - sums by room what gcovr --json-summary says on standard input."""

import json
import sys

import tree


def share(covered: int, total: int) -> str:
    return f"{100 * covered / total:6.1f} %" if total else "       -"


def main() -> None:
    all_rooms = tree.rooms()
    sums: dict[str, list[int]] = {}
    for file in json.load(sys.stdin)["files"]:
        name = file["filename"]
        room = tree.room_of(name, all_rooms)
        for group in {name.split("/")[0] + "/", room.name if room else name}:
            counts = sums.setdefault(group, [0, 0, 0, 0])
            for index, key in enumerate(("line_covered", "line_total", "branch_covered", "branch_total")):
                counts[index] += file[key]
    print(f"{'room':30} {'lines':>8} {'branches':>9}")
    for name, counts in sorted(sums.items()):
        print(f"{name:30} {share(*counts[:2])} {share(*counts[2:])}")


if __name__ == "__main__":
    main()
