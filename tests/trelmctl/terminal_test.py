"""The tool on a terminal, and while drivers hang. The golden texts hold its output in all other cases."""

from __future__ import annotations

import copy
import fcntl
import json
import os
import pty
import re
import select
import struct
import subprocess
import termios
import time
import unittest
from pathlib import Path
from typing import Any, List

from simulated_host import PATIENCE, SLOWLY, SimulatedHost

LAB = json.loads(re.sub(r"//.*", "", Path(os.environ["TRELM_SOURCE"], "hostsim/hosts/lab.json").read_text(encoding="utf-8")))
LEAVES_THE_SCREEN = "\033[?1049l"


def set_size(terminal: int, columns: int, lines: int) -> None:
    fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", lines, columns, 0, 0))


class Terminal:
    """A shell command on a simulated host, on its own terminal."""

    def __init__(self, host: SimulatedHost, command: str, columns: int, lines: int) -> None:
        words = host.words(f"export TERM=xterm; {command}")
        self.seen = ""
        self.process, self.terminal = pty.fork()
        if self.process == 0:
            set_size(0, columns, lines)
            os.execv(words[0], words)

    def resize(self, columns: int, lines: int) -> None:
        set_size(self.terminal, columns, lines)

    def type(self, keys: str) -> None:
        os.write(self.terminal, keys.encode())

    def read(self) -> None:
        """Adds to what was seen. Raises OSError after the program has ended."""
        if not select.select([self.terminal], [], [], PATIENCE)[0]:
            raise TimeoutError(f"nothing more on the terminal after {self.seen!r}")
        self.seen += os.read(self.terminal, 65536).decode("latin-1")

    def before(self, text: str) -> str:
        """Waits for the text and drops it. Returns what came before it."""
        while text not in self.seen:
            self.read()
        found, _, self.seen = self.seen.partition(text)
        return found

    def frame(self) -> List[str]:
        """The lines of the next picture of `stats --watch`: up to the sequence that clears the rest."""
        self.before("\033[H")
        return [line.partition("\033[K")[0] for line in self.before("\033[J").rstrip("\n").split("\n")]

    def screen_with(self, text: str) -> str:
        """The whole screen of top, drawn anew until the text is on it."""
        end, screen = time.monotonic() + PATIENCE, ""
        while text not in screen:
            if time.monotonic() > end:
                raise TimeoutError(f"{text!r} is not on\n{screen}")
            self.type("\f")
            self.before("\033[H\033[2J")
            screen = self.before("q quit")
        return screen

    def finish(self) -> int:
        """The exit status, after the program has ended by itself."""
        try:
            while True:
                self.read()
        except OSError:
            status = os.waitpid(self.process, 0)[1]
            return os.WEXITSTATUS(status) if os.WIFEXITED(status) else -os.WTERMSIG(status)


