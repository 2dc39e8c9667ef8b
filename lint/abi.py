#!/usr/bin/env python3
"""abi.py LIBRARY [--accept] - compares the library with abi/libtrelm.abi: exported names, their versions and sizes, and the
layout of records. Checks that it needs no newer glibc than docs/robustness.md promises. --accept writes a new baseline.
"""

import re
import subprocess
import sys
from pathlib import Path

import tree

BASELINE = tree.ROOT / "abi/libtrelm.abi"
# Leave out everything that depends on where and when the library was built.
STABLE = ["--no-corpus-path", "--no-comp-dir-path", "--no-show-locs", "--no-elf-needed", "--drop-undefined-syms"]


def version(text: str) -> tuple[int, ...]:
    return tuple(int(part) for part in text.split("."))


def glibc_needed(library: Path) -> str:
    listing = subprocess.run(["readelf", "-VW", library], check=True, capture_output=True, text=True).stdout
    return max(re.findall(r"GLIBC_([0-9.]+)", listing), key=version)


def glibc_promised() -> str:
    found = re.search(r"glibc ([0-9.]+[0-9])", (tree.ROOT / "docs/robustness.md").read_text(encoding="utf-8"))
    if not found:
        raise SystemExit("abi: docs/robustness.md promises no glibc version")
    return found[1]


def main() -> int:
    library = Path(sys.argv[1])
    if "--accept" in sys.argv:
        BASELINE.parent.mkdir(exist_ok=True)
        subprocess.run(["abidw", *STABLE, "--out-file", BASELINE, library], check=True)
        print(f"abi: wrote {BASELINE.relative_to(tree.ROOT)}")
    needed, promised = glibc_needed(library), glibc_promised()
    print(f"abi: needs glibc {needed}; docs/robustness.md promises that {promised} is enough")
    if version(needed) > version(promised):
        return 1
    compared = subprocess.run(["abidiff", "--harmless", "--fail-no-debug-info", BASELINE, library], check=False,
                              capture_output=True, text=True)
    if compared.returncode:
        print(compared.stdout + compared.stderr)
        print("abi: the interface differs from its baseline. CHANGELOG.md describes how to accept the change.")
        return 1
    print("abi: the interface matches its baseline")
    return 0


if __name__ == "__main__":
    sys.exit(main())
