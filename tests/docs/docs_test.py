"""Compares the documents with the things that they describe: manual pages name every function, field, option and key and
no other, and every example is compiled and run on a simulated host.

The environment names the trees (TRELM_SOURCE, TRELM_BUILD) and the compilers (CC, CXX).
"""

from __future__ import annotations

import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path
from typing import Dict, Iterator, Optional, Set, Tuple

from documents import Block, blocks, program, steps

SOURCE = Path(os.environ["TRELM_SOURCE"])
BUILD = Path(os.environ["TRELM_BUILD"])
MADE = BUILD / "man/pages"
PAGES: Dict[str, str] = {path.stem: path.read_text(encoding="utf-8") for path in SOURCE.glob("man/*.scd")}
DOCUMENTS = [path for path in [*SOURCE.glob("man/*.scd"), SOURCE / "README.md", SOURCE / "docs/guide.md"] if path.exists()]
BLOCKS = [block for path in DOCUMENTS for block in blocks(path)]
HEADER = re.sub(r"/\*.*?\*/", "", (SOURCE / "libtrelm/trelm_mgmt.h").read_text(), flags=re.DOTALL)
SECTION_3 = "\n".join(text for name, text in PAGES.items() if name.endswith(".3"))
# Programs, headers and libraries are found as if the tree were installed.
ENVIRONMENT = {
    **os.environ,
    "LC_ALL": "C.UTF-8",
    "PATH": f"{BUILD}/bin:{Path(sys.executable).parent}:{os.environ['PATH']}",
    "CPATH": f"{SOURCE}/libtrelm",
    "LIBRARY_PATH": f"{BUILD}/lib",
}


def run(*command: str, cwd: Optional[Path] = None, given: str = "") -> "subprocess.CompletedProcess[str]":
    out, errors = subprocess.PIPE, subprocess.STDOUT
    return subprocess.run(command, stdout=out, stderr=errors, encoding="utf-8", env=ENVIRONMENT, cwd=cwd, input=given)


ON_LAB = ("trelm-hostsim", "run", str(SOURCE / "hostsim/hosts/lab.json"), "--")


def section(page: str, title: str) -> str:
    found = re.search(rf"^(#+) {title}\n(.*?)(?=^#{{1,2}} [A-Z]|\Z)", PAGES[page], re.MULTILINE | re.DOTALL)
    assert found, f"{page} has no section {title}"
    return found.group(2)


