"""How field values become Python values: text, addresses, sizes."""

from __future__ import annotations

from typing import Iterable


def text(field: Iterable[int]) -> str:
    """A fixed-width text field: up to its first zero byte, without the blanks at its end.

    Control characters and bytes beyond ASCII become \\xNN, so what a device says about itself is safe to
    print.
    """
    raw = bytes(field).split(b"\0", 1)[0].rstrip(b" ")
    return "".join(chr(byte) if 0x20 <= byte < 0x7F else f"\\x{byte:02x}" for byte in raw)


def address(field: Iterable[int]) -> str:
    """A world-wide name or a MAC address: colon-separated hexadecimal."""
    return ":".join(f"{byte:02x}" for byte in field)


def size_text(size: int) -> str:
    """A size in bytes in the largest binary unit that keeps it at 1 or more: "512 B", "1.5 GiB"."""
    units = ("B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB")
    value, unit = float(size), 0
    # 1023.95 would be rounded to 1024.0 of its unit.
    while value >= (1023.95 if unit else 1024) and unit + 1 < len(units):
        value, unit = value / 1024, unit + 1
    digits = f"{value:.1f}"
    return f"{digits[:-2] if digits.endswith('.0') else digits} {units[unit]}"
