"""The Python package beside the C header, the tool and the type checker.

The environment names the trees (TRELM_SOURCE, TRELM_BUILD), the version (TRELM_VERSION) and the C compiler (CC).
"""

import ast
import ctypes
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from dataclasses import fields
from pathlib import Path

import trelm
from trelm import _c

SOURCE = Path(os.environ["TRELM_SOURCE"])
BUILD = Path(os.environ["TRELM_BUILD"])
HEADER = SOURCE / "libtrelm/trelm_mgmt.h"
PACKAGE = SOURCE / "bindings/python"


class HeaderTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls) -> None:
        cls.text = re.sub(r"/\*.*?\*/", "", HEADER.read_text(), flags=re.DOTALL)

    def test_records_are_those_of_the_compiled_header(self) -> None:
        records = re.findall(r"typedef struct (\w+) \{(.*?)\}", self.text, flags=re.DOTALL)
        prints, mine = [], []
        for record, body in records:
            python_record = getattr(_c, record)
            prints.append(f'printf("{record} %zu\\n", sizeof({record}));')
            mine.append(f"{record} {ctypes.sizeof(python_record)}")
            for name in re.findall(r"(\w+)(?:\[\d+\])?;", body):
                prints.append(
                    f'printf("{record}.{name} %zu %zu\\n", offsetof({record}, {name}), sizeof((({record}*)0)->{name}));'
                )
                field = getattr(python_record, name)
                mine.append(f"{record}.{name} {field.offset} {field.size}")
        self.assertEqual(len(records), 6)
        program = "#include <stddef.h>\n#include <stdio.h>\n#include <trelm_mgmt.h>\nint main(void){%s}" % "".join(prints)
        with tempfile.TemporaryDirectory() as directory:
            executable = f"{directory}/layout"
            subprocess.run(
                [os.environ["CC"], "-xc", "-", "-I", str(HEADER.parent), "-o", executable],
                input=program, text=True, check=True,
            )
            theirs = subprocess.run([executable], capture_output=True, text=True, check=True).stdout.splitlines()
        self.assertEqual(mine, theirs)

    def test_constants_and_prototypes(self) -> None:
        defined = dict(re.findall(r"#define TRELM_(\w+) (\w+)u\n", self.text))
        for name in set(defined) - {"VERSION_NUMBER"}:
            self.assertEqual(getattr(_c, name), int(defined[name], 0), name)
        types = {"uint8_t": ctypes.c_uint8, "uint32_t": ctypes.c_uint32}
        prototypes = {}
        for function, parameters in re.findall(r"TRELM_API uint32_t (\w+)\(([^)]*)\)", self.text):
            prototypes[function] = []
            for word, stars in re.findall(r"(\w+)(\**) \w+", parameters):
                kind = types.get(word) or getattr(_c, word)
                for _ in stars:
                    kind = ctypes.POINTER(kind)
                prototypes[function].append(kind)
        self.assertEqual(prototypes, _c.PROTOTYPES)

    def test_package_has_the_version_of_the_project(self) -> None:
        self.assertEqual(trelm.__version__, os.environ["TRELM_VERSION"])

    def test_statistics_have_the_names_of_the_counters_in_their_order(self) -> None:
        def plain(name: str) -> str:
            return name.replace("_", "").replace("Droped", "Dropped").lower()

        self.assertEqual([plain(f.name) for f in fields(trelm.Statistics)], [plain(name) for name in _c.COUNTERS])


class ToolTest(unittest.TestCase):
    def test_the_example_prints_what_the_tool_prints(self) -> None:
        def on_host(name: str, *command: str) -> bytes:
            host = str(SOURCE / f"hostsim/hosts/{name}.json")
            launcher = str(BUILD / "bin/trelm-hostsim")
            environment = {**os.environ, "LC_ALL": "C.UTF-8"}
            return subprocess.run([launcher, "run", host, "--", *command], stdout=subprocess.PIPE, env=environment).stdout

        for name in ("lab", "legacy"):
            expected = on_host(name, str(BUILD / "bin/trelmctl"), "tree")
            self.assertEqual(on_host(name, sys.executable, str(SOURCE / "examples/tree.py")), expected)
            self.assertIn(b"LUN", expected)

    def test_load_says_why_it_fails(self) -> None:
        with self.assertRaises(trelm.Error) as refused:
            trelm.load()
        self.assertIn("not root on an ESXi host", str(refused.exception))


class TypesTest(unittest.TestCase):
    def test_sources_are_python_3_8(self) -> None:
        for source in [*PACKAGE.rglob("*.py"), *SOURCE.glob("examples/*.py")]:
            ast.parse(source.read_text(), str(source), feature_version=(3, 8))

    @unittest.skipUnless(shutil.which("mypy"), "mypy is not installed")
    def test_types_are_strict(self) -> None:
        command = ["mypy", "--strict", "--python-version", "3.8", "--cache-dir", str(BUILD / "mypy"), "-p", "trelm"]
        checked = subprocess.run(command, cwd=PACKAGE, stdout=subprocess.PIPE, text=True)
        self.assertEqual(checked.returncode, 0, checked.stdout)
        command[-2:] = [str(example) for example in sorted(SOURCE.glob("examples/*.py"))]
        checked = subprocess.run(
            command, env={**os.environ, "MYPYPATH": str(PACKAGE)}, stdout=subprocess.PIPE, text=True
        )
        self.assertEqual(checked.returncode, 0, checked.stdout)


if __name__ == "__main__":
    unittest.main()