@unittest.skipUnless(MADE.exists() and shutil.which("mandoc"), "scdoc or mandoc is not installed")
class PagesTest(unittest.TestCase):
    def test_every_public_name_has_its_page_and_no_page_names_another(self) -> None:
        public = re.search(r"LIBTRELM_5 \{\s*global:(.*?)local:", (SOURCE / "libtrelm/libtrelm.map").read_text(), re.DOTALL)
        assert public
        for name in re.findall(r"\w+", public.group(1)):
            self.assertIn(f"{name}", re.sub(r"(?s)^# DESCRIPTION.*", "", SECTION_3), name)
            if name.startswith("TRELM_"):
                self.assertTrue((MADE / f"man3/{name}.3").exists(), name)
        known = set(re.findall(r"\w+", HEADER)) | {"TRELM_API_DEBUG"}
        self.assertLessEqual(set(re.findall(r"\b(?:TRELM|trelm)_\w+", SECTION_3)) - {"trelm_mgmt", "trelm_shared"}, known)
        macros = set(re.findall(r"#define (TRELM_(?!MGMT_H|API)\w+)", HEADER))
        self.assertLessEqual(macros, set(re.findall(r"\w+", SECTION_3)))

    def test_every_field_is_described_in_its_order(self) -> None:
        records = re.findall(r"typedef struct (\w+) \{(.*?)\}", HEADER, re.DOTALL)
        for record, body in records:
            (page,) = [name for name, text in PAGES.items() if f"\n## {record}\n" in text]
            rows = re.findall(r"^\|  (\w+)\n:  (\S+)\n:  \S", section(page, record), re.MULTILINE)
            fields = [(name, kind + size) for kind, name, size in re.findall(r"(\w+)\s+(\w+)((?:\[\d+\])?);", body)]
            if record == "TRELM_PORT_STATS":  # its table has units instead of types
                self.assertEqual([name for name, _ in rows], [name for name, _ in fields])
            else:
                self.assertEqual(rows, fields)
        self.assertEqual(len(records), 6)

    def test_every_key_of_a_host_file_is_there(self) -> None:
        roff = (MADE / "man5/trelm-host.5").read_text(encoding="utf-8")
        found = re.search(r"\n\.SH KEYS\n(.*?)\n\.SH ", roff, re.DOTALL)
        assert found
        schema = json.loads((SOURCE / "hostsim/hostfile/host.schema.json").read_text(encoding="utf-8"))

        def keys(value: object) -> Iterator[str]:
            if isinstance(value, dict):
                yield from value.get("properties", {})
                for each in value.values():
                    yield from keys(each)
            elif isinstance(value, list):
                for each in value:
                    yield from keys(each)

        described = set(re.findall(r"\\fB([\w$]+)\\fR", found.group(1)))
        self.assertEqual(described - set(schema["$defs"]), set(keys(schema)) - {"//", "$schema"} - set(schema["$defs"]))

    def test_every_option_and_command_is_there(self) -> None:
        for tool, page in (("trelmctl", "trelmctl.8"), ("trelm-hostsim", "trelm-hostsim.1")):
            commands, options = self.offered(tool)
            self.assertEqual(set(re.findall(r"^\*([\w-]+)\*", section(page, "COMMANDS"), re.MULTILINE)), commands)
            described = re.findall(r"^(\*-.*)$", section(page, "OPTIONS"), re.MULTILINE)
            self.assertEqual(set(re.findall(r"\*(--?[\w-]+)\*", " ".join(described))), options, tool)

    def test_every_command_of_the_tool_has_an_example(self) -> None:
        commands, _ = self.offered("trelmctl")
        self.assertLessEqual(commands, set(re.findall(r"^# trelmctl (?:--\w+ )?(\w+)", section("trelmctl.8", "EXAMPLES"), re.M)))

    @staticmethod
    def offered(tool: str) -> Tuple[Set[str], Set[str]]:
        help_text = run(tool, "--help").stdout
        commands = set(re.findall(r"^  ([a-z]\w*) {2,}", help_text.split("Subcommands:")[1], re.MULTILINE))
        texts = [help_text] + [run(tool, command, "--help").stdout for command in commands]
        lines = [line for text in texts for line in re.findall(r"^  (-\S+)", text, re.MULTILINE)]
        return commands, {option for line in lines for option in line.split(",")}

    def test_pages_refer_to_pages_that_are_there(self) -> None:
        for page, text in PAGES.items():
            for name, number in re.findall(r"\*([\w.-]+)\*\((\d)\)", text):
                if "trelm" in name.lower():
                    self.assertTrue((MADE / f"man{number}/{name}.{number}").exists(), f"{page}: {name}({number})")

    def test_mandoc_has_nothing_to_say(self) -> None:
        linted = run("mandoc", "-T", "lint", "-W", "warning", *map(str, sorted(MADE.glob("man*/*"))))
        self.assertEqual((linted.returncode, linted.stdout), (0, ""))


class MetricsTest(unittest.TestCase):
    def test_the_table_lists_the_metrics_that_are_written_with_their_labels(self) -> None:
        table = run("trelmctl", "metrics", "--list").stdout
        self.assertIn(f"\n\n{table}\n", (SOURCE / "docs/metrics.md").read_text(encoding="utf-8"))
        rows = re.findall(r"^\| `(\w+)` \|[^|]*\|[^|]*\|([^|]*)\|", table, re.MULTILINE)
        listed = {name: set(re.findall(r"\w+", labels)) for name, labels in rows}
        host = SOURCE / "tests/trelmctl/hosts/metrics.json"
        text = run("trelm-hostsim", "run", str(host), "--", "trelmctl", "metrics", "--luns", "--format", "prometheus").stdout
        samples = re.findall(r"^(trelm_\w+)(.*) \S+$", text, re.MULTILINE)
        self.assertEqual({name for name, _ in samples}, set(listed))
        for name, labels in samples:
            self.assertLessEqual(set(re.findall(r'(\w+)="', labels)), listed[name], name)


