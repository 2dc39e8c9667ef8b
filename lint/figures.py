#!/usr/bin/env python3
"""figures.py [COMMIT] - prints the size of the tree, now or at a commit: files, lines and lengths of functions by room, files that
include each other, and the lines of test code beside those of the product.

Blank lines are not counted. Of Python only lines are counted. A function extends from the first line of its signature to its closing brace. Functions
inside classes in headers are counted, lambdas are not.
"""

import re
import subprocess
import sys
import tarfile
import tempfile
from io import BytesIO
from pathlib import Path
from statistics import median

import tree

TEST_FOLDERS = ("tests/", "fuzz/", "hostsim/testing/")
PRODUCT_FOLDERS = ("libtrelm/", "platform/", "bindings/", "hostsim/", "trelmctl/", "examples/")
NO_FUNCTION = re.compile(r"\s*(if|for|while|switch|else|do|try|catch|namespace|struct|class|union|enum|extern|return|case|#|//|\}|.*\]\s*\()")
OPENS = re.compile(r"\)( const| noexcept| override| final| mutable|&|&&| -> [^{;]+| : [^;]+)* \{")


def function_lengths(text: str) -> list[int]:
    lines = text.splitlines()
    lengths, number = [], 0
    while number < len(lines):
        start = number
        line = lines[number]
        if not line.strip() or NO_FUNCTION.match(line) or "(" not in line:
            number += 1
            continue
        # A signature may span a few lines. It ends with the brace that opens the body.
        while number < len(lines) - 1 and number - start < 8 and not re.search(r"[{;]", lines[number]):
            number += 1
        signature = " ".join(part.strip() for part in lines[start:number + 1])
        if not OPENS.search(signature) or "=" in signature.split("(")[0]:
            number = start + 1
            continue
        if not signature.endswith("}"):
            closing = line[:len(line) - len(line.lstrip())] + "}"
            while number < len(lines) - 1 and lines[number] != closing:
                number += 1
        lengths.append(sum(1 for part in lines[start:number + 1] if part.strip()))
        number += 1
    return lengths


def percentile(values: list[int], share: float) -> int:
    return sorted(values)[min(len(values) - 1, int(len(values) * share))]


def print_figures(root: Path) -> None:
    all_rooms = tree.rooms()
    table: dict[str, tuple[list[int], list[int]]] = {}
    tests = product = 0
    for source in tree.sources(root) + tree.scripts(root):
        text = (root / source).read_text(encoding="utf-8")
        room = tree.room_of(source, all_rooms)
        lines = sum(1 for line in text.splitlines() if line.strip())
        for name in {source.split("/")[0] + "/", room.name if room else source.split("/")[0] + "/"}:
            sizes, lengths = table.setdefault(name, ([], []))
            sizes.append(lines)
            lengths += [] if source.endswith(".py") else function_lengths(text)
        if source.startswith(TEST_FOLDERS):
            tests += lines
        elif source.startswith(PRODUCT_FOLDERS):
            product += lines
    print(f"{'room':30} {'files':>6} {'lines':>7} {'longest':>8} {'functions':>10} {'median':>7} {'95th':>5}")
    for name, (sizes, lengths) in sorted(table.items()):
        shown = (f"{median(lengths):7.0f} {percentile(lengths, 0.95):5}" if lengths else "")
        print(f"{name:30} {len(sizes):6} {sum(sizes):7} {max(sizes):8} {len(lengths):10} {shown}")
    groups = tree.include_circles(root)
    print(f"\nfiles that include each other: {len(groups)} groups, {sum(map(len, groups))} files")
    print(f"test code: {tests} lines, {100 * tests / product:.1f} percent of the {product} lines of the product")


def main() -> None:
    if len(sys.argv) < 2:
        print_figures(tree.ROOT)
        return
    archive = subprocess.run(["git", "archive", sys.argv[1]], cwd=tree.ROOT, check=True, capture_output=True).stdout
    with tempfile.TemporaryDirectory() as folder:
        tarfile.open(fileobj=BytesIO(archive)).extractall(folder)
        print_figures(Path(folder))


if __name__ == "__main__":
    main()
