#!/usr/bin/env python3
"""package_root.py - follows the instructions of the README and the guide in a root directory that contains only a minimal
Debian release and the packages.

Run it as root in a new mount and PID namespace: it mounts file systems and does not unmount them. Other packages come from
the apt sources of this machine.
"""

from __future__ import annotations

import argparse
import os
import shutil
import subprocess
import sys
from pathlib import Path
from typing import List

from documents import blocks, steps

SOURCE = Path(__file__).resolve().parents[2]
SHELLS = "apt install bash-completion zsh fish"
PAGES = r"""for package in libtrelm5 libtrelm-dev trelm-tools; do dpkg -L $package; done | sed -n 's:.*/man/man\(.\)/\(.*\)\..*\.gz:\1 \2:p' |
while read -r section page; do
    shown=$(man "$section" "$page" 2>&1) && [ "$(echo "$shown" | wc -l)" -gt 10 ] || { echo "man $section $page: $shown"; exit 1; }
    echo "$page($section)"
done"""


def command(*words: str, given: str = "") -> str:
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8", input=given)
    if done.returncode:
        raise SystemExit(f"{' '.join(words)}: exit status {done.returncode}\n{done.stdout}")
    return done.stdout


class Root:
    """A machine with only the essential packages of a Debian release."""

    def __init__(self, path: Path) -> None:
        self.path = path
        self.mount("tmpfs", ".", "mode=755")
        ours = command("sh", "-c", '. /etc/os-release; echo "$ID" "$VERSION_CODENAME"').split()
        targets = ["apt-get", "indextargets", "Created-By: Packages", f"Origin: {ours[0].capitalize()}"]
        sources = command(*targets, "--format", "deb $(REPO_URI) $(CODENAME) $(COMPONENT)").splitlines()
        if not sources:
            raise SystemExit(f"apt knows no package of {ours[0]}: run apt-get update")
        command("mmdebstrap", "--mode=root", "--variant=minbase", ours[1], str(path), "-", given="\n".join(sorted(set(sources))))
        for kind, place, options in (("proc", "proc", "rw"), ("devpts", "dev/pts", "newinstance,ptmxmode=666"),
                                     ("tmpfs", "dev/shm", "mode=1777")):
            self.mount(kind, place, options)
        command("mount", "--bind", str(path / "dev/pts/ptmx"), str(path / "dev/ptmx"))
        shutil.copy("/etc/resolv.conf", path / "etc/resolv.conf")
        (path / "etc/apt/apt.conf.d/answers").write_text('APT::Get::Assume-Yes "true";\nAPT::Install-Recommends "false";\n')
        self.run("apt-get update && useradd --create-home --shell /bin/bash agent", "root", "/root")

    def mount(self, kind: str, place: str, options: str) -> None:
        command("mount", "-t", kind, "-o", options, kind, str(self.path / place))

    def run(self, text: str, user: str, directory: str) -> str:
        """Runs a shell command. Its exit status must be 0."""
        environment = ["env", "-i", "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8",
                       f"HOME={directory}", "TERM=dumb", "MANPAGER=cat", "DEBIAN_FRONTEND=noninteractive"]
        return command("chroot", f"--userspec={user}:{user}", str(self.path), *environment, "sh", "-c", f"cd {directory} && {text}")


def follow(root: Root, document: Path, installed_only: bool) -> int:
    """Runs the commands of a document and returns their number. Root runs "sh" blocks, an unprivileged user runs sessions."""
    done = 0
    for block in blocks(document):
        if installed_only and not block.installed:
            continue
        if block.language == "sh" and block.installed:
            for line in block.text.splitlines():
                root.run(line, "root", "/root")
                done += 1
        for step in steps(block):
            print(f"    {step.command}", flush=True)
            text = step.command if not step.on_host else f"trelm-hostsim run hosts/lab.json -- {step.command}"
            output = root.run(text, "agent", "/home/agent")
            if not step.promises(output):
                raise SystemExit(f"{document.name}: {step.command}\nprinted\n{output}instead of\n{step.expected}")
            done += 1
    if not done:
        raise SystemExit(f"{document}: contains no command")
    return done


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--packages", type=Path, required=True, help="the directory of the packages")
    parser.add_argument("--root", type=Path, required=True, help="an empty directory for the root")
    arguments = parser.parse_args()
    packages: List[Path] = [path for path in arguments.packages.glob("*.deb") if "-dbgsym_" not in path.name]
    print("creating a minimal root", flush=True)
    root = Root(arguments.root.resolve())
    for package in packages:
        shutil.copy(package, root.path / "root")
    print("README.md", flush=True)
    done = follow(root, SOURCE / "README.md", True)
    print("the installed guide", flush=True)
    done += follow(root, root.path / "usr/share/doc/libtrelm-dev/docs/guide.md", False)
    pages = root.run(PAGES, "agent", "/home/agent").splitlines()
    print(f"the manual pages: {' '.join(pages)}", flush=True)
    root.run(SHELLS, "root", "/root")
    shutil.copy(SOURCE / "tests/install/installed_test.py", root.path / "home/agent")
    print(root.run("python3 installed_test.py --prefix /usr --all-shells", "agent", "/home/agent"), end="")
    print(f"{len(packages)} packages: {done} commands of the documents and {len(pages)} manual pages work as documented")


if __name__ == "__main__":
    main()
