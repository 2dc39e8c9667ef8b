"""A simulated host whose file a test may change while programs run on it.

The environment names the build tree: TRELM_BUILD. For SLOWLY it also names the slow driver: SLOW_DRIVER_LIBRARY.
"""

from __future__ import annotations

import json
import os
import shutil
import tempfile
import time
from pathlib import Path
from typing import Any, Callable, Dict, List, TypeVar

BUILD = Path(os.environ["TRELM_BUILD"])
PATIENCE = 120.0  # seconds; enough for a busy machine
Found = TypeVar("Found")

# Begins a shell command on a host, whose ports then hang as SimulatedHost.hanging() says. A path in LD_PRELOAD cannot contain a
# space, but that of the build tree may. The ASan runtime would otherwise refuse to start, because it is not preloaded first.
SLOWLY = (
    'ln -sf "$SLOW_DRIVER_LIBRARY" slow_driver; export SLOW_DRIVER="$PWD" LD_PRELOAD="$PWD/slow_driver:$LD_PRELOAD" '
    'ASAN_OPTIONS="$ASAN_OPTIONS:verify_asan_link_order=0"; '
)


def wait_until(look: Callable[[], Found], patience: float = PATIENCE) -> Found:
    """Calls `look` until it returns a true value, and returns that. Raises TimeoutError after `patience` seconds."""
    end = time.monotonic() + patience
    while not (found := look()):
        if time.monotonic() > end:
            raise TimeoutError(f"the expected result did not arrive within {patience:g} s")
        time.sleep(0.05)
    return found


class SimulatedHost:
    """The host is in a directory of its own, which remove() removes."""

    def __init__(self, host: Dict[str, Any]) -> None:
        self.directory = Path(tempfile.mkdtemp(prefix="trelm-host-"))
        self.host = host
        self.write()

    def write(self) -> None:
        """Replaces the host file in one step, so that no reader sees a part of it."""
        new = self.directory / "new.json"
        new.write_text(json.dumps(self.host), encoding="utf-8")
        new.replace(self.directory / "host.json")

    def words(self, command: str) -> List[str]:
        """A program and its arguments that run a shell command on the host, in its directory."""
        launcher = [str(BUILD / "bin/trelm-hostsim"), "run", str(self.directory / "host.json"), "--"]
        return [*launcher, "sh", "-c", f'cd "$0"; {command}', str(self.directory)]

    def hanging(self, number: int) -> Path:
        """The port with this SCSI host number hangs as long as the file exists. 0 is also the number of requests to no port."""
        return self.directory / f"hang-{number}"

    def remove(self) -> None:
        shutil.rmtree(self.directory, ignore_errors=True)
