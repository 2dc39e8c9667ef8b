"""The Python package beside the C header and the type checker.

The environment names the trees (TRELM_SOURCE, TRELM_BUILD), the version (TRELM_VERSION) and the C compiler (CC).
"""

import ast
import ctypes
import os
import re
import shutil
import subprocess
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
        program = "#include <stddef.h>\n#include <stdio.h>\n#include <trelm_mgmt.h>\nint main(void) {\n"
        expected = []
        records = re.findall(r"typedef struct (\w+) \{(.*?)\}", self.text, flags=re.DOTALL)
        for record, body in records:
            mirror = getattr(_c, record)
            program += f'printf("{record} %zu\\n", sizeof({record}));\n'
            expected.append(f"{record} {ctypes.sizeof(mirror)}")
            for name in re.findall(r"(\w+)(?:\[\d+\])?;", body):
                offset, size = f"offsetof({record}, {name})", f"sizeof((({record}*)0)->{name})"
                program += f'printf("{record}.{name} %zu %zu\\n", {offset}, {size});\n'
                expected.append(f"{record}.{name} {getattr(mirror, name).offset} {getattr(mirror, name).size}")
        self.assertEqual(len(records), 6)
        with tempfile.TemporaryDirectory() as directory:
            compiler = [os.environ["CC"], "-xc", "-", "-I", str(HEADER.parent), "-o", f"{directory}/layout"]
            subprocess.run(compiler, input=program + "}\n", text=True, check=True)
            printed = subprocess.run([f"{directory}/layout"], stdout=subprocess.PIPE, text=True, check=True).stdout
        self.assertEqual(expected, printed.splitlines())

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

    def test_statistics_have_the_names_of_the_counters_in_their_order(self) -> None:
        def plain(name: str) -> str:
            return name.replace("_", "").replace("Droped", "Dropped").lower()

        self.assertEqual([plain(f.name) for f in fields(trelm.Statistics)], [plain(name) for name in _c.COUNTERS])


class PackageTest(unittest.TestCase):
    def test_load_says_why_it_fails(self) -> None:
        with self.assertRaisesRegex(trelm.Error, "not root on an ESXi host"):
            trelm.load()

    def test_has_the_version_of_the_project(self) -> None:
        self.assertEqual(trelm.__version__, os.environ["TRELM_VERSION"])

    def test_sources_are_python_3_8(self) -> None:
        for source in [*PACKAGE.rglob("*.py"), *SOURCE.glob("examples/*.py")]:
            ast.parse(source.read_text(), str(source), feature_version=(3, 8))

    @unittest.skipUnless(shutil.which("mypy"), "mypy is not installed")
    def test_types_are_strict(self) -> None:
        command = ["mypy", "--strict", "--python-version", "3.8", "--cache-dir", str(BUILD / "mypy")]
        for checked in (["-p", "trelm"], map(str, sorted(SOURCE.glob("examples/*.py")))):
            environment = {**os.environ, "MYPYPATH": str(PACKAGE)}
            done = subprocess.run([*command, *checked], env=environment, stdout=subprocess.PIPE, text=True)
            self.assertEqual(done.returncode, 0, done.stdout)


if __name__ == "__main__":
    unittest.main()
