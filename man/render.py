#!/usr/bin/env python3
"""Makes manual pages: render.py DIRECTORY VERSION PAGE.scd...

A page is scdoc with a few more words: "@example FILE" on a line of its own stands for a file of examples/,
"@host_keys" for the keys of a host file, taken from its schema, and "@version@" for the version. A page whose NAME
names several functions gets a link for each of the others.
"""

from __future__ import annotations

import itertools
import json
import re
import shutil
import subprocess
import sys
from pathlib import Path
from typing import Any, Dict, Iterator, List, Optional, Tuple

SOURCE = Path(__file__).resolve().parent.parent
SCHEMA = SOURCE / "hostsim/hostfile/host.schema.json"
_SIMPLE_TYPES = {"integer": "number", "boolean": "true or false", "string": "text", "number": "number"}
_NAMED_TYPES = {"wwn": "world-wide name", "mac": "MAC address", "error_name": "name of an error"}


def literal(text: str) -> str:
    """A literal block; scdoc takes a backslash as an escape even there."""
    return "```\n" + text.replace("\\", "\\\\").replace("\t", "    ").rstrip("\n") + "\n```\n"


def escaped(text: str) -> str:
    """Running text in which nothing is scdoc's markup."""
    return re.sub(r"([\\_*#`@\[\]|~<>])", r"\\\1", text)


# ---- Keys of a host file ----


class Keys:
    """The keys of a schema, as sections of a page: one for each object, and an entry for each key."""

    def __init__(self, schema: Dict[str, Any]) -> None:
        self._definitions: Dict[str, Any] = schema["$defs"]
        self._root = schema

    def _resolved(self, value: Dict[str, Any]) -> Dict[str, Any]:
        while "$ref" in value:
            referred = self._definitions[value["$ref"].rsplit("/", 1)[1]]
            value = {**referred, **{key: each for key, each in value.items() if key != "$ref"}}
        return value

    def _object_name(self, value: Dict[str, Any]) -> Optional[str]:
        """The definition that an object is described by, if it has keys of its own."""
        name: str = value.get("$ref", "").rsplit("/", 1)[-1]
        return name if name and "properties" in self._definitions[name] else None

    def kind(self, value: Dict[str, Any]) -> str:
        """What a value looks like, in words."""
        name = self._object_name(value)
        if name:
            return f"object, see *{escaped(name)}*"
        named = _NAMED_TYPES.get(value.get("$ref", "").rsplit("/", 1)[-1])
        if named:
            return named
        value = self._resolved(value)
        if "oneOf" in value:
            kinds = list(dict.fromkeys(self.kind(each) for each in value["oneOf"]))
            if any(kind.startswith("number") for kind in kinds) and "text" in kinds:
                kinds.remove("text")  # every number may be written as text
            return "; or ".join(kinds)
        if "enum" in value:
            as_text = {str(each) for each in value["enum"] if not isinstance(each, str)}
            return ", ".join(json.dumps(each) for each in value["enum"] if each not in as_text)
        kind = value.get("type", "any value")
        if kind == "array":
            return f"list of: {self.kind(value['items'])}" if "items" in value else "list"
        if kind == "object":
            return "object"
        words = _SIMPLE_TYPES.get(kind, kind)
        if kind in ("integer", "number") and ("minimum" in value or "maximum" in value):
            low, high = value.get("minimum", 0), value.get("maximum")
            words += f" from {low} to {int(high)}" if high is not None else f" from {low} on"
        if "maxLength" in value:
            words += f" of at most {value['maxLength']} bytes"
        return words

    def _entry(self, keys: List[str], value: Dict[str, Any], required: bool) -> Iterator[str]:
        resolved = self._resolved(value)
        notes = ["required"] if required else []
        if "default" in resolved:
            notes.append(f"default {json.dumps(resolved['default'], ensure_ascii=False)}")
        names = ", ".join(f"*{escaped(key)}*" for key in keys)
        yield f"{names} ({'; '.join([self.kind(value), *map(escaped, notes)])})"
        yield "\t" + escaped(resolved["description"]) + "\n" if "description" in resolved else ""
        if self._object_name(value):
            return  # has a section of its own
        for inner, each in self._grouped(resolved.get("properties", {})):
            for line in self._entry(inner, each, inner[0] in resolved.get("required", ())):
                yield "\t" + line

    @staticmethod
    def _grouped(properties: Dict[str, Any]) -> Iterator[Tuple[List[str], Dict[str, Any]]]:
        """Keys in their order; neighbours that are described alike are one entry."""
        kept = [key for key in properties if key not in ("//", "$schema")]
        for _, keys in itertools.groupby(kept, key=lambda key: json.dumps(properties[key])):
            names = list(keys)
            yield names, properties[names[0]]

    def _section(self, title: str, value: Dict[str, Any]) -> Iterator[str]:
        yield f"## {title}\n"
        if value.get("description"):
            yield escaped(value["description"]) + "\n"
        for keys, each in self._grouped(value["properties"]):
            yield from self._entry(keys, each, keys[0] in value.get("required", ()))

    def __str__(self) -> str:
        lines: List[str] = []
        root = self._resolved(self._root)
        lines.extend(self._section("The host", root))
        for name, value in self._definitions.items():
            if "properties" in value and value is not self._definitions.get("host"):
                lines.extend(self._section(escaped(name), value))
        return "\n".join(lines)


