"""The contents of documents that can be tested: blocks of code, and shell sessions with their expected output."""

from __future__ import annotations

import re
from dataclasses import dataclass
from pathlib import Path
from typing import Iterator, List


@dataclass
class Block:
    document: str
    language: str  # empty in a manual page
    text: str
    example: str = ""  # the file of examples/ that the block must repeat
    installed: bool = False  # needs the installed packages instead of the source tree


@dataclass
class Step:
    command: str
    on_host: bool  # the prompt is "#": root on the lab host. The prompt "$" means any machine
    expected: str

    def promises(self, output: str) -> bool:
        """Whether the output is as expected. "..." matches any text, and alone on a line any lines. An empty expectation
        matches any output."""
        if not self.expected:
            return True
        pattern = ""
        for line in self.expected.splitlines():
            if line in ("...", "…"):
                pattern += r"(.*\n)*"
            else:
                pattern += re.sub(r"\\\.\\\.\\\.|…", ".*", re.escape(line)) + r"\n"
        return re.fullmatch(pattern, output) is not None


def blocks(path: Path) -> Iterator[Block]:
    """The literal blocks of a manual page or a Markdown document. A comment before a block can mark it:
    "<!-- examples/NAME -->" the text of a file, "<!-- installed -->" commands for a machine with the packages installed."""
    text = path.read_text(encoding="utf-8")
    for match in re.finditer(r"(?:<!-- (examples/\S+|installed) -->\n)?^```(\w*)\n(.*?)^```$", text, re.MULTILINE | re.DOTALL):
        remark, language, body = match.groups()
        if path.suffix == ".scd":
            body = body.replace("\\\\", "\\")
        installed = remark == "installed"
        yield Block(path.name, language, body, "" if installed else remark or "", installed)


def steps(block: Block) -> List[Step]:
    """The commands of a session, each with its expected output. Empty if the block is not a session."""
    found: List[Step] = []
    if block.language not in ("", "sh", "console") or not re.match(r"[$#] ", block.text):
        return found
    for line in block.text.splitlines(keepends=True):
        if re.match(r"[$#] ", line):
            found.append(Step(line[2:].rstrip("\n"), line[0] == "#", ""))
        else:
            found[-1].expected += line
    for step in found:
        step.expected = step.expected.rstrip("\n") + "\n" if step.expected.strip() else ""
    return found


def program(text: str) -> str:
    """A C fragment, completed to a program."""
    if "int main(" in text:
        return text
    includes = "".join(re.findall(r"^#include.*\n", text, re.MULTILINE))
    body = re.sub(r"^#include.*\n", "", text, flags=re.MULTILINE)
    return f"#include <stdio.h>\n{includes}int main(void) {{\n{body}\nreturn 0;\n}}\n"
