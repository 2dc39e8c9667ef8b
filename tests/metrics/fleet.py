"""A fleet of simulated hosts with an exporter each, scraped by a real Prometheus with the rules of contrib/prometheus.

    fleet.py [HOSTS] [--speed FACTOR]

Breaks links, targets, FCFs, drivers, adapters and an exporter by editing host files, repairs them again, and prints when each
alert fired and cleared. Exits with status 1 if an expected alert does not fire or clear, if an alert fires without a cause, or if
a query of the dashboard finds nothing. Divides the durations in the rules and the scrape interval by the factor. All servers
listen on the loopback address.

The environment names the trees: TRELM_SOURCE and TRELM_BUILD.
"""

from __future__ import annotations

import argparse
import concurrent.futures
import contextlib
import json
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.parse
import urllib.request
from dataclasses import dataclass, field
from pathlib import Path
from typing import AbstractSet, Any, Callable, Dict, Iterator, List, Optional, Set, Tuple

from exporters import Exporter, small_host, wwn
from simulated_host import PATIENCE, wait_until

SOURCE = Path(os.environ["TRELM_SOURCE"])
CONTRIB = SOURCE / "contrib/prometheus"
UNITS = {"s": 1, "m": 60, "h": 3600, "d": 86400}
Host = Dict[str, Any]
Alert = Tuple[str, str]  # name of the alert, name of the host


def faster(rules: str, factor: float) -> str:
    """The rules with every duration divided by the factor."""

    def shorter(match: "re.Match[str]") -> str:
        return f"{match[1]}{max(1, round(int(match[2]) * UNITS[match[3]] * 1000 / factor))}ms"

    return re.sub(r"(for: |\[)(\d+)([smhd])\b", shorter, rules)