# ---- Pages ----


def expanded(page: str) -> str:
    def example(match: "re.Match[str]") -> str:
        return literal((SOURCE / "examples" / match.group(1)).read_text(encoding="utf-8"))

    page = re.sub(r"^@example (\S+)$\n", example, page, flags=re.MULTILINE)
    if "@host_keys\n" in page:
        page = page.replace("@host_keys\n", str(Keys(json.loads(SCHEMA.read_text(encoding="utf-8")))))
    return page


# What scdoc writes, and what formatters want in its place.
_TIDYING = (
    # A cell that another one follows is as wide as its text, and not a paragraph.
    (r"T\{\n(.*)\nT\}\t", r"\1\t"),
    # Space between a table and a text, and none between a table and a heading.
    (r"(?<=\n\.TE\n)\.sp 1\n(?:\.P\n)*(?=[^.])", ".sp 2\n"),
    (r"(?<=\n\.TE\n)\.sp 1\n", ""),
    # Paragraph breaks that break nothing.
    (r"(?<=\n)(\.(?:SH|SS|TH) [^\n]*\n)\.P\n", r"\1"),
    (r"\.P\n(?=\.(?:SH|SS|RE|P|TS)\b|\Z)", ""),
)


def tidied(roff: str) -> str:
    for found, wanted in _TIDYING:
        roff = re.sub(found, wanted, roff)
    wants_tables = "'\\\" t\n" if "\n.TS\n" in roff else ""
    return wants_tables + roff


def names_of(page: str) -> List[str]:
    match = re.search(r"^# NAME\n+(.*?) - ", page, flags=re.MULTILINE)
    assert match, "a page has a NAME"
    return [name.strip() for name in match.group(1).split(",")]


def render(directory: Path, version: str, source: Path) -> None:
    page = expanded(source.read_text(encoding="utf-8")).replace("@version@", version)
    done = subprocess.run(["scdoc"], input=page, capture_output=True, text=True, encoding="utf-8")
    if done.returncode != 0:
        raise SystemExit(f"{source.name}: {done.stderr.strip()}")
    target = Path(source.stem)  # without .scd
    folder = directory / f"man{target.suffix[1:]}"
    folder.mkdir(parents=True, exist_ok=True)
    (folder / target).write_text(tidied(done.stdout), encoding="utf-8")
    for name in names_of(page):
        if name != target.stem:
            (folder / f"{name}{target.suffix}").symlink_to(target)


def main() -> None:
    directory, version, *pages = sys.argv[1:]
    shutil.rmtree(directory, ignore_errors=True)
    for page in pages:
        render(Path(directory), version, Path(page))


if __name__ == "__main__":
    main()