class ExamplesTest(unittest.TestCase):
    def setUp(self) -> None:
        # A directory with links to all files of the tree, where examples may write.
        self.directory = Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.directory)
        for entry in SOURCE.iterdir():
            if entry.name not in ("build", ".git"):
                (self.directory / entry.name).symlink_to(entry)
        (self.directory / "hosts").symlink_to(SOURCE / "hostsim/hosts")  # the guide copies it there

    def compiled(self, source: str, language: str) -> str:
        executable = str(self.directory / f"program{len(list(self.directory.iterdir()))}")
        compiler, standard = (os.environ["CXX"], "c++17") if language == "cpp" else (os.environ["CC"], "c99")
        flags = f"-std={standard} -Wall -Wextra -Wpedantic -Werror -x{'c++' if language == 'cpp' else 'c'}".split()
        done = run(compiler, *flags, "-", "-o", executable, "-ltrelm", given=source)
        self.assertEqual(done.returncode, 0, done.stdout)
        return executable

    def check_program(self, block: Block) -> None:
        with self.subTest(document=block.document, text=block.text.splitlines()[0]):
            command = [sys.executable, "-c", block.text]
            if block.language != "python":
                command = [self.compiled(program(block.text), block.language)]
            done = run(*ON_LAB, *command)
            self.assertEqual(done.returncode, 0, done.stdout)
            self.assertNotEqual(done.stdout, "")

    def test_files_of_examples(self) -> None:
        languages = {".c": "c", ".cpp": "cpp", ".py": "python"}
        files = [path for path in sorted(SOURCE.glob("examples/*")) if path.suffix in languages]
        for path in files:
            self.check_program(Block(path.name, languages[path.suffix], path.read_text(encoding="utf-8")))
        self.assertGreater(len(files), 8)

    def test_the_example_of_a_tree_prints_what_the_tool_prints(self) -> None:
        for name in ("lab", "legacy"):
            on_host = ("trelm-hostsim", "run", str(SOURCE / f"hostsim/hosts/{name}.json"), "--")
            printed = [run(*on_host, *words).stdout for words in ((sys.executable, str(SOURCE / "examples/tree.py")), ("trelmctl", "tree"))]
            self.assertEqual(*printed)
            self.assertIn("LUN", printed[0])

    def test_programs_in_documents(self) -> None:
        for block in BLOCKS:
            if block.example:
                self.assertEqual(block.text, (SOURCE / block.example).read_text(encoding="utf-8"), block.example)
            elif block.language in ("c", "cpp", "python"):
                self.check_program(block)

    def test_sessions_in_documents(self) -> None:
        sessions = [(block.document, step) for block in BLOCKS if not block.installed for step in steps(block)]
        for document, step in sessions:
            with self.subTest(document=document, command=step.command):
                done = run(*(ON_LAB if step.on_host else ()), "sh", "-c", step.command, cwd=self.directory)
                self.assertEqual(done.returncode, 0, done.stdout)
                self.assertTrue(step.promises(done.stdout), done.stdout)
        self.assertGreater(len(sessions), 10)

    def test_host_files_in_documents_are_sound(self) -> None:
        host = self.directory / "documented.json"
        for block in BLOCKS:
            if block.text.startswith("{") and '"adapters"' in block.text:
                host.write_text(block.text, encoding="utf-8")
                done = run("trelm-hostsim", "check", str(host))
                self.assertEqual(done.returncode, 0, f"{block.document}: {done.stdout}")


if __name__ == "__main__":
    unittest.main()
