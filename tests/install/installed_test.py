#!/usr/bin/env python3
"""installed_test.py - uses an installation as the author of an agent does, without access to the rest of the project.

Builds a C program with pkg-config and a C++ program with CMake, and takes a Python program unchanged. Runs each on the
installed simulated host. --build first installs a build tree and then moves the prefix to another directory.
"""

from __future__ import annotations

import argparse
import json
import os
import pty
import select
import shutil
import signal
import subprocess
import tempfile
import time
from pathlib import Path


def run(*command: str | Path, env: dict[str, str]) -> str:
    done = subprocess.run([str(word) for word in command], env=env, capture_output=True, text=True)
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
        examples = self.work / f"examples-{version}"
        shutil.copytree(self.example("cmake").parent, examples)
        project = examples / "cmake/CMakeLists.txt"
        project.write_text(project.read_text().replace("find_package(trelm 5.0 ", f"find_package(trelm {version} "))
        run("cmake", "-S", project.parent, "-B", examples / "build", f"-DCMAKE_PREFIX_PATH={self.prefix}", env=self.env)
        return examples / "build"

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
        raise SystemExit("CMake accepts this version for a program that requires 4.9")
    if build:
        loaded = installed.on_host("sh", "-c", "trelmctl version && cat /proc/self/maps")
        linked = run("ldd", installed.prefix / "bin/trelmctl", installed.prefix / "bin/trelm-hostsim", env=installed.env)
        if str(build) in loaded + linked:
            raise SystemExit(f"the installed programs use the build tree:\n{linked}{loaded}")


SHELLS = {"bash": "bash --norc -i", "zsh": "zsh -f -i", "fish": "fish -i"}
# The commands that load the completion. A shell whose own directories are in the prefix finds the script itself.
PREPARED = {
    "bash": "if [ -e {own} ]; then . {own}; else . {share}/bash-completion/completions/trelmctl; fi",
    "zsh": "[ {share} = /usr/share ] || fpath=({share}/zsh/site-functions $fpath); autoload -Uz compinit; compinit -u -d dump",
    "fish": "true",
}
# The text before the Tab key, and the last word after it.
COMPLETED = {
    "trelmctl sho": "show",
    "trelmctl --ti": "--timeout",
    "trelmctl topology --fo": "--format",
    "trelmctl list --state on": "online",
    "trelmctl show vmhba37": "vmhba37",
    "trelmctl luns vmhba35 ": "0",
    "trelmctl luns 20:01:02:ca:1e:08:04:21 ": "0",
    "trelmctl scsi 0 0 ": "1",
    "trelmctl scsi 0 0 1 12 --out-file agent_in": "agent_in_c",
}


class Terminal:
    """A shell on the lab host, with its own terminal."""

    def __init__(self, installed: Installation, shell: str) -> None:
        self.answer = installed.work / "answer"
        share = installed.prefix / "share"
        environment = {**installed.env, "TERM": "vt100", "LC_ALL": "C.UTF-8", "XDG_DATA_DIRS": f"{share}:/usr/share"}
        start = ["trelm-hostsim", "run", str(share / "trelm-hostsim/hosts/lab.json"), "--", *SHELLS[shell].split()]
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            os.chdir(installed.work)
            os.execvpe(str(installed.prefix / "bin/trelm-hostsim"), start, environment)
        prepared = PREPARED[shell].format(own="/usr/share/bash-completion/bash_completion", share=share)
        self.type(f"{prepared}; echo ready >{self.answer}\n")

    def type(self, keys: str) -> str:
        """Types the keys and returns the text that the shell then writes to the answer file."""
        self.answer.unlink(missing_ok=True)
        os.write(self.terminal, keys.encode())
        shown, until = b"", time.monotonic() + 60
        while not self.answer.exists() or not self.answer.read_text().endswith("\n"):
            if time.monotonic() > until:
                raise SystemExit(f"no answer to {keys!r}; the terminal shows\n{shown.decode(errors='replace')}")
            if select.select([self.terminal], [], [], 0.05)[0]:
                shown += os.read(self.terminal, 65536)
        return self.answer.read_text()

    def completed(self, line: str) -> str:
        return self.type(f"{line}\t\x01echo >{self.answer} \n").split()[-1]

    def close(self) -> None:
        """Ends the shell before its directory is removed, because it writes its history there."""
        try:
            os.write(self.terminal, b"\x15exit\n")
            while select.select([self.terminal], [], [], 20)[0] and os.read(self.terminal, 65536):
                pass
        except OSError:  # the terminal's other end is closed
            pass
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)
        os.close(self.terminal)


def check_completion(installed: Installation, shell: str) -> None:
    terminal = Terminal(installed, shell)
    try:
        wrong = {line: word for line, right in COMPLETED.items() if (word := terminal.completed(line)) != right}
        if wrong:
            raise SystemExit(f"{shell} completes wrongly: {wrong}")
    finally:
        terminal.close()


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=Path, help="a build tree to install and test")
    parser.add_argument("--prefix", type=Path, help="an installation to test")
    parser.add_argument("--all-shells", action="store_true", help="fail if a shell with completion is not installed")
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="trelm-installed-") as folder:
        work = Path(folder)
        prefix = arguments.prefix
        if arguments.build:
            run("cmake", "--install", arguments.build, "--prefix", work / "first", env=dict(os.environ))
            prefix = (work / "first").rename(work / "moved")
        installed = Installation(prefix.resolve(), work)
        check(installed, arguments.build)
        shells = [shell for shell in SHELLS if arguments.all_shells or shutil.which(shell)]
        for shell in shells:
            check_completion(installed, shell)
    print(f"programs in C, C++ and Python work with the installed files; completion works in {', '.join(shells)}")


if __name__ == "__main__":
    main()
