#!/usr/bin/env python3
"""Prints the ports of this host with their targets, LUNs and virtual ports, as `trelmctl tree` does."""

from __future__ import annotations

import sys
from typing import Callable, List, NamedTuple, Sequence, Tuple

import trelm


class Node(NamedTuple):
    cells: Tuple[str, ...]
    children: List["Node"]


def failed(error: trelm.Error) -> Node:
    return Node((f"[failed: {error.meaning} (0x{error.code:08X})]",), [])


def aligned(nodes: Sequence[Node], right: Sequence[int]) -> List[Node]:
    """Nodes of one kind in columns; those in `right` end flush."""
    widths = [max(map(len, column)) for column in zip(*(node.cells for node in nodes))]
    lines = []
    for cells, children in nodes:
        padded = [c.rjust(w) if i in right else c.ljust(w) for i, (c, w) in enumerate(zip(cells, widths))]
        lines.append(Node(("  ".join(padded).rstrip(),), children))
    return lines


def lun_nodes(port: trelm.Port, target: int) -> List[Node]:
    def node(lun: trelm.Lun) -> Node:
        words = (lun.device_type_words, lun.vendor, lun.product, lun.revision, lun.capacity_text)
        return Node(("LUN", lun.number_text, *words), [])

    try:
        return aligned([node(lun) for lun in port.luns(target)], right=(1, 6))
    except trelm.Error as error:
        found = [node(lun) for lun in error.found if isinstance(lun, trelm.Lun)]
        return aligned(found, right=(1, 6)) + [failed(error)]


def target_nodes(port: trelm.Port) -> List[Node]:
    def node(target: trelm.Target) -> Node:
        cells = ("target", str(target.number), target.wwpn, target.state.words)
        return Node(cells, lun_nodes(port, target.number))

    try:
        return aligned([node(target) for target in port.targets()], right=(1,))
    except trelm.Error as error:
        found = [node(target) for target in error.found if isinstance(target, trelm.Target)]
        return aligned(found, right=(1,)) + [failed(error)]


def port_branch(port: trelm.Port) -> Tuple[str, List[Node]]:
    try:
        info = port.info()
    except trelm.Error as error:
        return "failed", [failed(error)]
    name = f"{info.hba_name}  " if info.hba_name else ""
    text = f"{name}{info.wwpn}  {info.state.words}  {trelm.speed_words(info.speed)}"
    return text, target_nodes(port)


def print_port(port: trelm.PhysicalPort, draw: Callable[[List[Node]], None]) -> None:
    try:
        model = port.adapter().model
    except trelm.Error as error:
        print(f"port {port.instance}")
        draw([failed(error)])
        return
    text, nodes = port_branch(port)
    try:
        for virtual in port.virtual_ports():
            words, children = port_branch(virtual)
            nodes.append(Node((f"virtual port {virtual.label}  {words}",), children))
    except trelm.Error as error:
        nodes.append(failed(error))
    print(f"port {port.instance}  {text}  {model}")
    draw(nodes)


def drawing(lines: Sequence[str]) -> Callable[[List[Node]], None]:
    middle, last, beside, below = lines

    def draw(nodes: List[Node], indent: str = "") -> None:
        for position, node in enumerate(nodes, 1):
            end = position == len(nodes)
            print(f"{indent}{last if end else middle}{node.cells[0]}")
            draw(node.children, indent + (below if end else beside))

    return draw


def main() -> int:
    unicode_terminal = (sys.stdout.encoding or "").lower() in ("utf-8", "utf8")
    drawn, ascii_only = ("├── ", "└── ", "│   ", "    "), ("|-- ", "`-- ", "|   ", "    ")
    draw = drawing(drawn if unicode_terminal else ascii_only)
    try:
        with trelm.load() as host:
            for port in host.ports:
                print_port(port, draw)
            return 0 if host.ports else 3
    except (trelm.Error, OSError) as error:
        print(f"tree.py: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