class TerminalTest(unittest.TestCase):
    def setUp(self) -> None:
        self.host = SimulatedHost(copy.deepcopy(LAB))
        self.addCleanup(self.host.remove)

    def terminal(self, command: str, columns: int = 80, lines: int = 24) -> Terminal:
        started = Terminal(self.host, command, columns, lines)
        self.addCleanup(os.close, started.terminal)
        return started

    def fail_requests(self, **fault: str) -> None:
        self.host.host["faults"] = [{"count": "always", "errno": "EIO", **fault}]
        self.host.write()

    def test_watch_fills_a_terminal_follows_its_size_and_ends_on_an_interrupt(self) -> None:
        terminal = self.terminal("exec trelmctl stats 1 --watch 0.1")
        frame = terminal.frame()
        self.assertEqual(frame[0][:19], "Port 1/0, every 0.1")
        self.assertEqual(frame[1].split(), ["COUNTER", "TOTAL", "PER", "SECOND"])
        self.assertEqual((len(frame), max(map(len, frame)) <= 80), (24, True))
        terminal.resize(40, 10)
        while len(frame) > 10:
            frame = terminal.frame()
        self.assertEqual((len(frame), max(map(len, frame))), (10, 40))
        terminal.type("\003")
        self.assertEqual(terminal.finish(), 0)

    def test_a_request_takes_the_place_of_the_line_that_says_what_is_waited_for(self) -> None:
        terminal = self.terminal("exec trelmctl -v luns 1 0", columns=40)
        terminal.before("target 0: listing its LUNs")
        terminal.before("\r\033[Ktrelmctl: > port 1/0: TRELM_GetLunInfo\r\n    target 0")
        self.assertEqual(terminal.finish(), 0)

    def test_top_shows_ports_and_takes_keys(self) -> None:
        terminal = self.terminal("exec trelmctl top --every 0.1")
        terminal.before("vmhba32   online")
        for keys, shown in (
            ("s", "traffic"),
            ("\n", "FCoE frames received"),  # the page of a port
            ("\033[6~\033[6~", "recoveries"),  # the last counter
            ("\033", "sort by: traffic"),
        ):
            terminal.type(keys)
            terminal.before(shown)
        terminal.resize(60, 12)
        self.assertNotIn("ERROR/S", terminal.screen_with("PORT"))

    def test_top_leaves_the_terminal_as_it_was_on_a_key_an_interrupt_and_a_quit(self) -> None:
        for key in ("q", "\003", "\034"):
            terminal = self.terminal("exec trelmctl top --every 0.1")
            terminal.before("vmhba32")
            terminal.type(key)
            terminal.before(LEAVES_THE_SCREEN)
            self.assertEqual(terminal.finish(), 0)

    def test_top_ends_when_its_terminal_is_closed(self) -> None:
        terminal = Terminal(self.host, "exec trelmctl top --every 0.1", 80, 24)
        terminal.before("vmhba32")
        os.close(terminal.terminal)
        os.waitpid(terminal.process, 0)

    def test_top_keeps_to_its_port_while_others_come_and_go_and_samples_fail(self) -> None:
        terminal = self.terminal("exec trelmctl top --every 0.1 --rescan 0.3")
        terminal.screen_with("6 ports")
        terminal.type("jj\n")
        terminal.screen_with("Port 1  vmhba32  online")
        del self.host.host["adapters"][1], self.host.host["adapters"][0]["ports"][0]["virtual_ports"]
        self.host.write()
        terminal.screen_with("Port 0  vmhba32  online")
        terminal.type("\033")
        self.assertNotIn("vmhba36", terminal.screen_with("2 ports"))
        self.host.host = copy.deepcopy(LAB)
        self.fail_requests(operation="port_stats", port="kron-b")
        terminal.screen_with("\033[31m2      vmhba35   online")
        self.fail_requests(operation="scsi", port="kron-b")
        terminal.type("jjj\n")
        terminal.screen_with("online  no answer  50:00:02:ca:5d:00:00:11")
        self.fail_requests(operation="port_info", port="kron-b")
        terminal.screen_with("the driver failed the request without a known status")
        self.fail_requests(operation="init")
        terminal.type("\033")
        terminal.screen_with("the library cannot be loaded")
        del self.host.host["faults"]
        self.host.write()
        terminal.screen_with("6 ports")
        terminal.type("q")
        self.assertEqual(terminal.finish(), 0)

    def test_top_fits_a_page_to_the_terminal_and_asks_nothing_for_a_key(self) -> None:
        terminal = self.terminal("exec trelmctl -v top --every 1000 2>log", 40, 12)
        terminal.screen_with("vmhba35")
        terminal.type("jj\n")
        terminal.screen_with("2 LUNs")
        log = self.host.directory / "log"
        asked = log.read_text(encoding="utf-8")
        terminal.type("xxxxx" + 7 * "\033[6~")
        self.assertIn("0.0/s", terminal.screen_with("Session-level recover>"))
        self.assertEqual(log.read_text(encoding="utf-8"), asked)
        terminal.type("j")
        terminal.screen_with("Port 1/1")
        terminal.type("q")
        self.assertEqual(terminal.finish(), 0)
        self.assertEqual(self.terminal("exec trelmctl -v top").finish(), 2)  # requests would garble the screen

    def test_top_ends_in_order_while_a_driver_hangs(self) -> None:
        for key in ("q", "\003"):
            terminal = self.terminal(SLOWLY + "exec trelmctl top --every 0.1")
            terminal.screen_with("6 ports")
            self.host.hanging(32).touch()
            terminal.screen_with("vmhba32   no answer")
            self.assertIn("vmhba36   online", terminal.screen_with("vmhba35   online"))
            terminal.type(key)
            terminal.before(LEAVES_THE_SCREEN)
            self.assertEqual(terminal.finish(), 0)
            self.host.hanging(32).unlink()

    def test_monitor_tells_of_a_driver_that_hangs_and_of_other_ports(self) -> None:
        self.host.hanging(0).touch()
        command = ["timeout", "--kill-after=1", f"{PATIENCE}", *self.host.words(SLOWLY + "exec trelmctl monitor --every 0.1")]
        with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8") as monitor:
            assert monitor.stdout
            lines: Any = iter(monitor.stdout.readline, "")
            told = []

            def wait_for(text: str) -> None:
                told.append(next(line for line in lines if text in line))

            wait_for("do not list")
            self.host.hanging(0).unlink()
            wait_for("watching")
            self.host.hanging(32).touch()
            wait_for("port 1: state online -> no answer")
            self.host.host["adapters"][1]["ports"][0]["targets"][0]["wwpn"] = "50:00:02:ca:5d:00:00:77"
            self.host.write()
            wait_for("00:77 at port 0: appeared")
            monitor.terminate()
            self.assertNotIn("port 1: gone", "".join(lines))
        self.assertEqual(monitor.returncode, 0)


if __name__ == "__main__":
    unittest.main()
