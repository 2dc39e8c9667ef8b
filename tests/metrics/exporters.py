"""Simulated hosts with an exporter each, and HTTP requests to the exporters."""

from __future__ import annotations

import copy
import http.client
import json
import os
import shlex
import signal
import socket
import ssl
import subprocess
from pathlib import Path
from typing import Any, Dict, Optional, Tuple

from simulated_host import PATIENCE, SimulatedHost, wait_until


class Exporter(SimulatedHost):
    """A simulated host and the exporter on it, with a directory that end() removes."""

    def __init__(self, host: Dict[str, Any], *options: str, address: str = "127.0.0.1:0", before: str = "") -> None:
        super().__init__(host)
        command = f"{before}exec {shlex.join(['trelmctl', 'metrics', '--listen', address, *options])}"
        with open(self.directory / "errors", "w", encoding="utf-8") as errors:
            self.process = subprocess.Popen(self.words(command), stderr=errors, start_new_session=True)
        self.address = ""

    def errors(self) -> str:
        return (self.directory / "errors").read_text(encoding="utf-8")

    def wait_for_address(self) -> str:
        def look() -> str:
            if self.process.poll() is not None:
                raise RuntimeError(f"the exporter ended: {self.errors()}")
            _, found, address = self.errors().partition("serving metrics on ")
            return address.strip() if found and address.endswith("\n") else ""

        self.address = self.address or wait_until(look)
        return self.address

    def connect(self) -> socket.socket:
        address = self.wait_for_address()
        if address.startswith("unix:"):
            connection = socket.socket(socket.AF_UNIX)
            connection.connect(address[len("unix:") :])
            return connection
        host, _, port = address.rpartition(":")
        return socket.create_connection((host.strip("[]"), int(port)), timeout=PATIENCE)

    def get(
        self, path: str = "/metrics", method: str = "GET", tls: Optional[ssl.SSLContext] = None, **headers: str
    ) -> Tuple[int, Dict[str, str], str]:
        """Sends a request with these headers ('_' instead of '-') and returns status, headers and text of the response."""
        connection = http.client.HTTPConnection("localhost", timeout=PATIENCE)
        connection.sock = tls.wrap_socket(self.connect(), server_hostname="localhost") if tls else self.connect()
        try:
            connection.request(method, path, headers={name.replace("_", "-"): text for name, text in headers.items()})
            response = connection.getresponse()
            return response.status, dict(response.getheaders()), response.read().decode()
        finally:
            connection.close()

    def metrics(self) -> Dict[str, float]:
        """The values of all samples, by name including labels."""
        lines = self.get(Accept="application/openmetrics-text;version=1.0.0")[2].splitlines()
        samples = [line.rpartition(" ") for line in lines if not line.startswith("#")]
        return {name: float(value) for name, _, value in samples}

    def kill(self) -> None:
        """Kills the exporter, so it cannot clean up."""
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass  # it has ended
        self.process.wait()

    def end(self) -> int:
        """Terminates the exporter and returns its exit status."""
        if self.process.poll() is None:
            self.process.terminate()
        try:
            return self.process.wait(PATIENCE)
        finally:
            self.kill()
            self.remove()


def wwn(kind: str, host: int, index: int) -> str:
    """A WWN that only this port of this host has."""
    return f"{kind}:00:c0:5a:{1 + host // 256:02x}:{host % 256:02x}:{index:02x}"


def small_host(ports: int = 2, number: int = 0) -> Dict[str, Any]:
    """The host of host.json with so many ports like its only one. The WWNs and the rates of the counters depend on the host's
    number."""
    host: Dict[str, Any] = json.loads(Path(__file__).with_name("host.json").read_text(encoding="utf-8"))
    adapter = host["adapters"][0]
    adapter["ports"] = [copy.deepcopy(adapter["ports"][0]) for _ in range(ports)]
    for index, port in enumerate(adapter["ports"]):
        port.update(name=f"port-{index}", function=index, host_no=index)
        port.update(wwnn=wwn("20:00", number, index), wwpn=wwn("20:01", number, index))
        for counter in port["counters"].values():
            counter["rate"] *= number + 1
    return host
