#!/usr/bin/env python3
"""installed_test.py - uses an installation as the author of an agent would, with nothing else of the project in reach.

A C program is built through pkg-config, a C++ program through CMake, and a Python program run as it is; each runs on the
installed simulated host. With --build the build tree is installed first, and the prefix is then moved to another place.
"""

from __future__ import annotations

import argparse
import json
import os
import subprocess
import sys
import tempfile
from pathlib import Path

PROJECT = """cmake_minimum_required(VERSION 3.25)
project(agent LANGUAGES CXX)
find_package(trelm {version} REQUIRED)
add_executable(agent {source})
set_target_properties(agent PROPERTIES CXX_STANDARD 20)
target_link_libraries(agent PRIVATE trelm::trelm)
"""


def run(*command: str | Path, env: dict[str, str], **options: object) -> str:
    done = subprocess.run([str(word) for word in command], env=env, capture_output=True, text=True, **options)  # type: ignore
    if done.returncode:
        raise SystemExit(f"{' '.join(map(str, command))}: exit status {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def only(folder: Path, pattern: str) -> Path:
    found = sorted(folder.glob(pattern))
    if not found:
        raise SystemExit(f"{folder}: no {pattern} is installed")
    return found[0]


class Installation:
    def __init__(self, prefix: Path, work: Path) -> None:
        self.prefix, self.work = prefix, work
        self.libdir = only(prefix, "lib*/**/libtrelm.so.5").parent
        self.env = {"PATH": f"{prefix}/bin:/usr/bin:/bin", "HOME": str(work), "TMPDIR": str(work),
                    "LD_LIBRARY_PATH": str(self.libdir), "PYTHONDONTWRITEBYTECODE": "1"}

    def example(self, name: str) -> Path:
        return only(self.prefix / "share/doc", f"*/examples/{name}")

    def on_host(self, *command: str | Path, **more: str) -> str:
        lab = self.prefix / "share/trelm-hostsim/hosts/lab.json"
        return run(self.prefix / "bin/trelm-hostsim", "run", lab, "--", *command, env={**self.env, **more})

    def c_program(self) -> Path:
        flags = run("pkg-config", "--cflags", "--libs", "trelm",
                    env={**self.env, "PKG_CONFIG_LIBDIR": str(self.libdir / "pkgconfig")}).split()
        program = self.work / "agent_in_c"
        run("cc", "-std=c99", "-Wall", "-Wextra", "-Werror", self.example("first_agent.c"), *flags, "-o", program, env=self.env)
        return program

    def configure(self, version: str) -> Path:
        project = self.work / f"project-{version}"
        project.mkdir()
        (project / "CMakeLists.txt").write_text(PROJECT.format(version=version, source=self.example("first_agent.cpp")))
        run("cmake", "-S", project, "-B", project / "build", f"-DCMAKE_PREFIX_PATH={self.prefix}", env=self.env)
        return project / "build"

    def cpp_program(self) -> Path:
        build = self.configure("5.0")
        run("cmake", "--build", build, env=self.env)
        return build / "agent"


def check(installed: Installation, build: Path | None) -> None:
    ports = json.loads(installed.on_host("trelmctl", "list", "--json"))["ports"]
    outputs = {
        "C": installed.on_host(installed.c_program()),
        "C++": installed.on_host(installed.cpp_program()),
        "Python": installed.on_host("python3", installed.example("first_agent.py"),
                                    PYTHONPATH=str(only(installed.prefix, "lib*/python3/dist-packages"))),
    }
    for language, output in outputs.items():
        if len(output.splitlines()) != len(ports) or output != outputs["C"]:
            raise SystemExit(f"{language} on a host of {len(ports)} ports printed\n{output}where C printed\n{outputs['C']}")
    try:
        installed.configure("4.9")
    except SystemExit:
        pass
    else:
        raise SystemExit("CMake takes this version for one that serves a program written for 4.9")
    if build:
        loaded = installed.on_host("sh", "-c", "trelmctl version && cat /proc/self/maps")
        linked = run("ldd", installed.prefix / "bin/trelmctl", installed.prefix / "bin/trelm-hostsim", env=installed.env)
        if str(build) in loaded + linked:
            raise SystemExit(f"the build tree is in reach:\n{linked}{loaded}")


def check_completion(installed: Installation) -> None:
    shell = f'. {installed.prefix}/share/bash-completion/completions/trelmctl; COMP_WORDS=(trelmctl targ); COMP_CWORD=1; '
    proposed = run("bash", "-c", shell + '_trelmctl trelmctl; echo "${COMPREPLY[@]}"', env=installed.env)
    if proposed != "targets\n":
        raise SystemExit(f"bash completes 'trelmctl targ' to {proposed!r}")


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=Path, help="a build tree to install and test")
    parser.add_argument("--prefix", type=Path, help="an installation to test")
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="trelm-installed-") as folder:
        work = Path(folder)
        prefix = arguments.prefix
        if arguments.build:
            run("cmake", "--install", arguments.build, "--prefix", work / "first", env=dict(os.environ))
            prefix = (work / "first").rename(work / "moved")
        installed = Installation(prefix.resolve(), work)
        check(installed, arguments.build)
        check_completion(installed)
    print("programs in C, C++ and Python work with what is installed")


if __name__ == "__main__":
    main()