def fleet_host(number: int) -> Host:
    """Every host has its own WWNs and rates. Half of the hosts have virtual ports. The others have a second adapter: its port
    never had a link, or its driver fails requests for statistics."""
    host = small_host(number=number)
    host["name"] = host_name(number)
    host["faults"] = []
    if number % 2 == 0:
        port(host)["virtual_ports"] = [
            {"npiv_index": i, "wwnn": wwn("28:00", number, i), "wwpn": wwn("28:01", number, i)} for i in range(1, 2 + number // 2 % 3)
        ]
        return host
    other = small_host(1, 128 * 256 + number)["adapters"][0]
    other["pci"]["address"] = "0000:5e:00"
    other["ports"][0].update(name="other", host_no=9, targets=[], counters={"fc_crc_err_frames": 5000})
    host["adapters"].append(other)
    if refuses_statistics(number):
        refuse(host, "port_stats", "other")
    else:
        other["ports"][0]["link"] = "link_down"
    return host


def refuse(host: Host, operation: str, port_name: str) -> None:
    host["faults"].append({"operation": operation, "port": port_name, "status": 5, "count": "always"})


def host_name(number: int) -> str:
    return f"esx-{number:02d}"


def refuses_statistics(number: int) -> bool:
    return number % 4 == 3


def standing_alerts(size: int) -> Set[Alert]:
    return {("TrelmScrapeFailing", host_name(number)) for number in range(1, size + 1) if refuses_statistics(number)}


def port(host: Host) -> Host:
    found: Host = host["adapters"][0]["ports"][0]
    return found


def cut(host: Host) -> None:
    port(host)["link"] = "link_down"


def count_faster(name: str) -> Callable[[Host], None]:
    return lambda host: port(host)["counters"].update({name: {"start": 1000, "rate": 20}})


def take_targets(host: Host, count: int) -> None:
    """Takes that many targets from that many ports."""
    for each in host["adapters"][0]["ports"][:count]:
        for target in each["targets"][:count]:
            target["offline"] = True


@dataclass
class Damage:
    """A fault of one host, and the alert that it must cause."""

    what: str
    alert: str
    breaks: Optional[Callable[[Host], object]]  # None: the exporter is killed
    also: AbstractSet[str] = frozenset()  # other alerts that it may cause
    flaps: bool = False  # caused and repaired repeatedly until the alert fires
    times: Dict[str, float] = field(default_factory=dict)


def damages() -> List[Damage]:
    return [
        Damage("pull the link of a port", "TrelmLinkDown", cut),
        Damage("pull it and plug it in, again and again", "TrelmLinkFlapping", cut, {"TrelmLinkDown"}, flaps=True),
        Damage("damage frames on their way", "TrelmCrcErrors", count_faster("fc_crc_err_frames")),
        Damage("lose frames", "TrelmMissingFrames", count_faster("missing_frames")),
        Damage("let sequences time out", "TrelmTimeouts", count_faster("seq_timeouts")),
        Damage("abort commands", "TrelmAborts", count_faster("abts_cnt")),
        Damage("take a target from one port", "TrelmTargetLost", lambda host: take_targets(host, 1)),
        Damage("take both targets from both ports", "TrelmAllPathsLost", lambda host: take_targets(host, 2), {"TrelmTargetLost"}),
        # The port of the second adapter, which was never online, gets the number of a port that was. Its counters are higher.
        Damage("remove an adapter", "TrelmPortGone", lambda host: host["adapters"].pop(0), {"TrelmAllPathsLost", "TrelmScrapeFailing"}),
        Damage("unmap a LUN", "TrelmLunCountChanged", lambda host: port(host)["targets"][0]["luns"].pop()),
        Damage("take the FCF from a port", "TrelmFcfLost", lambda host: port(host)["fcfs"].clear()),
        Damage("kill the exporter", "TrelmExporterDown", None),
        Damage("let the driver refuse its statistics", "TrelmScrapeFailing", lambda host: refuse(host, "port_stats", "port-0")),
        # Until the library is loaded again, the driver refuses requests for the removed port.
        Damage("remove a virtual port", "TrelmVirtualPortGone", lambda host: port(host)["virtual_ports"].pop(0), {"TrelmScrapeFailing"}),
    ]


class Prometheus:
    """A Prometheus server with its own directory."""

    def __init__(self, directory: Path, targets: Dict[str, str], factor: float) -> None:
        self.directory = directory
        rules = directory / "trelm.rules.yml"
        rules.write_text(faster((CONTRIB / rules.name).read_text(encoding="utf-8"), factor), encoding="utf-8")
        static = [{"targets": [address], "labels": {"instance": name}} for name, address in targets.items()]
        interval = f"{round(30_000 / factor)}ms"
        config = {
            "global": {"scrape_interval": interval, "scrape_timeout": interval, "evaluation_interval": interval},
            "rule_files": [str(rules)],
            "scrape_configs": [{"job_name": "trelm", "static_configs": static}],
        }
        (directory / "prometheus.yml").write_text(json.dumps(config), encoding="utf-8")  # JSON is YAML
        self.process, self.url = self.start()

    def start(self) -> "tuple[subprocess.Popen[bytes], str]":
        """Prometheus does not accept port 0. So this chooses a free port, and another one if that was taken meanwhile."""
        for _ in range(5):
            with socket.socket() as probe:
                probe.bind(("127.0.0.1", 0))
                address = f"127.0.0.1:{probe.getsockname()[1]}"
            options = [f"--config.file={self.directory}/prometheus.yml", f"--storage.tsdb.path={self.directory}/data"]
            with open(self.directory / "prometheus.log", "w", encoding="utf-8") as log:
                process = subprocess.Popen(["prometheus", *options, f"--web.listen-address={address}"], stderr=log)
            url = f"http://{address}"
            if wait_until(lambda: process.poll() is not None or self.is_ready(url)) and process.poll() is None:
                return process, url
        raise RuntimeError((self.directory / "prometheus.log").read_text(encoding="utf-8"))

    @staticmethod
    def is_ready(url: str) -> bool:
        try:
            return urllib.request.urlopen(f"{url}/-/ready", timeout=5).status == 200
        except OSError:
            return False

    def ask(self, path: str, **parameters: str) -> Any:
        with urllib.request.urlopen(f"{self.url}/api/v1/{path}?{urllib.parse.urlencode(parameters)}", timeout=PATIENCE) as reply:
            return json.load(reply)["data"]

    def query(self, expression: str) -> List[Any]:
        return list(self.ask("query", query=expression)["result"])

    def wait_for(self, expression: str) -> None:
        wait_until(lambda: self.query(expression))

    def firing(self) -> Set[Alert]:
        alerts = [each["labels"] for each in self.ask("alerts")["alerts"] if each["state"] == "firing"]
        return {(labels["alertname"], labels["instance"]) for labels in alerts}

    def end(self) -> None:
        self.process.kill()
        self.process.wait()


class Fleet:
    """Exporters of many hosts, and a Prometheus that scrapes them. The stack ends them."""

    def __init__(self, stack: contextlib.ExitStack, size: int, factor: float) -> None:
        self.stack = stack
        self.exporters = {host_name(number): self.start_exporter(fleet_host(number)) for number in range(1, size + 1)}
        targets = {name: exporter.wait_for_address() for name, exporter in self.exporters.items()}
        self.prometheus = Prometheus(Path(stack.enter_context(tempfile.TemporaryDirectory())), targets, factor)
        stack.callback(self.prometheus.end)

    def start_exporter(self, host: Host, address: str = "127.0.0.1:0") -> Exporter:
        exporter = Exporter(host, "--luns", "--reload", "2", "--deadline", "0.8", address=address)
        self.stack.callback(exporter.end)
        return exporter

    def inflict(self, name: str, damage: Damage) -> None:
        exporter = self.exporters[name]
        if damage.breaks is None:
            exporter.kill()
            return
        damage.breaks(exporter.host)
        exporter.write()

    def flap(self, name: str, damage: Damage) -> None:
        online = f'trelm_port_state{{instance="{name}", port="0", trelm_port_state="online"}}'
        end = time.monotonic() + PATIENCE
        while (damage.alert, name) not in self.prometheus.firing() and time.monotonic() < end:
            self.inflict(name, damage)
            self.prometheus.wait_for(f"{online} == 0")
            self.mend(name, damage)
            self.prometheus.wait_for(f"{online} == 1")

    def mend(self, name: str, damage: Damage) -> None:
        exporter = self.exporters[name]
        exporter.host = fleet_host(int(name.rpartition("-")[2]))
        exporter.write()
        if damage.breaks is None:
            self.exporters[name] = self.start_exporter(exporter.host, exporter.address)
            self.exporters[name].wait_for_address()


def watch(prometheus: Prometheus, cases: Dict[str, Damage], standing: Set[Alert], firing: bool) -> Set[Alert]:
    """Waits until the alert of every damage fires (or has cleared) and records the times. Returns the alerts without a cause."""
    what = "fired" if firing else "cleared"
    begun = time.monotonic()
    caused = standing | {(alert, name) for name, damage in cases.items() for alert in (damage.alert, *damage.also)}
    uncaused: Set[Alert] = set()

    def look() -> bool:
        now = prometheus.firing()
        uncaused.update(now - caused)
        for name, damage in cases.items():
            if what not in damage.times and ((damage.alert, name) in now) == firing:
                damage.times[what] = time.monotonic() - begun
        return all(what in damage.times for damage in cases.values()) and (firing or now == standing)

    try:
        wait_until(look, patience=2 * PATIENCE)
    except TimeoutError:
        uncaused |= set() if firing else prometheus.firing() - standing  # the table shows the alerts that are missing
    return uncaused


def values_of_variables(prometheus: Prometheus, board: Any) -> Dict[str, str]:
    """The values of the dashboard's variables if "All" is chosen for each. A variable's query may use the variables before it."""
    values = {"$__rate_interval": "10s"}
    for variable in board["templating"]["list"]:
        if variable["type"] == "query":
            selector, label = re.fullmatch(r"label_values\((.*), (\w+)\)", variable["definition"]).groups()  # type: ignore[union-attr]
            found = {labels[label] for labels in prometheus.ask("series", **{"match[]": filled(selector, values)})}
            print(f"dashboard: ${variable['name']} has {len(found)} values")
            values["$" + variable["name"]] = "|".join(sorted(found))
    return values


def filled(text: str, values: Dict[str, str]) -> str:
    for name, value in values.items():
        text = text.replace(name, value)
    return text


def empty_queries(prometheus: Prometheus) -> List[str]:
    """The queries of the dashboard that find nothing although there are hosts of every kind."""
    board = json.loads((CONTRIB / "trelm.dashboard.json").read_text(encoding="utf-8"))
    values = values_of_variables(prometheus, board)
    queries = [filled(target["expr"], values) for panel in board["panels"] for target in panel["targets"]]
    found = [query for query in queries if prometheus.query(query)]
    print(f"dashboard: {len(found)} of {len(queries)} queries find something")
    return [query for query in queries if query not in found] + [f"${name}" for name, value in values.items() if not value]


def table(cases: Dict[str, Damage]) -> Iterator[str]:
    yield f"{'HOST':8}{'DAMAGE':40}{'ALERT':24}{'FIRED':>8}{'CLEARED':>9}"
    for name, damage in cases.items():
        times = [f"{damage.times[what]:.1f} s" if what in damage.times else "never" for what in ("fired", "cleared")]
        yield f"{name:8}{damage.what:40}{damage.alert:24}{times[0]:>8}{times[1]:>9}"


def run(size: int, factor: float) -> bool:
    with contextlib.ExitStack() as stack, concurrent.futures.ThreadPoolExecutor() as flapping:
        fleet = Fleet(stack, size, factor)
        prometheus = fleet.prometheus
        prometheus.wait_for(f'count(up{{job="trelm"}} == 1) == {size}')
        print(f"{size} hosts are up under {prometheus.url}; rules run {factor:g} times as fast")
        prometheus.wait_for("min(count_over_time(trelm_library_loaded[1m])) > 5")  # for rules with a range
        standing = standing_alerts(size)
        uncaused = watch(prometheus, {}, standing, False)
        print(f"before anything breaks: {len(standing)} alerts of standing faults")
        cases = dict(zip(fleet.exporters, damages()))
        for name, damage in cases.items():
            if damage.flaps:
                flapping.submit(fleet.flap, name, damage)
            else:
                fleet.inflict(name, damage)
        uncaused |= watch(prometheus, cases, standing, True)
        empty = empty_queries(prometheus)
        for name, damage in cases.items():
            fleet.mend(name, damage)
        uncaused |= watch(prometheus, cases, standing, False)
    print("\n".join(table(cases)))
    for query in empty:
        print(f"finds nothing: {query}")
    for alert, name in sorted(uncaused):
        print(f"alert without a cause: {alert} of {name}")
    return not empty and not uncaused and all(len(damage.times) == 2 for damage in cases.values())


def main() -> int:
    parser = argparse.ArgumentParser(description="A fleet of simulated hosts under a real Prometheus.")
    parser.add_argument("hosts", nargs="?", type=int, default=20, help="number of hosts (default 20); each damage needs its own host")
    parser.add_argument("--speed", type=float, default=30, help="divide the durations of the rules by this (default 30)")
    arguments = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # so that __exit__ ends all processes
    return 0 if run(arguments.hosts, arguments.speed) else 1


if __name__ == "__main__":
    sys.exit(main())
