#!/usr/bin/env python3
"""includes.py - checks that includes follow the tables of docs/architecture.md.

A file may include the headers of its own room and of the rooms that its room sees. Neither rooms nor nouns (a header and
the file that implements it) may depend on each other in a cycle.
"""

import sys

import tree


def faults() -> list[str]:
    all_rooms, sources = tree.rooms(), tree.sources()
    names = {room.name for room in all_rooms}
    unknown = [f"docs/architecture.md: {room.name} sees {name}, which is not a room"
               for room in all_rooms for name in room.sees if name not in names]
    if unknown:
        return unknown
    found = ["docs/architecture.md: rooms that see each other: " + ", ".join(group)
             for group in tree.circles({room.name: set(room.sees) for room in all_rooms})]
    headers = tree.headers_of(sources)
    for source in sources:
        room = tree.room_of(source, all_rooms)
        if room is None:
            found.append(f"{source}: is in no room of docs/architecture.md")
            continue
        seen = tree.seen_from(room, all_rooms)
        for line, included in tree.includes(source):
            target = tree.resolve(source, included, headers, seen, all_rooms)
            if target and (owner := tree.room_of(target, all_rooms)) and owner not in seen:
                found.append(f"{source}:{line}: {room.name} does not see {owner.name} ({included})")
    found += ["files that include each other: " + ", ".join(group) for group in tree.include_circles()]
    return found


if __name__ == "__main__":
    problems = faults()
    print("\n".join(problems) or f"includes: {len(tree.sources())} files in {len(tree.rooms())} rooms, no forbidden include")
    sys.exit(bool(problems))
